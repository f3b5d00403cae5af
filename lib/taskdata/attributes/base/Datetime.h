// Datetime attribute: an ISO 11783-10 date-time. Keeps the text's offset, zone form and
// sub-millisecond digits so that a value read from a file is written back as the same instant
// in the same form. Thread: the holder of the owning element's lock.
#pragma once

#include <taskdata/attributes/base/Attribute.h>

#include <platform/iso/Time_source.h>

#include <QDateTime>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

class KTD_EXPORT Datetime : public Attribute
{
public:
    struct Spec : Attribute::Spec
    {
        Variant_map* variants = nullptr;
        Spec(const char* n, int v, bool r) : Attribute::Spec(n, v, r) {}
    };

    const Spec& base_spec() const override = 0;

    QDateTime get_qdt() const { return m_value.value; }
    const Iso::Isoxml_date& get_date() const { return m_value; }
    bool set_qdt(const QSharedPointer<Element>& owner, const QDateTime& dt, bool valid = true);
    bool set_string(const QSharedPointer<Element>& owner, const QString& text, bool valid = true);
    // Whether the held value is a usable date-time.
    bool valid() const { return m_value.value.isValid(); }

    int compare(Element* a, Element* b, bool ascending = true) const override;
    void hash(Element* owner, Hash_arg& h) const override;
    bool set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify = true) override;
    bool _to_xml(Element* owner, QDomElement& dom, const QString& name) const override;
    bool _from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name) override;
    bool _xml_value(QString& out, Element* owner, int version) const override;
    bool _set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text) override;
    QVariant _get_qvariant() const override { return QVariant(m_value.value); }
    bool _get_ui_state(const UI::Attribute_ui_config&, const UI::Attribute_ui_spec&,
                       UI::Attribute_ui_state&) const override
    {
        return false;
    }
    bool _set_from_ui_state(const QSharedPointer<Element>&, const UI::Attribute_ui_state&) override { return false; }

protected:
    Iso::Isoxml_date m_value;
};

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
