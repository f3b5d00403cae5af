// The hand-written part of Time_log (the rest is expanded from the catalogue in Catalogue.cpp).
#include "Catalogue.h"

#include <cstdint>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

void Time_log::notify_timelog_write(int records, unsigned int bytes)
{
    const QSharedPointer<Element> self = get_sp();
    if (!self)
        return;
    notify_binary_appended(self);
    const QSharedPointer<Element> task = parent_sp();
    Util::Signal_sender* named = task ? task->connected_signals() : nullptr;
    if (!named)
        return;
    const int32_t r = records;
    const uint32_t b = bytes;
    named->emit_signal(QByteArray(), "timelog_write", Q_ARG(int32_t, r), Q_ARG(uint32_t, b));
}

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
