// `taskdata info DIR [--json]`: what a task data directory holds (format version, software names,
// element counts per kind, tasks, files used and unused, load warnings). Uses the library's public
// API only; the streams belong to the caller. One thread at a time per pair of streams.
#pragma once

#include <QStringList>
#include <QTextStream>

// args are the words after "info". Returns 0 when printed, 2 on bad usage or an unloadable directory.
int run_info_command(const QStringList& args, QTextStream& out, QTextStream& err);
