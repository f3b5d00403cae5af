#include "XML_interface.h"

#include "File_lookup.h"
#include "Save_transaction.h"
#include "Symlink_policy.h"
#include "Task_data_files.h"
#include "XML_interface_private.h"

#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QSettings>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

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

// The default target of write_file(): every file whole.
struct Atomic_files final : File_interface
{
    XML_interface& xi;
    explicit Atomic_files(XML_interface& x) : xi(x) {}
    bool write(const QString& path, const QByteArray& data, QString* error) override
    {
        return xi.write_file_atomic(path, data, error);
    }
};
} // namespace

File_interface::~File_interface() = default;

XML_interface::XML_interface(const QString& path, bool write_children, bool keep_proprietary, bool with_mutex,
                             bool track_files)
    : m_main_outfilename(QStringLiteral("TASKDATA.XML")), m_private(new XML_interface_private(*this))
{
    set(path, write_children, keep_proprietary, with_mutex, track_files);
}

void XML_interface::set(const QString& path, bool write_children, bool keep_proprietary, bool with_mutex,
                        bool track_files)
{
    if (with_mutex && !m_mutex)
        m_mutex.reset(new QMutex(QMutex::Recursive)); // set() resets the state under the lock
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
    Maybe_lock lock(m_mutex.get());
    m_ok = true;
    m_fail_text.clear();
    m_warnings.clear();
    m_total_objects = 0;
    m_objects_done = 0;
    m_used_files.clear();
    m_unused_files.clear();
    m_copied_files = 0;
    m_cur_infilepath.clear();
    m_cur_outfilename.clear();
    m_partial_save_state.store(0);
    m_index.reset();
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

void XML_interface::set_output_dir(const QString& dir)
{
    m_output_dir = QDir(dir).absolutePath();
    m_index.reset();
}

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
    set_fail_at(path, r.errorString(), r.lineNumber(), r.columnNumber(), r.characterOffset());
}

void XML_interface::set_fail_at(const QString& path, const QString& error, qint64 line, qint64 column, qint64 offset)
{
    set_fail(QCoreApplication::translate("XML_interface", "Error \"%1\" at %2:%3:%4:%5")
                 .arg(error, path)
                 .arg(line)
                 .arg(column)
                 .arg(offset));
}

QString XML_interface::fail_text() const
{
    Maybe_lock lock(m_mutex.get());
    return m_fail_text;
}

void XML_interface::add_warning(const QString& text)
{
    Maybe_lock lock(m_mutex.get());
    m_warnings.append(text);
}

QStringList XML_interface::warnings() const
{
    Maybe_lock lock(m_mutex.get());
    return m_warnings;
}

QString XML_interface::find_optional(const QString& name) const
{
    const File_lookup::Result r = lookup(name, true);
    if (r.matches > 1)
        const_cast<XML_interface*>(this)->add_warning(r.message);
    QString refused;
    if (Symlink_policy::refuses(r.path, &refused)) {
        const_cast<XML_interface*>(this)->add_warning(refused);
        return QString();
    }
    return r.path;
}

File_lookup::Result XML_interface::lookup(const QString& name, bool quiet) const
{
    if (!in_use())
        return File_lookup::find(m_output_dir, name, quiet);
    if (!m_index || m_index->dir() != m_output_dir)
        m_index.reset(new File_lookup::Index(m_output_dir));
    return m_index->find(name, quiet);
}

QString XML_interface::infilepath(const QString& name) const
{
    const File_lookup::Result r = lookup(name, false);
    if (!r.message.isEmpty())
        const_cast<XML_interface*>(this)->add_warning(r.message);
    QString refused;
    if (Symlink_policy::refuses(r.path, &refused)) {
        fprintf(stderr, "%s\n", refused.toUtf8().constData());
        const_cast<XML_interface*>(this)->add_warning(refused);
        return QString();
    }
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

QSet<QString> XML_interface::used_files() const
{
    Maybe_lock lock(m_mutex.get());
    return m_used_files;
}

QStringList XML_interface::track_used_files(const QSharedPointer<Elements::Base::Element_man>& man)
{
    QStringList names;
    auto note = [&](const QString& name) {
        const QString path = File_lookup::find(m_output_dir, name, true).path;
        if (path.isEmpty())
            return;
        const QString found = QFileInfo(path).fileName();
        {
            Maybe_lock lock(m_mutex.get());
            m_used_files.insert(found);
        }
        names.append(found);
    };
    note(m_main_outfilename);
    note(QStringLiteral("LINKLIST.XML"));
    note(QStringLiteral("GUIDLIST.XML"));
    if (man && man->root()) {
        for (const Task_data_files::Referenced_file& f : Task_data_files::referenced_files(man->root())) {
            note(f.name);
            if (!f.source.isEmpty())
                note(f.source);
        }
        for (const Task_data_files::Referenced_file& f : Task_data_files::individual_files(*this, man->root()))
            note(f.name);
    }
    names.removeDuplicates();
    names.sort();
    return names;
}

QStringList XML_interface::track_unused_files()
{
    QStringList unused;
    if (m_track_files && !m_output_dir.isEmpty()) {
        const QSet<QString> used = used_files();
        const QStringList entries =
            QDir(m_output_dir).entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name);
        for (const QString& name : entries)
            if (!used.contains(name) && !Save_transaction::is_own_file(name))
                unused.append(name);
    }
    Maybe_lock lock(m_mutex.get());
    m_unused_files = unused;
    return unused;
}

QStringList XML_interface::unused_files() const
{
    Maybe_lock lock(m_mutex.get());
    return m_unused_files;
}

