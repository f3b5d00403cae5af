#include "Element_list.h"

#include "Element_man.h"

#include <taskdata/attributes/base/UniqueID.h>
#include <taskdata/common/Fast_xml_reader.h>
#include <taskdata/common/XML_interface.h>

#include <QBuffer>
#include <QFile>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <cstdio>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

Element_list::Element_list(Element* owner, const char* tag, int version) : m_owner(owner), m_tag(tag), m_version(version)
{
}

Element_list::~Element_list()
{
    // Children that outlive their parent (someone else holds them) forget it before it goes.
    Element::unlink_children(m_children, m_owner);
}

int Element_list::index_of(const Element* e) const
{
    for (int i = 0; i < m_children.size(); ++i)
        if (m_children[i].data() == e)
            return i;
    return -1;
}

void Element_list::set_list(Element* child, Element* parent, Element_list* list, int)
{
    Element::link_child(child, parent, list);
}

bool Element_list::load_xml(const QSharedPointer<Element>& owner, QXmlStreamReader& r, XML_interface& xi, int index)
{
    Qt_xml_source source(r);
    return load_xml_from(owner, source, xi, index);
}

template <class R>
bool Element_list::load_xml_from(const QSharedPointer<Element>& owner, R& r, XML_interface& xi, int index)
{
    QSharedPointer<Element> child;
    if (index >= 0 && index < m_children.size()) {
        child = m_children[index];
    } else {
        child = create_element(owner ? owner->weak_man() : m_owner->weak_man());
        if (!child) {
            r.skipCurrentElement();
            return !r.hasError();
        }
        // Appended before reading so that the child already knows its parent (ancestor stamps,
        // loop tests) while its attributes arrive; the add event is the one notification.
        set_list(child.data(), m_owner, this, m_children.size());
        m_children.append(child);
        send_list_add_event(m_children.size() - 1);
        Element::reading_new_child(child.data());
    }
    return child->load_xml_from(child, r, xi, xml_part_all);
}

bool Element_list::save_xml(const QSharedPointer<Element>& owner, QXmlStreamWriter& w, XML_interface& xi)
{
    Q_UNUSED(owner)
    if (xi.keep_proprietary() && xi.individual_save(QLatin1String(m_tag)))
        return save_to_individual_files(w, xi);
    for (const auto& c : m_children)
        if (!c->save_xml(c, w, xi, xml_part_all))
            return false;
    return true;
}

QString Element_list::individual_file_name(const Element& child, const char* tag)
{
    return QStringLiteral("%1_%2.XML").arg(QLatin1String(tag)).arg(child.get_id());
}

bool Element_list::individual_file_data(const QSharedPointer<Element>& child, XML_interface& xi, QByteArray& data)
{
    QBuffer buf(&data);
    buf.open(QIODevice::WriteOnly);
    QXmlStreamWriter fw(&buf);
    fw.setAutoFormatting(true);
    fw.writeStartDocument();
    const QString previous = xi.cur_outfilename();
    xi.set_cur_outfilename(individual_file_name(*child, m_tag));
    const bool ok = child->save_to_individual_xml(child, &fw, xi);
    xi.set_cur_outfilename(previous);
    fw.writeEndDocument();
    return ok;
}

bool Element_list::individual_file_failed(XML_interface& xi, const QString& name, const QString& error)
{
    fprintf(stderr, "Failed to generate %s.XML\n", name.left(name.size() - 4).toUtf8().constData());
    xi.set_fail(error.isEmpty() ? xi.fail_text() : error);
    return false;
}

bool Element_list::save_individual_file(const QSharedPointer<Element>& child, XML_interface& xi)
{
    const QString name = individual_file_name(*child, m_tag);
    QByteArray data;
    if (!individual_file_data(child, xi, data))
        return individual_file_failed(xi, name);
    return write_individual_file(xi, name, data);
}

bool Element_list::write_individual_file(XML_interface& xi, const QString& name, const QByteArray& data)
{
    QString error;
    if (!xi.write_file_atomic(xi.outfilepath(name), data, &error))
        return individual_file_failed(xi, name, error);
    xi.note_used_file(name);
    return true;
}

bool Element_list::save_to_individual_files(QXmlStreamWriter& w, XML_interface& xi)
{
    for (const auto& c : m_children) {
        const int id = c->get_id();
        if (!c->has_id()) {
            // Without a number the element cannot be named; it stays in the parent's file.
            if (!c->save_xml(c, w, xi, xml_part_all))
                return false;
            continue;
        }
        // The autosave writes these files itself, as their elements change.
        if (!xi.reference_individual_files() && !save_individual_file(c, xi))
            return false;
        w.writeEmptyElement(QStringLiteral("P231_UID_XFR"));
        w.writeAttribute(QStringLiteral("TAG"), QLatin1String(m_tag));
        w.writeAttribute(QStringLiteral("ID"), QString::number(id));
    }
    return true;
}

bool Element_list::load_individual_file(const QSharedPointer<Element>& owner, const QString& filename,
                                        XML_interface& xi, int index)
{
    const QString path = xi.infilepath(filename);
    if (path.isEmpty())
        return true;
    bool opened = false;
    const bool ok = read_xml_file(path, opened, xi, [&](auto& r) { return load_individual_file_from(owner, path, xi, index, r); });
    if (!opened) {
        xi.add_warning(QStringLiteral("Could not open %1").arg(path));
        return true;
    }
    return ok;
}

template <class R>
bool Element_list::load_individual_file_from(const QSharedPointer<Element>& owner, const QString& path,
                                             XML_interface& xi, int index, R& r)
{
    const QString previous = xi.cur_infilepath();
    xi.set_cur_infilepath(path);
    bool ok = true;
    while (!r.atEnd()) {
        if (r.readNext() == QXmlStreamReader::StartElement) {
            if (r.name() == QLatin1String(m_tag))
                ok = load_xml_from(owner, r, xi, index);
            else
                r.skipCurrentElement();
            break;
        }
    }
    if (ok && r.hasError()) {
        r.fail(xi, path);
        ok = false;
    }
    xi.set_cur_infilepath(previous);
    return ok;
}

template bool Element_list::load_xml_from<Fast_xml_reader>(const QSharedPointer<Element>&, Fast_xml_reader&,
                                                           XML_interface&, int);
template bool Element_list::load_xml_from<Qt_xml_source>(const QSharedPointer<Element>&, Qt_xml_source&,
                                                         XML_interface&, int);

bool Element_list::add(const QSharedPointer<Element>& child, int index, bool notify)
{
    if (!child || !accepts(child.data()) || child->weak_man() != m_owner->weak_man())
        return false;
    // The owner first, then the child (ancestors before descendants); the child is outside this
    // list, so it is taken only when free unless this thread holds it already.
    const Element_locker_new owner_lock(m_owner->get_sp(), -1);
    if (!owner_lock || child.data() == m_owner || m_owner->has_ancestor(child.data()))
        return false;
    const Element_locker_new child_lock(child, -1);
    if (!child_lock)
        return false;
    if (Element_list* from = child->parent_list()) {
        if (from == this)
            return false; // already here: a second entry would make it its own sibling
        const Element_locker_new from_lock(from->m_owner->get_sp(), -1);
        const int old = from_lock ? from->index_of(child.data()) : -1;
        if (old < 0 || !from->take(old, notify))
            return false;
    }
    const bool was_registrable = child->registrable();
    if (index < 0 || index > m_children.size())
        index = m_children.size();
    m_children.insert(index, child);
    set_list(child.data(), m_owner, this, index);
    // An element added again after it was erased takes its identifiers back; one added below an
    // erased element lets go of them.
    if (was_registrable != child->registrable())
        child->sync_registration();
    if (notify)
        send_list_add_event(index);
    return true;
}

QSharedPointer<Element> Element_list::take(int index, bool notify)
{
    const Element_locker_new owner_lock(m_owner->get_sp(), -1);
    if (!owner_lock || index < 0 || index >= m_children.size())
        return QSharedPointer<Element>();
    const QSharedPointer<Element> c = m_children.at(index);
    const Element_locker_new child_lock(c, -1);
    if (!child_lock)
        return QSharedPointer<Element>();
    m_children.remove(index);
    Element::unlink_child(c.data(), m_owner);
    if (notify)
        send_list_remove_event(index);
    return c;
}

void Element_list::clear(bool notify)
{
    while (!m_children.isEmpty())
        if (!take(m_children.size() - 1, notify))
            return;
}

QSharedPointer<Element> Element_list::create_and_add(bool notify)
{
    QSharedPointer<Element> e = create_element(m_owner->weak_man());
    {
        // Numbered before it can be seen: nobody else can hold it yet.
        const Element_locker_new lock(e, 0);
        e->set_attributes_to_default(e, false);
        if (!add(e, -1, notify))
            return QSharedPointer<Element>();
    }
    return e;
}

void Element_list::send_list_add_event(int index)
{
    if (QSharedPointer<Element> o = m_owner->get_sp())
        o->notify_child(o, this, index, child_added);
}

void Element_list::send_list_remove_event(int index)
{
    if (QSharedPointer<Element> o = m_owner->get_sp())
        o->notify_child(o, this, index, child_removed);
}

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
