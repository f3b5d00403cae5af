// UniqueID attribute: an element's own identifier (prefix + signed 32-bit number) and its GUID.
//
// The number is registered with the owning element's manager; a number already taken is
// refused and the attribute keeps its old one. Numbers made on the terminal are negative,
// numbers read from files keep their sign. An identifier read from a file is real whatever its
// number, 0 included; one never given (has_number() false) is none. The text read keeps its
// leading zeros as long as the number stays; a file name identifier (a spec width above 0,
// "TLG00001") is always written with exactly that many digits.
// Thread: the holder of the owning element's lock.
#pragma once

#include <taskdata/attributes/base/Attribute.h>

#include <QUuid>

#include <limits>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

class KTD_EXPORT UniqueID : public Attribute
{
public:
    struct Spec : Attribute::Spec
    {
        const char* prefix; // the element's XML code
        qint32 min;
        qint32 max;
        quint8 width;
        quint8 base;
        Variant_map* variants = nullptr;
        Spec(const char* n, int v, bool r, const char* pfx, quint8 w = 0, quint8 b = 10,
             qint32 mn = std::numeric_limits<qint32>::min(), qint32 mx = std::numeric_limits<qint32>::max())
            : Attribute::Spec(n, v, r), prefix(pfx), min(mn), max(mx), width(w), base(b)
        {
        }
    };

    const Spec& base_spec() const override = 0;

    int get_val() const { return m_value; }
    // Whether the element has an identifier (a number read or given; 0 can be one).
    bool has_number() const { return m_set; }
    // Gives the element a new number; false when it is out of range, taken, or there is no
    // manager. 0 takes the identifier away.
    bool set_val(const QSharedPointer<Element>& owner, int n, bool lookup_guid = false);
    // The text the identifier was read with, when it differs from get_as_string() (a file name
    // of another width, "TLG0001"); empty otherwise.
    QString read_text() const;
    // Whether reading gave the element another number than its text (a duplicate).
    bool renumbered() const { return m_renumbered; }
    QUuid get_guid() const { return m_guid; }
    void set_guid(const QUuid& g) { m_guid = g; }
    QString get_tag() const { return QString::fromLatin1(base_spec().prefix); }
    QString get_as_string() const;

    static QString construct_uid_string(const QString& prefix, int number);
    static bool deconstruct_uid_string(QString& prefix, int& number, const QString& text);

    void set_to_default(const QSharedPointer<Element>& owner, Element_man& man, bool notify = true) override;
    int compare(Element* a, Element* b, bool ascending = true) const override;
    void hash(Element* owner, Hash_arg& h) const override;
    bool set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify = true) override;
    QString _to_string() const override { return get_as_string(); }
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

protected:
    // Sets number n (0 a real number) or, with `clear`, none.
    bool _set_val(const QSharedPointer<Element>& owner, int n, bool lookup, bool valid, bool& changed,
                  bool clear = false);
    // The prefix and the number padded to `width` characters (a minus sign counts).
    QString format(int width) const;

    qint32 m_value = 0;
    bool m_set = false;
    bool m_renumbered = false;
    quint8 m_digits = 0; // digits of the text read (leading zeros kept while the number stays)
    QUuid m_guid;
};

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
