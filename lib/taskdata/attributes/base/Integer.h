// Integer attribute kinds Int8 ... UInt64: one template, one instantiation per width.
//
// Text is clamped into the spec's range on input and replaced by the chosen variant's default
// on output; the asymmetry lets a value accepted under a newer format version be written
// safely for an older one. Thread: the holder of the owning element's lock.
#pragma once

#include <taskdata/attributes/base/Attribute.h>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

template <class T>
class KTD_EXPORT Integer : public Attribute
{
public:
    using value_type = T;

    struct Spec : Attribute::Spec
    {
        T min;
        T max;
        T def;
        quint8 width;  // minimum digit count on output, padded with "0"
        quint8 base;   // 10 or 16
        Variant_map* variants;
        quint8 version_key;
        Spec(const char* n, int v, bool r, T mn, T mx, T d, quint8 w = 0, quint8 b = 10,
             Variant_map* map = nullptr, quint8 key = 0)
            : Attribute::Spec(n, v, r), min(mn), max(mx), def(d), width(w), base(b), variants(map),
              version_key(key)
        {
            enter_variant(map, key, this);
        }
    };

    const Spec& base_spec() const override = 0;

    T get_val() const { return m_value; }
    // Setting a value clears the empty flag: an attribute read as empty text and then set is
    // written with the value.
    bool set_val(const QSharedPointer<Element>& owner, T value, bool valid = true);
    bool set_val_noevent(T value, bool valid = true)
    {
        const bool changed = _set_val(value, valid);
        return set_flag_noevent(flag_empty, false) || changed;
    }

    int compare(Element* a, Element* b, bool ascending = true) const override;
    void hash(Element* owner, Hash_arg& h) const override;
    bool set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify = true) override;
    bool _to_xml(Element* owner, QDomElement& dom, const QString& name) const override;
    bool _from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name) override;
    bool _xml_value(QString& out, Element* owner, int version) const override;
    bool _set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text) override;
    QVariant _get_qvariant() const override;
    bool _get_ui_state(const UI::Attribute_ui_config&, const UI::Attribute_ui_spec&,
                       UI::Attribute_ui_state&) const override
    {
        return false;
    }
    bool _set_from_ui_state(const QSharedPointer<Element>&, const UI::Attribute_ui_state&) override { return false; }

    // The kind's name as used in diagnostics ("Int16", "UInt64", ...).
    static const char* kind_name();

protected:
    bool _set_val(T value, bool valid);
    T clamp(T v) const;

    T m_value = 0;
};

using Int8 = Integer<qint8>;
using UInt8 = Integer<quint8>;
using Int16 = Integer<qint16>;
using UInt16 = Integer<quint16>;
using Int32 = Integer<qint32>;
using UInt32 = Integer<quint32>;
using UInt64 = Integer<quint64>;

extern template class Integer<qint8>;
extern template class Integer<quint8>;
extern template class Integer<qint16>;
extern template class Integer<quint16>;
extern template class Integer<qint32>;
extern template class Integer<quint32>;
extern template class Integer<quint64>;

// Number text helpers shared by the kinds that write numbers.
namespace Number_text {
// Digits of v in base 10 or 16, upper case, at least `width` digits padded with "0".
KTD_EXPORT QString format_integer(qint64 v, int base, int width);
KTD_EXPORT QString format_unsigned(quint64 v, int base, int width);
// Parses like the platform's conversion (base 16 text gets a "0x" prefix first); fast for
// plain digits, which is what files hold.
KTD_EXPORT qint64 parse_integer(QStringView text, int base, bool* ok);
KTD_EXPORT quint64 parse_unsigned(QStringView text, int base, bool* ok);
} // namespace Number_text

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
