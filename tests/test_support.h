// Helpers shared by the tests: where the reference data lives, small task data directories,
// captured diagnostics, schema validation.
#pragma once
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QString>
#include <QTemporaryFile>
#include <QtGlobal>

#include <cstdio>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#include <sanitizer/tsan_interface.h>
#define KTD_TEST_TSAN 1
#endif
#endif

namespace Ktd_test {

// Built with a sanitizer: threaded tests run fewer rounds (they check the same, more slowly).
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif
#else
constexpr bool sanitized = false;
#endif

// The directory an environment variable names; empty when it does not exist.
inline QString existing_dir(const char* variable)
{
    const QString d = qEnvironmentVariable(variable);
    return d.isEmpty() || !QDir(d).exists() ? QString() : QDir(d).absolutePath();
}

// Real task data sets; empty when the reference data is not beside this clone.
inline QString corpus_dir() { return existing_dir("KTD_CORPUS_DIR"); }
inline QString shared_dir() { return existing_dir("KTD_SHARED_DIR"); }

inline QString source_dir() { return qEnvironmentVariable("KTD_SOURCE_DIR"); }

// --- small task data directories ---

// A main file holding `children`.
inline QByteArray task_data(const QByteArray& children, const QByteArray& major = "4")
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ISO11783_TaskData VersionMajor=\"" + major +
           "\" VersionMinor=\"3\" ManagementSoftwareManufacturer=\"Test\" ManagementSoftwareVersion=\"1\" "
           "DataTransferOrigin=\"1\">\n" + children + "</ISO11783_TaskData>\n";
}

// Writes each file (name to bytes) into `dir`, made when missing; false when one fails.
inline bool write_files(const QString& dir, const QMap<QString, QByteArray>& files)
{
    QDir().mkpath(dir);
    for (auto it = files.constBegin(); it != files.constEnd(); ++it) {
        QFile f(QDir(dir).filePath(it.key()));
        if (!f.open(QIODevice::WriteOnly) || f.write(it.value()) != it.value().size())
            return false;
    }
    return true;
}

// Empty when the file cannot be read.
inline QByteArray read_file(const QString& path)
{
    QFile f(path);
    return !path.isEmpty() && f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Captures what the library prints on a standard stream (stdout = 1, stderr = 2) while alive.
class Capture_fd
{
public:
    explicit Capture_fd(int fd) : m_fd(fd)
    {
        fflush(fd == 1 ? stdout : stderr);
        m_file.open();
        m_saved = ::dup(fd);
        ::dup2(m_file.handle(), fd);
    }
    ~Capture_fd() { release(); }
    QString text()
    {
        release();
        m_file.seek(0);
        return QString::fromUtf8(m_file.readAll());
    }

private:
    void release()
    {
        if (m_saved < 0)
            return;
        fflush(m_fd == 1 ? stdout : stderr);
        ::dup2(m_saved, m_fd);
        ::close(m_saved);
        m_saved = -1;
    }
    int m_fd;
    int m_saved = -1;
    QTemporaryFile m_file;
};

// f's result, with what the library prints meanwhile dropped.
template <class F>
auto quietly(F&& f)
{
    Capture_fd out(1), err(2);
    return f();
}

// The application of tests whose receivers live on other threads. Under ThreadSanitizer a posted
// event changes hands through Qt's uninstrumented queue: postEvent releases on the event
// (cmake/sanitizers/qt_tsan_annotations.cpp) and delivery acquires it here.
class Application : public QCoreApplication
{
public:
    Application(int& argc, char** argv) : QCoreApplication(argc, argv) {}
    bool notify(QObject* receiver, QEvent* event) override
    {
#ifdef KTD_TEST_TSAN
        __tsan_acquire(event);
#endif
        return QCoreApplication::notify(receiver, event);
    }
};

// --- schemas ---

inline QString xmllint() { return QStandardPaths::findExecutable("xmllint"); }

// The schemas of the reference data into `to`, less the fractionDigits facets: floats are
// written with 14 decimals.
inline bool copy_schemas(const QString& from, const QString& to)
{
    static const QRegularExpression facet("<xs:fractionDigits[^>]*/>");
    if (!QDir().mkpath(to))
        return false;
    for (const QString& name : QDir(from).entryList({"*.xsd"}, QDir::Files)) {
        QFile in(QDir(from).filePath(name));
        QFile out(QDir(to).filePath(name));
        if (!in.open(QIODevice::ReadOnly) || !out.open(QIODevice::WriteOnly))
            return false;
        out.write(QString::fromUtf8(in.readAll()).remove(facet).toUtf8());
    }
    return true;
}

// Empty when valid, else xmllint's complaint.
inline QString validate(const QString& schema, const QString& file)
{
    QProcess p;
    p.start(xmllint(), {"--noout", "--schema", schema, file});
    if (!p.waitForFinished(60000))
        return "xmllint did not finish";
    return p.exitCode() == 0 ? QString() : QString::fromUtf8(p.readAllStandardError());
}

} // namespace Ktd_test

#define KTD_REQUIRE_CORPUS(var)                                                               \
    const QString var = Ktd_test::corpus_dir();                                               \
    if (var.isEmpty())                                                                        \
        QSKIP("reference corpus not found: set KTD_CORPUS_DIR to the folder of real task data sets")

#define KTD_REQUIRE_SHARED(var)                                                               \
    const QString var = Ktd_test::shared_dir();                                               \
    if (var.isEmpty())                                                                        \
        QSKIP("reference data not found: set KTD_SHARED_DIR to the folder beside this clone")
