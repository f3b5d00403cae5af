// Element: one node of the task data tree (a task, a partfield, a device, a point ...).
//
// Ownership: elements are held by QSharedPointer; a parent owns its children through its child
// lists; links, managers, receivers and the client layer hold QWeakPointer only. An element
// owns its fixed attributes (inline members of its kind), its extra attributes (read from a
// file but not declared by the kind) and its extended parameters.
// Threads: any thread may read or write an element while it holds the element's data lock
// (Element_locker_new); the element's own operations assume the caller does. The order in which
// threads take several element locks is described above Element_locker_new below. The receivers
// of update events, the named signals, the change stamps and the store behind them are guarded
// on their own, so a change walks up to the root without taking the ancestors' data locks.
#pragma once

#include <taskdata/attributes/base/Attribute.h>
#include <taskdata/common/Update_events.h>

#include <platform/util/Signal_sender.h>

#include <QDateTime>
#include <QEnableSharedFromThis>
#include <QHash>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QPointF>
#include <QPointer>
#include <QSet>
#include <QStringList>
#include <QSharedPointer>
#include <QUuid>
#include <QVarLengthArray>
#include <QVariant>
#include <QVector>
#include <QWeakPointer>

#include <atomic>
#include <cstring>
#include <functional>
#include <type_traits>
#include <utility>

class QXmlStreamReader;
class QXmlStreamWriter;
class QDomElement;
class QGraphicsScene;
class QWidget;
class QObject;

namespace TC {
namespace Task_data {

class XML_interface;
class Fast_xml_reader;
class Qt_xml_source;
class Export_properties;
class Scene;

namespace UI {
class Chooser_level;
}

namespace Attributes {
namespace Base {
class String;
class UniqueID;
class LinkedID;
} // namespace Base
} // namespace Attributes

namespace Elements {
namespace Base {

class Element;
class Element_list;
class Element_man;

// The base form of the update payloads: the changing side holds the element strongly.
using Base_attribute_update = Attribute_update_event<QSharedPointer<Element>, Attributes::Base::Attribute*>;
template <Update_type T>
using Base_child_update = Child_update_event<T, QSharedPointer<Element>, Element_list*>;
template <Update_type T>
using Base_typed_update = Typed_update_event<T, QSharedPointer<Element>>;

// A receiver of update events: guarded, it turns null when the object is destroyed.
using Event_receiver = QPointer<QObject>;

// The event receivers of one element. Its entries are guarded by `lock`, not the element's data
// lock. Each entry has a watch on its object's destruction that takes `lock`: a receiver is never
// posted to once its destruction began. `entries` counts entries (dead ones too) for a lock-free
// test on the changing thread. Counted: the element holds one reference, and a delivery walk
// holds one until it has posted, so a change keeps this block alive instead of the element (a
// weak-to-strong promotion cost every change with a receiver more than this count does). When the
// element goes, its entries are cleared under the lock: a walk still holding the block posts
// nothing after that.
class KTD_EXPORT Receivers
{
public:
    QBasicMutex lock;
    QVector<QPair<Event_receiver, QMetaObject::Connection>> list;
    std::atomic<int> entries{0};

    void ref() noexcept { m_refs.fetch_add(1, std::memory_order_relaxed); }
    void deref() noexcept
    {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    std::atomic<int> m_refs{1};
};

// One counted reference to a Receivers block.
class Receivers_ref
{
public:
    Receivers_ref() = default;
    explicit Receivers_ref(Receivers* r) : m_r(r) { m_r->ref(); }
    Receivers_ref(const Receivers_ref& o) : m_r(o.m_r)
    {
        if (m_r)
            m_r->ref();
    }
    Receivers_ref(Receivers_ref&& o) noexcept : m_r(o.m_r) { o.m_r = nullptr; }
    Receivers_ref& operator=(Receivers_ref o) noexcept
    {
        std::swap(m_r, o.m_r);
        return *this;
    }
    ~Receivers_ref()
    {
        if (m_r)
            m_r->deref();
    }
    Receivers* operator->() const { return m_r; }

private:
    Receivers* m_r = nullptr;
};

// The receivers met on one change's walk up the tree, leaf first.
using Listeners = QVarLengthArray<Receivers_ref, 4>;

// How a change reaches receivers and named signals in client terms. This layer cannot name the
// client handles, so the client layer fills this table when the library is loaded; until then
// changes are stamped but not delivered. Every function runs on the changing thread.
struct Event_hooks
{
    // Convert to the client payload and post it to the listeners' receivers (_post_event).
    // An attribute change comes as its parts: a Base_attribute_update would cost the changing
    // thread a copy of the element's shared pointer for nothing.
    void (*post_attribute)(const QSharedPointer<Element>& element, Attributes::Base::Attribute* attribute,
                           const Listeners&);
    void (*post_child_added)(const Base_child_update<child_added>&, const Listeners&);
    void (*post_child_removed)(const Base_child_update<child_removed>&, const Listeners&);
    void (*post_binary_appended)(const Base_typed_update<binary_appended>&, const Listeners&);
    void (*post_binary_modified)(const Base_typed_update<binary_modified>&, const Listeners&);
    // Emits "updated" for `element` (and, with an attribute, for the attribute) on `sender`.
    void (*emit_updated)(Util::Signal_sender& sender, const QSharedPointer<Element>& element,
                         Attributes::Base::Attribute* attribute);
};

// What _load_xml and _save_xml handle: a bit set.
using XML_read_write_parts = unsigned;
constexpr XML_read_write_parts xml_part_start = 1;
constexpr XML_read_write_parts xml_part_attributes = 2;
constexpr XML_read_write_parts xml_part_children = 4;
constexpr XML_read_write_parts xml_part_end = 8;
constexpr XML_read_write_parts xml_part_extras = 16;
constexpr XML_read_write_parts xml_part_all = 31;

// Static description of an element kind, produced from the catalogue.
struct KTD_EXPORT Kind_info
{
    const char* tag;          // XML code ("TSK"), also the identifier prefix
    const char* class_name;   // "Task"
    const char* display_name; // "Task"
    unsigned num_attributes;
    const Attributes::Base::Attribute::Spec* const* attribute_specs; // base spec per attribute index
    unsigned num_lists;
    const char* const* list_tags;
    const int* list_versions;
    int id_index;          // index of the UniqueID attribute, -1 when the kind has none
    int designator_index;  // index of the designator attribute, -1 when none
    const int* list_max_items = nullptr; // per list: the most children allowed, 0 for no limit
    const char* const* attribute_members = nullptr; // per attribute: its name in the catalogue ("designator")
};

class KTD_EXPORT Element : public QEnableSharedFromThis<Element>
{
public:
    using Attribute = Attributes::Base::Attribute;

    explicit Element(const QWeakPointer<Element_man>& man);
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

    // --- virtual operations, in their fixed order ---
    virtual ~Element();
    virtual QSharedPointer<Element> get_sp() const;
    virtual void handle_xml_version_change(int version);
    virtual bool set(QSharedPointer<Element>& self, Element* other, bool copy_children, bool notify,
                     QMap<QUuid, QUuid> guid_map, QSet<QByteArray> skip_attributes, bool copy_ids);
    virtual bool erase(QSharedPointer<Element>& self);
    virtual QSharedPointer<Element> create_new(const QSharedPointer<Element>& self,
                                               const QWeakPointer<Element_man>& man) const = 0;
    virtual QString get_tag() const = 0;
    virtual QString get_name(int count = 1) const = 0;
    virtual QString get_tr_name(int count = 1) const = 0;
    virtual QString get_tr_attribute_name(int index) const = 0;
    virtual UI::Chooser_level* create_chooser_level(QWidget* parent) = 0;
    virtual QString get_designator() const;
    virtual QString extra_description() const;
    virtual Attributes::Base::String* ptr_designator();
    virtual QString get_individual_icon() const;
    virtual bool save_to_individual_xml(const QSharedPointer<Element>& self, QXmlStreamWriter* w, XML_interface& xi);
    virtual void set_attributes_to_default(const QSharedPointer<Element>& self, bool notify);
    virtual QString get_attribute_tag(unsigned index) const;
    virtual QDateTime find_latest_time() const;
    virtual bool find_closest_point(QPointF position, QPointF& closest, bool recurse, double* distance) const;
    virtual QPointF get_first_point() const;
    virtual void add_to_scene(QGraphicsScene& graphics, Scene& scene);
    virtual void document_export_extra(Export_properties& props);
    virtual QString _print(unsigned int indent) const;
    virtual bool _to_xml(const QSharedPointer<Element>& self, QDomElement& dom, bool recurse);
    virtual bool _from_xml(const QSharedPointer<Element>& self, const QSharedPointer<Element_man>& man,
                           QDomElement& dom, bool recurse);
    virtual bool _save_xml(const QSharedPointer<Element>& self, QXmlStreamWriter& w, XML_interface& xi,
                           XML_read_write_parts parts);
    virtual bool _load_xml(const QSharedPointer<Element>& self, QXmlStreamReader& r, XML_interface& xi,
                           XML_read_write_parts parts);
    virtual void _customise_edit_widget(QWidget* widget) = 0;
    virtual void _customise_element_list(QWidget* widget) = 0;
    virtual unsigned _num_iso_attributes() const = 0;
    virtual unsigned _num_element_lists() const = 0;
    virtual Attribute* _attribute(unsigned index) = 0;
    virtual Attribute* _iso_attribute(const QString& name) = 0;
    virtual Element_list* _element_list(unsigned index) = 0;
    virtual Element_list* _element_list(const QString& tag) = 0;
    virtual int _element_list_index(Element_list* list) = 0;
    virtual void _customise_chooser(QWidget* widget) = 0;
    virtual bool set_id(const QSharedPointer<Element>& self, int old_id, int new_id, const QString& prefix);
    virtual void register_lookup(const QSharedPointer<Element>& self, int old_id, int new_id, const QString& prefix) = 0;
    // The static description of the kind.
    virtual const Kind_info& kind() const = 0;
    // Whether this element is of the kind with that tag ("PNT").
    bool is_kind(const char* tag) const { return std::strcmp(kind().tag, tag) == 0; }

