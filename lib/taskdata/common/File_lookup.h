// Case-insensitive lookup of a file in a task data directory.
//
// Terminals and farm software disagree on letter case ("TaskData.xml", "GRD00001.bin",
// "LINKLIST.xml"), so every file an element refers to is found regardless of case. When two
// entries differ only in case the newest wins and the choice is reported. Any thread.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QString>

namespace TC {
namespace Task_data {

class KTD_EXPORT File_lookup
{
public:
    struct Result
    {
        QString path;    // empty when not found
        QString message; // operator-facing note (not found, or which of several was chosen)
        int matches = 0;
    };
    // Looks `name` up in `dir`; prints the diagnostic lines for missing and ambiguous names.
    static Result find(const QString& dir, const QString& name, bool quiet = false);
};

} // namespace Task_data
} // namespace TC
