// Client::Element: the value handle through which applications reach one task data element.
//
// A handle holds a weak reference only: copying it is cheap, it may be passed between threads
// and kept after the element is gone. Every operation promotes the reference, takes the
// element's data lock for its own duration and answers the empty result (an empty handle, 0,
// empty text, false) when the element no longer exists; a setter on a gone element changes
// nothing. The lock follows the order in base/Element.h: it waits without limit when this
// thread holds no element lock or only ancestors', lets a thread that holds it in again (a slot
// that edits inside a change, one operation inside another), and out of that order is taken
// only when free (the operation answers the empty result otherwise). A sequence of operations is not atomic: take an Element_locker_new
// on the handle around them when several values must agree.
// Results that are elements are handles again (of the right kind through the per-kind classes
// in Elements.h), never raw pointers. Threads: any.
#pragma once

#include <taskdata/attributes/base/Attribute.h>
#include <taskdata/elements/base/Element.h>

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QPointF>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <QVariant>
#include <QWeakPointer>

class QGraphicsScene;
class QObject;

namespace TC {
namespace Task_data {

class Export_properties;
class Scene;
class XML_interface;

namespace Attributes {
namespace Client {
class Attribute;
}
} // namespace Attributes

namespace Elements {
namespace Client {

class Element_list;
class Element_man;

class KTD_EXPORT Element
{
public:
    using flags_t = Attributes::Base::Attribute::flags_t;
    using Base_element = Base::Element;

    Element() = default;
    Element(const QWeakPointer<Base::Element>& element) : m_element(element) {}
    Element(QWeakPointer<Base::Element>&& element) : m_element(std::move(element)) {}
    Element(const QSharedPointer<Base::Element>& element) : m_element(element) {}

    // --- identity ---
    bool valid() const { return !m_element.isNull(); }
    explicit operator bool() const { return valid(); }
    // Same element (two empty handles are equal).
    bool operator==(const Element& other) const { return m_element == other.m_element; }
    bool operator!=(const Element& other) const { return !(*this == other); }
    int get_id() const;                // identifier number, 0 without one
    QString get_uid() const;           // "TSK-1"; empty without an identifier
    QString get_full_id() const;       // "TSK-1", or the path from the nearest identified ancestor: "PFD3/PLN[1]/LSG[2]"
    QString get_tag() const;           // XML code ("TSK")
    const char* get_ctag() const;      // the same as static text; "" for an empty handle
    // GUID of the element's identifier (attribute index -1) or of the identifier attribute at
    // `attribute`; null without one.
    QUuid get_guid(int attribute = -1) const;
    bool set_guid(const QUuid& guid, int attribute = -1) const;
    uint get_qhash() const;            // for hash keys: the element's identity
    // Feeds every attribute value of the element into `h` (detects changed content).
    bool hash(Attributes::Base::Hash_arg& h) const;

    // --- names and text ---
    QString designator() const;
    QString get_designator() const { return designator(); }
    // Fills an empty designator with "<kind name> <number>" (the identifier's number, else the
    // position in the parent list); answers the designator the element has afterwards.
    QString generate_default_designator() const;
    QString get_name(int count = 1) const;
    QString get_tr_name(int count = 1) const;
    QByteArray get_cname(int count = 1) const;
    QByteArray get_tr_cname(int count = 1) const;
    QString get_tr_attribute_name(int index) const;
    QByteArray get_tr_attribute_cname(int index) const;
    QString get_individual_icon() const;
    QString print(int indent = 0) const;

    // --- attributes: indices count the declared attributes first, then the extra ones ---
    unsigned num_attributes() const;
    unsigned num_iso_attributes() const;
    unsigned num_ext_attributes() const;
    Attributes::Client::Attribute attribute(unsigned index) const;
    Attributes::Client::Attribute attribute(const QByteArray& xml_name) const;
    // With `extra` false only declared attributes count; `owner`, when given, receives this
    // element (empty when there is no such attribute).
    Attributes::Client::Attribute attribute(unsigned index, bool extra, Element* owner) const;
    Attributes::Client::Attribute iso_attribute(unsigned index) const;
    Attributes::Client::Attribute ext_attribute(unsigned index) const;
    QString get_attribute_name(unsigned index) const; // the name in the catalogue ("designator")
    QString get_attribute_tag(unsigned index) const;  // the XML name ("B")
    QString get_attribute_string(unsigned index) const;
    QVariant get_attribute_variant(unsigned index) const;
    flags_t get_flags(unsigned index) const;
    bool is_flag_set(unsigned index, flags_t flags) const;
    bool set_flag(unsigned index, flags_t flags, bool on = true) const;
    bool reset_flag(unsigned index, flags_t flags) const { return set_flag(index, flags, false); }
    bool set_attributes_to_default(bool notify = true) const;
    // Adds (or replaces) an extra attribute by XML name and text.
    bool add(const QString& name, const QString& text) const;

