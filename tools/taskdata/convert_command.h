// `taskdata convert DIR OUTDIR [--format-version 3|4] [--no-proprietary]`: reads a task data
// directory and writes it again, optionally for another format version or without proprietary
// content, into a complete output directory (main file, link list and every binary, time log and
// attached file the written elements refer to). Uses the library's public API only; the streams
// belong to the caller. One thread at a time per pair of streams.
#pragma once

#include <QStringList>
#include <QTextStream>

// args are the words after "convert". Returns 0 when written, 2 on bad usage or an unloadable
// input, 3 when the output could not be written.
int run_convert_command(const QStringList& args, QTextStream& out, QTextStream& err);
