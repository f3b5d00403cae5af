#include "File_lookup.h"

#include <platform/util/Trace_print.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <cstdio>

namespace TC {
namespace Task_data {

namespace {
QFileInfoList list_files(const QString& dir)
{
    return QDir(dir).entryInfoList(QDir::Files | QDir::Hidden | QDir::System, QDir::NoSort);
}
} // namespace

File_lookup::Result File_lookup::choose(const QString& dir, const QString& name, const QFileInfoList& hits, bool quiet)
{
    Result r;
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
            Trace_print::print("Only found file %s using entrylist: %s\n", name.toUtf8().constData(),
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

File_lookup::Result File_lookup::find(const QString& dir, const QString& name, bool quiet)
{
    QFileInfoList hits;
    for (const QFileInfo& fi : list_files(dir))
        if (fi.fileName().compare(name, Qt::CaseInsensitive) == 0)
            hits.append(fi);
    return choose(dir, name, hits, quiet);
}

File_lookup::Index::Index(const QString& dir) : m_dir(dir)
{
    for (const QFileInfo& fi : list_files(dir))
        m_by_folded_name[fi.fileName().toCaseFolded()].append(fi);
}

File_lookup::Result File_lookup::Index::find(const QString& name, bool quiet) const
{
    return choose(m_dir, name, m_by_folded_name.value(name.toCaseFolded()), quiet);
}

} // namespace Task_data
} // namespace TC
