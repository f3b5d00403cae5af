// Attribute: the typed, optional value behind one XML attribute of a task data element.
//
// Values live inline inside their element (no heap object per value); what an attribute is
// called, from which format version it exists, its limits and text form live in a static Spec
// shared by every element of the kind. An attribute is changed only by the thread holding its
// owning element's data lock; every change of value or flags ends in exactly one notification
// through the owning element, which is how other threads learn of it.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QByteArray>
#include <QSharedPointer>
#include <QString>
#include <QStringView>
#include <QVariant>

#include <cstdint>
#include <map>

class QDomElement;
class QXmlStreamWriter;

namespace Util {
class Signal_sender;
}

namespace TC {
namespace Task_data {

class XML_interface;
class Export_properties;

namespace Elements {
namespace Base {
class Element;
class Element_man;
} // namespace Base
} // namespace Elements

namespace UI {
class Attribute_ui_config;
class Attribute_ui_spec;
class Attribute_ui_state;
} // namespace UI

namespace Attributes {
namespace Base {

using Elements::Base::Element;
using Elements::Base::Element_man;

// Accumulates a 64-bit FNV-1a hash over attribute values (used to detect changed content).
struct KTD_EXPORT Hash_arg
{
    quint64 value = 1469598103934665603ULL;
    void add(const void* data, size_t size);
    template <class T> void add_value(const T& v) { add(&v, sizeof v); }
    void add_string(const QString& s) { add(s.constData(), size_t(s.size()) * sizeof(QChar)); }
};

// Two signed 16-bit numbers carried by every attribute value for the link layer; no rule of its own.
struct Linked_override
{
    qint16 first = 0;
    qint16 second = 0;
    bool operator==(const Linked_override& o) const { return first == o.first && second == o.second; }
    bool operator!=(const Linked_override& o) const { return !(*this == o); }
};

class KTD_EXPORT Attribute
{
public:
    using flags_t = quint8;
    static constexpr flags_t flag_bit0 = 1;   // carried, meaning left open
    static constexpr flags_t flag_present = 2; // met in the XML being read
    static constexpr flags_t flag_valid = 4;   // last value given was accepted
    static constexpr flags_t flag_empty = 8;   // the XML text was empty

    // Common part of every kind's spec. Constructed once at library start, never changed.
    struct KTD_EXPORT Spec
    {
        const char* name;   // XML attribute name exactly as written
        qint32 version;     // first format version in which the attribute exists
        bool required;      // written even when never set
        QString qname;      // the name as written, made once
        Spec(const char* n, int v, bool r) : name(n), version(v), required(r), qname(QString::fromLatin1(n)) {}
        Spec(const Spec&) = delete;
        Spec& operator=(const Spec&) = delete;
        // "P" followed by a digit marks a name outside the ISO vocabulary ("P231_...", "P094_...").
        static bool is_proprietary_name(QStringView name);
        bool is_proprietary() const;
        const QString& xml_name() const { return qname; }
    };
    // Members of one family of specs (same attribute, limits differing by format version),
    // keyed by version key. A spec enters itself when constructed.
    using Variant_map = std::map<quint8, const Spec*>;

    Attribute() = default;
    Attribute(const Attribute&) = delete;
    Attribute& operator=(const Attribute&) = delete;

    // --- virtual operations, in their fixed order ---
    virtual ~Attribute();
    virtual int compare(Element* a, Element* b, bool ascending = true) const = 0;
    virtual void hash(Element* owner, Hash_arg& h) const = 0;
    virtual Attribute* create_new(Element* owner, Element_man& man) const = 0;
    virtual bool set_from_other(const Attribute* source, const QSharedPointer<Element>& owner,
                                bool notify = true) = 0;
    virtual QString extra_description() const;
    virtual void set_to_default(const QSharedPointer<Element>& owner, Element_man& man, bool notify = true);
    virtual const Spec& base_spec() const = 0;
    virtual QString _print(unsigned int indent) const;
    virtual QString _to_string() const;
    virtual bool _document_export(Export_properties& props) const;
    virtual bool _to_xml(Element* owner, QDomElement& dom, const QString& name) const;
    virtual bool _from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name);
    virtual bool _load_xml(const QSharedPointer<Element>& owner, const QString& text, XML_interface& xi);
    virtual bool _xml_value(QString& out, Element* owner, int version) const = 0;
    virtual bool _set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text) = 0;
    virtual QVariant _get_qvariant() const = 0;
    virtual bool _get_ui_state(const UI::Attribute_ui_config& config, const UI::Attribute_ui_spec& spec,
                               UI::Attribute_ui_state& state) const = 0;
    virtual bool _set_from_ui_state(const QSharedPointer<Element>& owner, const UI::Attribute_ui_state& state) = 0;

