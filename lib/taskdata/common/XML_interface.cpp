#include "XML_interface.h"

#include "File_lookup.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QXmlStreamReader>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace TC {
namespace Task_data {

namespace {
struct Maybe_lock
{
    QMutex* m;
    explicit Maybe_lock(QMutex* mutex) : m(mutex)
    {
        if (m)
            m->lock();
    }
    ~Maybe_lock()
    {
        if (m)
            m->unlock();
    }
};
} // namespace

XML_interface::XML_interface(const QString& path, bool write_children, bool keep_proprietary, bool with_mutex,
                             bool track_files)
    : m_main_outfilename(QStringLiteral("TASKDATA.XML"))
{
    set(path, write_children, keep_proprietary, with_mutex, track_files);
}

XML_interface::~XML_interface() = default;

void XML_interface::set(const QString& path, bool write_children, bool keep_proprietary, bool with_mutex,
                        bool track_files)
{
    if (with_mutex && !m_mutex)
        m_mutex.reset(new QMutex);
    Maybe_lock lock(m_mutex.get());
    m_path = path;
    m_write_children = write_children;
    m_keep_proprietary = keep_proprietary;
    m_track_files = track_files;
    update_path_cache();
    reset_state();
}

void XML_interface::reset_state()
{
    m_ok = true;
    m_fail_text.clear();
    m_warnings.clear();
    m_total_objects = 0;
    m_objects_done = 0;
    m_used_files.clear();
    m_cur_infilepath.clear();
}

void XML_interface::update_path_cache()
{
    if (m_path.isEmpty()) {
        m_output_dir.clear();
        return;
    }
    QFileInfo fi(m_path);
    const bool names_xml_file = fi.suffix().compare(QLatin1String("xml"), Qt::CaseInsensitive) == 0;
    if (fi.isDir() || m_path.endsWith(QLatin1Char('/')) || !names_xml_file) {
        m_output_dir = QDir(m_path).absolutePath();
    } else {
        m_output_dir = fi.absolutePath();
        m_main_outfilename = fi.fileName();
    }
}

void XML_interface::set_main_outfilename(const QString& name) { m_main_outfilename = name; }

void XML_interface::set_output_dir(const QString& dir) { m_output_dir = QDir(dir).absolutePath(); }

void XML_interface::set_fail(const QString& text)
{
    Maybe_lock lock(m_mutex.get());
    if (m_ok) {
        m_ok = false;
        m_fail_text = text;
    }
}

void XML_interface::set_fail(const QString& path, const QXmlStreamReader& r)
{
    set_fail(QCoreApplication::translate("XML_interface", "Error \"%1\" at %2:%3:%4:%5")
                 .arg(r.errorString(), path)
                 .arg(r.lineNumber())
                 .arg(r.columnNumber())
                 .arg(r.characterOffset()));
}

void XML_interface::add_warning(const QString& text)
{
    Maybe_lock lock(m_mutex.get());
    m_warnings.append(text);
}

QString XML_interface::infilepath(const QString& name) const
{
    const File_lookup::Result r = File_lookup::find(m_output_dir, name);
    if (!r.message.isEmpty())
        const_cast<XML_interface*>(this)->add_warning(r.message);
    if (!r.path.isEmpty())
        const_cast<XML_interface*>(this)->note_used_file(QFileInfo(r.path).fileName());
    return r.path;
}

QString XML_interface::outfilepath(const QString& name) const
{
    QString n = name;
    static const bool upper = QSettings().value(QStringLiteral("force_uppercase_filenames"), false).toBool();
    if (upper)
        n = n.toUpper();
    return QDir(m_output_dir).filePath(n);
}

bool XML_interface::outfilepath_exists(const QString& name) const { return QFileInfo::exists(outfilepath(name)); }

void XML_interface::set_individual_save(const QString& tag, bool on)
{
    Maybe_lock lock(m_mutex.get());
    if (on)
        m_individual.insert(tag);
    else
        m_individual.remove(tag);
}

bool XML_interface::individual_save(const QString& tag) const { return m_individual.contains(tag); }

bool XML_interface::individual_save(QStringView tag) const
{
    if (m_individual.isEmpty())
        return false;
    return m_individual.contains(tag.toString());
}

void XML_interface::note_used_file(const QString& name)
{
    if (!m_track_files)
        return;
    Maybe_lock lock(m_mutex.get());
    m_used_files.insert(name);
}

bool XML_interface::write_file_atomic(const QString& path, const QByteArray& data, QString* error)
{
    const QFileInfo fi(path);
    const QString tmp = fi.absolutePath() + QStringLiteral("/.") + fi.fileName() + QStringLiteral(".tmp");
    const QByteArray tmp_name = QFile::encodeName(tmp);
    const QByteArray final_name = QFile::encodeName(path);
    auto fail = [&](const QString& why) {
        if (error)
            *error = why;
        ::unlink(tmp_name.constData());
        return false;
    };
    const int fd = ::open(tmp_name.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return fail(QStringLiteral("%1: %2").arg(tmp, QString::fromLocal8Bit(strerror(errno))));
    const char* p = data.constData();
    qint64 left = data.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, size_t(left));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            const QString why = QString::fromLocal8Bit(strerror(errno));
            ::close(fd);
            return fail(QStringLiteral("%1: %2").arg(tmp, why));
        }
        p += n;
        left -= n;
    }
    // The data must be on disk before the name points at it, or a power loss could leave an
    // empty file where a complete one stood.
    if (::fsync(fd) != 0) {
        const QString why = QString::fromLocal8Bit(strerror(errno));
        ::close(fd);
        return fail(QStringLiteral("%1: %2").arg(tmp, why));
    }
    ::close(fd);
    if (::rename(tmp_name.constData(), final_name.constData()) != 0) {
        fprintf(stderr, "Move %s to %s failed\n", tmp_name.constData(), final_name.constData());
        return fail(QStringLiteral("Move %1 to %2 failed").arg(tmp, path));
    }
    const QByteArray dir_name = QFile::encodeName(fi.absolutePath());
    const int dfd = ::open(dir_name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return true;
}

void XML_interface::lock()
{
    if (m_mutex)
        m_mutex->lock();
}

void XML_interface::unlock()
{
    if (m_mutex)
        m_mutex->unlock();
}

} // namespace Task_data
} // namespace TC
