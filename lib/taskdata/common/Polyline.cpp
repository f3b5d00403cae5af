#include "Polyline.h"

#include <QGraphicsPathItem>
#include <QGraphicsScene>
#include <QLineF>

#include <cmath>

namespace TC {
namespace Task_data {

namespace {
bool same(const QPointF& a, const QPointF& b)
{
    return std::fabs(a.x() - b.x()) <= Polyline::same_point_tolerance &&
           std::fabs(a.y() - b.y()) <= Polyline::same_point_tolerance;
}
} // namespace

void Polyline::set_reference(const QPointF& r, bool shift_points)
{
    if (same(r, m_reference))
        return;
    if (shift_points)
        translate(m_reference - r);
    m_reference = r;
}

double Polyline::compute_area() const
{
    const int n = size();
    if (n < 3)
        return 0.0;
    const QPointF* p = constData();
    double sum = 0.0;
    for (int i = 0; i + 1 < n; ++i)
        sum += p[i].x() * p[i + 1].y() - p[i + 1].x() * p[i].y();
    return sum / 2.0;
}

double Polyline::length() const
{
    double sum = 0.0;
    for (int i = 0; i + 1 < size(); ++i)
        sum += QLineF(at(i), at(i + 1)).length();
    return sum;
}

bool Polyline::is_closed() const { return size() >= 2 && same(first(), last()); }

void Polyline::close()
{
    if (size() < 2 || is_closed())
        return;
    append(first());
}

QPainterPath Polyline::painter_path(bool absolute, bool closed) const
{
    QPainterPath path;
    if (isEmpty())
        return path;
    path.addPolygon(absolute ? translated(m_reference) : QPolygonF(*this));
    if (closed)
        path.closeSubpath();
    return path;
}

void Polyline::add_to_scene(QGraphicsScene& scene, QPen pen, QBrush brush, bool absolute, bool closed) const
{
    if (isEmpty())
        return;
    scene.addPath(painter_path(absolute, closed), pen, closed ? brush : QBrush(Qt::NoBrush));
}

} // namespace Task_data
} // namespace TC
