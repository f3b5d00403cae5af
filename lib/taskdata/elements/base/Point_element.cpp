// The hand-written part of the PNT element: the binary point file it may stand for.
#include "Catalogue.h"

#include <taskdata/common/XML_interface.h>

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

namespace TC {
namespace Task_data {

// The binding of a Point_list to its PNT element (declared with Point_list).

namespace {
// Element attributes in record order: the bit each one stands for.
template <class F>
void for_each_field(Elements::Base::Point& e, const F& f)
{
    f(Point_list::bit_type, e.type);
    f(Point_list::bit_north, e.north);
    f(Point_list::bit_east, e.east);
    f(Point_list::bit_up, e.up);
    f(Point_list::bit_colour, e.colour);
    f(Point_list::bit_horizontal_accuracy, e.horizontal_accuracy);
    f(Point_list::bit_vertical_accuracy, e.vertical_accuracy);
}
} // namespace

void Point_list::from_element(const Elements::Base::Element& element, const QString& dir)
{
    auto& e = const_cast<Elements::Base::Point&>(static_cast<const Elements::Base::Point&>(element));
    int mask = 0;
    for_each_field(e, [&](int bit, const Attributes::Base::Attribute& a) {
        if (a.present() && a.empty_text())
            mask |= bit;
    });
    Point& p = default_point();
    p.type = quint8(e.type.get_val());
    p.designator = e.designator.get_string();
    p.north = e.north.get_val();
    p.east = e.east.get_val();
    p.up = e.up.get_val();
    p.colour = e.colour.get_val();
    p.horizontal_accuracy = e.horizontal_accuracy.get_val();
    p.vertical_accuracy = e.vertical_accuracy.get_val();
    p.icon_id = e.icon_id.get_val();
    const QString name = e.filename.get_string();
    set_binary(!name.isEmpty(), mask);
    set_file(name, dir, e.filelength.valid() ? e.filelength.get_val() : 0);
    unload_bin();
}

void Point_list::to_element(Elements::Base::Element& element) const
{
    auto& e = static_cast<Elements::Base::Point&>(element);
    using Attributes::Base::Attribute;
    const Point& p = default_point();
    const int mask = presence_mask();
    auto value = [&](auto& a, auto v) {
        // A field that the file no longer carries, or a shared value that changed, is written.
        if (a.empty_text() || a.get_val() != v) {
            a.set_val_noevent(v);
            a.set_flag_noevent(Attribute::flag_empty, false);
            a.set_flag_noevent(Attribute::flag_present, true);
        }
    };
    for_each_field(e, [&](int bit, Attribute& a) {
        if (mask & bit)
            a.set_flags_noevent(Attribute::flag_present | Attribute::flag_empty);
    });
    if (!(mask & bit_type))
        value(e.type, qint8(p.type));
    if (!(mask & bit_north))
        value(e.north, p.north);
    if (!(mask & bit_east))
        value(e.east, p.east);
    if (!(mask & bit_up))
        value(e.up, p.up);
    if (!(mask & bit_colour))
        value(e.colour, p.colour);
    if (!(mask & bit_horizontal_accuracy))
        value(e.horizontal_accuracy, p.horizontal_accuracy);
    if (!(mask & bit_vertical_accuracy))
        value(e.vertical_accuracy, p.vertical_accuracy);
    if (!get_is_binary())
        return;
    e.filename.set_string_noevent(get_file_name());
    e.filename.set_flag_noevent(Attribute::flag_empty, false);
    e.filename.set_flag_noevent(Attribute::flag_present, true);
    if (is_modified()) {
        e.filelength.set_val_noevent(quint32(qint64(binrecsz()) * qint64(get_num_points())));
        e.filelength.set_flag_noevent(Attribute::flag_empty, false);
        e.filelength.set_flag_noevent(Attribute::flag_present, true);
    }
}

bool Point_list::load_xml(const QSharedPointer<Elements::Base::Element>& element, QXmlStreamReader& r,
                          XML_interface& xi)
{
    if (!element || !element->is_kind("PNT"))
        return false;
    if (!element->load_xml(element, r, xi))
        return false;
    from_element(*element, xi.output_dir());
    if (!get_is_binary()) {
        clear_points();
        append_point();
        return true;
    }
    xi.infilepath(get_file_name() + QStringLiteral(".BIN")); // noted as used, or reported missing
    return load_bin();
}

bool Point_list::save_xml(const QSharedPointer<Elements::Base::Element>& element, QXmlStreamWriter& w,
                          XML_interface& xi) const
{
    if (!element || !element->is_kind("PNT"))
        return false;
    if (get_is_binary()) {
        to_element(*element);
        return element->save_xml(element, w, xi) && (!is_modified() || write_bin(xi));
    }
    // One element per point, each written through the given element's other attributes.
    auto& e = static_cast<Elements::Base::Point&>(*element);
    for (unsigned i = 0; i < get_num_points(); ++i) {
        Point_list one;
        one.default_point() = *point(i);
        one.to_element(e);
        if (!element->save_xml(element, w, xi))
            return false;
    }
    return true;
}

namespace Elements {
namespace Base {

Point_list& Point::make_binary_points()
{
    if (!m_binary)
        m_binary.reset(new Point_list);
    return *m_binary;
}

namespace {
template <class F>
void walk_points(Element* e, const F& f)
{
    // By the kind's description, not dynamic_cast: this walks every element of every load.
    if (&e->kind() == &Point::static_kind())
        f(static_cast<Point&>(*e));
    const unsigned lists = e->_num_element_lists();
    for (unsigned l = 0; l < lists; ++l)
        for (const auto& c : e->_element_list(l)->elements())
            walk_points(c.data(), f);
}
} // namespace

qint64 Point::load_binary_files(const QSharedPointer<Element>& root, XML_interface& xi)
{
    qint64 n = 0;
    if (!root)
        return n;
    walk_points(root.data(), [&](Point& p) {
        if (p.filename.get_string().isEmpty())
            return;
        Point_list& list = p.make_binary_points();
        list.from_element(p, xi.output_dir());
        // A missing file was reported with the other referenced files; the list stays empty
        // and unloaded, and the element is written back as it was read.
        if (list.load_bin())
            n += list.get_num_points();
    });
    return n;
}

bool Point::set(QSharedPointer<Element>& self, Element* other, bool copy_children, bool notify,
                QMap<QUuid, QUuid> guid_map, QSet<QByteArray> skip_attributes, bool copy_ids)
{
    const bool changed = Element::set(self, other, copy_children, notify, guid_map, skip_attributes, copy_ids);
    auto source = dynamic_cast<Point*>(other);
    if (!source || source == this)
        return changed;
    const bool had = bool(m_binary);
    if (source->m_binary)
        make_binary_points() = *source->m_binary;
    else
        m_binary.reset();
    return changed || had || source->m_binary;
}

bool Point::_save_xml(const QSharedPointer<Element>& self, QXmlStreamWriter& w, XML_interface& xi,
                      XML_read_write_parts parts)
{
    if (!m_binary || !m_binary->get_is_binary())
        return Element::_save_xml(self, w, xi, parts);
    m_binary->to_element(*this);
    if (!Element::_save_xml(self, w, xi, parts))
        return false;
    // An unchanged list leaves its file as it is: the directory writer carries it along.
    return !m_binary->is_modified() || !(parts & xml_part_attributes) || m_binary->write_bin(xi);
}

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
