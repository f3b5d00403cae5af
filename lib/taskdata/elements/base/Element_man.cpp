#include "Element_man.h"

#include <taskdata/attributes/base/LinkedID.h>
#include <taskdata/attributes/base/UniqueID.h>
#include <taskdata/common/File_lookup.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>

#include <QDir>
#include <QFileInfo>
#include <QMutexLocker>

#include <cstdio>
#include <limits>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

Element_lookup_base::~Element_lookup_base() = default;

Element_man_base::Element_man_base(QObject* parent) : QObject(parent) {}
Element_man_base::~Element_man_base() = default;

void Element_man_base::set_task_data_dir(const QString& dir)
{
    QMutexLocker lock(&m_dir_mutex);
    m_task_data_dir = dir;
}

QString Element_man_base::task_data_dir() const
{
    QMutexLocker lock(&m_dir_mutex);
    return m_task_data_dir;
}

QString Element_man_base::find_file(const QString& name) const
{
    const QString dir = task_data_dir();
    if (dir.isEmpty())
        return QString();
    return File_lookup::find(dir, name).path;
}

Element_man::Element_man(QObject* parent) : Element_man_base(parent) {}

Element_man::~Element_man()
{
    // The tree goes first so that its elements can still reach the registry while they leave.
    m_root.reset();
    m_link_list.reset();
}

QSharedPointer<Element_man> Element_man::create() { return QSharedPointer<Element_man>::create(); }

bool Element_man::check_uid_free(const QString& prefix, int n) const
{
    QMutexLocker lock(&m_mutex);
    const Registry& reg = registry_for(n);
    auto it = reg.constFind(prefix);
    return it == reg.constEnd() || !it->contains(n);
}

bool Element_man::register_uid(const QString& prefix, int n)
{
    QMutexLocker lock(&m_mutex);
    auto& map = registry_for(n)[prefix];
    if (!map.contains(n))
        map.insert(n, Uid_entry());
    return true;
}

void Element_man::remove_uid_locked(const QString& prefix, int n)
{
    registry_for(n)[prefix].remove(n);
    auto g = m_guids.find(Key(prefix, n));
    if (g != m_guids.end()) {
        m_guid_index.remove(*g);
        m_guids.erase(g);
    }
}

bool Element_man::deregister_uid(const QString& prefix, int n)
{
    QMutexLocker lock(&m_mutex);
    Registry& reg = registry_for(n);
    auto it = reg.find(prefix);
    if (it == reg.end())
        return false;
    if (!it->contains(n)) {
        if (n == 0)
            return true;
        printf("Tried to deregister a unique ID(%s%d) that does not exist\n", prefix.toUtf8().constData(), n);
        return false;
    }
    remove_uid_locked(prefix, n);
    return true;
}

int Element_man::get_free_uid(const QString& prefix, bool positive) const
{
    QMutexLocker lock(&m_mutex);
    return free_uid_locked(prefix, positive);
}

int Element_man::free_uid_locked(const QString& prefix, bool positive) const
{
    constexpr int top = 2147483645;
    if (positive) {
        auto it = m_positive.constFind(prefix);
        if (it == m_positive.constEnd() || it->isEmpty())
            return 1;
        const int largest = it->lastKey();
        if (largest < top)
            return largest + 1;
        // Numbers are ascending: the first gap from 1 upwards is the answer.
        qint64 candidate = 1;
        for (auto k = it->constBegin(); k != it->constEnd() && candidate <= top; ++k) {
            if (k.key() < candidate)
                continue;
            if (k.key() > candidate)
                break;
            ++candidate;
        }
        if (candidate <= top)
            return int(candidate);
        fprintf(stderr, "Coudln't find an ID\n");
        return 0;
    }
    auto it = m_negative.constFind(prefix);
    if (it == m_negative.constEnd() || it->isEmpty())
        return -1;
    const int smallest = it->firstKey();
    if (smallest > -top)
        return smallest - 1;
    qint64 candidate = -1;
    auto k = it->constEnd();
    while (k != it->constBegin() && candidate >= -top) {
        --k;
        if (k.key() > candidate)
            continue;
        if (k.key() < candidate)
            break;
        --candidate;
    }
    if (candidate >= -top)
        return int(candidate);
    fprintf(stderr, "Coudln't find an ID\n");
    return 0;
}