    // --- non-virtual entries ---
    // Writes the element under its own lock, taken on the way down the tree (a writer holds the
    // element and its ancestors, or the whole tree through a Tree_locker); false with "The task
    // data is in use" when the lock cannot be had in the lock order.
    bool save_xml(const QSharedPointer<Element>& self, QXmlStreamWriter& w, XML_interface& xi,
                  XML_read_write_parts parts = xml_part_all);
    bool load_xml(const QSharedPointer<Element>& self, QXmlStreamReader& r, XML_interface& xi,
                  XML_read_write_parts parts = xml_part_all)
    {
        return _load_xml(self, r, xi, parts);
    }
    // Writes the element through the interface's current writer.
    bool save_xml(XML_interface& xi);
    QString print(unsigned int indent = 0) const { return _print(indent); }
    // Writes the element into a report at the properties' cursor: its name, a table of its
    // values, what its kind adds (document_export_extra) and the children a report shows.
    void document_export(Export_properties& props);

    // Attribute by XML name without building a string; null when the kind has none of that name.
    Attribute* find_attribute(QStringView name);
    int attribute_index(QStringView name) const;
    const Attribute* attribute(unsigned index) const { return const_cast<Element*>(this)->_attribute(index); }
    Element_list* find_list(QStringView tag);

    // --- identifiers ---
    Attributes::Base::UniqueID* id_attribute();
    // The identifier's number (0 also when there is none: has_id() tells).
    int get_id() const;
    bool has_id() const;
    QUuid get_guid() const;
    // The identifier as written ("TSK-1", "PFD0007"); empty when the element has none.
    QString get_id_string() const;

    // --- tree ---
    QSharedPointer<Element_man> man() const { return m_man.toStrongRef(); }
    QWeakPointer<Element_man> weak_man() const { return m_man; }
    void set_man(const QWeakPointer<Element_man>& man) { m_man = man; }
    // The parent and the list holding this element. The raw pointers stay valid while the parent
    // lives; parent_sp() keeps it alive. Parent links change under the tree mutex, so these may be
    // read without the parent's lock.
    Element* parent_element() const;
    Element_list* parent_list() const;
    QSharedPointer<Element> parent_sp() const;
    QSharedPointer<Element> root() const;
    // Whether `ancestor` is this element's parent, grandparent, ...
    bool has_ancestor(const Element* ancestor) const;
    // False for an erased element and everything below it until it is added to a list again:
    // only elements that may be registered hold their identifiers in the manager's registry.
    bool registrable() const;

