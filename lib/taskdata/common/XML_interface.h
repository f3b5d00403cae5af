// XML_interface: binds one task data directory to an element tree and carries the state of one
// load or save run (format version, what is written, success and the first failure text).
//
// The element readers and writers consult it for every element. Ownership: created by the
// application (or the autosave object) and handed by reference to every element operation; it
// owns no element. Threads: a run (load, save) uses it from one thread at a time; when built
// with a mutex, settings and state may be read from other threads (lock()/unlock() take that
// mutex from outside); wait_for_complete(), in_use() and cancel() may be called from any thread.
#pragma once

#include <taskdata/common/File_lookup.h>
#include <taskdata/common/String_filter.h>
#include <taskdata/taskdata_export.h>

#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QSet>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QWaitCondition>

#include <atomic>
#include <functional>
#include <memory>

class QXmlStreamReader;
class QXmlStreamWriter;

namespace TC {
namespace Task_data {

class Save_transaction;
class XML_interface_private;

namespace Elements {
namespace Base {
class Element_man;
class Task_data;
} // namespace Base
namespace Client {
class Element_man;
} // namespace Client
} // namespace Elements

// Where whole files of a directory go. The default writes each file atomically (see
// XML_interface::write_file_atomic); a terminal may route files elsewhere (a removable medium,
// a test double). Called on the thread of the run.
class KTD_EXPORT File_interface
{
public:
    virtual ~File_interface();
    // Writes `data` as the file `path`; false with a reason in `error` when it could not.
    virtual bool write(const QString& path, const QByteArray& data, QString* error) = 0;
};

class KTD_EXPORT XML_interface
{
    friend class Task_data_files;
    friend class XML_interface_private;

public:
    // path: the task data directory (or the main file in it).
    // write_children: when false an element is written with its attributes only.
    // keep_proprietary: proprietary attributes, extra attributes, P231 elements and
    //   "GUIDLIST.XML" are written.
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
    // A version set here (or read by load()) is the one save() writes; without one, save()
    // writes the version the document was read or created with.
    void set_format_version(int v)
    {
        m_format_version = v;
        m_format_version_set = true;
    }
    bool format_version_set() const { return m_format_version_set; }
    // Whether "GUIDLIST.XML" is written only when the document was read with one, and then
    // with the GUIDs read only (a conversion: the same input gives the same output). Off by
    // default: every identifier written gets its GUID into the list.
    void set_guid_list_as_read(bool on) { m_guid_list_as_read = on; }
    bool guid_list_as_read() const { return m_guid_list_as_read; }
    // Texts written in place of what attributes hold, by attribute (a file name the format names
    // otherwise, during a save); empty outside a save.
    void set_written_texts(const QHash<const void*, QString>& texts) { m_written_texts = texts; }
    const QString* written_text(const void* attribute) const
    {
        if (m_written_texts.isEmpty())
            return nullptr;
        auto it = m_written_texts.constFind(attribute);
        return it == m_written_texts.constEnd() ? nullptr : &*it;
    }
    // A main file whose root has no major version is read as this version (with a warning
    // naming the file) instead of failing; 0, the default, keeps the failure.
    void set_assumed_version(int v) { m_assumed_version = v; }
    int assumed_version() const { return m_assumed_version; }
    bool keep_proprietary() const { return m_keep_proprietary; }
    void set_keep_proprietary(bool k) { m_keep_proprietary = k; }
    bool write_children() const { return m_write_children; }
    void set_write_children(bool w) { m_write_children = w; }
    bool track_files() const { return m_track_files; }
    const String_filter& name_filter() const { return m_name_filter; }
    void set_name_filter(const String_filter& f) { m_name_filter = f; }
    bool admits(QStringView name) const { return m_name_filter.admits(name); }

    // --- success ---
    bool ok() const { return m_ok; }
    QString fail_text() const;
    // Marks the run failed; only the first failure text is kept.
    void set_fail(const QString& text);
    // "Error \"%1\" at %2:%3:%4:%5" with the reader's error, the file, line, column and offset.
    void set_fail(const QString& path, const QXmlStreamReader& r);
    // The same text from its parts.
    void set_fail_at(const QString& path, const QString& error, qint64 line, qint64 column, qint64 offset);
    // Warnings collected during a run (lookup choices, missing referenced files).
    void add_warning(const QString& text);
    QStringList warnings() const;

