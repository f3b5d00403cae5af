// Save_transaction: the files of one save, written and synced under temporary names first and
// put in place together when all of them are written, or not at all.
//
// In place (a directory saved where it stands): every file is staged beside its final name
// under a unique temporary name (".NAME.<random>.ktdtmp", created with O_EXCL|O_NOFOLLOW so
// that nothing planted under that name is written through); commit() renames them over the old
// files, the last one staged last, and undoes the renames already made when one fails. The
// directory is locked (flock on ".taskdata.lock") so that a second save into it waits.
// Whole directory (a set written somewhere else): the files are staged in a new directory
// beside the target, which commit() exchanges with the old target in one step
// (renameat2(RENAME_EXCHANGE); without it the old one is moved aside first). A target that
// holds anything but a task data set is refused, with the names of what would be lost.
// A file that exists and is not a regular file (a device, a FIFO) is written to directly.
// Temporaries that a killed save left behind are removed by the first save of a process that
// takes the lock of that directory.
//
// Ownership: the transaction owns its temporaries and locks; destroying it without commit()
// removes the temporaries and leaves every old file as it was. Threads: one thread per
// transaction; different transactions (also in different processes) exclude each other
// through the locks.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QByteArray>
#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>

#include <sys/types.h>

namespace TC {
namespace Task_data {

class KTD_EXPORT Save_transaction
{
public:
    enum Mode { In_place, Whole_directory };

    Save_transaction(const QString& dir, Mode mode);
    ~Save_transaction();
    Save_transaction(const Save_transaction&) = delete;
    Save_transaction& operator=(const Save_transaction&) = delete;

    // Takes the locks (waiting up to timeout_ms; -1 waits for ever), removes what killed saves
    // left (once per process and directory) and, for a whole directory, checks the target and makes the staging directory.
    // False with error() when the directory cannot be locked or must not be replaced.
    bool begin(int lock_timeout_ms);
    // In place without the lock and without removing anything: for a single result file
    // written into a directory that is no task data directory.
    bool begin_unlocked();
    // Stages the whole file `name` of the directory. Staging a name again replaces what was
    // staged for it.
    bool stage(const QString& name, const QByteArray& data);
    // Stages a copy of the file at `source`: streamed in pieces (any size), holes kept,
    // permission bits kept. A source that is a symbolic link is refused unless
    // `follow_symlinks`; one that is not a regular file is refused.
    bool stage_copy(const QString& name, const QString& source, bool follow_symlinks);
    // Stages a file written in pieces: a descriptor open for writing, or -1 with error(). The
    // caller writes and then calls close_staged(), which syncs and closes it.
    int open_staged(const QString& name);
    bool close_staged(int fd);
    // The size of what was staged for `name` (-1 when nothing was), for the check that a file
    // on disk holds what was meant to be written.
    qint64 staged_size(const QString& name) const;
    bool is_staged(const QString& name) const;

    // Names the data uses: no temporary name equals one of them (compared ignoring case).
    void reserve_names(const QSet<QString>& upper_case_names);

    // Puts everything staged in place. False with error() when that failed; every old file
    // is then as it was (in place: renames made are undone) and the temporaries are removed.
    bool commit();
    // Removes the temporaries; nothing of the old files is touched.
    void abort();

    QString error() const { return m_error; }
    QString dir() const { return m_dir; }
    Mode mode() const { return m_mode; }

    // The name of the lock file that in-place saves take.
    static QString lock_file_name();
    // Whether `name` is one of the files saves keep for themselves (the lock file and
    // temporaries): never data, never reported as unused.
    static bool is_own_file(const QString& name);
    // Why `dir` must not be replaced as a whole (the names of what is not task data, or that
    // it is no directory); empty when it may.
    static QString replace_refusal(const QString& dir);

private:
    struct Staged
    {
        QString name;      // final name in the directory
        QByteArray temp;   // where it is staged (encoded path)
        bool direct;       // written straight into a device or FIFO: nothing to rename
        qint64 size;       // -1 unknown, -2 still being written
    };
    bool fail(const QString& text);
    bool lock_file(const QString& path, bool directory, int timeout_ms);
    QByteArray unique_temp(const QString& name, const char* suffix) const;
    int create_staged(const QString& name, mode_t mode, Staged& s);
    bool finish_staged(int fd, Staged& s);
    void remove_stale(const QString& in_dir, const QString& prefix, bool directories);
    bool commit_in_place();
    bool commit_whole();

    QString m_dir;
    Mode m_mode;
    QString m_staging; // the whole-directory staging directory
    QString m_error;
    QVector<Staged> m_staged;
    QVector<int> m_lock_fds;
    QHash<int, QString> m_open_fds; // open_staged() descriptors not closed yet
    QSet<QString> m_reserved;
    bool m_begun = false;
    bool m_done = false;
};

} // namespace Task_data
} // namespace TC
