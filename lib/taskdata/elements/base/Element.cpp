#include "Element.h"

#include "Element_list.h"
#include "Element_man.h"

#include <taskdata/attributes/base/LinkedID.h>
#include <taskdata/attributes/base/String.h>
#include <taskdata/attributes/base/UniqueID.h>
#include <taskdata/common/Fast_xml_reader.h>
#include <taskdata/common/XML_interface.h>

#include <QDomElement>
#include <QMutex>
#include <QMutexLocker>
#include <QVarLengthArray>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>
#include <cstdio>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

using Attributes::Base::Attribute;

namespace {
// Parent links and erased marks of every element. Innermost: held only to read or write them.
QBasicMutex g_tree_mutex;

struct Tree_guard
{
    Tree_guard() { g_tree_mutex.lock(); }
    ~Tree_guard() { g_tree_mutex.unlock(); }
    Tree_guard(const Tree_guard&) = delete;
    Tree_guard& operator=(const Tree_guard&) = delete;
};

// What this thread holds: its element locks in the order taken, and work that waits for it to
// hold none (Element::run_locked).
struct Thread_locks
{
    struct Deferred
    {
        QWeakPointer<Element> element;
        Element::Locked_work work;
    };
    QVarLengthArray<Element*, 16> held;
    QVector<Deferred> deferred;
    bool running_deferred = false;
};
thread_local Thread_locks t_locks;
thread_local char t_thread_token = 0;

const void* this_thread() { return &t_thread_token; }

void forget_held(Element* e)
{
    auto& held = t_locks.held;
    for (int i = held.size() - 1; i >= 0; --i) {
        if (held[i] == e) {
            held.remove(i);
            return;
        }
    }
}

void run_deferred()
{
    Thread_locks& t = t_locks;
    t.running_deferred = true;
    while (!t.deferred.isEmpty()) {
        Thread_locks::Deferred d = t.deferred.takeFirst();
        const QSharedPointer<Element> e = d.element.toStrongRef();
        if (!e)
            continue;
        // This thread holds nothing here, so it may wait for any lock.
        Element_locker_new lock(e, -1);
        if (lock)
            d.work(e);
    }
    t.running_deferred = false;
}
} // namespace

Element::Extras::~Extras()
{
    for (auto& a : attributes)
        delete a.second;
    // The watches of receivers that outlive the element have nothing left to guard; a walk that
    // still holds the block finds no entry to post to.
    {
        QMutexLocker guard(&receivers->lock);
        for (const auto& r : qAsConst(receivers->list))
            QObject::disconnect(r.second);
        receivers->list.clear();
        receivers->entries.store(0, std::memory_order_release);
    }
    receivers->deref();
}

Element::Extras* Element::Extras_ptr::get_or_create()
{
    Extras* x = get();
    if (x)
        return x;
    Extras* fresh = new Extras;
    if (m_p.compare_exchange_strong(x, fresh, std::memory_order_acq_rel))
        return fresh;
    delete fresh; // another thread made it first; x is now that one
    return x;
}

Element::Element(const QWeakPointer<Element_man>& man) : m_man(man) {}

Element::~Element() { delete m_extras; }

Element::Extras& Element::extras() { return *m_extras.get_or_create(); }

QSharedPointer<Element> Element::get_sp() const
{
    return const_cast<Element*>(this)->sharedFromThis();
}

void Element::handle_xml_version_change(int) {}

bool Element::set(QSharedPointer<Element>& self, Element* other, bool copy_children, bool notify,
                  QMap<QUuid, QUuid> guid_map, QSet<QByteArray> skip_attributes, bool copy_ids)
{
    if (!other || other == this || other->get_tag() != get_tag())
        return false;
    const QSharedPointer<Element> source = other->get_sp();
    if (!source)
        return false;
    // Both sides whole before anything changes: this element (with its children when they are
    // copied) first, in the lock order, then the source, only tried when that is out of order.
    auto whole = [copy_children](const QSharedPointer<Element>& e) {
        return copy_children ? QVector<QSharedPointer<Element>>{e} : QVector<QSharedPointer<Element>>{};
    };
    const Tree_locker mine_tree(whole(self));
    const Element_locker_new mine(copy_children ? QSharedPointer<Element>() : self, -1);
    if (!(copy_children ? mine_tree.locked() : mine.locked()))
        return false;
    const Tree_locker source_tree(whole(source));
    const Element_locker_new source_lock(copy_children ? QSharedPointer<Element>() : source, -1);
    if (!(copy_children ? source_tree.locked() : source_lock.locked()))
        return false;
    bool changed = false;
    const unsigned n = _num_iso_attributes();
    for (unsigned i = 0; i < n; ++i) {
        Attribute* mine_attribute = _attribute(i);
        const Attribute* theirs_attribute = other->_attribute(i);
        if (!mine_attribute || !theirs_attribute)
            continue;
        if (skip_attributes.contains(QByteArray(mine_attribute->base_spec().name)))
            continue;
        if (kind().id_index == int(i)) {
            auto id = static_cast<Attributes::Base::UniqueID*>(mine_attribute);
            auto source_id = static_cast<const Attributes::Base::UniqueID*>(theirs_attribute);
            changed |= id->copy_identity(self, *source_id, guid_map, copy_ids, notify);
            continue;
        }
        if (auto link = dynamic_cast<Attributes::Base::LinkedID*>(mine_attribute)) {
            changed |= link->copy_link(self, *static_cast<const Attributes::Base::LinkedID*>(theirs_attribute),
                                       other->man(), guid_map, notify);
            continue;
        }
        changed |= mine_attribute->set_from_other(theirs_attribute, self, notify);
    }
    if (other->m_extras) {
        for (const auto& a : other->m_extras->attributes) {
            Attribute* mine_attribute = extra_attribute(a.first);
            if (!mine_attribute) {
                mine_attribute = new Attributes::Base::Extra_string(a.first);
                _add(a.first, mine_attribute);
            }
            changed |= mine_attribute->set_from_other(a.second, self, notify);
        }
        if (extras().parameters != other->m_extras->parameters) {
            extras().parameters = other->m_extras->parameters;
            changed = true;
        }
        if (extras().foreign_children != other->m_extras->foreign_children) {
            extras().foreign_children = other->m_extras->foreign_children;
            extras().foreign_seen = other->m_extras->foreign_seen;
            changed = true;
        }
    }
    if (copy_children) {
        const unsigned lists = _num_element_lists();
        for (unsigned l = 0; l < lists; ++l) {
            Element_list* mine_list = _element_list(l);
            Element_list* theirs_list = other->_element_list(l);
            for (int i = 0; i < theirs_list->count(); ++i) {
                QSharedPointer<Element> src = theirs_list->at(i);
                QSharedPointer<Element> dst = i < mine_list->count() ? mine_list->at(i) : QSharedPointer<Element>();
                if (!dst) {
                    dst = mine_list->create_element(m_man);
                    const Element_locker_new fresh(dst, 0);
                    if (!copy_ids)
                        dst->set_attributes_to_default(dst, false);
                    if (!mine_list->add(dst, -1, notify))
                        return false;
                }
                dst->set(dst, src.data(), true, notify, guid_map, skip_attributes, copy_ids);
                changed = true;
            }
        }
    }
    return changed;
}

void Element::release_registration()
{
    Attributes::Base::UniqueID* id = id_attribute();
    if (!id || !id->has_number())
        return;
    if (QSharedPointer<Element_man> m = man())
        m->release_uid(id->get_tag(), id->get_val(), this);
}

void Element::sync_registration()
{
    const QSharedPointer<Element> self = get_sp();
    if (!self)
        return;
    run_locked(self, [](const QSharedPointer<Element>& e) {
        if (Attributes::Base::UniqueID* id = e->id_attribute())
            id->sync_registration(e);
        const unsigned lists = e->_num_element_lists();
        for (unsigned l = 0; l < lists; ++l)
            for (const auto& c : e->_element_list(l)->elements())
                c->sync_registration();
    });
}

void Element::release_links()
{
    QSharedPointer<Element_man> m = man();
    if (!m)
        return;
    const unsigned n = _num_iso_attributes();
    for (unsigned i = 0; i < n; ++i) {
        Attribute* a = _attribute(i);
        if (auto link = dynamic_cast<Attributes::Base::LinkedID*>(a))
            m->forget_link(link);
    }
}

void Element::forget_link(Attributes::Base::LinkedID* link)
{
    // Only links that ever reached the manager are known to it; a weak manager that is gone
    // has nothing to forget.
    if (QSharedPointer<Element_man> m = man())
        m->forget_link(link);
}

Element::Parent_lock Element::lock_parent_for_erase(const QSharedPointer<Element>& parent)
{
    if (parent->held_by_current_thread())
        return parent->try_lock(0) ? Parent_lock::held : Parent_lock::busy;
    // Waiting for the parent while holding this element would wait upwards.
    const int depth = held_by_current_thread() ? m_lock_depth : 0;
    if (depth == 0) {
        const bool may_wait = parent->may_wait_for_lock();
        return parent->try_lock(may_wait ? -1 : 0) ? Parent_lock::held : Parent_lock::busy;
    }
    if (t_locks.held.size() > 1)
        return parent->try_lock(0) ? Parent_lock::held : Parent_lock::busy;
    // This element is all this thread holds: it lets go of it while it waits for the parent.
    const bool running = t_locks.running_deferred;
    t_locks.running_deferred = true; // nothing deferred runs while this element is let go
    m_lock_depth = 1;
    unlock();
    parent->try_lock(-1);
    bool same_parent;
    {
        Tree_guard tree;
        same_parent = m_parent == parent.data();
    }
    if (!same_parent) {
        // Moved meanwhile: the parent is not above this element any more, so this element is
        // taken back with nothing held.
        parent->unlock();
    }
    try_lock(-1);
    m_lock_depth = depth;
    t_locks.running_deferred = running;
    return same_parent ? Parent_lock::held : Parent_lock::moved;
}

bool Element::erase(QSharedPointer<Element>& self)
{
    // The parent's lock before this element's (ancestors first), then this element's subtree
    // leaves the registry.
    for (int attempt = 0; attempt < 100; ++attempt) {
        const QSharedPointer<Element> parent = parent_sp();
        if (!parent)
            break;
        const Parent_lock got = lock_parent_for_erase(parent);
        if (got == Parent_lock::busy)
            return false;
        if (got == Parent_lock::moved)
            continue;
        const Element_locker_new own(self, -1);
        if (!own) {
            parent->unlock();
            return false;
        }
        bool same_parent;
        Element_list* list = nullptr;
        {
            Tree_guard tree;
            same_parent = m_parent == parent.data();
            list = m_parent_list;
            if (same_parent)
                m_erased = true;
        }
        if (same_parent) {
            const int i = list->index_of(this);
            if (i >= 0)
                list->take(i, true);
        }
        parent->unlock();
        if (same_parent)
            break;
    }
    {
        Tree_guard tree;
        if (m_parent)
            return false; // moved elsewhere again and again: leave it where it is
        m_erased = true;
    }
    sync_registration();
    return true;
}

QString Element::get_designator() const
{
    const int i = kind().designator_index;
    if (i < 0)
        return QString();
    return static_cast<const Attributes::Base::String*>(attribute(unsigned(i)))->get_string();
}

QString Element::extra_description() const { return QString(); }

Attributes::Base::String* Element::ptr_designator()
{
    const int i = kind().designator_index;
    return i < 0 ? nullptr : static_cast<Attributes::Base::String*>(_attribute(unsigned(i)));
}

QString Element::get_individual_icon() const { return QString(); }

bool Element::save_xml(const QSharedPointer<Element>& self, QXmlStreamWriter& w, XML_interface& xi,
                       XML_read_write_parts parts)
{
    if (held_by_current_thread()) // a Tree_locker holds the whole tree
        return _save_xml(self, w, xi, parts);
    const Element_locker_new lock(self, -1);
    if (!lock) {
        xi.set_fail(QStringLiteral("The task data is in use"));
        return false;
    }
    return _save_xml(self, w, xi, parts);
}

