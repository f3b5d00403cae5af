#include "Element_geometry.h"

#include "Catalogue.h"

#include <taskdata/common/GPS_tools.h>
#include <taskdata/common/Scene.h>

#include <QGraphicsScene>
#include <QLineF>

#include <cmath>
#include <limits>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

namespace {
void append_point(const Point& p, QVector<QPointF>& out)
{
    if (const Point_list* list = p.binary_points()) {
        if (list->get_is_binary()) {
            const unsigned n = list->get_num_points();
            out.reserve(out.size() + int(n));
            for (unsigned i = 0; i < n; ++i)
                out.append(list->get_east_north(i));
            return;
        }
    }
    out.append(QPointF(p.east.get_val(), p.north.get_val()));
}

// Children of the kinds that carry geometry, in list order.
template <class F>
void for_each_geometry_child(const Element& e, const F& f)
{
    Element& m = const_cast<Element&>(e);
    for (unsigned l = 0; l < m._num_element_lists(); ++l)
        for (const auto& c : m._element_list(l)->elements())
            f(*c);
}

bool has_geometry(const Element& e)
{
    for (const char* tag : {"PNT", "LSG", "PLN", "PFD", "GPN", "GGP", "TZN"})
        if (e.is_kind(tag))
            return true;
    return false;
}

// Closest point of a segment to p, in metres about p.
QPointF closest_on_segment(const QPointF& a, const QPointF& b)
{
    const QPointF d = b - a;
    const double len2 = d.x() * d.x() + d.y() * d.y();
    if (len2 <= 0.0)
        return a;
    const double t = qBound(0.0, -(a.x() * d.x() + a.y() * d.y()) / len2, 1.0);
    return a + t * d;
}
} // namespace

namespace Element_geometry {

QVector<QPointF> positions(const Element& e)
{
    QVector<QPointF> out;
    if (e.is_kind("PNT"))
        append_point(static_cast<const Point&>(e), out);
    else if (e.is_kind("LSG"))
        for (const auto& c : static_cast<const Linestring&>(e).points.elements())
            append_point(static_cast<const Point&>(*c), out);
    return out;
}

Field_figures field_figures(const Partfield& field)
{
    Field_figures f;
    QVector<QVector<QPointF>> outers, inners;
    QPolygonF box; // every boundary vertex, for the bounding box
    for (const auto& pc : field.polygons.elements()) {
        const auto& pln = static_cast<const Elements::Base::Polygon&>(*pc);
        if (pln.type.get_val() != 1)
            continue;
        for (const auto& lc : pln.line_strings.elements()) {
            const auto& lsg = static_cast<const Linestring&>(*lc);
            QVector<QPointF> ring = positions(lsg);
            if (ring.size() < 3)
                continue;
            for (const QPointF& p : ring)
                box.append(p);
            (lsg.type.get_val() == 2 ? inners : outers).append(ring);
        }
    }
    if (outers.isEmpty())
        return f;
    f.bounding_box = box.boundingRect();
    f.reference = f.bounding_box.center();
    GPS_tools::CoordConv conv;
    conv.setLocalCenterLLHDeg(f.reference.y(), f.reference.x(), 0.0);
    auto to_local = [&](const QVector<QPointF>& ring) {
        Polyline local;
        local.reserve(ring.size() + 1);
        for (const QPointF& p : ring) {
            double e = 0.0, n = 0.0;
            conv.convLLHDeg2Local(p.y(), p.x(), 0.0, &e, &n);
            local.append(QPointF(e, n));
        }
        local.close();
        return local;
    };
    for (const QVector<QPointF>& ring : outers) {
        TC::Task_data::Polygon p(QPointF(0, 0));
        p.set_outer(to_local(ring));
        f.boundaries.append(p);
    }
    for (const QVector<QPointF>& ring : inners) {
        const Polyline hole = to_local(ring);
        for (TC::Task_data::Polygon& p : f.boundaries) {
            if (p.contains(hole.first(), false)) {
                p.add_hole(hole);
                break;
            }
        }
    }
    for (const TC::Task_data::Polygon& p : f.boundaries) {
        f.area_m2 += p.net_area();
        f.perimeter_m += p.perimeter();
    }
    return f;
}

} // namespace Element_geometry

// --- the element operations that need geometry ---

