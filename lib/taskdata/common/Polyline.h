// Polyline: an ordered run of plane vertices (a QPolygonF) with a reference point.
//
// Vertices are relative to the reference when the polyline is used in relative form (metres or
// degrees about a field's reference); absolute = vertex + reference. A polyline is closed when
// its last vertex equals its first. A plain value (implicitly shared vertices): whoever holds
// it owns it; copies may be used on different threads.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QBrush>
#include <QPainterPath>
#include <QPen>
#include <QPointF>
#include <QPolygonF>

class QGraphicsScene;

namespace TC {
namespace Task_data {

class KTD_EXPORT Polyline : public QPolygonF
{
public:
    // Two coordinates closer than this in both x and y are the same point.
    static constexpr double same_point_tolerance = 1e-12;

    explicit Polyline(const QPointF& reference = QPointF()) : m_reference(reference) {}
    Polyline(const QPolygonF& vertices, const QPointF& reference) : QPolygonF(vertices), m_reference(reference) {}

    const QPointF& reference() const { return m_reference; }
    // Moves the reference to r; with shift the vertices move the other way so that absolute
    // positions stay. Nothing happens when r is within the tolerance of the current one.
    void set_reference(const QPointF& r, bool shift_points);
    // Signed shoelace area (counter-clockwise positive) over consecutive vertex pairs; the edge
    // from the last vertex back to the first is not added, so the figure is right for a closed
    // ring. 0 below 3 vertices. Units: those of the coordinates squared.
    double compute_area() const;
    // Length of the consecutive edges (a closed ring includes its closing edge as a vertex pair).
    double length() const;
    bool is_closed() const;
    // Appends a copy of the first vertex unless the ring already ends there.
    void close();
    // absolute: translated by the reference; closed: the path's last subpath is closed.
    QPainterPath painter_path(bool absolute = true, bool closed = false) const;
    void add_to_scene(QGraphicsScene& scene, QPen pen, QBrush brush, bool absolute = true, bool closed = false) const;

private:
    QPointF m_reference;
};

} // namespace Task_data
} // namespace TC
