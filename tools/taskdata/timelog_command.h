// `taskdata timelog DIR [--tlg NAME] [--csv FILE]`: describes the binary time logs of a task
// data directory (which fields each record carries, what each logged value is, how many
// records, first and last time, where) and writes one of them as CSV. Uses only the library's
// public API; the streams belong to the caller. Call from one thread at a time.
#pragma once

#include <QStringList>
#include <QTextStream>

// args are the words after "timelog". Returns 0 when every selected time log decoded, 1 when
// one could not be decoded (missing or mislength binary, unusable header, cut-off records,
// values of numbers the header does not list), 2 on bad usage or when the directory cannot be
// loaded or the CSV file cannot be written.
int run_timelog_command(const QStringList& args, QTextStream& out, QTextStream& err);
