#include "File_lookup.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <cstdio>

namespace TC {
namespace Task_data {

File_lookup::Result File_lookup::find(const QString& dir, const QString& name, bool quiet)
{
    Result r;
    QDir d(dir);
    const QFileInfoList entries = d.entryInfoList(QDir::Files | QDir::Hidden | QDir::System, QDir::NoSort);
    QFileInfoList hits;
    for (const QFileInfo& fi : entries)
        if (fi.fileName().compare(name, Qt::CaseInsensitive) == 0)
            hits.append(fi);
    r.matches = hits.size();
    if (hits.isEmpty()) {
        r.message = QCoreApplication::translate("XML_interface", "Could not find file: %1 in %2").arg(name, dir);
        if (!quiet)
            fprintf(stderr, "Could not find file %s in %s\n", name.toUtf8().constData(), dir.toUtf8().constData());
        return r;
    }
    if (hits.size() == 1) {
        r.path = hits.first().absoluteFilePath();
        if (hits.first().fileName() != name && !quiet)
            fprintf(stderr, "Only found file %s using entrylist: %s\n", name.toUtf8().constData(),
                    r.path.toUtf8().constData());
        return r;
    }
    QFileInfo newest = hits.first();
    for (const QFileInfo& fi : hits)
        if (fi.lastModified() > newest.lastModified())
            newest = fi;
    r.path = newest.absoluteFilePath();
    r.message = QCoreApplication::translate("XML_interface", "found %1 entries for %2 in %3: choosing %4")
                    .arg(hits.size())
                    .arg(name, dir, newest.fileName());
    if (!quiet)
        fprintf(stderr, "Too many files found - sending last modified\n");
    return r;
}

} // namespace Task_data
} // namespace TC
