// The hand-written part of the PNT element: the binary point file it may stand for.
#include "Catalogue.h"

#include <taskdata/common/XML_interface.h>

namespace TC {
namespace Task_data {
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
    if (auto p = dynamic_cast<Point*>(e))
        f(*p);
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
    if (source->m_binary)
        make_binary_points() = *source->m_binary;
    else
        m_binary.reset();
    return true;
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