void XML_interface::write_start_document(QXmlStreamWriter& w) const
{
    // A writer on a device declares its encoding itself; one writing into a string would not,
    // and the declaration must name UTF-8 wherever the text ends up.
    if (w.device())
        w.writeStartDocument(QStringLiteral("1.0"));
    else
        w.writeProcessingInstruction(QStringLiteral("xml"), QStringLiteral("version=\"1.0\" encoding=\"UTF-8\""));
}

bool XML_interface::write_file(File_interface& files, const QString& name, const QByteArray& data)
{
    const QString path = outfilepath(name);
    QString error;
    if (!files.write(path, data, &error)) {
        fprintf(stderr, "Could not save attached file %s to %s\n", name.toUtf8().constData(),
                m_output_dir.toUtf8().constData());
        set_fail(QCoreApplication::translate("XML_interface", "Could not save attached file %1 to %2: %3")
                     .arg(name, m_output_dir, error));
        return false;
    }
    note_used_file(QFileInfo(path).fileName());
    return true;
}

bool XML_interface::write_file(const QString& name, const QByteArray& data)
{
    Atomic_files files(*this);
    return write_file(files, name, data);
}

namespace {
bool same_content(const QString& path, const QByteArray& data)
{
    QFile f(path);
    if (f.size() != data.size() || !QFileInfo(path).isFile() || QFileInfo(path).isSymLink() ||
        !f.open(QIODevice::ReadOnly))
        return false;
    return f.readAll() == data;
}
} // namespace

bool XML_interface::write_file_atomic(const QString& path, const QByteArray& data, QString* error)
{
    const QFileInfo fi(path);
    const QString name = fi.fileName();
    Save_transaction* t = m_transaction && fi.absolutePath() == m_output_dir ? m_transaction : nullptr;
    // Reading is far cheaper than writing and syncing, and spares a terminal's flash.
    if (m_optimised_save && (!t || (t->mode() == Save_transaction::In_place && !t->is_staged(name))) &&
        same_content(path, data))
        return true;
    m_index.reset();
    std::unique_ptr<Save_transaction> own;
    if (!t) {
        own.reset(new Save_transaction(fi.absolutePath(), Save_transaction::In_place));
        t = own.get();
        if (!t->begin(m_lock_timeout_ms)) {
            if (error)
                *error = t->error();
            return false;
        }
    }
    if (!t->stage(name, data)) {
        if (error)
            *error = t->error();
        return false;
    }
    const qint64 size = t->staged_size(name);
    if (size != data.size()) {
        fprintf(stderr, "File size does not match %s/%s %d %d\n", fi.absolutePath().toUtf8().constData(),
                name.toUtf8().constData(), int(size), int(data.size()));
        if (error)
            *error = QCoreApplication::translate("XML_interface", "File size does not match %1/%2 %3 %4")
                         .arg(fi.absolutePath(), name)
                         .arg(size)
                         .arg(data.size());
        return false;
    }
    if (own && !own->commit()) {
        if (error)
            *error = own->error();
        return false;
    }
    return true;
}

bool XML_interface::copy_file(const QString& name, const QString& source, QString* error)
{
    const QString path = outfilepath(name);
    const QFileInfo fi(path);
    Save_transaction* t = m_transaction && fi.absolutePath() == m_output_dir ? m_transaction : nullptr;
    m_index.reset();
    std::unique_ptr<Save_transaction> own;
    if (!t) {
        own.reset(new Save_transaction(fi.absolutePath(), Save_transaction::In_place));
        t = own.get();
    }
    if ((own && !t->begin(m_lock_timeout_ms)) || !t->stage_copy(fi.fileName(), source, Symlink_policy::followed()) ||
        (own && !own->commit())) {
        if (error)
            *error = t->error();
        return false;
    }
    ++m_copied_files;
    note_used_file(fi.fileName());
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

void XML_interface::notify_start_in_use()
{
    QMutexLocker lock(&m_run_mutex);
    m_in_use = true;
}

void XML_interface::notify_finish_in_use()
{
    QMutexLocker lock(&m_run_mutex);
    m_in_use = false;
    m_run_done.wakeAll();
}

void XML_interface::notify_complete(bool ok)
{
    if (!ok && m_ok)
        set_fail(QCoreApplication::translate("XML_interface", "Run failed"));
    m_cancel.store(false);
    QMutexLocker lock(&m_run_mutex);
    m_in_use = false;
    m_run_done.wakeAll();
}

bool XML_interface::wait_for_complete(int timeout_ms)
{
    autosave_sync();
    const QDeadlineTimer deadline =
        timeout_ms < 0 ? QDeadlineTimer(QDeadlineTimer::Forever) : QDeadlineTimer(qint64(timeout_ms));
    QMutexLocker lock(&m_run_mutex);
    while (m_in_use) {
        if (!m_run_done.wait(&m_run_mutex, deadline))
            return !m_in_use;
    }
    return true;
}

bool XML_interface::in_use() const
{
    QMutexLocker lock(&m_run_mutex);
    return m_in_use;
}

bool XML_interface::load(const QSharedPointer<Elements::Base::Element_man>& man)
{
    notify_start_in_use();
    const bool ok = Task_data_files::load(*this, man);
    notify_complete(ok);
    return ok;
}

bool XML_interface::save(const QSharedPointer<Elements::Base::Element_man>& man)
{
    notify_start_in_use();
    const bool ok = Task_data_files::save(*this, man);
    notify_complete(ok);
    return ok;
}

QSharedPointer<Elements::Base::Task_data>
XML_interface::create_document(const QSharedPointer<Elements::Base::Element_man>& man, int format_version)
{
    return Task_data_files::create_document(man, format_version);
}

} // namespace Task_data
} // namespace TC