    // --- paths ---
    QString path() const { return m_path; }
    // The directory files are read from and written to (set_output_dir() moves both).
    QString output_dir() const { return m_output_dir; }
    QString outfiledir() const { return m_output_dir; }
    QString main_outfilename() const { return m_main_outfilename; }
    void set_main_outfilename(const QString& name);
    QString cur_outfilename() const { return m_cur_outfilename.isEmpty() ? m_main_outfilename : m_cur_outfilename; }
    void set_cur_outfilename(const QString& name) { m_cur_outfilename = name; }
    // A file of the directory by name, found regardless of case; empty when absent (the
    // not-found text joins the warnings). A file found counts as used. During a run the
    // directory is listed once (again after each file the run writes).
    QString infilepath(const QString& name) const;
    // The same, for optional files: a missing file is neither reported nor noted as used.
    QString find_optional(const QString& name) const;
    QString outfilepath(const QString& name) const;
    QString cur_outfilepath() const { return outfilepath(cur_outfilename()); }
    QString main_outfilepath() const { return outfilepath(m_main_outfilename); }
    bool outfilepath_exists(const QString& name) const;
    // The file being read now (for failure texts); the main file when none is set.
    QString cur_infilepath() const { return m_cur_infilepath.isEmpty() ? main_outfilepath() : m_cur_infilepath; }
    void set_cur_infilepath(const QString& p) { m_cur_infilepath = p; }
    // Saves go there; the files the tree refers to are copied along from the directory the
    // tree was read from.
    void set_output_dir(const QString& dir);

    // --- per-kind individual files ---
    void set_individual_save(const QString& tag, bool on);
    bool individual_save(const QString& tag) const;
    bool individual_save(QStringView tag) const;
    bool any_individual_save() const { return !m_individual.isEmpty(); }
    // Optimised save: a file whose new content equals the file already in the output directory
    // is left untouched (no rewrite, no sync): fewer writes to a terminal's flash.
    void set_optimised_save(bool on = true) { m_optimised_save = on; }
    bool optimised_save() const { return m_optimised_save; }
    // What is being written now: 0 nothing, 1 the main file, 2 one element's own file.
    int partial_save_state() const { return m_partial_save_state.load(); }
    void set_partial_save_state(int state) { m_partial_save_state.store(state); }
    // Set while the autosave writes the main file: individually saved elements are only
    // referenced there, the autosave keeping their own files current as they change.
    bool reference_individual_files() const { return m_reference_individual_files; }
    void set_reference_individual_files(bool on) { m_reference_individual_files = on; }

    // --- autosave ---
    // Keeps the directory in step with the manager's tree: every change anywhere below the root
    // is queued and, `delay_ms` after the first change of a burst, written (the element's own
    // file for kinds saved individually, else "TASKDATA.XML" and "LINKLIST.XML"), each file
    // replaced whole. With `background` the writing runs on the low-priority thread "XML
    // Autosave" (started here; the call returns once it is ready), else on the calling
    // thread's event loop; delay 0 writes each change as it arrives. A call replaces the
    // autosave running (which first writes what it had queued); an invalid manager turns
    // autosave off. Answers the autosave object, null when off. While autosave runs, the
    // interface and its settings belong to it: load and save through another interface.
    QObject* set_autosave(const Elements::Client::Element_man& eman, bool background = true, int delay_ms = 2000);
    bool is_autosave() const;
    // Returns once every change posted before the call is written and synced to the medium;
    // at once when autosave is off. Any thread may call it.
    void autosave_sync();
    // The autosave's trace line per write ("ASave ..."), on by default; it also follows the
    // library's trace switch (Trace_print, KTD_TRACE=0).
    void set_autosave_trace(bool on);
    bool autosave_trace() const { return m_autosave_trace.load(); }

    // --- progress ---
    void set_total_objects(int n) { m_total_objects = n; }
    int total_objects() const { return m_total_objects; }
    void increment_objects_done()
    {
        if ((++m_objects_done & 1023) == 0 && m_progress)
            m_progress(m_objects_done, m_total_objects);
    }
    // Called on the run's thread every 1024 objects written, with objects done and total.
    void set_progress_handler(std::function<void(int done, int total)> handler) { m_progress = std::move(handler); }
    int objects_done() const { return m_objects_done; }
    bool is_complete() const { return m_total_objects > 0 && m_objects_done >= m_total_objects; }

    // --- files ---
    // Names (as they stand in the directory) of the files the last run read or wrote.
    void note_used_file(const QString& name);
    QSet<QString> used_files() const;
    // Notes as used every file of the directory that the manager's tree needs: the main file,
    // "LINKLIST.XML", "GUIDLIST.XML", individually saved elements and the files elements refer
    // to (external files, grids, time logs, point files, attached files). Answers the sorted
    // names of those that exist.
    QStringList track_used_files(const QSharedPointer<Elements::Base::Element_man>& man);
    // Files of the directory that are not used (after a load, a save or track_used_files()),
    // sorted; kept for unused_files(). Empty when the interface does not track files.
    QStringList track_unused_files();
    QStringList unused_files() const;