int Element_man::allocate_uid(const QString& prefix, bool positive, const QSharedPointer<Element>& element,
                              const QUuid& guid)
{
    QMutexLocker lock(&m_mutex);
    const int n = free_uid_locked(prefix, positive);
    if (n == 0)
        return 0;
    registry_for(n)[prefix].insert(n, Uid_entry{element.toWeakRef(), element.data()});
    put_guid_locked(Key(prefix, n), guid);
    return n;
}

bool Element_man::claim_uid(const QString& prefix, int n, const QSharedPointer<Element>& element, const QUuid& guid,
                            int old)
{
    if (!element)
        return false;
    QMutexLocker lock(&m_mutex);
    auto& map = registry_for(n)[prefix];
    auto it = map.find(n);
    if (it != map.end() && it->taken_from(element.data()))
        return false;
    map.insert(n, Uid_entry{element.toWeakRef(), element.data()});
    put_guid_locked(Key(prefix, n), guid);
    if (old != n) {
        // Only an entry that is `element`'s own goes: an element without a number holds none.
        auto& old_map = registry_for(old)[prefix];
        auto o = old_map.constFind(old);
        if (o != old_map.constEnd() && o->raw == element.data())
            remove_uid_locked(prefix, old);
    }
    return true;
}

void Element_man::release_uid(const QString& prefix, int n, const Element* element)
{
    QMutexLocker lock(&m_mutex);
    const Uid_entry* e = entry_locked(prefix, n);
    if (e && e->raw == element)
        remove_uid_locked(prefix, n);
}

bool Element_man::holds_uid(const QString& prefix, int n, const Element* element) const
{
    QMutexLocker lock(&m_mutex);
    const Uid_entry* e = const_cast<Element_man*>(this)->entry_locked(prefix, n);
    return e && element && e->raw == element;
}

Element_man::Uid_entry* Element_man::entry_locked(const QString& prefix, int n)
{
    Registry& reg = registry_for(n);
    auto it = reg.find(prefix);
    if (it == reg.end())
        return nullptr;
    auto e = it->find(n);
    return e == it->end() ? nullptr : &*e;
}

void Element_man::register_element(const QString& prefix, int n, const QSharedPointer<Element>& element)
{
    if (!element)
        return;
    {
        QMutexLocker lock(&m_mutex);
        Uid_entry* e = entry_locked(prefix, n);
        if (!e)
            return;
        if (!e->raw)
            *e = Uid_entry{element.toWeakRef(), element.data()};
        else if (e->raw != element.data())
            return;
    }
    resolve_link(element, prefix, n);
}

bool Element_man_base::update_attached_files(XML_interface&) { return true; }

bool Element_man::update_attached_files(XML_interface& xi)
{
    const QString source = task_data_dir();
    const QString target = xi.output_dir();
    const QSharedPointer<Element> r = root();
    if (!r || source.isEmpty() || target.isEmpty() ||
        QFileInfo(source).canonicalFilePath() == QFileInfo(target).canonicalFilePath())
        return true;
    Element_locker_new lock(r);
    Element_list* files = lock ? r->find_list(u"AFE") : nullptr;
    if (!files)
        return true;
    bool ok = true;
    for (const auto& e : files->elements()) {
        QString name;
        {
            const Element_locker_new file_lock(e, -1);
            name = static_cast<Attached_file*>(e.data())->filename.get_string();
        }
        if (name.isEmpty() || !File_lookup::find(target, name, true).path.isEmpty())
            continue;
        const QString found = File_lookup::find(source, name, true).path;
        if (!found.isEmpty() && !xi.copy_file(name, found))
            ok = false;
    }
    return ok;
}

Element_man::Document_origin Element_man::document_origin() const
{
    QMutexLocker lock(&m_mutex);
    return m_origin;
}