bool Element::save_to_individual_xml(const QSharedPointer<Element>& self, QXmlStreamWriter* w, XML_interface& xi)
{
    return w && save_xml(self, *w, xi, xml_part_all);
}

void Element::set_attributes_to_default(const QSharedPointer<Element>& self, bool notify)
{
    QSharedPointer<Element_man> m = man();
    if (!m)
        return;
    const unsigned n = _num_iso_attributes();
    const int id_index = kind().id_index;
    for (unsigned i = 0; i < n; ++i) {
        Attribute* a = _attribute(i);
        // An optional identifier (points, line strings, polygons) is given only when asked for:
        // numbering a million points would fill the GUID list for nothing.
        if (int(i) == id_index && !a->base_spec().required)
            continue;
        a->set_to_default(self, *m, notify);
    }
}

QString Element::get_attribute_tag(unsigned index) const
{
    const Kind_info& k = kind();
    if (index >= k.num_attributes)
        return QString();
    return k.attribute_specs[index]->xml_name();
}

QDateTime Element::find_latest_time() const { return QDateTime(); }

// find_closest_point, get_first_point and add_to_scene: Element_geometry.cpp.

// document_export and document_export_extra: elements/enhanced/Element_export.cpp.

QString Element::_print(unsigned int indent) const
{
    QString out = QString(int(indent), QLatin1Char(' ')) + get_tag();
    const unsigned n = _num_iso_attributes();
    for (unsigned i = 0; i < n; ++i) {
        const Attribute* a = attribute(i);
        if (a->flags() & (Attribute::flag_present | Attribute::flag_valid))
            out += QLatin1Char(' ') + a->xml_name() + QStringLiteral("=\"") + a->to_string() + QLatin1Char('"');
    }
    out += QLatin1Char('\n');
    for (unsigned l = 0; l < _num_element_lists(); ++l) {
        const Element_list* list = const_cast<Element*>(this)->_element_list(l);
        for (const auto& c : list->elements())
            out += c->_print(indent + 2);
    }
    return out;
}

bool Element::_to_xml(const QSharedPointer<Element>& self, QDomElement& dom, bool recurse)
{
    const unsigned n = _num_iso_attributes();
    for (unsigned i = 0; i < n; ++i) {
        Attribute* a = _attribute(i);
        if (a->flags() & (Attribute::flag_present | Attribute::flag_valid) || a->base_spec().required)
            a->to_xml(this, dom, a->xml_name());
    }
    if (m_extras)
        for (const auto& a : m_extras->attributes)
            a.second->to_xml(this, dom, a.first);
    if (recurse) {
        QDomDocument doc = dom.ownerDocument();
        for (unsigned l = 0; l < _num_element_lists(); ++l) {
            Element_list* list = _element_list(l);
            for (const auto& c : list->elements()) {
                QDomElement child = doc.createElement(c->get_tag());
                c->_to_xml(c, child, true);
                dom.appendChild(child);
            }
        }
    }
    Q_UNUSED(self)
    return true;
}

bool Element::_from_xml(const QSharedPointer<Element>& self, const QSharedPointer<Element_man>&, QDomElement& dom,
                        bool recurse)
{
    const QDomNamedNodeMap attrs = dom.attributes();
    for (int i = 0; i < attrs.count(); ++i) {
        const QDomAttr at = attrs.item(i).toAttr();
        Attribute* a = find_attribute(at.name());
        if (!a) {
            a = new Attributes::Base::Extra_string(at.name());
            _add(at.name(), a);
        }
        a->set_by_xml_value(self, at.value());
    }
    if (recurse) {
        QHash<QString, int> counters;
        for (QDomElement c = dom.firstChildElement(); !c.isNull(); c = c.nextSiblingElement()) {
            Element_list* list = find_list(c.tagName());
            if (!list)
                continue;
            const int index = counters[c.tagName()]++;
            QSharedPointer<Element> child = index < list->count() ? list->at(index) : list->create_element(m_man);
            if (index >= list->count())
                list->add(child, -1, true);
            child->_from_xml(child, man(), c, true);
        }
    }
    return true;
}

Attribute* Element::find_attribute(QStringView name)
{
    const int i = attribute_index(name);
    return i < 0 ? nullptr : _attribute(unsigned(i));
}

int Element::attribute_index(QStringView name) const
{
    const Kind_info& k = kind();
    const int size = name.size();
    for (unsigned i = 0; i < k.num_attributes; ++i) {
        const char* n = k.attribute_specs[i]->name;
        int j = 0;
        while (j < size && n[j] && name[j].unicode() == uchar(n[j]))
            ++j;
        if (j == size && !n[j])
            return int(i);
    }
    return -1;
}

Element_list* Element::find_list(QStringView tag)
{
    const Kind_info& k = kind();
    if (tag.size() != 3)
        return nullptr;
    for (unsigned i = 0; i < k.num_lists; ++i) {
        const char* t = k.list_tags[i];
        if (tag[0].unicode() == uchar(t[0]) && tag[1].unicode() == uchar(t[1]) && tag[2].unicode() == uchar(t[2]))
            return _element_list(i);
    }
    return nullptr;
}

Attributes::Base::UniqueID* Element::id_attribute()
{
    const int i = kind().id_index;
    return i < 0 ? nullptr : static_cast<Attributes::Base::UniqueID*>(_attribute(unsigned(i)));
}

int Element::get_id() const
{
    auto id = const_cast<Element*>(this)->id_attribute();
    return id ? id->get_val() : 0;
}

QUuid Element::get_guid() const
{
    auto id = const_cast<Element*>(this)->id_attribute();
    return id ? id->get_guid() : QUuid();
}

QString Element::get_id_string() const
{
    auto id = const_cast<Element*>(this)->id_attribute();
    return id ? id->get_as_string() : QString();
}

bool Element::has_id() const
{
    auto id = const_cast<Element*>(this)->id_attribute();
    return id && id->has_number();
}

