// `taskdata ddi NUMBER|NAME`: looks a process data dictionary entry (ISO 11783-11 DDI) up by
// number or by part of its designator. Uses only the library's public API; the streams belong to
// the caller. Call from one thread at a time per pair of streams.
#pragma once

#include <QStringList>
#include <QTextStream>

// args are the words after "ddi". A number is decimal or hexadecimal with 0x; anything else is
// matched case-insensitively as part of a designator (several words are joined by one space).
// Returns 0 when something was printed, 1 when nothing matched, 2 on bad usage.
int run_ddi_command(const QStringList& args, QTextStream& out, QTextStream& err);