    // --- extra content kept for round trips ---
    QVector<Attribute*> extra_attributes() const;
    Attribute* extra_attribute(QStringView name) const;
    void _add(const QString& name, Attribute* attribute);
    const QMap<QString, QVariant>& extended_parameters() const;
    QStringList foreign_children() const { return m_extras ? m_extras->foreign_children : QStringList(); }
    // At the start tag of a child element of another maker ("P094_..."): keeps it as XML text
    // when the interface keeps proprietary content and answers true; false leaves the reader.
    bool read_foreign_child(QXmlStreamReader& r, XML_interface& xi);
    // The reading logic behind _load_xml and read_foreign_child, once for both readers: R is
    // Fast_xml_reader or Qt_xml_source (instantiated for those two only). It does not go
    // through the virtual _load_xml of the children it reads.
    template <class R>
    bool load_xml_from(const QSharedPointer<Element>& self, R& r, XML_interface& xi,
                       XML_read_write_parts parts = xml_part_all);
    template <class R>
    bool read_foreign_child_from(R& r, XML_interface& xi);
    // At a "P231_UID_XFR" / "P231_GUID_XFR" reference: reads the element file it names into
    // the child list of its tag, at the tag's next occurrence (`counters`, shared with inline
    // children of the tag).
    template <class R>
    bool load_individual_reference_from(const QSharedPointer<Element>& self, R& r, XML_interface& xi,
                                        bool by_guid, QHash<QString, int>& counters);
    // Writes them back (only when the interface keeps proprietary content).
    void write_foreign_children(QXmlStreamWriter& w, XML_interface& xi) const;
    // Writes the schema location attribute and its namespace declaration, if the element has them.
    void write_schema_location(QXmlStreamWriter& w, XML_interface& xi) const;
    void set_extended_parameter(const QString& key, const QVariant& value);
    bool remove_extended_parameter(const QString& key);

    // --- change bookkeeping and update events ---
    // The number of the last change of this element or anything below it (the manager's
    // change counter at that change).
    quint64 stamp() const { return m_stamp.load(std::memory_order_relaxed); }
    void set_stamp(quint64 s) { m_stamp.store(s, std::memory_order_relaxed); }
    // Entry of an attribute change: raises the manager's change counter, stamps this element,
    // its ancestors and its list, emits "updated" where named signals are connected and posts
    // one event per live receiver of this element and of each ancestor.
    void notify_updated(const Base_attribute_update& event);
    // The same for `attribute` of this element (null: several attributes at once), unless a
    // read or a quiet change of this element is in progress on this thread.
    void notify_attribute_updated(const QSharedPointer<Element>& self, Attribute* attribute);
    // A change that is not one attribute's: binary_modified (binary data rewritten, which a save
    // writes) posts its own event; any other type posts an attribute update without attribute.
    void notify_changed(unsigned update_type);
    // Entry of a child added to or removed from `list` (a list of this element) at `index`.
    void notify_child(const QSharedPointer<Element>& self, Element_list* list, int index, Update_type type);
    // Entry of binary data appended (time logs): posted to receivers, no stamp changes.
    void notify_binary_appended(const QSharedPointer<Element>& self);
    // Counter, stamps and named signals of a change (`list` is stamped too when given), in one
    // walk to the root that also collects the elements with event receivers into `listeners`.
    // Answers whether there are any.
    bool _notify_updated(const QSharedPointer<Element>& self, Attribute* attribute, Element_list* list = nullptr,
                         Listeners* listeners = nullptr);
    // Delivery: every live receiver of each listener (leaf first) gets one send(); dead
    // receivers met on the way are removed.
    static void _post_event(Elements::Client::Event_sender& sender, const Listeners& listeners);
    // Receivers get every change of this element and of everything below it. The same receiver
    // registered twice gets two events per change. The caller holds the data lock.
    bool register_for_events(const QSharedPointer<Element>& self, QObject* receiver);
    // Removes every registration of the receiver; answers whether there was one.
    bool unregister_for_events(QObject* receiver);
    // Registrations, including those of receivers destroyed since the last change.
    int receiver_count() const;
    // Named signals of this element (the direct path); made on first use.
    Util::Signal_sender& signal_sender();
    // The same when something is connected to them, else null (costs two atomic loads).
    Util::Signal_sender* connected_signals() const;
    // Filled once by the client layer when the library is loaded.
    static void set_event_hooks(const Event_hooks* hooks);
    static const Event_hooks* event_hooks();
    // Tells the reader that `child` was just added by a list (its add event announced it), so
    // the attributes read into it need no announcement of their own.
    static void reading_new_child(Element* child);

