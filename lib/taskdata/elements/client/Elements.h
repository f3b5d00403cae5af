// The per-kind client handles (Client::Task, Client::Partfield, Client::Device, ...), expanded
// from the catalogue table like the base classes, so that they cannot drift from the model.
//
// For every attribute `m` of a kind: `m()` answers the value (the empty value for a handle
// whose element is gone: 0, empty text, an invalid date-time, an empty handle for a link),
// `set_m(v)` changes it and notifies once when something changed, `set_m_noevent(v)` changes
// it without notification and without moving the stamps, and `m_attribute()` gives the typed
// attribute handle. A link's value is the handle of its target's kind; an identifier's is its
// number. For every child list `l` with singular `s`: `l()` the list handle, `l_count()`,
// `get_s(i)`, `remove_l(child)` (erases the child), `create_s()` (a new child at the end) and
// `add_s(child)`. Including this header gives the whole client layer.
// A per-kind handle made from a Client::Element of another kind is empty.
// Threads: any (see Client::Element).
#pragma once

#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/client/Attribute.h>
#include <taskdata/elements/client/Element.h>
#include <taskdata/elements/client/Element_list.h>
#include <taskdata/elements/client/Element_man.h>
#include <taskdata/elements/client/Events.h>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Client {

#define KTD_CLIENT_FORWARD(Cls, Tag, Singular, Plural) class Cls;
KTD_ELEMENT_KINDS(KTD_CLIENT_FORWARD)
#undef KTD_CLIENT_FORWARD

// The client handle of a base kind.
template <class B>
struct Client_of;
template <>
struct Client_of<Base::Element>
{
    using type = Element;
};
#define KTD_CLIENT_OF(Cls, Tag, Singular, Plural)                                              \
    template <>                                                                                \
    struct Client_of<Base::Cls>                                                                \
    {                                                                                          \
        using type = Cls;                                                                      \
    };
KTD_ELEMENT_KINDS(KTD_CLIENT_OF)
#undef KTD_CLIENT_OF

// What the generated accessors share: one promotion, one lock, one base access per call.
namespace Access {

namespace AB = Attributes::Base;
namespace AC = Attributes::Client;

template <class T>
T value(const AB::Integer<T>& a)
{
    return a.get_val();
}
inline double value(const AB::Float& a) { return a.get_val(); }
inline QString value(const AB::String& a) { return a.get_string(); }
inline QDateTime value(const AB::Datetime& a) { return a.get_qdt(); }
inline int value(const AB::UniqueID& a) { return a.get_val(); }
template <class E>
typename Client_of<E>::type value(const AB::LinkedID_t<E>& a)
{
    return typename Client_of<E>::type(a.get_target());
}

template <class T>
bool assign(AB::Integer<T>& a, const QSharedPointer<Base::Element>& owner, T v)
{
    return a.set_val(owner, v);
}
inline bool assign(AB::Float& a, const QSharedPointer<Base::Element>& owner, double v) { return a.set_val(owner, v); }
inline bool assign(AB::String& a, const QSharedPointer<Base::Element>& owner, const QString& v)
{
    return a.set_string(owner, v);
}
inline bool assign(AB::Datetime& a, const QSharedPointer<Base::Element>& owner, const QDateTime& v)
{
    return a.set_qdt(owner, v);
}
inline bool assign(AB::UniqueID& a, const QSharedPointer<Base::Element>& owner, int v) { return a.set_val(owner, v); }
template <class E>
bool assign(AB::LinkedID_t<E>& a, const QSharedPointer<Base::Element>& owner, const Element& target)
{
    const QSharedPointer<Base::Element> t = target.get_base_elem();
    if (target.valid() && !t)
        return false; // the target is gone: not the same as clearing the link
    const QSharedPointer<E> typed = t.template dynamicCast<E>();
    if (t && !typed)
        return false;
    return a.set(owner, typed);
}

template <class T>
AC::Integer<AB::Integer<T>> handle_of(AB::Integer<T>*);
AC::Float handle_of(AB::Float*);
AC::String handle_of(AB::String*);
AC::Datetime handle_of(AB::Datetime*);
AC::UniqueID handle_of(AB::UniqueID*);
AC::LinkedID handle_of(AB::LinkedID*);

template <class B, class A>
auto get(const Element& h, A B::*member) -> decltype(value(std::declval<const A&>()))
{
    Base::Element_locker_new lock(h.get_base_elem(), -1);
    if (!lock)
        return {};
    return value(static_cast<B*>(lock.get())->*member);
}

// The same as a handle of type R: a call that depends on R waits for R to be complete.
template <class R, class B, class A>
R get_as(const Element& h, A B::*member)
{
    Base::Element_locker_new lock(h.get_base_elem(), -1);
    if (!lock)
        return R();
    return R(value(static_cast<B*>(lock.get())->*member));
}

template <class B, class A, class V>
bool set(const Element& h, A B::*member, const V& v, bool notify)
{
    Base::Element_locker_new lock(h.get_base_elem(), -1);
    if (!lock)
        return false;
    B* b = static_cast<B*>(lock.get());
    if (notify)
        return assign(b->*member, lock.element(), v);
    Base::Quiet_changes quiet(b);
    return assign(b->*member, lock.element(), v);
}

template <class B, class A>
auto attribute(const Element& h, A B::*member) -> decltype(handle_of(static_cast<A*>(nullptr)))
{
    using H = decltype(handle_of(static_cast<A*>(nullptr)));
    const QSharedPointer<Base::Element> e = h.get_base_elem();
    if (!e)
        return H();
    // The address of an inline member: no lock needed to compute it.
    return H(e.toWeakRef(), &(static_cast<B*>(e.data())->*member));
}

template <class T, class B>
T child(const Element& h, Base::Element_list_t<typename T::Base_element> B::*list, unsigned index)
{
    Base::Element_locker_new lock(h.get_base_elem(), -1);
    if (!lock)
        return T();
    return T((static_cast<B*>(lock.get())->*list).typed_at(int(index)));
}

template <class B, class L>
int count(const Element& h, L B::*list)
{
    Base::Element_locker_new lock(h.get_base_elem(), -1);
    return lock ? (static_cast<B*>(lock.get())->*list).count() : 0;
}

// The element behind `h` when it is of kind B, else nothing.
template <class B>
QWeakPointer<Base::Element> checked(const Element& h)
{
    const QSharedPointer<Base::Element> e = h.get_base_elem();
    return dynamic_cast<B*>(e.data()) ? e.toWeakRef() : QWeakPointer<Base::Element>();
}

} // namespace Access

#define KTD_CLIENT_VALUE(m, V)                                                                  \
    V m() const { return Access::get(*this, &Base_element::m); }                               \
    bool set_##m(const V& v) const { return Access::set(*this, &Base_element::m, v, true); }   \
    bool set_##m##_noevent(const V& v) const { return Access::set(*this, &Base_element::m, v, false); } \
    auto m##_attribute() const { return Access::attribute(*this, &Base_element::m); }
#define KTD_CLIENT_I(Kind, m, ...) KTD_CLIENT_VALUE(m, Attributes::Base::Kind::value_type)
#define KTD_CLIENT_N(m, ...) KTD_CLIENT_VALUE(m, quint64)
#define KTD_CLIENT_F(m, ...) KTD_CLIENT_VALUE(m, double)
#define KTD_CLIENT_S(m, ...) KTD_CLIENT_VALUE(m, QString)
#define KTD_CLIENT_D(m, ...) KTD_CLIENT_VALUE(m, QDateTime)
#define KTD_CLIENT_U(m, ...) KTD_CLIENT_VALUE(m, int)
// Handles of other kinds may not be complete yet where a class is expanded: the accessors that
// take or give them are templates defaulting to the kind, so their bodies are compiled where
// they are used.
#define KTD_CLIENT_L(m, x, v, r, T, tag)                                                       \
    template <class H = T>                                                                     \
    H m() const                                                                                \
    {                                                                                          \
        return Access::get_as<H>(*this, &Base_element::m);                                     \
    }                                                                                          \
    template <class H = T>                                                                     \
    bool set_##m(const H& target) const                                                        \
    {                                                                                          \
        return Access::set(*this, &Base_element::m, static_cast<const Element&>(target), true); \
    }                                                                                          \
    template <class H = T>                                                                     \
    bool set_##m##_noevent(const H& target) const                                              \
    {                                                                                          \
        return Access::set(*this, &Base_element::m, static_cast<const Element&>(target), false); \
    }                                                                                          \
    Attributes::Client::LinkedID m##_attribute() const { return Access::attribute(*this, &Base_element::m); }
#define KTD_CLIENT_C(T, m, tag, v, s, max)                                                     \
    Element_list m() const { return Element_list(*this, int(Base_element::lidx_##m)); }       \
    int m##_count() const { return Access::count(*this, &Base_element::m); }                   \
    template <class H = T>                                                                     \
    H get_##s(unsigned index) const                                                            \
    {                                                                                          \
        return Access::child<H>(*this, &Base_element::m, index);                               \
    }                                                                                          \
    template <class H = T>                                                                     \
    bool remove_##m(const H& child) const                                                      \
    {                                                                                          \
        return m().remove_element_child(child);                                                \
    }                                                                                          \
    template <class H = T>                                                                     \
    H create_##s(bool notify = true) const                                                     \
    {                                                                                          \
        return H(m().create_from_list(notify));                                                \
    }                                                                                          \
    template <class H = T>                                                                     \
    bool add_##s(const H& child) const                                                         \
    {                                                                                          \
        return m().add(child);                                                                 \
    }

#define KTD_CLIENT_CLASS(Cls, Tag, Singular, Plural)                                           \
    class Cls : public Element                                                                 \
    {                                                                                          \
    public:                                                                                    \
        using Base_element = Base::Cls;                                                        \
        Cls() = default;                                                                       \
        Cls(const QSharedPointer<Base::Cls>& e) : Element(e.template staticCast<Base::Element>()) {} \
        explicit Cls(const QSharedPointer<Base::Element>& e) : Element(Access::checked<Base::Cls>(Element(e))) {} \
        explicit Cls(const Element& e) : Element(Access::checked<Base::Cls>(e)) {}             \
        KTD_##Cls(KTD_CLIENT_I, KTD_CLIENT_I, KTD_CLIENT_N, KTD_CLIENT_F, KTD_CLIENT_S, KTD_CLIENT_D, \
                  KTD_CLIENT_U, KTD_CLIENT_L, KTD_CLIENT_I, KTD_CLIENT_I, KTD_CLIENT_S, KTD_CLIENT_C) \
    };
KTD_ELEMENT_KINDS(KTD_CLIENT_CLASS)
#undef KTD_CLIENT_CLASS

template <class T>
T Element_man::find_element(int n) const
{
    if (!m_man || n == 0)
        return T();
    return T(m_man->lookup(QString::fromLatin1(T::Base_element::xml_tag()), n));
}

template <class T>
T Element::find_element(int n) const
{
    return get_element_man().template find_element<T>(n);
}

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC
