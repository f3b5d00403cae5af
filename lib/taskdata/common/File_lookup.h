// Case-insensitive lookup of a file in a task data directory.
//
// Terminals and farm software disagree on letter case ("TaskData.xml", "GRD00001.bin",
// "LINKLIST.xml"), so every file an element refers to is found regardless of case. When two
// entries differ only in case the newest wins and the choice is reported.
// find() may be called from any thread. An Index is a snapshot of one directory listing, owned
// by whoever made it and used from one thread at a time; it lets a load that looks up many
// files (one per individually saved element) list the directory once instead of per name.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QFileInfoList>
#include <QHash>
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

    class KTD_EXPORT Index
    {
    public:
        explicit Index(const QString& dir);
        QString dir() const { return m_dir; }
        // As File_lookup::find, against the listing taken when the index was made.
        Result find(const QString& name, bool quiet = false) const;

    private:
        QString m_dir;
        QHash<QString, QFileInfoList> m_by_folded_name;
    };

private:
    static Result choose(const QString& dir, const QString& name, const QFileInfoList& hits, bool quiet);
};

} // namespace Task_data
} // namespace TC
