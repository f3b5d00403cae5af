// Element manager: owns one task data tree's identifier registry, GUIDs and link bookkeeping.
//
// Identifiers are an XML code prefix plus a signed 32-bit number. Numbers 1 and above and
// numbers 0 and below live in separate registries; numbers made on the terminal are negative.
// Links whose target is not registered yet wait here and complete when it is.
// The registry holds exactly the registrable elements that have a number (see
// Element::registrable): choosing, checking and entering a number is one step under the
// manager's mutex (allocate_uid, claim_uid), so threads creating, renaming, erasing and adding
// elements again never share a number.
// Threads: any thread may call. The manager's mutex is innermost in the lock order of Element.h:
// nothing is called out of it while it is held (no element lock, notification or link
// completion); links waiting for a number are completed afterwards, each under its owner's lock
// (Element::run_locked).
#pragma once

#include <taskdata/elements/base/Element.h>

#include <platform/iso/Position.h>

#include <QAtomicInteger>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QRecursiveMutex>
#include <QSharedPointer>
#include <QUuid>

#include <functional>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

// Finds the element registered under an identifier.
class KTD_EXPORT Element_lookup_base
{
public:
    virtual ~Element_lookup_base();
    virtual QSharedPointer<Element> lookup(const QString& prefix, int n) const = 0;
};

// What every manager offers: the change counter, the terminal's position and file lookup.
class KTD_EXPORT Element_man_base : public QObject, public Element_lookup_base
{
    Q_OBJECT
public:
    explicit Element_man_base(QObject* parent = nullptr);
    ~Element_man_base() override;

    quint64 change_counter() const { return m_change_counter.loadAcquire(); }
    quint64 bump_change_counter() { return m_change_counter.fetchAndAddOrdered(1) + 1; }

    Iso::Position& position() { return m_position; }

    // The task data directory whose files elements refer to (grids, time logs, point files).
    void set_task_data_dir(const QString& dir);
    QString task_data_dir() const;
    // Path of a file of the task data directory, found regardless of letter case; empty when absent.
    virtual QString find_file(const QString& name) const;
    // Brings the attached files of the document into the interface's output directory when
    // they are only in the task data directory (each copied whole). False when a copy failed.
    virtual bool update_attached_files(XML_interface& xi);

private:
    QAtomicInteger<quint64> m_change_counter{0};
    Iso::Position m_position;
    mutable QRecursiveMutex m_dir_mutex;
    QString m_task_data_dir;
};

class KTD_EXPORT Element_man : public Element_man_base
{
    Q_OBJECT
public:
    explicit Element_man(QObject* parent = nullptr);
    ~Element_man() override;

    // A manager always lives in a shared pointer: elements hold it weakly.
    static QSharedPointer<Element_man> create();

    // --- identifier registry ---
    bool check_uid_free(const QString& prefix, int n) const;
    bool register_uid(const QString& prefix, int n);
    bool deregister_uid(const QString& prefix, int n);
    int get_free_uid(const QString& prefix, bool positive) const;
    // One step: chooses a free number as get_free_uid does and enters `element` (and its GUID)
    // under it; 0 when none is free (a number it gives is never 0, which only a file gives).
    int allocate_uid(const QString& prefix, bool positive, const QSharedPointer<Element>& element,
                     const QUuid& guid);
    // One step: enters `element` (and its GUID) under n unless another element holds n, and lets
    // go of `element`'s entry under `old` (when it holds one). False, changing nothing, when n is
    // taken. n may be 0: read from a file, 0 is a number like any other.
    bool claim_uid(const QString& prefix, int n, const QSharedPointer<Element>& element, const QUuid& guid,
                   int old = 0);
    // Removes n when it is `element`'s (an element erased or destroyed); silent otherwise.
    void release_uid(const QString& prefix, int n, const Element* element);
    // Whether n is entered for `element` itself.
    bool holds_uid(const QString& prefix, int n, const Element* element) const;
    // Fills an entry reserved by register_uid with its element, and completes the links waiting
    // for (prefix, n) when the entry is the element's.
    void register_element(const QString& prefix, int n, const QSharedPointer<Element>& element);
    QSharedPointer<Element> lookup(const QString& prefix, int n) const override;
    // Every registered number of a prefix, ascending (negative registry first).
    QList<int> registered_uids(const QString& prefix) const;
    QStringList registered_prefixes() const;

