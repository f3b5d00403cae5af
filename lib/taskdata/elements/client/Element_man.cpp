#include "Element_man.h"

#include "Elements.h"

#include <taskdata/common/XML_interface.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QMutexLocker>

#include <functional>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Client {

namespace {

// What the client side keeps per manager, whichever handle set it.
struct State
{
    QMutex lock;
    QString load_path;
    QString save_path;
    int xml_version = 0;      // 0: the document's own
    int document_version = 0; // as the last load read it
    Iso::Time_source* time_source = nullptr;
    XML_interface* running = nullptr; // the save in progress
};

QMutex g_states_lock;
QHash<const Base::Element_man*, QSharedPointer<State>> g_states;

QSharedPointer<State> state_of(const QSharedPointer<Base::Element_man>& man)
{
    if (!man)
        return QSharedPointer<State>();
    QMutexLocker guard(&g_states_lock);
    QSharedPointer<State>& s = g_states[man.data()];
    if (!s) {
        s = QSharedPointer<State>::create();
        const Base::Element_man* key = man.data();
        // The manager's address may be reused by a later one: its state goes with it.
        QObject::connect(man.data(), &QObject::destroyed, [key] {
            QMutexLocker g(&g_states_lock);
            g_states.remove(key);
        });
    }
    return s;
}

// f(state) under the state's lock; `empty` for an empty handle.
template <class R, class F>
R with_state(const QSharedPointer<Base::Element_man>& man, R empty, F&& f)
{
    const QSharedPointer<State> s = state_of(man);
    if (!s)
        return empty;
    QMutexLocker g(&s->lock);
    return f(*s);
}

// Marks the run of `xi` as the save in progress of the manager while alive.
struct Running
{
    QSharedPointer<State> state;
    Running(const QSharedPointer<State>& s, XML_interface* xi) : state(s)
    {
        QMutexLocker g(&state->lock);
        state->running = xi;
    }
    ~Running()
    {
        QMutexLocker g(&state->lock);
        state->running = nullptr;
    }
};

} // namespace

Element_man Element_man::create() { return Element_man(Base::Element_man::create()); }

void Element_man::destroy()
{
    if (!m_man)
        return;
    m_man->set_root(QSharedPointer<Base::Element>());
    m_man->set_link_list(QSharedPointer<Base::Element>());
    m_man.reset();
}

Task_data Element_man::create_client_root()
{
    if (!m_man)
        return Task_data();
    const int version = get_xml_version();
    return Task_data(XML_interface::create_document(m_man, version));
}

Task_data Element_man::get_client_root() const { return m_man ? Task_data(m_man->root()) : Task_data(); }

Element Element_man::get_client_element(const void* base_element) const
{
    if (!m_man || !base_element)
        return Element();
    // By address only: nothing is read through the pointer before it is found in the tree.
    std::function<QSharedPointer<Base::Element>(const QSharedPointer<Base::Element>&)> find =
        [&](const QSharedPointer<Base::Element>& e) -> QSharedPointer<Base::Element> {
        if (!e)
            return {};
        if (e.data() == base_element)
            return e;
        Base::Element_locker_new lock(e, -1);
        for (unsigned l = 0; lock && l < e->_num_element_lists(); ++l)
            for (const auto& c : e->_element_list(l)->elements())
                if (QSharedPointer<Base::Element> hit = find(c))
                    return hit;
        return {};
    };
    QSharedPointer<Base::Element> hit = find(m_man->root());
    if (!hit)
        hit = find(m_man->link_list());
    return Element(hit);
}

Link_lst Element_man::link_list() const { return m_man ? Link_lst(m_man->link_list()) : Link_lst(); }

Link_group Element_man::guid_group() const
{
    const Link_lst list = link_list();
    for (int i = 0, n = list.groups_count(); i < n; ++i) {
        const Link_group g = list.get_group(unsigned(i));
        if (g.type() == 1)
            return g;
    }
    return Link_group();
}

bool Element_man::load_xml(XML_interface& xi)
{
    if (!m_man)
        return false;
    const bool ok = xi.load(m_man);
    // The root's version attributes fold every version into what they can write: the version
    // read is kept here.
    with_state(m_man, false, [&xi](State& s) {
        s.document_version = xi.format_version();
        return true;
    });
    return ok;
}

bool Element_man::save_xml(XML_interface& xi)
{
    if (!m_man)
        return false;
    Running running(state_of(m_man), &xi);
    return xi.save(m_man);
}

bool Element_man::load_from_xml(const char* path, String_filter filter)
{
    if (!m_man || !path)
        return false;
    const QString dir = QString::fromLocal8Bit(path);
    XML_interface xi(dir);
    xi.set_name_filter(filter);
    if (!load_xml(xi))
        return false;
    set_taskdata_load_path(dir);
    return true;
}

