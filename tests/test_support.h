// Helpers shared by the tests: where the reference data lives and temporary directories.
#pragma once
#include <QDir>
#include <QString>
#include <QtGlobal>

namespace Ktd_test {

// Real task data sets; empty when the reference data is not beside this clone.
inline QString corpus_dir()
{
    QString d = qEnvironmentVariable("KTD_CORPUS_DIR");
    if (d.isEmpty() || !QDir(d).exists())
        return QString();
    return QDir(d).absolutePath();
}

inline QString shared_dir()
{
    QString d = qEnvironmentVariable("KTD_SHARED_DIR");
    if (d.isEmpty() || !QDir(d).exists())
        return QString();
    return QDir(d).absolutePath();
}

inline QString source_dir() { return qEnvironmentVariable("KTD_SOURCE_DIR"); }

} // namespace Ktd_test

#define KTD_REQUIRE_CORPUS(var)                                                               \
    const QString var = Ktd_test::corpus_dir();                                               \
    if (var.isEmpty())                                                                        \
        QSKIP("reference corpus not found: set KTD_CORPUS_DIR to the folder of real task data sets")

#define KTD_REQUIRE_SHARED(var)                                                               \
    const QString var = Ktd_test::shared_dir();                                               \
    if (var.isEmpty())                                                                        \
        QSKIP("reference data not found: set KTD_SHARED_DIR to the folder beside this clone")
