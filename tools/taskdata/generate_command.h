// `taskdata generate OUTDIR [--fields N] [--points K] [--tasks T] [--seed S]`: writes a synthetic,
// valid task data directory (format version 4) of a chosen size through the library, for users
// testing their pipelines and for the benchmarks. The same options and seed give the same files.
// Uses the library's public API only; the streams belong to the caller. One thread at a time.
#pragma once

#include <taskdata/elements/client/Element_man.h>

#include <QStringList>
#include <QTextStream>

struct Generate_options
{
    int fields = 10;   // partfields, each with one boundary
    int points = 100;  // points per boundary ring, the last repeating the first (at least 4)
    int tasks = 5;     // tasks, spread over the fields
    quint64 seed = 1;
};

// Builds the synthetic tree in `man` (a new root) through the client handles, announcing
// nothing; answers false for options out of range.
bool build_generated_tree(const TC::Task_data::Elements::Client::Element_man& man, const Generate_options& options);

// args are the words after "generate". Returns 0 when written, 2 on bad usage, 3 when the output
// could not be written.
int run_generate_command(const QStringList& args, QTextStream& out, QTextStream& err);
