#include "Save_transaction.h"

#include "Symlink_policy.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QRandomGenerator>
#include <QSet>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace TC {
namespace Task_data {

namespace {

const char* const temp_suffix = "ktdtmp";
const char* const backup_suffix = "ktdold";
constexpr qint64 copy_chunk = 1 << 20;

QString tr(const char* text) { return QCoreApplication::translate("XML_interface", text); }
QString errno_text(int e) { return QString::fromLocal8Bit(std::strerror(e)); }
QByteArray encoded(const QString& path) { return QFile::encodeName(path); }
QString decoded(const QByteArray& path) { return QFile::decodeName(path); }

bool write_all(int fd, const char* p, qint64 left)
{
    while (left > 0) {
        const ssize_t n = ::write(fd, p, size_t(qMin<qint64>(left, 1 << 30)));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += n;
        left -= n;
    }
    return true;
}

// Copies [offset, offset + length) between two regular files, in the kernel where it can.
bool copy_range(int in, int out, qint64 offset, qint64 length, QByteArray& buffer)
{
    loff_t ipos = offset, opos = offset;
    bool kernel = true;
    while (length > 0) {
        if (kernel) {
            const ssize_t n = ::copy_file_range(in, &ipos, out, &opos, size_t(qMin(length, copy_chunk * 64)), 0);
            if (n > 0) {
                length -= n;
                continue;
            }
            if (n == 0)
                return false; // the source shrank meanwhile
            if (errno == EINTR)
                continue;
            if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != EBADF)
                return false;
            kernel = false;
        }
        if (buffer.isEmpty())
            buffer.resize(int(copy_chunk));
        const ssize_t n = ::pread(in, buffer.data(), size_t(qMin(length, copy_chunk)), ipos);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        qint64 done = 0;
        while (done < n) {
            const ssize_t w = ::pwrite(out, buffer.constData() + done, size_t(n - done), opos + done);
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                return false;
            done += w;
        }
        ipos += n;
        opos += n;
        length -= n;
    }
    return true;
}

// The data of `in` into the regular file `out`, skipping holes (the caller sets the size).
bool copy_sparse(int in, int out, qint64 size)
{
    QByteArray buffer;
    qint64 offset = 0;
    while (offset < size) {
        qint64 data = ::lseek(in, offset, SEEK_DATA);
        qint64 hole = size;
        if (data < 0) {
            if (errno == ENXIO)
                break; // only a hole is left
            data = offset; // no hole information: copy everything
        } else {
            hole = ::lseek(in, data, SEEK_HOLE);
            if (hole < 0 || hole > size)
                hole = size;
        }
        if (data >= size)
            break;
        if (!copy_range(in, out, data, hole - data, buffer))
            return false;
        offset = hole;
    }
    return true;
}

// Into a device or FIFO: plain reads and writes.
bool copy_stream(int in, int out)
{
    QByteArray buffer(int(copy_chunk), Qt::Uninitialized);
    for (;;) {
        const ssize_t n = ::read(in, buffer.data(), size_t(buffer.size()));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        if (!write_all(out, buffer.constData(), n))
            return false;
    }
}

void sync_directory(const QByteArray& dir)
{
    const int fd = ::open(dir.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

// Removes a directory of files (what a staging directory or an old set holds). Subdirectories
// are not entered: a directory holding one stays.
bool remove_files_and_dir(const QByteArray& dir)
{
    if (DIR* d = ::opendir(dir.constData())) {
        while (dirent* e = ::readdir(d)) {
            if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0)
                continue;
            const QByteArray path = dir + QByteArray("/") + QByteArray(e->d_name);
            ::unlink(path.constData());
        }
        ::closedir(d);
    }
    return ::rmdir(dir.constData()) == 0;
}

bool is_hex(QStringView s)
{
    for (QChar c : s)
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
    return true;
}

bool is_upper_name_char(QChar c)
{
    return (c >= QLatin1Char('A') && c <= QLatin1Char('Z')) || (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
           c == QLatin1Char('_') || c == QLatin1Char('-');
}

// The names files of a task data set have, in any letter case: the main file, the link and
// GUID lists, numbered files ("GRD00001.BIN", "CTR00001.XML") and the files of individually
// saved elements ("CTR_12.XML", "TSK_<GUID>.XML"); and, in capitals as the format wants them,
// 8.3 names of attached files ("NOTES001.TXT"). Anything else is somebody else's.
bool is_task_data_name(const QString& name)
{
    const QString upper = name.toUpper();
    if (upper == QLatin1String("TASKDATA.XML") || upper == QLatin1String("LINKLIST.XML") ||
        upper == QLatin1String("GUIDLIST.XML"))
        return true;
    const bool xml = upper.endsWith(QLatin1String(".XML"));
    if ((xml || upper.endsWith(QLatin1String(".BIN"))) && upper.size() == 12) {
        bool numbered = true;
        for (int i = 0; i < 8; ++i)
            numbered = numbered && (i < 3 ? upper.at(i).isLetter() : upper.at(i).isDigit());
        if (numbered)
            return true;
    }
    if (xml && upper.size() > 8 && upper.at(3) == QLatin1Char('_') &&
        std::all_of(upper.begin(), upper.end() - 4, is_upper_name_char))
        return true;
    const int dot = name.indexOf(QLatin1Char('.'));
    const QStringView base = QStringView(name).left(dot < 0 ? name.size() : dot);
    const QStringView ext = dot < 0 ? QStringView() : QStringView(name).mid(dot + 1);
    return !base.isEmpty() && base.size() <= 8 && std::all_of(base.begin(), base.end(), is_upper_name_char) &&
           (dot < 0 || (!ext.isEmpty() && ext.size() <= 3 && std::all_of(ext.begin(), ext.end(), is_upper_name_char)));
}

} // namespace

Save_transaction::Save_transaction(const QString& dir, Mode mode) : m_dir(QDir(dir).absolutePath()), m_mode(mode)
{
    // A target given through a symbolic link is the directory it points at; the link stays.
    const QFileInfo fi(m_dir);
    if (fi.isSymLink() && fi.exists())
        m_dir = fi.canonicalFilePath();
}

Save_transaction::~Save_transaction()
{
    if (!m_done)
        abort();
    for (int fd : m_lock_fds)
        ::close(fd); // releases the flock
}

QString Save_transaction::lock_file_name() { return QStringLiteral(".taskdata.lock"); }

bool Save_transaction::is_own_file(const QString& name)
{
    if (name == lock_file_name())
        return true;
    // ".<name>.<16 hex digits>.ktdtmp" or ".ktdold"
    const int n = name.size();
    if (n < 1 + 1 + 1 + 16 + 1 + 6 || name.at(0) != QLatin1Char('.'))
        return false;
    const QStringView suffix = QStringView(name).right(6);
    if (suffix != QLatin1String(temp_suffix) && suffix != QLatin1String(backup_suffix))
        return false;
    return name.at(n - 7) == QLatin1Char('.') && name.at(n - 24) == QLatin1Char('.') &&
           is_hex(QStringView(name).mid(n - 23, 16));
}

QString Save_transaction::replace_refusal(const QString& dir)
{
    struct stat st;
    const QByteArray path = encoded(dir);
    if (::stat(path.constData(), &st) != 0)
        return QString();
    if (!S_ISDIR(st.st_mode))
        return tr("%1 is not a directory").arg(dir);
    QStringList foreign;
    bool has_main = false;
    QStringList data;
    const QStringList entries =
        QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& name : entries) {
        if (is_own_file(name))
            continue;
        struct stat e;
        const bool regular = ::lstat(encoded(QDir(dir).filePath(name)).constData(), &e) == 0 && S_ISREG(e.st_mode);
        if (!regular || !is_task_data_name(name)) {
            foreign.append(name);
            continue;
        }
        data.append(name);
        if (name.compare(QLatin1String("TASKDATA.XML"), Qt::CaseInsensitive) == 0)
            has_main = true;
    }
    if (!has_main)
        foreign += data; // files, but no task data set
    if (foreign.isEmpty())
        return QString();
    foreign.sort();
    const int shown = 10;
    QString names = QStringList(foreign.mid(0, shown)).join(QStringLiteral(", "));
    if (foreign.size() > shown)
        names += tr(" and %1 more").arg(foreign.size() - shown);
    return tr("%1 holds what is not a task data set and would be lost: %2").arg(dir, names);
}

bool Save_transaction::fail(const QString& text)
{
    if (m_error.isEmpty())
        m_error = text;
    return false;
}

bool Save_transaction::lock_file(const QString& path, bool directory, int timeout_ms)
{
    const QByteArray name = encoded(path);
    const int fd = directory ? ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                             : ::open(name.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return fail(tr("Could not lock %1: %2").arg(path, errno_text(errno)));
    m_lock_fds.append(fd);
    const QDeadlineTimer deadline =
        timeout_ms < 0 ? QDeadlineTimer(QDeadlineTimer::Forever) : QDeadlineTimer(qint64(timeout_ms));
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
            return true;
        if (errno != EWOULDBLOCK && errno != EINTR)
            return fail(tr("Could not lock %1: %2").arg(path, errno_text(errno)));
        if (deadline.hasExpired())
            return fail(tr("%1 is being saved by another program (gave up waiting after %2 ms)")
                            .arg(directory ? path : QFileInfo(path).absolutePath())
                            .arg(timeout_ms));
        QThread::msleep(10);
    }
}

void Save_transaction::remove_stale(const QString& in_dir, const QString& prefix, bool directories)
{
    // What a killed process left is there when this process first comes; a save of one small
    // file many times a minute must not list a large directory every time.
    static QMutex mutex;
    static QSet<QString> cleaned;
    {
        QMutexLocker lock(&mutex);
        if (cleaned.contains(in_dir + QLatin1Char('/') + prefix))
            return;
        cleaned.insert(in_dir + QLatin1Char('/') + prefix);
    }
    const QStringList entries =
        QDir(in_dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString& name : entries) {
        if (name == lock_file_name() || !name.startsWith(prefix) || !is_own_file(name))
            continue;
        const QByteArray path = encoded(QDir(in_dir).filePath(name));
        struct stat st;
        if (::lstat(path.constData(), &st) != 0)
            continue;
        if (S_ISDIR(st.st_mode)) {
            if (directories)
                remove_files_and_dir(path);
        } else if (::unlink(path.constData()) != 0) {
            fprintf(stderr, "Remove file %s failed!\n", path.constData());
        }
    }
}

bool Save_transaction::begin(int lock_timeout_ms)
{
    if (m_begun)
        return m_error.isEmpty();
    m_begun = true;
    if (m_mode == In_place) {
        if (!QFileInfo(m_dir).isDir() && !QDir().mkpath(m_dir))
            return fail(tr("Could not create directory %1").arg(m_dir));
        if (!lock_file(QDir(m_dir).filePath(lock_file_name()), false, lock_timeout_ms))
            return false;
        remove_stale(m_dir, QString(), false);
        return true;
    }
    const QFileInfo target(m_dir);
    const QString parent = target.absolutePath();
    if (!QFileInfo(parent).isDir() && !QDir().mkpath(parent))
        return fail(tr("Could not create directory %1").arg(parent));
    if (!lock_file(parent, true, lock_timeout_ms))
        return false;
    mode_t mode = 0755;
    if (target.exists()) {
        const QString refusal = replace_refusal(m_dir);
        if (!refusal.isEmpty())
            return fail(refusal);
        if (!lock_file(QDir(m_dir).filePath(lock_file_name()), false, lock_timeout_ms))
            return false;
        struct stat st;
        if (::stat(encoded(m_dir).constData(), &st) == 0)
            mode = st.st_mode & 07777;
    }
    const QString prefix = QLatin1Char('.') + target.fileName() + QLatin1Char('.');
    remove_stale(parent, prefix, true);
    for (int attempt = 0; attempt < 16; ++attempt) {
        const QString staging = QDir(parent).filePath(
            prefix + QStringLiteral("%1.").arg(QRandomGenerator::system()->generate64(), 16, 16, QLatin1Char('0')) +
            QLatin1String(temp_suffix));
        if (::mkdir(encoded(staging).constData(), 0700) == 0) {
            ::chmod(encoded(staging).constData(), mode);
            m_staging = staging;
            return true;
        }
        if (errno != EEXIST)
            return fail(tr("Could not create directory %1: %2").arg(staging, errno_text(errno)));
    }
    return fail(tr("Could not create a temporary directory beside %1").arg(m_dir));
}

bool Save_transaction::begin_unlocked()
{
    if (m_begun)
        return m_error.isEmpty();
    m_begun = true;
    if (m_mode != In_place)
        return fail(tr("A whole directory is not saved without its lock: %1").arg(m_dir));
    if (!QFileInfo(m_dir).isDir())
        return fail(tr("%1 is not a directory").arg(m_dir));
    return true;
}

void Save_transaction::reserve_names(const QSet<QString>& upper_case_names) { m_reserved += upper_case_names; }

QByteArray Save_transaction::unique_temp(const QString& name, const char* suffix) const
{
    for (;;) {
        const QString temp = QStringLiteral(".%1.%2.%3")
                                 .arg(name)
                                 .arg(QRandomGenerator::system()->generate64(), 16, 16, QLatin1Char('0'))
                                 .arg(QLatin1String(suffix));
        if (!m_reserved.contains(temp.toUpper()))
            return encoded(QDir(m_dir).filePath(temp));
    }
}

int Save_transaction::create_staged(const QString& name, mode_t mode, Staged& s)
{
    if (!m_begun || m_done) {
        fail(tr("No save in progress for %1").arg(m_dir));
        return -1;
    }
    if (!m_error.isEmpty())
        return -1;
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || name == QLatin1String(".") ||
        name == QLatin1String("..")) {
        fail(tr("Not a file name: %1").arg(name));
        return -1;
    }
    // Staged again: the newer content wins.
    for (int i = 0; i < m_staged.size(); ++i) {
        if (m_staged[i].name == name) {
            if (!m_staged[i].direct)
                ::unlink(m_staged[i].temp.constData());
            m_staged.remove(i);
            break;
        }
    }
    s.name = name;
    s.direct = false;
    s.size = -1;
    if (m_mode == Whole_directory) {
        s.temp = encoded(QDir(m_staging).filePath(name));
        const int fd = ::open(s.temp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd < 0)
            fail(tr("Could not create %1: %2").arg(decoded(s.temp), errno_text(errno)));
        return fd;
    }
    const QByteArray final_name = encoded(QDir(m_dir).filePath(name));
    struct stat st;
    const bool exists = ::lstat(final_name.constData(), &st) == 0;
    if (exists && (S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode))) {
        // Not a file to replace: whatever reads the device or FIFO gets the data. Without a
        // reader a FIFO fails at once instead of blocking the save.
        s.direct = true;
        s.temp = final_name;
        const int fd = ::open(final_name.constData(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (fd < 0) {
            fail(tr("Could not open %1: %2").arg(decoded(final_name), errno_text(errno)));
            return -1;
        }
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        return fd;
    }
    if (exists && S_ISREG(st.st_mode))
        mode = st.st_mode & 07777; // a replaced file keeps its permissions
    for (int attempt = 0; attempt < 16; ++attempt) {
        s.temp = unique_temp(name, temp_suffix);
        const int fd = ::open(s.temp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd >= 0) {
            if (exists && S_ISREG(st.st_mode))
                ::fchmod(fd, mode);
            return fd;
        }
        if (errno != EEXIST) {
            fail(tr("Could not create %1: %2").arg(decoded(s.temp), errno_text(errno)));
            return -1;
        }
    }
    fail(tr("Could not create a temporary file beside %1").arg(decoded(final_name)));
    return -1;
}

bool Save_transaction::finish_staged(int fd, Staged& s)
{
    // The data must be on disk before a name points at it, or a power loss could leave an
    // empty file where a complete one stood.
    bool ok = true;
    int error = 0;
    if (!s.direct) {
        if (::fsync(fd) != 0) {
            ok = false;
            error = errno;
        }
        struct stat st;
        if (ok && ::fstat(fd, &st) == 0)
            s.size = qint64(st.st_size);
    }
    if (::close(fd) != 0 && ok && errno != EINTR) {
        ok = false;
        error = errno;
    }
    if (!ok)
        fail(tr("Write error on %1: %2").arg(QDir(m_dir).filePath(s.name), errno_text(error)));
    return ok;
}

bool Save_transaction::stage(const QString& name, const QByteArray& data)
{
    Staged s;
    const int fd = create_staged(name, 0644, s);
    if (fd < 0)
        return false;
    m_staged.append(s);
    Staged& added = m_staged.last();
    if (!write_all(fd, data.constData(), data.size())) {
        const int error = errno;
        ::close(fd);
        return fail(tr("Write error on %1: %2").arg(QDir(m_dir).filePath(name), errno_text(error)));
    }
    if (!finish_staged(fd, added))
        return false;
    if (added.direct)
        added.size = data.size();
    return true;
}

bool Save_transaction::stage_copy(const QString& name, const QString& source, bool follow_symlinks)
{
    const QByteArray from = encoded(source);
    const int in = ::open(from.constData(), O_RDONLY | O_CLOEXEC | O_NOCTTY | (follow_symlinks ? 0 : O_NOFOLLOW));
    if (in < 0) {
        if (errno == ELOOP)
            return fail(Symlink_policy::message(source));
        return fail(tr("Could not open %1: %2").arg(source, errno_text(errno)));
    }
    struct stat st;
    if (::fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(in);
        return fail(tr("%1 is not a regular file").arg(source));
    }
    Staged s;
    const int fd = create_staged(name, st.st_mode & 0777, s);
    if (fd < 0) {
        ::close(in);
        return false;
    }
    m_staged.append(s);
    Staged& added = m_staged.last();
    bool ok;
    if (added.direct) {
        ok = copy_stream(in, fd);
    } else {
        // Exactly the source's bits: the umask may not widen them, and must not narrow a copy.
        ::fchmod(fd, st.st_mode & 0777);
        ok = copy_sparse(in, fd, qint64(st.st_size)) && ::ftruncate(fd, st.st_size) == 0;
    }
    const int error = errno;
    ::close(in);
    if (!ok) {
        ::close(fd);
        return fail(tr("Could not copy %1 to %2: %3").arg(source, QDir(m_dir).filePath(name), errno_text(error)));
    }
    return finish_staged(fd, added);
}

int Save_transaction::open_staged(const QString& name)
{
    Staged s;
    const int fd = create_staged(name, 0644, s);
    if (fd >= 0) {
        s.size = -2; // open
        m_staged.append(s);
        m_open_fds.insert(fd, name);
    }
    return fd;
}

bool Save_transaction::close_staged(int fd)
{
    const QString name = m_open_fds.take(fd);
    for (Staged& s : m_staged)
        if (s.name == name && s.size == -2) {
            s.size = -1;
            return finish_staged(fd, s);
        }
    return fail(tr("No staged file for descriptor %1").arg(fd));
}

qint64 Save_transaction::staged_size(const QString& name) const
{
    for (const Staged& s : m_staged)
        if (s.name == name)
            return s.size;
    return -1;
}

bool Save_transaction::is_staged(const QString& name) const
{
    for (const Staged& s : m_staged)
        if (s.name == name)
            return true;
    return false;
}

void Save_transaction::abort()
{
    for (auto it = m_open_fds.constBegin(); it != m_open_fds.constEnd(); ++it)
        ::close(it.key());
    m_open_fds.clear();
    for (const Staged& s : m_staged)
        if (!s.direct && m_mode == In_place && ::unlink(s.temp.constData()) != 0 && errno != ENOENT)
            fprintf(stderr, "Remove file %s failed!\n", s.temp.constData());
    if (!m_staging.isEmpty())
        remove_files_and_dir(encoded(m_staging));
    m_staging.clear();
    m_staged.clear();
    m_done = true;
}

bool Save_transaction::commit()
{
    if (m_done)
        return m_error.isEmpty();
    if (!m_begun)
        return fail(tr("No save in progress for %1").arg(m_dir));
    if (!m_open_fds.isEmpty())
        fail(tr("A file of the save into %1 was not finished").arg(m_dir));
    if (!m_error.isEmpty()) {
        abort();
        return false;
    }
    const bool ok = m_mode == In_place ? commit_in_place() : commit_whole();
    if (!ok)
        abort();
    m_done = true;
    return ok;
}

bool Save_transaction::commit_in_place()
{
    int renames = 0;
    for (const Staged& s : m_staged)
        renames += s.direct ? 0 : 1;
    struct Done
    {
        QByteArray final_name;
        QByteArray backup; // the old file, kept until all renames are made
        bool had_old;
    };
    QVector<Done> done;
    auto undo = [&] {
        for (int i = done.size() - 1; i >= 0; --i) {
            const Done& d = done[i];
            if (!d.backup.isEmpty())
                ::rename(d.backup.constData(), d.final_name.constData());
            else if (!d.had_old)
                ::unlink(d.final_name.constData());
        }
    };
    for (Staged& s : m_staged) {
        if (s.direct)
            continue;
        Done d;
        d.final_name = encoded(QDir(m_dir).filePath(s.name));
        struct stat st;
        d.had_old = ::lstat(d.final_name.constData(), &st) == 0;
        // One file replaces atomically by itself; of several, each old one is kept under a
        // second name until the last is in place, so that a failing rename can be undone.
        if (renames > 1 && d.had_old && !S_ISDIR(st.st_mode)) {
            d.backup = unique_temp(s.name, backup_suffix);
            if (::link(d.final_name.constData(), d.backup.constData()) != 0)
                d.backup.clear(); // a file system without hard links: no way back for this one
        }
        if (::rename(s.temp.constData(), d.final_name.constData()) != 0) {
            const int error = errno;
            fprintf(stderr, "Move %s to %s failed\n", s.temp.constData(), d.final_name.constData());
            if (!d.backup.isEmpty())
                ::unlink(d.backup.constData());
            undo();
            for (const Done& old : done)
                if (!old.backup.isEmpty())
                    ::unlink(old.backup.constData());
            return fail(tr("Move %1 to %2 failed: %3").arg(decoded(s.temp), decoded(d.final_name), errno_text(error)));
        }
        s.temp.clear();
        done.append(d);
    }
    sync_directory(encoded(m_dir));
    for (const Done& d : done)
        if (!d.backup.isEmpty())
            ::unlink(d.backup.constData());
    m_staged.clear();
    return true;
}

bool Save_transaction::commit_whole()
{
    const QByteArray staging = encoded(m_staging);
    const QByteArray target = encoded(m_dir);
    const QString parent = QFileInfo(m_dir).absolutePath();
    sync_directory(staging);
    struct stat st;
    if (::lstat(target.constData(), &st) != 0) {
        if (::rename(staging.constData(), target.constData()) != 0) {
            const int error = errno;
            fprintf(stderr, "Move %s to %s failed\n", staging.constData(), target.constData());
            return fail(tr("Move %1 to %2 failed: %3").arg(m_staging, m_dir, errno_text(error)));
        }
    } else {
        const QString refusal = replace_refusal(m_dir);
        if (!refusal.isEmpty())
            return fail(refusal);
        if (::renameat2(AT_FDCWD, staging.constData(), AT_FDCWD, target.constData(), RENAME_EXCHANGE) == 0) {
            // The staging name now holds the old set.
            sync_directory(encoded(parent));
            remove_files_and_dir(staging);
        } else if (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) {
            // No exchange on this file system: the old set is moved aside for a moment.
            const QByteArray aside =
                encoded(QDir(parent).filePath(QStringLiteral(".%1.%2.%3")
                                                  .arg(QFileInfo(m_dir).fileName())
                                                  .arg(QRandomGenerator::system()->generate64(), 16, 16,
                                                       QLatin1Char('0'))
                                                  .arg(QLatin1String(backup_suffix))));
            if (::rename(target.constData(), aside.constData()) != 0) {
                const int error = errno;
                fprintf(stderr, "Move %s to %s failed\n", target.constData(), aside.constData());
                return fail(tr("Move %1 to %2 failed: %3").arg(m_dir, decoded(aside), errno_text(error)));
            }
            if (::rename(staging.constData(), target.constData()) != 0) {
                const int error = errno;
                fprintf(stderr, "Move %s to %s failed\n", staging.constData(), target.constData());
                ::rename(aside.constData(), target.constData());
                return fail(tr("Move %1 to %2 failed: %3").arg(m_staging, m_dir, errno_text(error)));
            }
            sync_directory(encoded(parent));
            remove_files_and_dir(aside);
        } else {
            const int error = errno;
            fprintf(stderr, "Move %s to %s failed\n", staging.constData(), target.constData());
            return fail(tr("Move %1 to %2 failed: %3").arg(m_staging, m_dir, errno_text(error)));
        }
    }
    sync_directory(encoded(parent));
    m_staging.clear();
    m_staged.clear();
    return true;
}

} // namespace Task_data
} // namespace TC
