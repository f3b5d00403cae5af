// `taskdata timelog DIR [--tlg NAME] [--csv FILE]`: describes the binary time logs of a task
// data directory (which fields each record carries, what each logged value is, how many
// records, first and last time, where) and writes one of them as CSV. Uses only the library's
// public API; the streams belong to the caller. Call from one thread at a time.
#pragma once

#include <QSharedPointer>
#include <QStringList>
#include <QTextStream>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {
class Time_log;
}
} // namespace Elements
} // namespace Task_data
} // namespace TC

// args are the words after "timelog". Returns 0 when every selected time log decoded, 1 when
// one could not be decoded (missing or mislength binary, unusable header, cut-off records,
// values of numbers the header does not list), 2 on bad usage or when the directory cannot be
// loaded or the CSV file cannot be written.
int run_timelog_command(const QStringList& args, QTextStream& out, QTextStream& err);

// Why `timelog` refuses the time log, in its words ("record 12 is unreadable", "3 bytes after
// the last whole record", the decoder's reason when it cannot be set up); empty when it
// decodes. For `taskdata check`.
QStringList time_log_problems(const QSharedPointer<TC::Task_data::Elements::Base::Time_log>& tlg);