    // Starts an XML document: the declaration with version="1.0" and encoding="UTF-8".
    void write_start_document(QXmlStreamWriter& w) const;
    // The writer of the file being written now; null outside a save. Element::save_xml(xi)
    // writes through it (per-element saves of the autosave thread).
    QXmlStreamWriter* current_writer() const { return m_current_writer; }
    void set_current_writer(QXmlStreamWriter* w) { m_current_writer = w; }
    // Writes one whole file `name` of the output directory (attached and referenced files);
    // prints "Could not save attached file %s to %s\n" and fails the run when it cannot.
    bool write_file(File_interface& files, const QString& name, const QByteArray& data);
    bool write_file(const QString& name, const QByteArray& data);
    // Writes a whole file of the directory so that no moment exists in which a complete old
    // file is not in place: a uniquely named temporary file, synced, renamed over the old one.
    // During save() the file joins that save and is put in place with all its other files;
    // outside one it is a save of its own (the directory locked meanwhile). With optimised
    // save, a file that already holds `data` is left as it is. A device or FIFO of that name
    // is written to directly.
    bool write_file_atomic(const QString& path, const QByteArray& data, QString* error = nullptr);
    // Copies the file at `source` as the file `name` of the output directory, in the same way:
    // streamed (any size), holes and permission bits kept. A source that is a symbolic link
    // is refused unless Symlink_policy allows it.
    bool copy_file(const QString& name, const QString& source, QString* error = nullptr);
    // Referenced files the last save copied from the directory the tree was read from.
    int copied_files() const { return m_copied_files; }

    // How long a save waits for another save of the same directory (another thread or
    // program) to end; -1 for ever. Default 30 s.
    void set_lock_timeout(int ms) { m_lock_timeout_ms = ms; }
    int lock_timeout() const { return m_lock_timeout_ms; }
    // A save into a directory other than the one the tree was read from replaces that
    // directory as a whole (default): no file of an older set stays beside the new one, and a
    // directory holding anything else is refused. Off: the files are written into it, each
    // replacing the file of its name, all or none.
    void set_replace_whole_directory(bool on) { m_replace_whole_directory = on; }
    bool replace_whole_directory() const { return m_replace_whole_directory; }

    void lock();
    void unlock();

    // --- the life of one run, for other threads ---
    // load() and save() call these themselves; a caller driving a run of its own may too.
    void notify_start_in_use();
    void notify_finish_in_use();
    // Ends the run with its result (a false result fails the interface if nothing did yet).
    void notify_complete(bool ok);
    // Writes what the autosave has queued (autosave_sync()), then blocks until no run is in
    // progress, or `timeout_ms` passed (-1 waits for ever). True when no run is in progress on
    // return.
    bool wait_for_complete(int timeout_ms = -1);
    bool in_use() const;
    // Asks the run in progress (or, between runs, the next one) to stop before its next
    // top-level element; it fails with "Cancelled". The request ends with that run;
    // cancel(false) withdraws it.
    void cancel(bool on = true) { m_cancel.store(on); }
    bool cancelled() const { return m_cancel.load(); }

    // --- whole directories ---
    // Loads the directory's "TASKDATA.XML" with everything it refers to (individually saved
    // element files, external files, "LINKLIST.XML", "GUIDLIST.XML") into the manager's tree,
    // creating the root when the manager has none. False with fail_text() when the main file
    // cannot be read; what was read before an error stays in the tree.
    bool load(const QSharedPointer<Elements::Base::Element_man>& man);
    // Writes the manager's tree into the output directory: "TASKDATA.XML", external and
    // individual files, "LINKLIST.XML", "GUIDLIST.XML", and copies of the files elements refer
    // to when the output directory is not the one the tree was read from. A save is all or
    // nothing: every file is written and synced under a temporary name first, and only when
    // all are written are they put in place (main file last); a failure (a full disk, a
    // rename refused) leaves every old file as it was. The directory is locked meanwhile.
    bool save(const QSharedPointer<Elements::Base::Element_man>& man);
    // A new document in the manager (replacing its root): "ISO11783_TaskData" of the format
    // version, made by "Tarvex Agriculture".
    static QSharedPointer<Elements::Base::Task_data>
    create_document(const QSharedPointer<Elements::Base::Element_man>& man, int format_version = 4);

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
    bool m_format_version_set = false;
    int m_assumed_version = 0;
    bool m_guid_list_as_read = false;
    QHash<const void*, QString> m_written_texts;
    bool m_optimised_save = false;
    std::atomic<int> m_partial_save_state{0};
    bool m_reference_individual_files = false;
    std::atomic<bool> m_autosave_trace{true};
    std::unique_ptr<XML_interface_private> m_private; // the autosave
    std::atomic<bool> m_cancel{false};
    bool m_ok = true;
    QString m_fail_text;
    QStringList m_warnings;
    String_filter m_name_filter;
    QSet<QString> m_individual;
    int m_total_objects = 0;
    int m_objects_done = 0;
    std::function<void(int, int)> m_progress;
    int m_copied_files = 0;
    int m_lock_timeout_ms = 30000;
    bool m_replace_whole_directory = true;
    // The save in progress, which every file written joins; null outside save().
    Save_transaction* m_transaction = nullptr;
    QSet<QString> m_used_files;
    QStringList m_unused_files;
    std::unique_ptr<QMutex> m_mutex;
    QXmlStreamWriter* m_current_writer = nullptr;
    // The run life cycle has its own lock: waiting threads need one whether or not the
    // interface was built with a mutex.
    mutable QMutex m_run_mutex;
    QWaitCondition m_run_done;
    bool m_in_use = false;
    // The directory listing of the run in progress; dropped when a file is written.
    mutable std::unique_ptr<File_lookup::Index> m_index;
    File_lookup::Result lookup(const QString& name, bool quiet) const;
};

} // namespace Task_data
} // namespace TC
