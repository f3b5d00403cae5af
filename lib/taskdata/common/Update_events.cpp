#include "Update_events.h"

#include <QPointer>

namespace TC {
namespace Task_data {

namespace {
// One function-local static per kind: registered on first use, under the runtime's guard.
template <int S>
QEvent::Type type_of()
{
    static const QEvent::Type type = QEvent::Type(QEvent::registerEventType(21572));
    return type;
}
} // namespace

QEvent::Type registered_event_type(int slot)
{
    static QEvent::Type (*const types[])() = {type_of<0>, type_of<1>, type_of<2>, type_of<3>, type_of<4>, type_of<5>};
    static_assert(sizeof(types) / sizeof(types[0]) == flush_event_slot + 1, "one type per update type and the flush");
    return types[qBound(0, slot, flush_event_slot)]();
}

bool post_flush_and_wait(QObject* receiver)
{
    if (!receiver)
        return false;
    QPointer<QObject> alive(receiver);
    QSemaphore done;
    QCoreApplication::postEvent(receiver, new Qt_event<Flush_event>(Flush_event{done}),
                                Qt::LowEventPriority);
    // A receiver destroyed first takes the unhandled flush with it; nothing would release us.
    while (!done.tryAcquire(1, 20))
        if (alive.isNull())
            return false;
    return true;
}

namespace Elements {
namespace Client {

Event_sender::~Event_sender() = default;

Event_types_ids::Event_types_ids()
    : attribute_update(registered_event_type(attribute_updated)),
      child_added(registered_event_type(Task_data::child_added)),
      child_removed(registered_event_type(Task_data::child_removed)),
      binary_appended(registered_event_type(Task_data::binary_appended)),
      binary_modified(registered_event_type(Task_data::binary_modified)),
      flush(registered_event_type(flush_event_slot))
{
}

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC
