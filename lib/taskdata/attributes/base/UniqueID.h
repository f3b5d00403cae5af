// UniqueID attribute: an element's own identifier (prefix + signed 32-bit number) and its GUID.
//
// The number is registered with the owning element's manager while the element is registrable
// (not erased); a number already taken is refused and the attribute keeps its old one. Numbers
// made on the terminal are negative and never 0; numbers read from files keep their sign. An
// identifier read from a file is real whatever its number, 0 included; one never given
// (has_number() false) is none and is never registered. The text read keeps its leading zeros as
// long as the number stays; a file name identifier (a spec width above 0, "TLG00001") is always
// written with exactly that many digits.
// Thread: the holder of the owning element's lock. The number, whether there is one and its
// text may be read without it (links read their target's): they are one atomic word.
#pragma once

#include <taskdata/attributes/base/Attribute.h>

#include <QMap>
#include <QUuid>

#include <atomic>
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

    // One reading of the identifier, also without the owner's lock: number, whether there is
    // one, digits of the text read.
    struct Number
    {
        qint32 value = 0;
        bool set = false;
        quint8 digits = 0; // leading zeros kept while the number stays; 0: as formatted
    };
    Number number() const
    {
        const quint64 w = m_number.load(std::memory_order_relaxed);
        return Number{qint32(quint32(w)), bool(w >> 32 & 1), quint8(w >> 40)};
    }
    int get_val() const { return number().value; }
    // Whether the element has an identifier (a number read or given; 0 can be one).
    bool has_number() const { return number().set; }
    // Gives the element a new number; false when it is out of range, taken, or there is no
    // manager. 0 takes the identifier away.
    bool set_val(const QSharedPointer<Element>& owner, int n, bool lookup_guid = false);
    // The text the identifier was read with, when it differs from get_as_string() (a file name
    // of another width, "TLG0001"); empty otherwise.
    QString read_text() const;
    // Whether reading gave the element another number than its text (a duplicate).
    bool renumbered() const { return m_renumbered; }
    // Takes the identity of `source` (an element being copied): with `copy_ids` its number (or
    // none) and GUID, else only a GUID that `guid_map` gives for the source's GUID. The map
    // (source GUID to the copy's GUID) also translates the GUID copied with the number.
    bool copy_identity(const QSharedPointer<Element>& owner, const UniqueID& source, const QMap<QUuid, QUuid>& guid_map,
                       bool copy_ids, bool notify);
    // Enters the number in the registry when the owner is registrable, a new negative one when
    // another element took it meanwhile; lets go of it otherwise.
    void sync_registration(const QSharedPointer<Element>& owner);
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
    QVariant _get_qvariant() const override { return QVariant(get_val()); }
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
    // Gives the element a free number of the sign asked for (never 0), chosen and entered in one
    // step, and lets go of its old one; false when none is free.
    bool take_fresh(const QSharedPointer<Element>& owner, Element_man& man, bool positive, bool valid);
    // The prefix and `value` padded to `width` characters (a minus sign counts).
    QString format(qint32 value, int width) const;

    // Written by the lock holder only: a plain store, no compare-and-swap.
    void store(qint32 value, bool set, quint8 digits = 0)
    {
        m_number.store(quint64(quint32(value)) | quint64(set) << 32 | quint64(digits) << 40,
                       std::memory_order_relaxed);
    }

    std::atomic<quint64> m_number{0};
    bool m_renumbered = false;
    QUuid m_guid;
};

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