bool Element_man::save_to_xml(const char* path, bool keep_proprietary)
{
    if (!m_man || !path)
        return false;
    const QString dir = QDir(QString::fromLocal8Bit(path)).absolutePath();
    if (!QDir().mkpath(dir))
        return false;
    XML_interface xi(dir);
    xi.set_output_dir(dir);
    xi.set_keep_proprietary(keep_proprietary);
    if (const int version = with_state(m_man, 0, [](State& s) { return s.xml_version; }))
        xi.set_format_version(version);
    if (!save_xml(xi))
        return false;
    set_taskdata_save_path(dir);
    return true;
}

bool Element_man::get_save_progress(int& done, int& total) const
{
    return with_state(m_man, false, [&](State& s) {
        if (!s.running)
            return false;
        // Counters of a run on another thread: read as they stand, for a progress display.
        done = s.running->objects_done();
        total = s.running->total_objects();
        return true;
    });
}

void Element_man::set_taskdata_load_path(const QString& path)
{
    with_state(m_man, false, [&](State& s) {
        s.load_path = path;
        return true;
    });
}

QString Element_man::get_taskdata_load_path() const
{
    return with_state(m_man, QString(), [](State& s) { return s.load_path; });
}

void Element_man::set_taskdata_save_path(const QString& path)
{
    with_state(m_man, false, [&](State& s) {
        s.save_path = path;
        return true;
    });
}

QString Element_man::get_taskdata_save_path() const
{
    return with_state(m_man, QString(), [](State& s) { return s.save_path; });
}

QString Element_man::find_file_path(const QString& name) const { return m_man ? m_man->find_file(name) : QString(); }

void Element_man::set_xml_version(int version)
{
    with_state(m_man, false, [version](State& s) {
        s.xml_version = version;
        return true;
    });
}

int Element_man::get_xml_version() const
{
    return with_state(m_man, 4, [](State& s) {
        return s.xml_version ? s.xml_version : s.document_version ? s.document_version : 4;
    });
}

bool Element_man::check_uid_free(const QString& prefix, int n) const { return m_man && m_man->check_uid_free(prefix, n); }

int Element_man::get_free_uid(const QString& prefix, bool positive) const
{
    return m_man ? m_man->get_free_uid(prefix, positive) : 0;
}

bool Element_man::set_attached_file(const QByteArray& name, Proprietery_file_types type, const QString& source,
                                    bool preserve)
{
    const Task_data root = get_client_root();
    const QString file = QString::fromLatin1(name);
    if (!root.valid() || file.isEmpty() || file.size() > int(Base::Attached_file::filename_spec.max_length))
        return false;
    const QString dir = m_man->task_data_dir();
    if (!source.isEmpty() && !dir.isEmpty() && find_file_path(file).isEmpty()) {
        QFile in(source);
        if (!in.open(QIODevice::ReadOnly))
            return false;
        XML_interface xi(dir);
        if (!xi.write_file_atomic(QDir(dir).filePath(file), in.readAll()))
            return false;
    }
    Attached_file afe;
    for (int i = 0, n = root.attached_files_count(); i < n && !afe.valid(); ++i)
        if (root.get_attached_file(unsigned(i)).filename() == file)
            afe = root.get_attached_file(unsigned(i));
    if (!afe.valid())
        afe = root.create_attached_file();
    if (!afe.valid())
        return false;
    afe.set_filename(file);
    afe.set_file_type(quint8(type));
    afe.set_preserve(preserve ? 1 : 2);
    if (!source.isEmpty())
        afe.set_orig_filename(QFileInfo(source).fileName());
    return true;
}

QString Element_man::get_attached_file(const QByteArray& name) const
{
    const Task_data root = get_client_root();
    const QString file = QString::fromLatin1(name);
    for (int i = 0, n = root.attached_files_count(); i < n; ++i)
        if (root.get_attached_file(unsigned(i)).filename() == file)
            return find_file_path(file);
    return QString();
}

void Element_man::set_cur_position(const Iso::Position& position)
{
    if (m_man)
        m_man->position().set(position.get());
}

Iso::Position Element_man::get_cur_position() const { return m_man ? m_man->position() : Iso::Position(); }

QPointF Element_man::get_cur_pos() const { return m_man ? m_man->position().lon_lat() : QPointF(); }

void Element_man::set_time_source(Iso::Time_source* source)
{
    with_state(m_man, false, [source](State& s) {
        s.time_source = source;
        return true;
    });
}

Iso::Time_source* Element_man::get_time_source() const
{
    return with_state(m_man, static_cast<Iso::Time_source*>(nullptr), [](State& s) { return s.time_source; });
}

const QVector<DDI_table::Entry>& Element_man::get_ddi_list() const { return DDI_table::entries(); }

bool Element_man::start_remote_server(unsigned short) { return false; }

bool Element_man::stop_remote_server() { return false; }

bool Element_man::start_remote_client(const QUrl&) { return false; }

bool Element_man::stop_remote_client() { return false; }

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC
