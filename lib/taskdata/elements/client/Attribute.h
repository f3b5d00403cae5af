// Attributes::Client: value handles for one attribute of one element, as editors and update
// events carry them.
//
// A handle holds a weak reference to the owning element and the attribute's address; every
// operation promotes the reference, locks the element for its duration and checks that the
// attribute still belongs to it (an extra attribute can be replaced by a later read), answering
// the empty result otherwise. The typed handles (String, UInt8, Float, ...) add the value
// accessors of their kind; a typed handle made from an attribute of another kind is empty.
// Threads: any.
#pragma once

#include <taskdata/attributes/base/Datetime.h>
#include <taskdata/attributes/base/Float.h>
#include <taskdata/attributes/base/Integer.h>
#include <taskdata/attributes/base/LinkedID.h>
#include <taskdata/attributes/base/String.h>
#include <taskdata/attributes/base/UniqueID.h>
#include <taskdata/elements/client/Element.h>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Client {

class KTD_EXPORT Attribute
{
public:
    using flags_t = Base::Attribute::flags_t;

    Attribute() = default;
    Attribute(const QWeakPointer<Elements::Base::Element>& owner, Base::Attribute* attribute)
        : m_owner(owner), m_attribute(attribute)
    {
    }

    // True while the element exists (whether the attribute still belongs to it is checked by
    // every operation).
    bool valid() const { return m_attribute && !m_owner.isNull(); }
    explicit operator bool() const { return valid(); }
    bool operator==(const Attribute& o) const { return m_attribute == o.m_attribute && m_owner == o.m_owner; }
    bool operator!=(const Attribute& o) const { return !(*this == o); }

    Elements::Client::Element element() const { return Elements::Client::Element(m_owner); }
    QString xml_name() const;
    // The prefix of the attribute's own named signals: its XML name.
    QByteArray signal_prefix() const;
    QString to_string() const;
    QVariant get_qvariant() const;
    flags_t get_flags() const;
    bool is_flag_set(flags_t flags) const;
    bool set_flag(flags_t flags, bool on = true) const;
    // Takes the value from text as if read from a file (parsed, clamped, flagged) and notifies
    // when anything changed. False when the text did not parse or the attribute is gone.
    bool set_by_text(const QString& text) const;

    // Named signals of this attribute: "updated(TC::Task_data::Attributes::Client::Attribute)"
    // and "value_changed(QVariant)" after each change of it.
    bool connect(const char* signal, const QObject* receiver, const char* slot) const;
    bool disconnect(const char* signal = nullptr, const QObject* receiver = nullptr, const char* slot = nullptr) const;

    // The attribute's address: for identity only, it may dangle once the element is gone.
    Base::Attribute* get_base_attribute() const { return m_attribute; }

    // Whether `a` is one of the element's declared or extra attributes. The caller holds the lock.
    static bool belongs_to(Elements::Base::Element* element, const Base::Attribute* a);

protected:
    template <class A, class R, class F>
    R with(R empty, F&& f) const
    {
        Elements::Base::Element_locker_new lock(m_owner.toStrongRef(), -1);
        if (!lock || !belongs_to(lock.get(), m_attribute))
            return empty;
        A* a = dynamic_cast<A*>(m_attribute);
        return a ? f(a, lock.element()) : empty;
    }

    QWeakPointer<Elements::Base::Element> m_owner;
    Base::Attribute* m_attribute = nullptr;
};

// Value access common to the kinds: get and set through one type V.
template <class K, class V>
class Typed : public Attribute
{
public:
    using Attribute::Attribute;
    Typed() = default;
    explicit Typed(const Attribute& a) : Attribute(a) {}
};

template <class K>
class Integer final : public Typed<K, typename K::value_type>
{
public:
    using T = typename K::value_type;
    using Typed<K, T>::Typed;
    T get_val() const
    {
        return this->template with<K>(T(0), [](K* a, const auto&) { return a->get_val(); });
    }
    bool set_val(T v) const
    {
        return this->template with<K>(false, [v](K* a, const auto& e) { return a->set_val(e, v); });
    }
    bool set_val_noevent(T v) const
    {
        return this->template with<K>(false, [v](K* a, const auto&) { return a->set_val_noevent(v); });
    }
};

using Int8 = Integer<Base::Int8>;
using UInt8 = Integer<Base::UInt8>;
using Int16 = Integer<Base::Int16>;
using UInt16 = Integer<Base::UInt16>;
using Int32 = Integer<Base::Int32>;
using UInt32 = Integer<Base::UInt32>;
using UInt64 = Integer<Base::UInt64>;

class KTD_EXPORT Float final : public Typed<Base::Float, double>
{
public:
    using Typed::Typed;
    double get_val() const;
    bool set_val(double v) const;
    bool set_val_noevent(double v) const;
};

class KTD_EXPORT String final : public Typed<Base::String, QString>
{
public:
    using Typed::Typed;
    QString get_string() const;
    bool set_string(const QString& text) const;
    bool set_string_noevent(const QString& text) const;
};

class KTD_EXPORT Datetime final : public Typed<Base::Datetime, QDateTime>
{
public:
    using Typed::Typed;
    QDateTime get_qdt() const;
    bool set_qdt(const QDateTime& value) const;
    bool set_qdt_noevent(const QDateTime& value) const;
};

class KTD_EXPORT UniqueID final : public Typed<Base::UniqueID, int>
{
public:
    using Typed::Typed;
    int get_val() const;
    QString get_as_string() const;
    QUuid get_guid() const;
    // False when the number is taken or out of range; the attribute keeps its number then.
    bool set_val(int n) const;
};

class KTD_EXPORT LinkedID final : public Typed<Base::LinkedID, Elements::Client::Element>
{
public:
    using Typed::Typed;
    Elements::Client::Element get_target() const;
    QString get_as_string() const;
    // An empty handle clears the reference; a target of the wrong kind is refused.
    bool set_target(const Elements::Client::Element& target) const;
    bool set_target_noevent(const Elements::Client::Element& target) const;
};

} // namespace Client
} // namespace Attributes
} // namespace Task_data
} // namespace TC

Q_DECLARE_METATYPE(TC::Task_data::Attributes::Client::Attribute)
