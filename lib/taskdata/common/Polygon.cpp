#include "Polygon.h"

#include "Shapefile_creator.h"

#include <QGraphicsScene>
#include <QPainter>

namespace TC {
namespace Task_data {

namespace {
QRectF box_of(const QPolygonF& ring) { return ring.boundingRect(); }

// Closed on every side (QRectF::contains is not for rectangles of zero width).
bool in_box(const QRectF& box, const QPointF& p)
{
    return p.x() >= box.left() && p.x() <= box.right() && p.y() >= box.top() && p.y() <= box.bottom();
}
} // namespace

Polygon::Polygon(const QPointF& reference) : m_reference(reference) {}

void Polygon::set_reference(const QPointF& r, bool shift_points)
{
    if (qAbs(r.x() - m_reference.x()) <= Polyline::same_point_tolerance &&
        qAbs(r.y() - m_reference.y()) <= Polyline::same_point_tolerance)
        return;
    if (shift_points) {
        const QPointF d = m_reference - r;
        m_outer.translate(d);
        m_outer_box.translate(d);
        for (int i = 0; i < m_holes.size(); ++i) {
            m_holes[i].translate(d);
            m_hole_boxes[i].translate(d);
        }
    }
    for (Polyline& h : m_holes)
        h.set_reference(r, false);
    m_reference = r;
}

void Polygon::set_outer(const QPolygonF& ring)
{
    m_outer = ring;
    m_outer_box = box_of(m_outer);
}

void Polygon::append(const QPointF& vertex)
{
    // By corners: QRectF::united ignores the empty rectangles of single points.
    if (m_outer.isEmpty())
        m_outer_box = QRectF(vertex, vertex);
    else
        m_outer_box.setCoords(qMin(m_outer_box.left(), vertex.x()), qMin(m_outer_box.top(), vertex.y()),
                              qMax(m_outer_box.right(), vertex.x()), qMax(m_outer_box.bottom(), vertex.y()));
    m_outer.append(vertex);
}

void Polygon::add_hole(const QPolygonF& ring)
{
    m_holes.append(Polyline(ring, m_reference));
    m_hole_boxes.append(box_of(ring));
}

void Polygon::set_holes(const QList<Polyline>& holes)
{
    m_holes.clear();
    m_hole_boxes.clear();
    for (const Polyline& h : holes)
        add_hole(h);
}

double Polygon::compute_area() const { return Polyline(m_outer, m_reference).compute_area(); }

namespace {
double closed_area(const QPolygonF& ring)
{
    Polyline p(ring, QPointF());
    p.close();
    return qAbs(p.compute_area());
}
double closed_length(const QPolygonF& ring)
{
    Polyline p(ring, QPointF());
    p.close();
    return p.length();
}
} // namespace

double Polygon::net_area() const
{
    double a = closed_area(m_outer);
    for (const Polyline& h : m_holes)
        a -= closed_area(h);
    return a;
}

double Polygon::perimeter() const
{
    double l = closed_length(m_outer);
    for (const Polyline& h : m_holes)
        l += closed_length(h);
    return l;
}

QRectF Polygon::bounding(bool absolute) const
{
    const QRectF r = QRectF().united(m_outer_box);
    return absolute ? r.translated(m_reference) : r;
}

bool Polygon::contains(QPointF p, bool relative) const
{
    if (relative)
        p -= m_reference;
    if (!in_box(m_outer_box, p) || !m_outer.containsPoint(p, Qt::OddEvenFill))
        return false;
    for (int i = 0; i < m_holes.size(); ++i)
        if (in_box(m_hole_boxes.at(i), p) && m_holes.at(i).containsPoint(p, Qt::OddEvenFill))
            return false;
    return true;
}

QPainterPath Polygon::painter_path(bool absolute) const
{
    QPainterPath path;
    path.setFillRule(Qt::OddEvenFill);
    const QPointF shift = absolute ? m_reference : QPointF();
    path.addPolygon(m_outer.translated(shift));
    path.closeSubpath();
    for (const Polyline& h : m_holes) {
        path.addPolygon(h.translated(shift));
        path.closeSubpath();
    }
    return path;
}

void Polygon::add_to_scene(QGraphicsScene& scene, QPen outer_pen, QPen inner_pen, QBrush outer_brush,
                           QBrush inner_brush, bool absolute) const
{
    if (m_outer.isEmpty())
        return;
    // The outer item's path has the holes cut out, so whatever lies below shows through them;
    // the hole items on top only draw the rings (and a brush when one is given).
    scene.addPath(painter_path(absolute), outer_pen, outer_brush);
    const QPointF shift = absolute ? m_reference : QPointF();
    for (const Polyline& h : m_holes) {
        QPainterPath hole;
        hole.addPolygon(h.translated(shift));
        hole.closeSubpath();
        scene.addPath(hole, inner_pen, inner_brush);
    }
}

QImage Polygon::as_image(const QRectF& area, const QSize& size, const QColor& inside, const QColor& outside,
                         bool absolute) const
{
    return as_image(this, area, size, inside, outside, absolute);
}

QImage Polygon::as_image(const Polygon* polygon, const QRectF& area, const QSize& size, const QColor& inside,
                         const QColor& outside, bool absolute)
{
    if (size.isEmpty())
        return QImage();
    QImage img(size, QImage::Format_ARGB32);
    img.fill(outside);
    if (!polygon || area.width() <= 0.0 || area.height() <= 0.0)
        return img;
    QPainter painter(&img);
    painter.setRenderHint(QPainter::Antialiasing, false);
    // Image rows run downwards, northings upwards: the top row is the area's largest y.
    QTransform t;
    t.scale(size.width() / area.width(), -size.height() / area.height());
    t.translate(-area.left(), -area.bottom());
    painter.setTransform(t);
    painter.setPen(Qt::NoPen);
    painter.setBrush(inside);
    painter.drawPath(polygon->painter_path(absolute));
    painter.end();
    return img;
}

QImage Polygon::mask(const QRectF& area, const QSize& size, Qt::MaskMode mode, bool absolute) const
{
    const QColor inside(Qt::black), outside(Qt::white);
    const QImage img = as_image(area, size, inside, outside, absolute);
    if (img.isNull())
        return img;
    return img.createMaskFromColor(inside.rgb(), mode);
}

QList<Polygon> Polygon::polys_from_shape_file(const QString& path)
{
    QList<Polygon> out;
    const std::unique_ptr<Shapefile_handle> file = Shapefile_creator::open_file(path);
    if (!file)
        return out;
    const QPointF reference = file->bounds().center();
    QList<Polyline> leftover;
    auto place_hole = [&](const Polyline& ring) {
        if (ring.isEmpty())
            return;
        for (Polygon& p : out) {
            if (p.contains(ring.first() + reference, true)) {
                p.add_hole(ring);
                return;
            }
        }
        leftover.append(ring);
    };
    const int n = file->shape_count();
    for (int i = 0; i < n; ++i) {
        Polygon shape(reference);
        if (!file->read_shape(i, shape) || shape.outer().isEmpty())
            continue;
        Polygon first(reference);
        first.set_outer(shape.outer());
        out.append(first);
        // Outer rings of the shape first, so that a hole finds its ring wherever it stands in
        // the shape. Clockwise (negative area with y to the north) is how the format marks an
        // outer ring.
        QList<Polyline> inner;
        for (const Polyline& ring : shape.holes()) {
            if (Polyline(ring, reference).compute_area() < 0.0) {
                Polygon part(reference);
                part.set_outer(ring);
                out.append(part);
            } else {
                inner.append(ring);
            }
        }
        for (const Polyline& ring : inner)
            place_hole(ring);
    }
    if (!leftover.isEmpty()) {
        QPolygonF all;
        for (const Polyline& ring : leftover)
            all += ring;
        const QRectF box = all.boundingRect();
        Polygon rest(reference);
        rest.set_outer(QPolygonF({box.topLeft(), box.topRight(), box.bottomRight(), box.bottomLeft(), box.topLeft()}));
        rest.set_holes(leftover);
        out.append(rest);
    }
    return out;
}

} // namespace Task_data
} // namespace TC
