// What writing a task data directory changes, one line per kind of change with a count and the
// first place it happens: `taskdata convert` ends with these lines (and with --strict refuses to
// write when there is any), `taskdata check` lists the same. The kinds come from the problems
// check finds (check_command.h), each tagged by the scan with the change it causes.
// Tool thread only.
#pragma once

#include "check_command.h"

#include <QJsonArray>
#include <QString>
#include <QVector>

namespace Taskdata_tool {

struct Change_line
{
    QString kind;        // "texts cut", ...
    int count = 0;
    Check_problem first; // where it happens first
};

// The change a problem of this code causes when the directory is written as `version`; empty
// for problems that change nothing written (missing files, unresolved references).
QString change_of(const QString& code, bool identifier, int version);

// The changes among `problems`, one line per kind in a fixed order. Unknown attributes are kept
// when proprietary content is kept, and left out otherwise.
QVector<Change_line> summarize_changes(const QVector<Check_problem>& problems, bool keep_proprietary);

// The changes of writing the loaded directory `d` with the settings of its interface (format
// version, proprietary content), as `taskdata convert` does. `found` may give the problems
// already found for the document's own version, which spares a second scan.
QVector<Change_line> changes_for_writing(const Loaded_dir& d, const QVector<Check_problem>* found = nullptr);

// "texts cut: 3 (first: TASKDATA.XML:12 CTR1 B)"
QString change_text(const Change_line& c);
QJsonArray changes_json(const QVector<Change_line>& changes);

} // namespace Taskdata_tool