QSharedPointer<Element> Element::root() const
{
    Tree_guard tree;
    const Element* e = this;
    while (e->m_parent)
        e = e->m_parent;
    return const_cast<Element*>(e)->sharedFromThis();
}

Element* Element::parent_element() const
{
    Tree_guard tree;
    return m_parent;
}

Element_list* Element::parent_list() const
{
    Tree_guard tree;
    return m_parent_list;
}

QSharedPointer<Element> Element::parent_sp() const
{
    // A parent whose last reference is gone is being destroyed: it answers null here.
    Tree_guard tree;
    return m_parent ? m_parent->sharedFromThis() : QSharedPointer<Element>();
}

bool Element::has_ancestor(const Element* ancestor) const
{
    Tree_guard tree;
    for (const Element* e = m_parent; e; e = e->m_parent)
        if (e == ancestor)
            return true;
    return false;
}

bool Element::registrable() const
{
    Tree_guard tree;
    for (const Element* e = this; e; e = e->m_parent)
        if (e->m_erased)
            return false;
    return true;
}

void Element::link_child(Element* child, Element* parent, Element_list* list)
{
    Tree_guard tree;
    child->m_parent = parent;
    child->m_parent_list = list;
    child->m_erased = false;
}

void Element::unlink_children(const QVector<QSharedPointer<Element>>& children, const Element* parent)
{
    Tree_guard tree;
    for (const auto& c : children) {
        if (c->m_parent == parent) {
            c->m_parent = nullptr;
            c->m_parent_list = nullptr;
        }
    }
}

void Element::unlink_child(Element* child, const Element* parent)
{
    Tree_guard tree;
    if (child->m_parent != parent)
        return;
    // A child taken out of an erased subtree holds no registration: it stays unregistrable
    // until it is added to a list again.
    bool erased = false;
    for (const Element* e = child; e && !erased; e = e->m_parent)
        erased = e->m_erased;
    child->m_parent = nullptr;
    child->m_parent_list = nullptr;
    child->m_erased = erased;
}

bool Element::try_lock(int timeout_ms)
{
    if (m_lock_owner.load(std::memory_order_relaxed) == this_thread()) {
        ++m_lock_depth;
        return true;
    }
    const bool ok = timeout_ms < 0 ? (m_lock.lock(), true) : m_lock.tryLock(timeout_ms);
    if (!ok)
        return false;
    m_lock_owner.store(this_thread(), std::memory_order_relaxed);
    m_lock_depth = 1;
    t_locks.held.append(this);
    return true;
}

void Element::unlock()
{
    if (--m_lock_depth > 0)
        return;
    m_lock_owner.store(nullptr, std::memory_order_relaxed);
    m_lock.unlock();
    forget_held(this);
    if (t_locks.held.isEmpty() && !t_locks.deferred.isEmpty() && !t_locks.running_deferred)
        run_deferred();
}

bool Element::held_by_current_thread() const
{
    return m_lock_owner.load(std::memory_order_relaxed) == this_thread();
}

bool Element::thread_holds_element_locks() { return !t_locks.held.isEmpty(); }

bool Element::may_wait_for_lock() const
{
    const auto& held = t_locks.held;
    if (held.isEmpty() || (held.size() == 1 && held[0] == this))
        return true;
    QVarLengthArray<const Element*, 32> above;
    {
        Tree_guard tree;
        for (const Element* e = m_parent; e; e = e->m_parent)
            above.append(e);
    }
    for (const Element* h : held)
        if (h != this && !above.contains(h))
            return false;
    return true;
}

void Element::run_locked(const QSharedPointer<Element>& element, Locked_work work)
{
    if (!element)
        return;
    {
        // Taken only when this thread holds it, may wait for it or finds it free.
        Element_locker_new lock(element, -1);
        if (lock) {
            work(element);
            return;
        }
    }
    t_locks.deferred.append({element.toWeakRef(), std::move(work)});
    if (t_locks.held.isEmpty() && !t_locks.running_deferred)
        run_deferred();
}

QVector<Attribute*> Element::extra_attributes() const
{
    QVector<Attribute*> out;
    if (m_extras)
        for (const auto& a : m_extras->attributes)
            out.append(a.second);
    return out;
}

// By hash: an element of a hostile file may carry a million attributes of other makers.
Attribute* Element::extra_attribute(QStringView name) const
{
    if (!m_extras)
        return nullptr;
    const int i = m_extras->attribute_index.value(name.toString(), -1);
    return i < 0 ? nullptr : m_extras->attributes[i].second;
}

void Element::_add(const QString& name, Attribute* attribute)
{
    Extras& x = extras();
    const auto it = x.attribute_index.constFind(name);
    if (it != x.attribute_index.constEnd()) {
        delete x.attributes[*it].second;
        x.attributes[*it].second = attribute;
        return;
    }
    x.attribute_index.insert(name, x.attributes.size());
    x.attributes.append(qMakePair(name, attribute));
}

const QMap<QString, QVariant>& Element::extended_parameters() const
{
    static const QMap<QString, QVariant> none;
    return m_extras ? m_extras->parameters : none;
}

void Element::set_extended_parameter(const QString& key, const QVariant& value)
{
    QMap<QString, QVariant>& p = extras().parameters;
    auto it = p.find(key);
    if (it != p.end() && *it == value)
        return;
    p.insert(key, value);
    notify_changed(0);
}

bool Element::remove_extended_parameter(const QString& key)
{
    if (!m_extras || !m_extras->parameters.remove(key))
        return false;
    notify_changed(0);
    return true;
}


namespace {
// The element whose attributes are being read on this thread: the values of one start tag
// arrive together, so they are announced together, once (and not at all for an element that
// was just added, whose add event already told).
thread_local Element* t_reading = nullptr;
thread_local bool t_reading_changed = false;
thread_local Element* t_new_child = nullptr;

struct Reading_attributes
{
    Element* previous = t_reading;
    bool previous_changed = t_reading_changed;
    explicit Reading_attributes(Element* e)
    {
        t_reading = e;
        t_reading_changed = false;
    }
    bool changed() const { return t_reading_changed; }
    ~Reading_attributes()
    {
        t_reading = previous;
        t_reading_changed = previous_changed;
    }
};
} // namespace

