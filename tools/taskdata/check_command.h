// `taskdata check DIR [--json]`: everything an operator should know before sending a task data
// directory to a machine. Uses the library's public API only; the streams belong to the caller.
// One thread at a time per pair of streams.
//
// What is found, and how:
// - The XML files the library reads (main file, external files of XFR references, individually
//   saved elements, the link list) are scanned once more as text, because the tree no longer holds
//   what the library had to change while reading. Against the catalogue's specs for the document's
//   major format version this finds: identifiers used twice (the library reads the later element
//   without identifier) or malformed; references that are no identifier text; numbers out of range
//   (see below); texts that are no number or date-time; texts longer than allowed (cut on writing);
//   required attributes missing; attributes, elements and child kinds the version or the kind does
//   not have (left out on writing, or not read at all); external and individually saved element
//   files that are missing.
// - Out of range: an integer or floating-point attribute whose text is a number outside the limits
//   of the attribute's spec for the document's format version (for attributes whose limits differ
//   by version, the member of the family for that version). The library would store another value
//   than the text says (clamped, or wrapped by a narrower type) or write the version's default
//   instead, so the machine would not get what the text promises. Hexadecimal attributes (DDIs,
//   NAMEs) must also have their fixed number of digits. The root's version attributes are checked
//   as a supported format version instead.
// - From the loaded tree: references whose target never appeared (the manager's pending links),
//   binary and attached files that are missing (GRD, TLG .BIN and .XML, PNT J, AFE), files whose
//   size contradicts their length attribute or, for grids, the cell count.
#pragma once

#include <QStringList>
#include <QTextStream>
#include <QVector>

namespace Taskdata_tool {
struct Loaded_dir;

struct Check_problem
{
    QString code;
    QString element;   // path of the element, "" for the directory as a whole
    QString attribute; // XML name of the attribute concerned, if any
    QString file;      // file name within the directory, if known
    int line = 0;      // line in that file, 0 when not known
    QString message;
    // What writing the directory changes because of it (change_summary.h); empty when nothing.
    QString change = QString();
};

// Everything check finds in a loaded directory, judged for writing it as format `version`.
QVector<Check_problem> find_problems(const Loaded_dir& d, int version);
} // namespace Taskdata_tool

// args are the words after "check". Returns 0 when nothing was found, 1 when problems were
// found, 2 on bad usage or when the directory cannot be loaded.
int run_check_command(const QStringList& args, QTextStream& out, QTextStream& err);