bool Element::find_closest_point(QPointF position, QPointF& closest, bool recurse, double* distance) const
{
    const GPS_tools::SF_calc sf(position);
    double best = std::numeric_limits<double>::infinity();
    QPointF best_point;
    auto consider_metres = [&](const QPointF& m) {
        const double d = std::hypot(m.x(), m.y());
        if (d < best) {
            best = d;
            best_point = sf.from_metres_to_ref(m);
        }
    };
    const QVector<QPointF> own = Element_geometry::positions(*this);
    if (is_kind("LSG") && own.size() >= 2) {
        for (int i = 0; i + 1 < own.size(); ++i)
            consider_metres(closest_on_segment(sf.to_metres_from_ref(own[i]), sf.to_metres_from_ref(own[i + 1])));
    } else {
        for (const QPointF& p : own)
            consider_metres(sf.to_metres_from_ref(p));
    }
    // Line strings are made of points: their own test already covered them.
    if ((recurse || is_kind("PLN")) && !is_kind("LSG")) {
        for_each_geometry_child(*this, [&](const Element& c) {
            if (!has_geometry(c))
                return;
            QPointF p;
            double d = 0.0;
            if (c.find_closest_point(position, p, true, &d) && d < best) {
                best = d;
                best_point = p;
            }
        });
    }
    if (!(best < std::numeric_limits<double>::infinity()))
        return false;
    closest = best_point;
    if (distance)
        *distance = best;
    return true;
}

QPointF Element::get_first_point() const
{
    const QVector<QPointF> own = Element_geometry::positions(*this);
    if (!own.isEmpty())
        return own.first();
    if (!has_geometry(*this))
        return QPointF();
    QPointF first;
    bool found = false;
    for_each_geometry_child(*this, [&](const Element& c) {
        if (found || !has_geometry(c))
            return;
        const QPointF p = c.get_first_point();
        if (!p.isNull() || !Element_geometry::positions(c).isEmpty()) {
            first = p;
            found = true;
        }
    });
    return first;
}

void Element::add_to_scene(QGraphicsScene& graphics, Scene& scene)
{
    auto to_scene = [&](const QVector<QPointF>& pts) {
        QPolygonF out;
        out.reserve(pts.size());
        for (const QPointF& p : pts)
            out.append(scene.llh_to_scene(p));
        return out;
    };
    if (is_kind("PNT")) {
        const QPointF r = scene.dmetres_to_dscene(QPointF(1.0, 1.0));
        for (const QPointF& p : to_scene(Element_geometry::positions(*this)))
            graphics.addEllipse(QRectF(p - r, p + r), QPen(Qt::black, 0), QBrush(Qt::yellow));
        return;
    }
    if (is_kind("LSG")) {
        const auto& lsg = static_cast<const Linestring&>(*this);
        Polyline line(to_scene(Element_geometry::positions(*this)), QPointF());
        const bool ring = lsg.type.get_val() <= 2 || lsg.type.get_val() == 9;
        line.add_to_scene(graphics, QPen(ring ? Qt::darkGreen : Qt::blue, 0), QBrush(), true, ring);
        return;
    }
    if (is_kind("PLN")) {
        // Exterior rings filled, interior ones cut out; other line strings drawn as lines.
        const auto& pln = static_cast<const Elements::Base::Polygon&>(*this);
        TC::Task_data::Polygon shape;
        for (const auto& lc : pln.line_strings.elements()) {
            const auto& lsg = static_cast<const Linestring&>(*lc);
            const QPolygonF ring = to_scene(Element_geometry::positions(lsg));
            if (lsg.type.get_val() == 1 && shape.isEmpty())
                shape.set_outer(ring);
            else if (lsg.type.get_val() == 2)
                shape.add_hole(ring);
            else
                lc->add_to_scene(graphics, scene);
        }
        const QColor fill = pln.type.get_val() == 1 ? QColor(0, 160, 0, 60) : QColor(200, 120, 0, 60);
        shape.add_to_scene(graphics, QPen(Qt::darkGreen, 0), QPen(Qt::darkRed, 0), QBrush(fill), QBrush(), true);
        return;
    }
    if (has_geometry(*this))
        for_each_geometry_child(*this, [&](const Element& c) {
            if (has_geometry(c))
                const_cast<Element&>(c).add_to_scene(graphics, scene);
        });
}

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