void Element::reading_new_child(Element* child) { t_new_child = child; }

Quiet_changes::Quiet_changes(Element* element) : m_previous(t_reading), m_previous_changed(t_reading_changed)
{
    t_reading = element;
    t_reading_changed = false;
}

Quiet_changes::~Quiet_changes()
{
    t_reading = m_previous;
    t_reading_changed = m_previous_changed;
}

namespace {
std::atomic<const Event_hooks*> g_hooks{nullptr};
} // namespace

void Element::set_event_hooks(const Event_hooks* hooks) { g_hooks.store(hooks, std::memory_order_release); }

const Event_hooks* Element::event_hooks() { return g_hooks.load(std::memory_order_acquire); }

void Element::notify_attribute_updated(const QSharedPointer<Element>& self, Attribute* attribute)
{
    if (t_reading == this) {
        t_reading_changed = true;
        return;
    }
    // The payload is built only when someone listens: a change nobody receives costs the
    // counter and one walk up the tree.
    Listeners listeners;
    if (!_notify_updated(self, attribute, nullptr, &listeners))
        return;
    if (const Event_hooks* h = event_hooks())
        h->post_attribute(self, attribute, listeners);
}

void Element::notify_updated(const Base_attribute_update& event)
{
    Listeners listeners;
    if (!event.element || !_notify_updated(event.element, event.attribute, nullptr, &listeners))
        return;
    if (const Event_hooks* h = event_hooks())
        h->post_attribute(event.element, event.attribute, listeners);
}

void Element::notify_changed(unsigned update_type)
{
    const QSharedPointer<Element> self = get_sp();
    if (update_type != binary_modified) {
        notify_updated(Base_attribute_update(self, nullptr));
        return;
    }
    Listeners listeners;
    if (!_notify_updated(self, nullptr, nullptr, &listeners))
        return;
    if (const Event_hooks* h = event_hooks())
        h->post_binary_modified(Base_typed_update<binary_modified>(self), listeners);
}

void Element::notify_child(const QSharedPointer<Element>& self, Element_list* list, int index, Update_type type)
{
    Listeners listeners;
    if (!_notify_updated(self, nullptr, list, &listeners))
        return;
    const Event_hooks* h = event_hooks();
    if (!h)
        return;
    if (type == child_added)
        h->post_child_added(Base_child_update<child_added>(self, list, index), listeners);
    else
        h->post_child_removed(Base_child_update<child_removed>(self, list, index), listeners);
}

void Element::notify_binary_appended(const QSharedPointer<Element>& self)
{
    const Event_hooks* h = event_hooks();
    if (!h)
        return;
    Listeners listeners;
    {
        Tree_guard tree;
        for (Element* e = this; e; e = e->m_parent)
            if (e->receiver_count() != 0)
                listeners.append(Receivers_ref(e->m_extras->receivers));
    }
    if (!listeners.isEmpty())
        h->post_binary_appended(Base_typed_update<binary_appended>(self), listeners);
}

bool Element::_notify_updated(const QSharedPointer<Element>& self, Attribute* attribute, Element_list* list,
                              Listeners* listeners)
{
    QSharedPointer<Element_man> m = man();
    const quint64 stamp = m ? m->bump_change_counter() : m_stamp.load(std::memory_order_relaxed) + 1;
    const Event_hooks* hooks = event_hooks();
    bool listening = false;
    // Elements of the walk with named signals, kept alive: their slots are called once the
    // tree mutex is released.
    QVarLengthArray<QSharedPointer<Element>, 4> signalled;
    {
        // Ancestors are stamped without their locks: every stamp is written under the tree mutex
        // and only raised, so a stamp never goes back whatever order concurrent changes finish
        // in, and readers need no lock (stamps are atomic).
        auto raise = [stamp](std::atomic<quint64>& s) {
            if (s.load(std::memory_order_relaxed) < stamp)
                s.store(stamp, std::memory_order_relaxed);
        };
        Tree_guard tree;
        if (list)
            raise(list->m_stamp);
        for (Element* e = this; e; e = e->m_parent) {
            raise(e->m_stamp);
            if (e->m_parent_list)
                raise(e->m_parent_list->m_stamp);
            Extras* x = e->m_extras.get();
            if (!x)
                continue;
            const bool receivers = x->receivers->entries.load(std::memory_order_acquire) != 0;
            const bool named = hooks && !x->named_signals.empty();
            listening |= receivers;
            if (receivers && listeners && hooks)
                listeners->append(Receivers_ref(x->receivers));
            if (!named)
                continue;
            // An ancestor whose last reference is gone is being destroyed: its slots are not called.
            if (QSharedPointer<Element> keep = e == this ? self : e->sharedFromThis())
                signalled.append(std::move(keep));
        }
    }
    for (const QSharedPointer<Element>& e : signalled)
        hooks->emit_updated(e->m_extras->named_signals, e, e == self ? attribute : nullptr);
    return listening;
}

void Element::_post_event(Elements::Client::Event_sender& sender, const Listeners& listeners)
{
    for (int l = 0; l < listeners.size(); ++l) {
        Receivers* x = listeners[l].operator->();
        QMutexLocker guard(&x->lock);
        // The sender may give its own hold on the payload to the last event it posts.
        int last_live = -1;
        if (l + 1 == listeners.size())
            for (int i = x->list.size() - 1; i >= 0 && last_live < 0; --i)
                if (!x->list.at(i).first.isNull())
                    last_live = i;
        bool dead = false;
        for (int i = 0; i < x->list.size(); ++i) {
            if (QObject* o = x->list.at(i).first.data()) {
                if (i == last_live)
                    sender.set_last();
                sender.send(o);
            } else {
                dead = true;
            }
        }
        if (dead) {
            auto gone = [](const QPair<Event_receiver, QMetaObject::Connection>& r) {
                if (!r.first.isNull())
                    return false;
                QObject::disconnect(r.second);
                return true;
            };
            x->list.erase(std::remove_if(x->list.begin(), x->list.end(), gone), x->list.end());
            x->entries.store(x->list.size(), std::memory_order_release);
        }
    }
}

bool Element::register_for_events(const QSharedPointer<Element>& self, QObject* receiver)
{
    if (!receiver || self.data() != this)
        return false;
    Extras& x = extras();
    const QWeakPointer<Element> weak = self;
    // Runs in the receiver's destructor before Qt drops the events posted to it: once it has
    // passed the lock, no delivery walk can post to the receiver any more.
    const QMetaObject::Connection watch = QObject::connect(receiver, &QObject::destroyed, [weak] {
        if (const QSharedPointer<Element> e = weak.toStrongRef()) {
            if (Extras* ex = e->m_extras.get()) {
                ex->receivers->lock.lock();
                ex->receivers->lock.unlock();
            }
        }
    });
    Receivers& r = *x.receivers;
    QMutexLocker guard(&r.lock);
    r.list.append(qMakePair(Event_receiver(receiver), watch));
    r.entries.store(r.list.size(), std::memory_order_release);
    return true;
}

bool Element::unregister_for_events(QObject* receiver)
{
    Extras* x = m_extras.get();
    if (!x || !receiver)
        return false;
    Receivers& r = *x->receivers;
    QMutexLocker guard(&r.lock);
    const int before = r.list.size();
    for (int i = before - 1; i >= 0; --i) {
        if (r.list.at(i).first.data() == receiver) {
            QObject::disconnect(r.list.at(i).second);
            r.list.remove(i);
        }
    }
    r.entries.store(r.list.size(), std::memory_order_release);
    return r.list.size() != before;
}

int Element::receiver_count() const
{
    Extras* x = m_extras.get();
    return x ? x->receivers->entries.load(std::memory_order_acquire) : 0;
}

Util::Signal_sender& Element::signal_sender() { return extras().named_signals; }

Util::Signal_sender* Element::connected_signals() const
{
    Extras* x = m_extras.get();
    return x && !x->named_signals.empty() ? &x->named_signals : nullptr;
}

bool Element::set_id(const QSharedPointer<Element>& self, int old_id, int new_id, const QString& prefix)
{
    register_lookup(self, old_id, new_id, prefix);
    return true;
}

bool Element::save_xml(XML_interface& xi)
{
    QXmlStreamWriter* w = xi.current_writer();
    return w && save_xml(get_sp(), *w, xi, xml_part_all);
}

namespace {
// The element at the reader's start tag with its whole subtree, as XML text. Written from the
// tokens, so that either reader gives the same text.
template <class R>
QString capture_subtree(R& r)
{
    QString text;
    QXmlStreamWriter w(&text);
    int depth = 0;
    do {
        if (r.tokenType() == QXmlStreamReader::StartElement)
            ++depth;
        else if (r.tokenType() == QXmlStreamReader::EndElement)
            --depth;
        r.write_current_token(w);
        if (depth == 0)
            break;
        r.readNext();
    } while (!r.atEnd());
    return text;
}

// Indentation grows with depth: below this many levels a kept subtree is written without it,
// or a deeply nested one would cost space quadratic in its depth.
constexpr int indented_levels = 16;

void write_subtree(QXmlStreamWriter& w, const QString& text)
{
    const bool formatting = w.autoFormatting();
    int depth = 0;
    QXmlStreamReader r(text);
    while (!r.atEnd()) {
        r.readNext();
        if (r.tokenType() == QXmlStreamReader::StartDocument || r.tokenType() == QXmlStreamReader::EndDocument ||
            r.hasError())
            continue;
        if (r.tokenType() == QXmlStreamReader::StartElement && ++depth > indented_levels)
            w.setAutoFormatting(false);
        w.writeCurrentToken(r);
        if (r.tokenType() == QXmlStreamReader::EndElement && --depth == indented_levels)
            w.setAutoFormatting(formatting);
    }
    w.setAutoFormatting(formatting);
}
} // namespace

bool Element::_load_xml(const QSharedPointer<Element>& self, QXmlStreamReader& r, XML_interface& xi,
                        XML_read_write_parts parts)
{
    Qt_xml_source source(r);
    return load_xml_from(self, source, xi, parts);
}

template <class R>
bool Element::load_xml_from(const QSharedPointer<Element>& self, R& r, XML_interface& xi, XML_read_write_parts parts)
{
    if (parts & xml_part_attributes) {
        const bool fresh = t_new_child == this;
        t_new_child = nullptr;
        Reading_attributes reading(this);
        // A document root's namespace declarations and namespaced attributes (xmlns:xsi,
        // xsi:noNamespaceSchemaLocation) are kept under their prefixed names. Only a root has
        // them: other elements do not pay for looking.
        const bool root = !m_parent;
        const int declarations = root ? r.namespace_count() : 0;
        for (int i = 0; i < declarations; ++i)
            read_extra(self, QStringLiteral("xmlns:") + r.namespace_prefix(i), r.namespace_uri(i));
        const int n = r.attribute_count();
        for (int i = 0; i < n; ++i) {
            const QStringView name = r.attribute_name(i);
            if (root) {
                const QString prefix = r.attribute_prefix(i);
                if (!prefix.isEmpty()) {
                    read_extra(self, prefix + QLatin1Char(':') + name.toString(), r.attribute_value(i));
                    continue;
                }
            }
            Attribute* a = find_attribute(name);
            if (!a) {
                // A new element has no extra attributes yet, and a start tag names each once.
                a = fresh ? nullptr : extra_attribute(name);
                if (!a) {
                    a = new Attributes::Base::Extra_string(name.toString());
                    _add(name.toString(), a);
                }
            }
            a->set_by_xml_value(self, r.attribute_value(i));
        }
        if (reading.changed() && !fresh)
            notify_updated(Base_attribute_update(self, nullptr));
    }
    if (parts & xml_part_children)
        return load_children_from(self, r, xi);
    if (parts & xml_part_end)
        r.skipCurrentElement();
    if (r.hasError()) {
        r.fail(xi, xi.cur_infilepath());
        return false;
    }
    return true;
}

