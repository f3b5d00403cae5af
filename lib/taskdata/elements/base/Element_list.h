// Element_list: one child list of an element (a task's time logs, a partfield's polygons).
//
// Owned by (and a member of) its owning element; owns its children through shared pointers.
// Reading into an existing list updates the i-th child of a tag in place and appends only what
// is new, so that a reload keeps the identity of elements other objects hold.
// Threads: the holder of the owning element's data lock. add() and take() take the owner's and
// the child's locks themselves (re-entering those the caller holds), in the lock order of
// Element.h, and answer false or null, changing nothing, when a lock cannot be had that way.
#pragma once

#include <taskdata/elements/base/Element.h>

#include <QString>
#include <QVector>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

class KTD_EXPORT Element_list
{
public:
    Element_list(Element* owner, const char* tag, int version);
    virtual ~Element_list();
    Element_list(const Element_list&) = delete;
    Element_list& operator=(const Element_list&) = delete;

    // Makes an empty element of the list's kind.
    virtual QSharedPointer<Element> create_element(const QWeakPointer<Element_man>& man) const = 0;
    // Whether an element may go into this list.
    virtual bool accepts(const Element* e) const = 0;

    Element* owner() const { return m_owner; }
    QString tag() const { return QString::fromLatin1(m_tag); }
    const char* tag_latin1() const { return m_tag; }
    int version() const { return m_version; }
    int count() const { return m_children.size(); }
    bool isEmpty() const { return m_children.isEmpty(); }
    QSharedPointer<Element> at(int i) const { return m_children.value(i); }
    const QVector<QSharedPointer<Element>>& elements() const { return m_children; }
    int index_of(const Element* e) const;

    // Reads one child at the reader's start tag: in place when 0 <= index < count, else appended.
    bool load_xml(const QSharedPointer<Element>& owner, QXmlStreamReader& r, XML_interface& xi, int index);
    bool save_xml(const QSharedPointer<Element>& owner, QXmlStreamWriter& w, XML_interface& xi);
    // Writes each child to a file of its own and a reference to it into `w`.
    bool save_to_individual_files(QXmlStreamWriter& w, XML_interface& xi);
    // The file of its own of `child` (a child of this list with a number): "%1_%2.XML" and the
    // document. False when it could not be written (the interface failed).
    static QString individual_file_name(const Element& child, const char* tag);
    bool individual_file_data(const QSharedPointer<Element>& child, XML_interface& xi, QByteArray& data);
    // Writes that file, whole. False after "Failed to generate %s.XML\n".
    bool save_individual_file(const QSharedPointer<Element>& child, XML_interface& xi);
    // Writes the file `name` made by individual_file_data (the data can be made while the tree is
    // held and written after), whole. False after "Failed to generate %s.XML\n".
    static bool write_individual_file(XML_interface& xi, const QString& name, const QByteArray& data);
    // Reports that the file `name` could not be made or written: always false.
    static bool individual_file_failed(XML_interface& xi, const QString& name, const QString& error = QString());
    // Reads one child from a file of its own (its root is the child's tag), in place at `index`:
    // with Fast_xml_reader when the file passes its prescan, else with QXmlStreamReader.
    bool load_individual_file(const QSharedPointer<Element>& owner, const QString& filename, XML_interface& xi,
                              int index);

    // The same over either reader (Fast_xml_reader or Qt_xml_source, see Element::load_xml_from).
    template <class R>
    bool load_xml_from(const QSharedPointer<Element>& owner, R& r, XML_interface& xi, int index);

    // Inserts at index (-1 appends); sets the child's parent and sends the child-added event.
    // A child held by another list moves here (refused while that list's owner is busy); one
    // this list holds already, one of another manager, and an ancestor of the owner are refused.
    // An erased child registers its identifiers again (a new negative number for one that
    // another element took meanwhile).
    bool add(const QSharedPointer<Element>& child, int index = -1, bool notify = true);
    // Removes without deregistering identifiers (see Element::erase for that).
    QSharedPointer<Element> take(int index, bool notify = true);
    void clear(bool notify = true);
    // Creates, registers (new negative identifier) and appends a fresh element; null when the
    // owner's lock cannot be had.
    QSharedPointer<Element> create_and_add(bool notify = true);

    // Announce a child added or removed at `index` (after the list changed): the owner's change
    // counter, stamps and events (see Element::notify_child).
    void send_list_add_event(int index);
    void send_list_remove_event(int index);
    quint64 stamp() const { return m_stamp.load(std::memory_order_relaxed); }
    void set_stamp(quint64 s) { m_stamp.store(s, std::memory_order_relaxed); }

    static void set_list(Element* child, Element* parent, Element_list* list, int index);

protected:
    friend class Element;
    template <class R>
    bool load_individual_file_from(const QSharedPointer<Element>& owner, const QString& path, XML_interface& xi,
                                   int index, R& r);

    Element* m_owner;
    const char* m_tag;
    int m_version;
    QVector<QSharedPointer<Element>> m_children;
    std::atomic<quint64> m_stamp{0};
};

// The typed list for element kind E.
template <class E>
class Element_list_t final : public Element_list
{
public:
    Element_list_t(Element* owner, const char* tag, int version) : Element_list(owner, tag, version) {}
    QSharedPointer<Element> create_element(const QWeakPointer<Element_man>& man) const override
    {
        return QSharedPointer<E>::create(man);
    }
    bool accepts(const Element* e) const override { return dynamic_cast<const E*>(e) != nullptr; }
    QSharedPointer<E> typed_at(int i) const { return m_children.value(i).template staticCast<E>(); }
    QSharedPointer<E> operator[](int i) const { return typed_at(i); }
    QSharedPointer<E> create(bool notify = true) { return create_and_add(notify).template staticCast<E>(); }
};

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