    // --- GUIDs ---
    void register_guid(const QString& prefix, int n, const QUuid& guid);
    bool lookup_guid(const QString& prefix, int n, QUuid& out) const;
    // With a null GUID, reserves the pairing; with a GUID (from the GUID list), attaches it to the
    // identifier and to its element when that is loaded.
    void register_uid_for_guid(const QString& prefix, int n, const QUuid& guid);
    bool lookup_uid_for_guid(const QUuid& guid, QString& prefix, int& n) const;
    struct Guid_entry
    {
        QString prefix;
        int n;
        QUuid guid;
    };
    QVector<Guid_entry> guid_entries() const;

    // --- links ---
    void resolve_link(Attributes::Base::LinkedID* link, const QString& tag, int n);
    void unresolve_link(Attributes::Base::LinkedID* link, const QSharedPointer<Element>& owner, const QString& tag,
                        int n);
    // Completes every link waiting for (tag, n) with `target`.
    void resolve_link(const QSharedPointer<Element>& target, const QString& tag, int n);
    void resolve_link(const QSharedPointer<Element>& target, const QUuid& guid);
    // Forgets a link attribute (its element is going away or it was cleared).
    void forget_link(Attributes::Base::LinkedID* link);
    bool pending_link(const Attributes::Base::LinkedID* link, QString& tag, int& n) const;
    int pending_link_count() const;
    struct Pending_entry
    {
        QString tag;
        int n;
        QWeakPointer<Element> owner;
    };
    QVector<Pending_entry> pending_links() const;

    // The document root (ISO11783_TaskData) and the link list root, when loaded or created.
    QSharedPointer<Element> root() const { return m_root; }
    void set_root(const QSharedPointer<Element>& root) { m_root = root; }
    QSharedPointer<Element> link_list() const { return m_link_list; }
    void set_link_list(const QSharedPointer<Element>& l) { m_link_list = l; }

    // Where the document came from, kept with the tree so that a tree loaded through one
    // interface can be saved through another: the format version it was read or created with
    // (0 unknown) and the top-level elements read from external files, with the file's name.
    struct Document_origin
    {
        int format_version = 0;
        QVector<QPair<QWeakPointer<Element>, QString>> external;
        QSet<QPair<QString, int>> guid_list; // identifiers of the GUID list read; empty without one
    };
    Document_origin document_origin() const;
    void set_document_origin(const Document_origin& origin);
    void edit_document_origin(const std::function<void(Document_origin&)>& edit);
    bool update_attached_files(XML_interface& xi) override;

private:
    struct Uid_entry
    {
        QWeakPointer<Element> element;
        const Element* raw = nullptr; // null: reserved by register_uid
        bool taken_from(const Element* e) const { return raw != e && (!raw || !element.isNull()); }
    };
    using Registry = QHash<QString, QMap<int, Uid_entry>>;
    Registry& registry_for(int n) { return n < 1 ? m_negative : m_positive; }
    const Registry& registry_for(int n) const { return n < 1 ? m_negative : m_positive; }
    using Key = QPair<QString, int>;
    int free_uid_locked(const QString& prefix, bool positive) const;
    Uid_entry* entry_locked(const QString& prefix, int n); // null when n is not entered
    void put_guid_locked(const Key& key, const QUuid& guid);
    void remove_uid_locked(const QString& prefix, int n);
    struct Pending
    {
        Attributes::Base::LinkedID* link;
        QWeakPointer<Element> owner;
    };

    mutable QRecursiveMutex m_mutex;
    Registry m_positive;
    Registry m_negative;
    QHash<Key, QUuid> m_guids;
    QHash<QUuid, Key> m_guid_index;
    QHash<Attributes::Base::LinkedID*, Key> m_resolved;
    QHash<Key, QVector<Pending>> m_pending;
    QHash<const Attributes::Base::LinkedID*, Key> m_pending_index;
    QSharedPointer<Element> m_root;
    QSharedPointer<Element> m_link_list;
    Document_origin m_origin;
};

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