void Element::read_extra(const QSharedPointer<Element>& self, const QString& name, QStringView value)
{
    Attribute* a = extra_attribute(name);
    if (!a) {
        a = new Attributes::Base::Extra_string(name);
        _add(name, a);
    }
    a->set_by_xml_value(self, value);
}

bool Element::read_foreign_child(QXmlStreamReader& r, XML_interface& xi)
{
    Qt_xml_source source(r);
    return read_foreign_child_from(source, xi);
}

template <class R>
bool Element::read_foreign_child_from(R& r, XML_interface& xi)
{
    const QStringView name = r.name();
    if (!Attribute::Spec::is_proprietary_name(name) || !xi.keep_proprietary() || !xi.admits(name) ||
        name.startsWith(QLatin1String("P231_")))
        return false;
    // Another maker's element: not ours to interpret, but not ours to lose either. A reload
    // of the same file finds the same text and adds nothing.
    const QString text = capture_subtree(r);
    Extras& x = extras();
    if (!x.foreign_seen.contains(text)) {
        x.foreign_seen.insert(text);
        x.foreign_children.append(text);
    }
    return true;
}

void Element::write_schema_location(QXmlStreamWriter& w, XML_interface& xi) const
{
    // Without proprietary content an element keeps one namespaced attribute: the location of
    // the schema it claims, with the declaration of its prefix, so that validators find it.
    static const QString instance = QStringLiteral("http://www.w3.org/2001/XMLSchema-instance");
    for (const auto& a : m_extras->attributes) {
        const int colon = a.first.indexOf(QLatin1Char(':'));
        const QStringRef local = a.first.midRef(colon + 1);
        if (colon <= 0 || a.first.startsWith(QLatin1String("xmlns:")) ||
            (local != QLatin1String("noNamespaceSchemaLocation") && local != QLatin1String("schemaLocation")))
            continue;
        const QString declaration = QStringLiteral("xmlns:") + a.first.left(colon);
        const Attribute* uri = extra_attribute(declaration);
        if (!uri || uri->to_string() != instance)
            continue;
        uri->save_xml(w, const_cast<Element*>(this), declaration, xi);
        a.second->save_xml(w, const_cast<Element*>(this), a.first, xi);
    }
}

void Element::write_foreign_children(QXmlStreamWriter& w, XML_interface& xi) const
{
    if (!xi.keep_proprietary() || !m_extras)
        return;
    for (const QString& foreign : m_extras->foreign_children)
        write_subtree(w, foreign);
}

bool Element::load_children(const QSharedPointer<Element>& self, QXmlStreamReader& r, XML_interface& xi)
{
    Qt_xml_source source(r);
    return load_children_from(self, source, xi);
}

template <class R>
bool Element::load_children_from(const QSharedPointer<Element>& self, R& r, XML_interface& xi)
{
    const Kind_info& k = kind();
    QVarLengthArray<int, 20> counters(int(k.num_lists));
    for (int& c : counters)
        c = 0;
    QHash<QString, int> reference_counters;
    static const QString uid_xfr = QStringLiteral("P231_UID_XFR");
    static const QString guid_xfr = QStringLiteral("P231_GUID_XFR");
    static const QString ext_par = QStringLiteral("P231_ExtendedPar");
    while (!r.atEnd()) {
        const QXmlStreamReader::TokenType t = r.readNext();
        if (t == QXmlStreamReader::EndElement)
            return true;
        if (t != QXmlStreamReader::StartElement)
            continue;
        const QStringView name = r.name();
        const int list_index = [&] {
            if (name.size() != 3)
                return -1;
            for (unsigned i = 0; i < k.num_lists; ++i) {
                const char* tag = k.list_tags[i];
                if (name.at(0).unicode() == uchar(tag[0]) && name.at(1).unicode() == uchar(tag[1]) &&
                    name.at(2).unicode() == uchar(tag[2]))
                    return int(i);
            }
            return -1;
        }();
        if (list_index >= 0) {
            if (!_element_list(unsigned(list_index))->load_xml_from(self, r, xi, counters[list_index]++))
                return false;
            continue;
        }
        if (name == uid_xfr || name == guid_xfr) {
            // Inline children and referenced files of one tag share one occurrence counter, or
            // a file would be read over an inline child of its tag.
            const QString tag = r.attribute_value(QLatin1String("TAG")).toString();
            int tag_list = -1;
            for (unsigned i = 0; i < k.num_lists; ++i)
                if (tag == QLatin1String(k.list_tags[i]))
                    tag_list = int(i);
            if (tag_list >= 0)
                reference_counters[tag] = counters[tag_list];
            if (!load_individual_reference_from(self, r, xi, name == guid_xfr, reference_counters))
                return false;
            if (tag_list >= 0)
                counters[tag_list] = reference_counters.value(tag);
            continue;
        }
        if (name == ext_par && xi.admits(name)) {
            bool has_key = false, has_value = false;
            const QStringView key = r.attribute_value(QLatin1String("P231_key"), &has_key);
            const QStringView value = r.attribute_value(QLatin1String("P231_value"), &has_value);
            if (has_key && has_value)
                extras().parameters.insert(key.toString(), value.toString());
        } else if (read_foreign_child_from(r, xi)) {
            continue;
        }
        r.skipCurrentElement();
    }
    if (r.hasError()) {
        r.fail(xi, xi.cur_infilepath());
        return false;
    }
    return true;
}

bool Element::load_individual_reference(const QSharedPointer<Element>& self, QXmlStreamReader& r, XML_interface& xi,
                                        bool by_guid, QHash<QString, int>& counters)
{
    Qt_xml_source source(r);
    return load_individual_reference_from(self, source, xi, by_guid, counters);
}

