// String attribute: text cut to the spec's maximum length in characters, optionally upper-cased on
// output.
// Also the kind of every attribute an element does not declare (Extra_string), so that such
// attributes survive a read and a write unchanged. Thread: the holder of the owning element's lock.
#pragma once

#include <taskdata/attributes/base/Attribute.h>

#include <QByteArray>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

class KTD_EXPORT String : public Attribute
{
public:
    struct Spec : Attribute::Spec
    {
        quint32 max_length;
        bool uppercase;
        Variant_map* variants;
        quint8 version_key;
        Spec(const char* n, int v, bool r, quint32 max_len, bool upper = false, Variant_map* map = nullptr,
             quint8 key = 0)
            : Attribute::Spec(n, v, r), max_length(max_len), uppercase(upper), variants(map), version_key(key)
        {
            enter_variant(map, key, this);
        }
    };

    const Spec& base_spec() const override = 0;

    const QString& get_string() const { return m_text; }
    bool set_string(const QSharedPointer<Element>& owner, const QString& text, bool valid = true);
    // Empty text sets the empty flag, any other text clears it (see Integer).
    bool set_string_noevent(const QString& text, bool valid = true)
    {
        const bool changed = _set_string(text, valid);
        return set_flag_noevent(flag_empty, text.isEmpty()) || changed;
    }

    int compare(Element* a, Element* b, bool ascending = true) const override;
    void hash(Element* owner, Hash_arg& h) const override;
    bool set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify = true) override;
    QString _to_string() const override { return m_text; }
    bool _to_xml(Element* owner, QDomElement& dom, const QString& name) const override;
    bool _from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name) override;
    bool _xml_value(QString& out, Element* owner, int version) const override;
    bool _set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text) override;
    QVariant _get_qvariant() const override { return QVariant(m_text); }
    bool _get_ui_state(const UI::Attribute_ui_config&, const UI::Attribute_ui_spec&,
                       UI::Attribute_ui_state&) const override
    {
        return false;
    }
    bool _set_from_ui_state(const QSharedPointer<Element>&, const UI::Attribute_ui_state&) override { return false; }

    // Where a text is cut to `max_length` characters: lengths count characters (a pair of
    // UTF-16 surrogates is one), and a cut never separates the two halves of a pair.
    static int cut_position(const QString& text, quint32 max_length);

protected:
    bool _set_string(const QString& text, bool valid);
    QString m_text;
};

// An attribute met in a file that the element kind does not declare: a string with a spec made
// on the spot. Owned by its element's extra attribute store.
class KTD_EXPORT Extra_string final : public String
{
public:
    explicit Extra_string(const QString& xml_name);
    const Spec& base_spec() const override { return m_spec; }
    Attribute* create_new(Element* owner, Element_man& man) const override;

private:
    QByteArray m_name;
    Spec m_spec;
};

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
