#include "Element_list.h"

#include <taskdata/elements/base/Element_list.h>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Client {

using Strong = QSharedPointer<Base::Element>;

Element_list::Element_list(const QSharedPointer<Base::Element>& owner, Base::Element_list* list)
    : m_owner(owner), m_index(owner && list ? owner->_element_list_index(list) : -1)
{
    if (m_index < 0)
        m_owner = Element();
}

template <class R, class F>
R Element_list::with(R empty, F&& f) const
{
    Base::Element_locker_new lock(m_owner.get_base_elem(), -1);
    if (!lock || m_index < 0 || unsigned(m_index) >= lock->_num_element_lists())
        return empty;
    return f(lock->_element_list(unsigned(m_index)), lock.element());
}

bool Element_list::valid() const
{
    return with(false, [](Base::Element_list*, const Strong&) { return true; });
}

int Element_list::count() const
{
    return with(0, [](Base::Element_list* l, const Strong&) { return l->count(); });
}

Element Element_list::operator[](int index) const
{
    return with(Element(), [index](Base::Element_list* l, const Strong&) { return Element(l->at(index)); });
}

namespace {
bool full(const Base::Element_list* l, const Strong& owner)
{
    const int max = owner->kind().list_max_items[owner->_element_list_index(const_cast<Base::Element_list*>(l))];
    return max > 0 && l->count() >= max;
}
} // namespace

bool Element_list::add(const Element& child) const
{
    const Strong c = child.get_base_elem();
    if (!c)
        return false;
    return with(false, [&c](Base::Element_list* l, const Strong& owner) {
        if (c->parent_list() == l || full(l, owner) || !l->accepts(c.data()))
            return false;
        return l->add(c, -1, true);
    });
}

bool Element_list::contains(const Element& child) const { return get_index(child) >= 0; }

int Element_list::get_index(const Element& child) const
{
    const Strong c = child.get_base_elem();
    if (!c)
        return -1;
    return with(-1, [&c](Base::Element_list* l, const Strong&) { return l->index_of(c.data()); });
}

bool Element_list::remove_element_child(const Element& child) const
{
    Strong c = child.get_base_elem();
    if (!c)
        return false;
    return with(false, [&c](Base::Element_list* l, const Strong&) {
        if (l->index_of(c.data()) < 0)
            return false;
        return c->erase(c);
    });
}

bool Element_list::clear() const
{
    return with(false, [](Base::Element_list* l, const Strong&) {
        if (l->isEmpty())
            return false;
        while (!l->isEmpty()) {
            Strong c = l->at(l->count() - 1);
            c->erase(c);
        }
        return true;
    });
}

Element Element_list::create_from_list(bool notify) const
{
    return with(Element(), [notify](Base::Element_list* l, const Strong& owner) {
        return full(l, owner) ? Element() : Element(l->create_and_add(notify));
    });
}

Element Element_list::copy_child(const Element& child, bool recurse, bool keep_ids, bool notify) const
{
    const Strong src = child.get_base_elem();
    if (!src)
        return Element();
    return with(Element(), [&](Base::Element_list* l, const Strong& owner) {
        if (full(l, owner) || !l->accepts(src.data()))
            return Element();
        // Held before the copy is added, so that a busy source (one out of the lock order, not
        // below the owner) refuses the copy instead of leaving an empty element behind.
        const Base::Element_locker_new source_lock(src, -1);
        if (!source_lock)
            return Element();
        Strong copy = l->create_element(owner->weak_man());
        if (!copy || !l->add(copy, -1, notify))
            return Element();
        if (!keep_ids)
            copy->set_attributes_to_default(copy, false);
        copy->set(copy, src.data(), recurse, notify, {}, {}, keep_ids);
        return Element(copy);
    });
}

QString Element_list::get_tag() const
{
    return with(QString(), [](Base::Element_list* l, const Strong&) { return l->tag(); });
}

namespace {
QString kind_name(Base::Element_list* l, int count, bool translated)
{
    const Strong sample = l->create_element(QWeakPointer<Base::Element_man>());
    if (!sample)
        return QString();
    return translated ? sample->get_tr_name(count) : sample->get_name(count);
}
} // namespace

QString Element_list::get_type_name() const
{
    return with(QString(), [](Base::Element_list* l, const Strong&) { return kind_name(l, 1, false); });
}

QString Element_list::get_tr_type_name(int count) const
{
    return with(QString(), [count](Base::Element_list* l, const Strong&) { return kind_name(l, count, true); });
}

int Element_list::get_version_introduced() const
{
    return with(0, [](Base::Element_list* l, const Strong&) { return l->version(); });
}

int Element_list::max_items() const
{
    return with(0, [this](Base::Element_list*, const Strong& owner) { return owner->kind().list_max_items[m_index]; });
}

quint64 Element_list::stamp() const
{
    return with(quint64(0), [](Base::Element_list* l, const Strong&) { return l->stamp(); });
}

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC
