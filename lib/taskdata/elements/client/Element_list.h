// Client::Element_list: a handle to one child list of one element (a task's time logs, a
// device's elements), by owner and list index.
//
// Holds the owner weakly, like Client::Element; every operation locks the owner for its
// duration and answers the empty result when the owner is gone or has no such list.
// Threads: any.
#pragma once

#include <taskdata/elements/client/Element.h>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Client {

class KTD_EXPORT Element_list
{
public:
    Element_list() = default;
    Element_list(const Element& owner, int list_index) : m_owner(owner), m_index(list_index) {}
    // From the base side (update events): the list must belong to the owner.
    Element_list(const QSharedPointer<Base::Element>& owner, Base::Element_list* list);

    bool valid() const;
    explicit operator bool() const { return valid(); }
    bool operator==(const Element_list& o) const { return m_owner == o.m_owner && m_index == o.m_index; }
    bool operator!=(const Element_list& o) const { return !(*this == o); }

    int count() const;
    Element operator[](int index) const;
    // Appends (taking the child out of another list first). False when the list is full (see
    // max_items()), the child is of another kind or is gone.
    bool add(const Element& child) const;
    bool contains(const Element& child) const;
    int get_index(const Element& child) const;
    // Erases the child: taken out, its identifiers released.
    bool remove_element_child(const Element& child) const;
    // Erases every child; false when there was none.
    bool clear() const;
    // A new child at the end, with a fresh identifier and defaults; empty when the list is full.
    Element create_from_list(bool notify = true) const;
    // A copy of `child` appended: with its children when `recurse`, with new identifiers unless
    // `keep_ids`.
    Element copy_child(const Element& child, bool recurse = true, bool keep_ids = false, bool notify = true) const;

    Element owner() const { return m_owner; }
    int list_index() const { return m_index; }
    QString get_tag() const;
    QString get_type_name() const;                // display name of the children's kind
    QString get_tr_type_name(int count = 2) const;
    int get_version_introduced() const;           // first format version holding the list
    int max_items() const;                        // 0: no limit
    quint64 stamp() const;                        // last-change number of the list

private:
    template <class R, class F>
    R with(R empty, F&& f) const;

    Element m_owner;
    int m_index = -1;
};

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC

Q_DECLARE_METATYPE(TC::Task_data::Elements::Client::Element_list)
