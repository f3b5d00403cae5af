#include "Update_events.h"

#include <QPointer>

namespace TC {
namespace Task_data {

namespace {
// One function-local static per kind: registered on first use, under the runtime's guard.
template <Event_slot S>
QEvent::Type type_of()
{
    static const QEvent::Type type = QEvent::Type(QEvent::registerEventType(21572));
    return type;
}
} // namespace

QEvent::Type registered_event_type(Event_slot slot)
{
    switch (slot) {
    case slot_attribute_update:
        return type_of<slot_attribute_update>();
    case slot_child_added:
        return type_of<slot_child_added>();
    case slot_child_removed:
        return type_of<slot_child_removed>();
    case slot_binary_appended:
        return type_of<slot_binary_appended>();
    case slot_binary_modified:
        return type_of<slot_binary_modified>();
    case slot_flush:
    case num_event_slots:
        break;
    }
    return type_of<slot_flush>();
}

bool post_flush_and_wait(QObject* receiver)
{
    if (!receiver)
        return false;
    QPointer<QObject> alive(receiver);
    QSemaphore done;
    QCoreApplication::postEvent(receiver, new Qt_event<Flush_event>(QSharedPointer<const Flush_event>::create(Flush_event{done})),
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
    : attribute_update(registered_event_type(slot_attribute_update)),
      child_added(registered_event_type(slot_child_added)),
      child_removed(registered_event_type(slot_child_removed)),
      binary_appended(registered_event_type(slot_binary_appended)),
      binary_modified(registered_event_type(slot_binary_modified)),
      flush(registered_event_type(slot_flush))
{
}

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC
