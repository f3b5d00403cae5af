// XML_interface: binds one task data directory to an element tree and carries the state of one
// load or save run (format version, what is written, success and the first failure text).
//
// The element readers and writers consult it for every element. Ownership: created by the
// application (or the autosave object) and handed by reference to every element operation.
// Threads: a run uses it from one thread at a time; when built with a mutex, settings and state
// may be read from other threads (lock()/unlock() take that mutex from outside).
#pragma once

#include <taskdata/common/String_filter.h>
#include <taskdata/taskdata_export.h>

#include <QHash>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>

#include <memory>

class QXmlStreamReader;
class QXmlStreamWriter;

namespace TC {
namespace Task_data {

class KTD_EXPORT XML_interface
{
public:
    // path: the task data directory (or the main file in it).
    // write_children: when false an element is written with its attributes only.
    // keep_proprietary: proprietary attributes, extra attributes and P231 elements are written.
    // with_mutex: settings and state are guarded for readers on other threads.
    // track_files: the used and unused files of the directory are collected.
    explicit XML_interface(const QString& path = QString(), bool write_children = true, bool keep_proprietary = true,
                           bool with_mutex = false, bool track_files = true);
    virtual ~XML_interface();
    XML_interface(const XML_interface&) = delete;
    XML_interface& operator=(const XML_interface&) = delete;

    void set(const QString& path, bool write_children, bool keep_proprietary, bool with_mutex, bool track_files);
    void reset_state();
    void update_path_cache();

    // --- what the element writers consult ---
    int format_version() const { return m_format_version; }
    void set_format_version(int v) { m_format_version = v; }
    bool keep_proprietary() const { return m_keep_proprietary; }
    void set_keep_proprietary(bool k) { m_keep_proprietary = k; }
    bool write_children() const { return m_write_children; }
    void set_write_children(bool w) { m_write_children = w; }
    const String_filter& name_filter() const { return m_name_filter; }
    void set_name_filter(const String_filter& f) { m_name_filter = f; }
    bool admits(QStringView name) const { return m_name_filter.admits(name); }

    // --- success ---
    bool ok() const { return m_ok; }
    QString fail_text() const { return m_fail_text; }
    // Marks the run failed; only the first failure text is kept.
    void set_fail(const QString& text);
    // "Error \"%1\" at %2:%3:%4:%5" with the reader's error, the file, line, column and offset.
    void set_fail(const QString& path, const QXmlStreamReader& r);
    // Warnings collected during a run (lookup choices, unreadable referenced files).
    void add_warning(const QString& text);
    QStringList warnings() const { return m_warnings; }

    // --- paths ---
    QString path() const { return m_path; }
    QString output_dir() const { return m_output_dir; }
    QString outfiledir() const { return m_output_dir; }
    QString main_outfilename() const { return m_main_outfilename; }
    void set_main_outfilename(const QString& name);
    QString cur_outfilename() const { return m_cur_outfilename.isEmpty() ? m_main_outfilename : m_cur_outfilename; }
    void set_cur_outfilename(const QString& name) { m_cur_outfilename = name; }
    // A file of the directory by name, found regardless of case; empty when absent.
    QString infilepath(const QString& name) const;
    QString outfilepath(const QString& name) const;
    QString cur_outfilepath() const { return outfilepath(cur_outfilename()); }
    QString main_outfilepath() const { return outfilepath(m_main_outfilename); }
    bool outfilepath_exists(const QString& name) const;
    // The file being read now (for failure texts); the main file when none is set.
    QString cur_infilepath() const { return m_cur_infilepath.isEmpty() ? main_outfilepath() : m_cur_infilepath; }
    void set_cur_infilepath(const QString& p) { m_cur_infilepath = p; }
    void set_output_dir(const QString& dir);

    // --- per-kind individual files ---
    void set_individual_save(const QString& tag, bool on);
    bool individual_save(const QString& tag) const;
    bool individual_save(QStringView tag) const;
    bool any_individual_save() const { return !m_individual.isEmpty(); }

    // --- progress ---
    void set_total_objects(int n) { m_total_objects = n; }
    int total_objects() const { return m_total_objects; }
    void increment_objects_done() { ++m_objects_done; }
    int objects_done() const { return m_objects_done; }
    bool is_complete() const { return m_total_objects > 0 && m_objects_done >= m_total_objects; }

    // --- files ---
    void note_used_file(const QString& name);
    QSet<QString> used_files() const { return m_used_files; }

    // Writes a whole file of the directory so that no moment exists in which a complete old
    // file is not in place: temporary file, flush and sync, rename over, sync the directory.
    bool write_file_atomic(const QString& path, const QByteArray& data, QString* error = nullptr);

    void lock();
    void unlock();

protected:
    QString m_path;
    QString m_output_dir;
    QString m_main_outfilename;
    QString m_cur_outfilename;
    QString m_cur_infilepath;
    bool m_write_children = true;
    bool m_keep_proprietary = true;
    bool m_track_files = true;
    int m_format_version = 4;
    bool m_ok = true;
    QString m_fail_text;
    QStringList m_warnings;
    String_filter m_name_filter;
    QSet<QString> m_individual;
    int m_total_objects = 0;
    int m_objects_done = 0;
    QSet<QString> m_used_files;
    std::unique_ptr<QMutex> m_mutex;
};

} // namespace Task_data
} // namespace TC