void Element_man::set_document_origin(const Document_origin& origin)
{
    QMutexLocker lock(&m_mutex);
    m_origin = origin;
}

void Element_man::edit_document_origin(const std::function<void(Document_origin&)>& edit)
{
    QMutexLocker lock(&m_mutex);
    edit(m_origin);
}

QSharedPointer<Element> Element_man::lookup(const QString& prefix, int n) const
{
    QMutexLocker lock(&m_mutex);
    const Registry& reg = registry_for(n);
    auto it = reg.constFind(prefix);
    if (it == reg.constEnd())
        return QSharedPointer<Element>();
    return it->value(n).element.toStrongRef();
}

QList<int> Element_man::registered_uids(const QString& prefix) const
{
    QMutexLocker lock(&m_mutex);
    QList<int> out = m_negative.value(prefix).keys();
    out += m_positive.value(prefix).keys();
    return out;
}

QStringList Element_man::registered_prefixes() const
{
    QMutexLocker lock(&m_mutex);
    QSet<QString> s;
    for (auto it = m_positive.constBegin(); it != m_positive.constEnd(); ++it)
        if (!it->isEmpty())
            s.insert(it.key());
    for (auto it = m_negative.constBegin(); it != m_negative.constEnd(); ++it)
        if (!it->isEmpty())
            s.insert(it.key());
    QStringList out = s.values();
    out.sort();
    return out;
}

void Element_man::register_guid(const QString& prefix, int n, const QUuid& guid)
{
    QMutexLocker lock(&m_mutex);
    put_guid_locked(Key(prefix, n), guid);
}

void Element_man::put_guid_locked(const Key& key, const QUuid& guid)
{
    auto it = m_guids.find(key);
    if (it != m_guids.end()) {
        if (*it == guid)
            return;
        if (!it->isNull())
            m_guid_index.remove(*it);
        *it = guid;
    } else {
        m_guids.insert(key, guid);
    }
    if (!guid.isNull())
        m_guid_index.insert(guid, key);
}

bool Element_man::lookup_guid(const QString& prefix, int n, QUuid& out) const
{
    QMutexLocker lock(&m_mutex);
    auto it = m_guids.constFind(Key(prefix, n));
    if (it == m_guids.constEnd() || it->isNull())
        return false;
    out = *it;
    return true;
}

void Element_man::register_uid_for_guid(const QString& prefix, int n, const QUuid& guid)
{
    if (guid.isNull()) {
        QMutexLocker lock(&m_mutex);
        if (!m_guids.contains(Key(prefix, n)))
            m_guids.insert(Key(prefix, n), QUuid());
        return;
    }
    register_guid(prefix, n, guid);
    if (QSharedPointer<Element> e = lookup(prefix, n)) {
        // The element's GUID is its own data: changed under its lock.
        Element::run_locked(e, [guid, prefix, n](const QSharedPointer<Element>& el) {
            Attributes::Base::UniqueID* id = el->id_attribute();
            if (id && id->has_number() && id->get_val() == n && id->get_tag() == prefix)
                id->set_guid(guid);
        });
        resolve_link(e, guid);
    }
}

bool Element_man::lookup_uid_for_guid(const QUuid& guid, QString& prefix, int& n) const
{
    QMutexLocker lock(&m_mutex);
    auto it = m_guid_index.constFind(guid);
    if (it == m_guid_index.constEnd())
        return false;
    prefix = it->first;
    n = it->second;
    return true;
}

QVector<Element_man::Guid_entry> Element_man::guid_entries() const
{
    QMutexLocker lock(&m_mutex);
    QVector<Guid_entry> out;
    out.reserve(m_guids.size());
    for (auto it = m_guids.constBegin(); it != m_guids.constEnd(); ++it) {
        if (!it->isNull())
            out.append({it.key().first, it.key().second, *it});
    }
    std::sort(out.begin(), out.end(), [](const Guid_entry& a, const Guid_entry& b) {
        return a.prefix != b.prefix ? a.prefix < b.prefix : a.n < b.n;
    });
    return out;
}