    // --- public wrappers ---
    QString print(unsigned int indent = 0) const { return _print(indent); }
    QString to_string() const { return _to_string(); }
    bool document_export(Export_properties& p) const { return _document_export(p); }
    bool to_xml(Element* owner, QDomElement& dom, const QString& name) const { return _to_xml(owner, dom, name); }
    bool from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name)
    {
        return _from_xml(owner, dom, name);
    }
    bool load_xml(const QSharedPointer<Element>& owner, const QString& text, XML_interface& xi)
    {
        return _load_xml(owner, text, xi);
    }
    bool xml_value(QString& out, Element* owner, int version) const { return _xml_value(out, owner, version); }
    bool set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text)
    {
        return _set_by_xml_value(owner, text);
    }
    QVariant get_qvariant() const { return _get_qvariant(); }
    // Writes one XML attribute named `name` when the kind says the attribute is to be written.
    bool save_xml(QXmlStreamWriter& w, Element* owner, const QString& name, XML_interface& xi) const;

    // --- flags ---
    flags_t flags() const { return m_flags; }
    flags_t get_flags() const { return m_flags; }
    bool is_flag_set(flags_t f) const { return (m_flags & f) == f; }
    bool present() const { return m_flags & flag_present; }
    bool valid() const { return m_flags & flag_valid; }
    bool empty_text() const { return m_flags & flag_empty; }
    bool set_flag_noevent(flags_t f, bool on);
    bool set_flags_noevent(flags_t f);
    bool set_flag(const QSharedPointer<Element>& owner, flags_t f, bool on);
    bool set_flags(const QSharedPointer<Element>& owner, flags_t f);
    bool reset_flag(const QSharedPointer<Element>& owner, flags_t f) { return set_flag(owner, f, false); }

    Linked_override link_override() const { return m_link_override; }
    void set_link_override(const Linked_override& o) { m_link_override = o; }

    // Sends the attribute change notification for this attribute through its owning element.
    void notify_updated(const QSharedPointer<Element>& owner);
    static void notify_updated(const QSharedPointer<Element>& owner, Attribute* attribute);

    QString xml_name() const { return base_spec().xml_name(); }
    // The prefix under which the attribute's own named signals are connected: its XML name.
    QByteArray signal_prefix() const { return QByteArray(base_spec().name); }
    // The per-attribute notification of a change: "value_changed(QVariant)" with the new value
    // under the prefix, when something is connected to it.
    void emit_attribute_updated(Util::Signal_sender& sender) const;

protected:
    // Sets present and empty from a text being read; answers whether either changed.
    bool mark_read(QStringView text);
    // The attribute with the same XML name in another element of the same kind.
    const Attribute* peer_in(Element* other) const;
    // DOM conversion shared by every kind: through the XML text.
    bool dom_write(Element* owner, QDomElement& dom, const QString& name) const;
    bool dom_read(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name);

    flags_t m_flags = 0;
    Linked_override m_link_override;
};

// Picks the family member for a format version: the greatest key not above it; the base spec
// when there is no family; the lowest member when every key is above the version.
template <class S>
const S& choose_variant(const S& base, int version)
{
    if (!base.variants || base.variants->empty())
        return base;
    auto it = base.variants->upper_bound(quint8(qBound(0, version, 255)));
    if (it == base.variants->begin())
        return static_cast<const S&>(*it->second);
    --it;
    return static_cast<const S&>(*it->second);
}

// Enters a spec in its family when it has one.
KTD_EXPORT void enter_variant(Attribute::Variant_map* map, quint8 key, const Attribute::Spec* spec);

// Binds a kind to one static spec without storing a pointer in every value: the spec is a
// template argument, so a million points pay nothing for knowing their specs.
template <class K, const typename K::Spec& S>
class Bound final : public K
{
public:
    using K::K;
    const typename K::Spec& base_spec() const override { return S; }
    const typename K::Spec& spec() const { return S; }
    Attribute* create_new(Element*, Element_man&) const override { return new Bound; }
};

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