    // --- tree ---
    Element get_parent() const;
    Element get_root() const;
    Element_list parent_list() const;
    int index_in_parent() const;                 // position in the parent list, -1 without one
    int index_of_child(const Element* child) const; // position of a child in its list, -1 when not a child
    int num_children() const;                    // over all lists
    Element child(unsigned index) const;         // over all lists, in list order
    int num_element_lists() const;
    Element_list element_list(int index) const;
    Element_list element_list(const QString& tag) const;
    // The list's XML code, or with `translated` the translated plural name of its kind.
    QString element_list_name(unsigned index, bool translated = false) const;
    int num_element_children(int list) const;
    Element element_child(int list, int index) const;
    // Erases the child (identifiers released); false when there is none.
    bool remove_element_child(int list, int index) const;
    // A new child at the end of the list, with a fresh identifier and defaults.
    Element create_from_list(unsigned list, bool notify = true) const;
    bool add_to_list(Element& child, unsigned list) const;
    // A copy of the child appended to the same list: with children when `recurse`, with new
    // identifiers unless `keep_ids`.
    Element copy_child(int list, int index, bool recurse = true, bool keep_ids = false, bool notify = true) const;
    // Takes the content of `source` (same kind), with its children when `recurse`.
    bool copy(const Element& source, const Element_man& man, bool recurse = true, bool copy_ids = false,
              QMap<QUuid, QUuid> guid_map = {}) const;
    // Removes the element from its parent and releases its identifiers.
    bool kill() const;

    // --- links ---
    // Targets of the element's links (attribute index -1: all of them, in attribute order).
    QList<Element> get_linked_elements(int attribute = -1) const;
    QStringList get_linked_element_ids(int attribute = -1) const;

    // --- extended parameters ("P231_ExtendedPar") ---
    bool pe_contains(const QString& key) const;
    QVariant pe_value(const QString& key) const;
    QVariant pe_value(const QString& key, const QVariant& default_value) const;
    bool pe_set_value(const QString& key, const QVariant& value) const;
    bool pe_remove_value(const QString& key) const;

    // --- events ---
    // The receiver gets an update event for every change of this element or anything below it,
    // posted to its thread. False when the element is gone.
    bool register_for_events(QObject* receiver) const;
    bool unregister_for_events(QObject* receiver) const;
    // Named signals of the element, called on the changing thread or posted to the receiver's
    // thread: "updated(TC::Task_data::Elements::Client::Element)" for every change at or below
    // the element, "updated(TC::Task_data::Attributes::Client::Attribute)" for an attribute of
    // the element (attribute handles connect to their own), and on tasks
    // "timelog_write(int32_t,uint32_t)". Signatures as with SIGNAL()/SLOT(), full type names.
    bool connect(const char* signal, const QObject* receiver, const char* slot) const;
    bool disconnect(const char* signal = nullptr, const QObject* receiver = nullptr, const char* slot = nullptr) const;
    // The element's last-change number, or its parent list's with `of_list`. With `touch` the
    // element is first marked changed (new number on it, its ancestors and list, as a change
    // would), and with `notify` too its receivers get an attribute update without attribute:
    // how an application asks autosave to write an element again.
    quint64 stamp(bool of_list = false, bool touch = false, bool notify = false) const;

    // --- geometry and export ---
    bool find_closest_point(QPointF position, QPointF& closest, bool recurse = true, double* distance = nullptr) const;
    QDateTime find_latest_time() const;
    QPointF get_first_point() const;
    void add_to_scene(QGraphicsScene& graphics, Scene& scene) const;
    bool document_export(Export_properties& props) const;

    // --- files ---
    // Writes the element through the interface's current writer.
    bool save_xml(XML_interface& xi) const;
    // Writes the element (with its children when `recurse`) as an XML file of its own, replaced
    // atomically.
    bool save_to_xml(const char* path, bool recurse = true) const;
    // The element as XML text for a format version (with its children when `recurse`),
    // indented by `indent` spaces per level (0: one line).
    QString to_xml(bool recurse = true, int version = 4, int indent = 0) const;

    // --- access to the model ---
    QSharedPointer<Base::Element> get_base_elem() const { return m_element.toStrongRef(); }
    QWeakPointer<Base::Element> get_weak_elem() const { return m_element; }
    Element_man get_element_man() const;
    QSharedPointer<Base::Element_man> get_eman() const;
    // The element of kind T (a per-kind handle) with identifier number n in this element's
    // tree; empty when there is none.
    template <class T>
    T find_element(int n) const;

protected:
    // Promotes, locks for the call and runs f(base element) with the kind B; `empty` when the
    // element is gone or of another kind.
    template <class B = Base::Element, class R, class F>
    R with(R empty, F&& f) const
    {
        Base::Element_locker_new lock(m_element.toStrongRef(), -1);
        B* b = lock ? static_cast<B*>(lock.get()) : nullptr;
        if (!b)
            return empty;
        return f(b, lock.element());
    }

    QWeakPointer<Base::Element> m_element;
};

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC

Q_DECLARE_METATYPE(TC::Task_data::Elements::Client::Element)