void Element_man::resolve_link(Attributes::Base::LinkedID* link, const QString& tag, int n)
{
    QMutexLocker lock(&m_mutex);
    auto p = m_pending_index.find(link);
    if (p != m_pending_index.end()) {
        auto& waiting = m_pending[*p];
        for (int i = waiting.size() - 1; i >= 0; --i)
            if (waiting[i].link == link)
                waiting.remove(i);
        if (waiting.isEmpty())
            m_pending.remove(*p);
        m_pending_index.erase(p);
    }
    m_resolved.insert(link, Key(tag, n));
}

void Element_man::unresolve_link(Attributes::Base::LinkedID* link, const QSharedPointer<Element>& owner,
                                 const QString& tag, int n)
{
    QMutexLocker lock(&m_mutex);
    forget_link(link);
    const Key key(tag, n);
    m_pending[key].append({link, owner.toWeakRef()});
    m_pending_index.insert(link, key);
}

void Element_man::resolve_link(const QSharedPointer<Element>& target, const QString& tag, int n)
{
    QVector<Pending> waiting;
    {
        QMutexLocker lock(&m_mutex);
        auto it = m_pending.find(Key(tag, n));
        if (it == m_pending.end())
            return;
        waiting = *it;
    }
    // Completed outside the mutex and under each owner's lock: completing changes the owner and
    // notifies. When the owner's lock cannot be had in the lock order, the completion waits
    // until this thread holds no element lock; by then the link may wait for something else,
    // or the number may name another element, so both are checked under the owner's lock.
    const QWeakPointer<Element_man> weak_self = target->weak_man();
    const QWeakPointer<Element> weak_target = target;
    for (const Pending& p : waiting) {
        const QSharedPointer<Element> owner = p.owner.toStrongRef();
        if (!owner)
            continue;
        Attributes::Base::LinkedID* link = p.link;
        Element::run_locked(owner, [=](const QSharedPointer<Element>& o) {
            const QSharedPointer<Element_man> man = weak_self.toStrongRef();
            const QSharedPointer<Element> t = weak_target.toStrongRef();
            QString waiting_tag;
            int waiting_n = 0;
            if (!man || !t || !man->pending_link(link, waiting_tag, waiting_n) || waiting_tag != tag ||
                waiting_n != n || man->lookup(tag, n) != t || !link->accepts(t.data()))
                return;
            link->complete_pending(o, t, tag, n);
            man->resolve_link(link, tag, n);
        });
    }
}

void Element_man::resolve_link(const QSharedPointer<Element>& target, const QUuid& guid)
{
    QString prefix;
    int n = 0;
    if (lookup_uid_for_guid(guid, prefix, n))
        resolve_link(target, prefix, n);
}

void Element_man::forget_link(Attributes::Base::LinkedID* link)
{
    QMutexLocker lock(&m_mutex);
    m_resolved.remove(link);
    auto p = m_pending_index.find(link);
    if (p == m_pending_index.end())
        return;
    auto w = m_pending.find(*p);
    if (w != m_pending.end()) {
        for (int i = w->size() - 1; i >= 0; --i)
            if ((*w)[i].link == link)
                w->remove(i);
        if (w->isEmpty())
            m_pending.erase(w);
    }
    m_pending_index.erase(p);
}

bool Element_man::pending_link(const Attributes::Base::LinkedID* link, QString& tag, int& n) const
{
    QMutexLocker lock(&m_mutex);
    auto it = m_pending_index.constFind(link);
    if (it == m_pending_index.constEnd())
        return false;
    tag = it->first;
    n = it->second;
    return true;
}

int Element_man::pending_link_count() const
{
    QMutexLocker lock(&m_mutex);
    return m_pending_index.size();
}

QVector<Element_man::Pending_entry> Element_man::pending_links() const
{
    QMutexLocker lock(&m_mutex);
    QVector<Pending_entry> out;
    for (auto it = m_pending.constBegin(); it != m_pending.constEnd(); ++it)
        for (const Pending& p : *it)
            out.append({it.key().first, it.key().second, p.owner});
    return out;
}

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