    // Drops this element's links from the manager's bookkeeping.
    void release_links();
    void forget_link(Attributes::Base::LinkedID* link);
    // Lets go of this element's own registry entry (an element being destroyed).
    void release_registration();
    // Brings the registry in line with this element and its descendants: a registrable element
    // holds its number (a new negative one when another element took it meanwhile), any other
    // lets go of it. Each element is visited under its own lock (run_locked).
    void sync_registration();

    // --- data lock (the lock order is described above Element_locker_new) ---
    // The raw lock, recursive for the thread that holds it; a negative timeout waits without
    // limit. Element_locker_new is the way to take it: it keeps the element alive and the order.
    bool try_lock(int timeout_ms);
    void unlock();
    bool held_by_current_thread() const;
    // Whether this thread may wait for this element's lock: every element lock it holds (other
    // than this element's own) is the lock of one of its ancestors.
    bool may_wait_for_lock() const;
    static bool thread_holds_element_locks();
    // Runs `work` with `element` locked by this thread: at once when this thread holds the lock,
    // may wait for it or finds it free; otherwise as soon as this thread lets go of its last
    // element lock. `work` is not run when the element is gone by then.
    using Locked_work = std::function<void(const QSharedPointer<Element>&)>;
    static void run_locked(const QSharedPointer<Element>& element, Locked_work work);

protected:
    friend class Element_list;
    friend class Tree_locker;
    struct Extras
    {
        QVector<QPair<QString, Attribute*>> attributes; // in document order
        QHash<QString, int> attribute_index;             // name -> position in attributes
        QMap<QString, QVariant> parameters;
        Receivers* const receivers = new Receivers; // one reference, dropped with the extras
        Util::Signal_sender named_signals;
        // Child elements of other makers ("P094_..."): not part of the tree, kept as XML text
        // so that they are written back inside their element when proprietary content is kept.
        QStringList foreign_children;
        QSet<QString> foreign_seen; // the same texts, for a reload that finds them again
        ~Extras();
    };
    Extras& extras();
    bool load_children(const QSharedPointer<Element>& self, QXmlStreamReader& r, XML_interface& xi);
    // An attribute the kind does not declare, kept under its name as read.
    void read_extra(const QSharedPointer<Element>& self, const QString& name, QStringView value);
    bool load_individual_reference(const QSharedPointer<Element>& self, QXmlStreamReader& r, XML_interface& xi,
                                   bool by_guid, QHash<QString, int>& counters);
    template <class R>
    bool load_children_from(const QSharedPointer<Element>& self, R& r, XML_interface& xi);

    // Parent links, written under the tree mutex. link_child also clears the erased mark.
    static void link_child(Element* child, Element* parent, Element_list* list);
    static void unlink_child(Element* child, const Element* parent);
    // For a parent going away: its children forget it (one pass under the tree mutex).
    static void unlink_children(const QVector<QSharedPointer<Element>>& children, const Element* parent);
    // The parent's lock for erase(): a thread that holds only this element lets go of it while
    // it waits; `moved` when the element went to another parent meanwhile (nothing held then
    // but this element, as before).
    enum class Parent_lock { held, moved, busy };
    Parent_lock lock_parent_for_erase(const QSharedPointer<Element>& parent);

    QWeakPointer<Element_man> m_man;
    // Written under the tree mutex (and the locks of the parent and this element).
    Element* m_parent = nullptr;
    Element_list* m_parent_list = nullptr;
    // Made on first use by whichever thread needs it (a receiver registering on the root while
    // another thread changes a leaf); read without the data lock by the delivery walk.
    class Extras_ptr
    {
    public:
        Extras* get() const { return m_p.load(std::memory_order_acquire); }
        Extras* operator->() const { return get(); }
        operator Extras*() const { return get(); }
        Extras* get_or_create();

    private:
        std::atomic<Extras*> m_p{nullptr};
    };
    Extras_ptr m_extras;
    std::atomic<quint64> m_stamp{0};
    QMutex m_lock;
    std::atomic<const void*> m_lock_owner{nullptr}; // the holding thread's token
    int m_lock_depth = 0;                           // touched by the holding thread only
    bool m_erased = false;                          // under the tree mutex, like the parent links
};

// Lock order. Every element has one data lock, recursive for the thread that holds it.
//  1. A thread waits for an element's lock only while every element lock it holds is the lock of
//     one of that element's ancestors. Waits therefore only ever go down the tree: a client
//     operation that locks an element and then its children, a writer descending from the root.
//  2. A lock out of that order (an unrelated element, a parent while holding its child, an element
//     outside the tree while holding one inside) is never waited for: Element_locker_new takes it
//     only when it is free and otherwise holds nothing. Where the library itself must touch a
//     second element:
//       - completing a pending link when its target registers, attaching a GUID read from the GUID
//         list, registering the descendants of an element added again: the other element is
//         changed at once when its lock can be had under rules 1 and 2, else as soon as this
//         thread holds no element lock (Element::run_locked);
//       - erasing an element: its parent is locked first; a thread holding only the element (and
//         ancestors of the parent) lets go of it while it waits for the parent, then takes it back;
//       - moving a child out of another list, copying from another element: refused (false,
//         nothing changed) while the other element is busy.
//  3. Tree_locker keeps a whole document: the document root's tree, then the link list's, each
//     descending from its root in document order, every lock kept until it ends (an explicit
//     save). Autosave holds only the root and reads the rest element by element on the way down
//     (Element::save_xml), so an editor waits for the one element being written.
//  4. Innermost, and nothing is called while they are held: the tree mutex (parent links and
//     erased marks, held only to read or write them) and the element manager's registry mutex (no
//     element lock, notification or link completion happens under it).
//  Change stamps are atomic and only ever raised, so a change stamps its ancestors and their lists
//  without their locks.
// Why a whole-tree writer and editors cannot deadlock: a thread that holds any element lock waits
// only for a descendant of everything it holds (rule 1), and the writer holds the ancestors of
// everything it holds, so no such thread can be waiting for an element the writer holds (it would
// have to hold that element's ancestor too). The writer itself waits only for elements below the
// ones it holds, whose holders in turn wait only further down; a cycle of waits would have to
// come back up, which no rule allows.

// While alive, changes of the element's attributes made on this thread send no notification and
// leave the stamps as they are (the `_noevent` setters). Nests; restores what it replaced.
class KTD_EXPORT Quiet_changes
{
public:
    explicit Quiet_changes(Element* element);
    ~Quiet_changes();
    Quiet_changes(const Quiet_changes&) = delete;
    Quiet_changes& operator=(const Quiet_changes&) = delete;

private:
    Element* m_previous;
    bool m_previous_changed;
};

// Scoped lock of one element's data. Keeps the element alive while it lives; when the pointer
// is null, the lock cannot be had in time, or taking it would break the lock order (rule 2
// above: it is then taken only when free), it holds nothing and every access fails softly.
class KTD_EXPORT Element_locker_new
{
public:
    Element_locker_new(const QSharedPointer<Element>& element, int timeout_ms = -1);
    // From a client handle (anything with get_base_elem()): the element if it still exists.
    template <class Handle, class = decltype(std::declval<const Handle&>().get_base_elem())>
    explicit Element_locker_new(const Handle& handle, int timeout_ms = -1)
        : Element_locker_new(QSharedPointer<Element>(handle.get_base_elem()), timeout_ms)
    {
    }
    ~Element_locker_new();
    Element_locker_new(const Element_locker_new&) = delete;
    Element_locker_new& operator=(const Element_locker_new&) = delete;
    bool locked() const { return m_locked; }
    explicit operator bool() const { return m_locked; }
    Element* operator->() const { return m_locked ? m_element.data() : nullptr; }
    Element* get() const { return m_locked ? m_element.data() : nullptr; }
    const QSharedPointer<Element>& element() const { return m_element; }

private:
    QSharedPointer<Element> m_element;
    bool m_locked = false;
};

// Scoped lock of whole trees (a document being written): locks each top and everything below
// it, parents before children, and keeps every lock until it ends. Tops are taken in the order
// given: the document root, then the link list. A thread that holds locks out of that order
// only tries, and holds nothing when one element is busy.
// Thread: the constructing thread, which must also destroy it.
class KTD_EXPORT Tree_locker
{
public:
    explicit Tree_locker(const QVector<QSharedPointer<Element>>& tops);
    ~Tree_locker();
    Tree_locker(const Tree_locker&) = delete;
    Tree_locker& operator=(const Tree_locker&) = delete;
    bool locked() const { return m_locked; }

private:
    bool take(Element* e, bool wait);
    void release();
    QVector<QSharedPointer<Element>> m_tops;
    QVector<Element*> m_held; // in locking order; kept alive by the tops
    bool m_locked = false;
};

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
