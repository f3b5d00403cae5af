// Float attribute: a 64-bit floating point value written with exactly 14 decimals.
//
// The spec's decimals are for display and editing only; the XML text always carries 14 digits
// after the point so that no coordinate loses precision on a round trip.
// Thread: the holder of the owning element's lock.
#pragma once

#include <taskdata/attributes/base/Attribute.h>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

class KTD_EXPORT Float : public Attribute
{
public:
    struct Spec : Attribute::Spec
    {
        double min;
        double max;
        double def;
        quint8 decimals;   // display precision
        quint8 setting_a;  // 0 in every spec
        quint8 setting_b;  // 10 in every spec
        Variant_map* variants;
        quint8 version_key;
        Spec(const char* n, int v, bool r, double mn, double mx, double d, quint8 dec,
             quint8 a = 0, quint8 b = 10, Variant_map* map = nullptr, quint8 key = 0)
            : Attribute::Spec(n, v, r), min(mn), max(mx), def(d), decimals(dec), setting_a(a), setting_b(b),
              variants(map), version_key(key)
        {
            enter_variant(map, key, this);
        }
    };

    const Spec& base_spec() const override = 0;

    double get_val() const { return m_value; }
    bool set_val(const QSharedPointer<Element>& owner, double value, bool valid = true);
    // Setting a value clears the empty flag (see Integer).
    bool set_val_noevent(double value, bool valid = true)
    {
        const bool changed = _set_val(value, valid);
        return set_flag_noevent(flag_empty, false) || changed;
    }

    int compare(Element* a, Element* b, bool ascending = true) const override;
    void hash(Element* owner, Hash_arg& h) const override;
    bool set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify = true) override;
    QString _to_string() const override;
    bool _to_xml(Element* owner, QDomElement& dom, const QString& name) const override;
    bool _from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name) override;
    bool _xml_value(QString& out, Element* owner, int version) const override;
    bool _set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text) override;
    QVariant _get_qvariant() const override { return QVariant(m_value); }
    bool _get_ui_state(const UI::Attribute_ui_config&, const UI::Attribute_ui_spec&,
                       UI::Attribute_ui_state&) const override
    {
        return false;
    }
    bool _set_from_ui_state(const QSharedPointer<Element>&, const UI::Attribute_ui_state&) override { return false; }

    // Fixed notation with exactly 14 decimals, as written to XML ("1.50000000000000").
    static QString format(double v);
    // C-locale text to double; false when the text is not a number.
    static bool parse(QStringView text, double& out);

protected:
    bool _set_val(double value, bool valid);
    double m_value = 0.0;
};

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