template <class R>
bool Element::load_individual_reference_from(const QSharedPointer<Element>& self, R& r, XML_interface& xi,
                                             bool by_guid, QHash<QString, int>& counters)
{
    const QString tag = r.attribute_value(QLatin1String("TAG")).toString();
    QString file;
    if (by_guid) {
        const QString guid = r.attribute_value(QLatin1String("GUID")).toString();
        if (tag.isEmpty() || guid.isEmpty() || QUuid(guid).isNull()) {
            fprintf(stderr, "Bad GUID load %s:%s\n", tag.toUtf8().constData(), guid.toUtf8().constData());
            r.skipCurrentElement();
            return true;
        }
        file = QStringLiteral("%1_%2.XML").arg(tag, QUuid(guid).toString(QUuid::WithoutBraces));
    } else {
        bool ok = false;
        const int id = r.attribute_value(QLatin1String("ID")).toString().toInt(&ok);
        if (!ok || tag.isEmpty()) {
            fprintf(stderr, "Bad GUID load %s:%d\n", tag.toUtf8().constData(), id);
            r.skipCurrentElement();
            return true;
        }
        file = QStringLiteral("%1_%2.XML").arg(tag).arg(id);
    }
    r.skipCurrentElement();
    Element_list* list = find_list(tag);
    if (!list)
        return true;
    // The referenced element takes the place of a child of its tag, so it shares the tag's counter.
    const int index = counters[tag]++;
    return list->load_individual_file(self, file, xi, index);
}

template bool Element::load_xml_from<Fast_xml_reader>(const QSharedPointer<Element>&, Fast_xml_reader&,
                                                      XML_interface&, XML_read_write_parts);
template bool Element::load_xml_from<Qt_xml_source>(const QSharedPointer<Element>&, Qt_xml_source&, XML_interface&,
                                                    XML_read_write_parts);
template bool Element::read_foreign_child_from<Fast_xml_reader>(Fast_xml_reader&, XML_interface&);
template bool Element::read_foreign_child_from<Qt_xml_source>(Qt_xml_source&, XML_interface&);
template bool Element::load_individual_reference_from<Fast_xml_reader>(const QSharedPointer<Element>&,
                                                                       Fast_xml_reader&, XML_interface&, bool,
                                                                       QHash<QString, int>&);
template bool Element::load_individual_reference_from<Qt_xml_source>(const QSharedPointer<Element>&, Qt_xml_source&,
                                                                     XML_interface&, bool, QHash<QString, int>&);

bool Element::_save_xml(const QSharedPointer<Element>& self, QXmlStreamWriter& w, XML_interface& xi,
                        XML_read_write_parts parts)
{
    if (!xi.ok())
        return false;
    if (parts & xml_part_start)
        w.writeStartElement(get_tag());
    if (parts & xml_part_attributes) {
        const int version = xi.format_version();
        const bool keep = xi.keep_proprietary();
        const unsigned n = _num_iso_attributes();
        for (unsigned i = 0; i < n; ++i) {
            Attribute* a = _attribute(i);
            const Attribute::Spec& s = a->base_spec();
            if (!(a->flags() & (Attribute::flag_present | Attribute::flag_valid)) && !s.required)
                continue;
            if (s.version > version)
                continue;
            if (!keep && s.is_proprietary())
                continue;
            a->save_xml(w, this, s.qname, xi);
        }
        if (keep && m_extras) {
            for (const auto& a : m_extras->attributes)
                a.second->save_xml(w, this, a.first, xi);
        } else if (m_extras) {
            write_schema_location(w, xi);
        }
    }
    if ((parts & xml_part_children) && xi.write_children()) {
        const int version = xi.format_version();
        const unsigned lists = _num_element_lists();
        for (unsigned l = 0; l < lists; ++l) {
            Element_list* list = _element_list(l);
            if (list->version() > version || list->isEmpty())
                continue;
            if (!list->save_xml(self, w, xi))
                return false;
        }
    }
    if (xi.keep_proprietary() && m_extras) {
        for (auto it = m_extras->parameters.constBegin(); it != m_extras->parameters.constEnd(); ++it) {
            if (!it.value().canConvert<QString>())
                continue;
            w.writeEmptyElement(QStringLiteral("P231_ExtendedPar"));
            w.writeAttribute(QStringLiteral("P231_key"), it.key());
            w.writeAttribute(QStringLiteral("P231_value"), it.value().toString());
        }
    }
    if ((parts & xml_part_children) && xi.write_children())
        write_foreign_children(w, xi);
    if (parts & xml_part_end)
        w.writeEndElement();
    if (w.hasError()) {
        xi.set_fail(QStringLiteral("Write error on %1").arg(xi.cur_outfilepath()));
        return false;
    }
    xi.increment_objects_done();
    return xi.ok();
}

Element_locker_new::Element_locker_new(const QSharedPointer<Element>& element, int timeout_ms) : m_element(element)
{
    if (m_element) {
        Element* e = m_element.data();
        // A free lock is taken at once: only a wait could close a cycle. Whether waiting keeps
        // the lock order is asked only when the lock is busy, because it reads the parent links
        // under the tree mutex every change takes (a writer locking each element it writes
        // would otherwise take that mutex as often as it writes an element).
        m_locked = e->try_lock(0) || (timeout_ms != 0 && e->may_wait_for_lock() && e->try_lock(timeout_ms));
    }
    if (!m_locked)
        m_element.reset();
}

Element_locker_new::~Element_locker_new()
{
    if (m_locked)
        m_element->unlock();
}

Tree_locker::Tree_locker(const QVector<QSharedPointer<Element>>& tops)
{
    bool wait = true;
    for (const auto& top : tops) {
        if (!top)
            continue;
        // Decided once, at the first top: the tops always come in the same order.
        if (m_tops.isEmpty())
            wait = top->may_wait_for_lock();
        m_tops.append(top);
        if (!take(top.data(), wait)) {
            release();
            return;
        }
    }
    m_locked = true;
}

Tree_locker::~Tree_locker() { release(); }

bool Tree_locker::take(Element* e, bool wait)
{
    if (!e->try_lock(wait ? -1 : 0))
        return false;
    m_held.append(e);
    const unsigned lists = e->_num_element_lists();
    for (unsigned l = 0; l < lists; ++l)
        for (const auto& c : e->_element_list(l)->elements())
            if (!take(c.data(), wait))
                return false;
    return true;
}

void Tree_locker::release()
{
    while (!m_held.isEmpty())
        m_held.takeLast()->unlock();
    m_locked = false;
}

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
