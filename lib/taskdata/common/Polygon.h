// Polygon: a plane outer ring with holes (inner rings), all about one reference point.
//
// Built from a seed (the reference) and then filled; `contains` is the point-in-field test run
// at GPS rate, so each ring's bounding box is kept up to date by the mutators and checked
// before the ring itself. A plain value: whoever holds it owns it; const operations may run on
// several threads at once.
#pragma once

#include <taskdata/common/Polyline.h>

#include <QColor>
#include <QImage>
#include <QList>
#include <QRectF>
#include <QSize>
#include <QVector>

namespace TC {
namespace Task_data {

class KTD_EXPORT Polygon
{
public:
    explicit Polygon(const QPointF& reference = QPointF());

    const QPointF& reference() const { return m_reference; }
    // As Polyline::set_reference, for the outer ring and every hole.
    void set_reference(const QPointF& r, bool shift_points);

    const QPolygonF& outer() const { return m_outer; }
    void set_outer(const QPolygonF& ring);
    void append(const QPointF& vertex);
    const QList<Polyline>& holes() const { return m_holes; }
    // A hole in this polygon's coordinates (its own reference is replaced by the polygon's).
    void add_hole(const QPolygonF& ring);
    void set_holes(const QList<Polyline>& holes);
    bool isEmpty() const { return m_outer.isEmpty(); }

    // Signed area of the outer ring (see Polyline::compute_area).
    double compute_area() const;
    // |outer| minus the |area| of every hole: the surface the polygon covers when its rings are
    // closed, in units of the coordinates squared.
    double net_area() const;
    // Length of the outer ring and of every hole, each closed.
    double perimeter() const;
    // The outer ring's bounding rectangle; with absolute, translated by the reference.
    QRectF bounding(bool absolute) const;
    // Inside the outer ring and in no hole, by the odd-even rule of each ring. relative: p is
    // absolute and the reference is subtracted first.
    bool contains(QPointF p, bool relative) const;

    // absolute: translated by the reference. The holes are subpaths of the same path.
    QPainterPath painter_path(bool absolute = true) const;
    void add_to_scene(QGraphicsScene& scene, QPen outer_pen, QPen inner_pen, QBrush outer_brush, QBrush inner_brush,
                      bool absolute = true) const;
    // An image of `size` covering `area` (in the polygon's coordinates, absolute or not): the
    // outer ring filled with `inside`, holes and the rest with `outside`.
    QImage as_image(const QRectF& area, const QSize& size, const QColor& inside, const QColor& outside,
                    bool absolute = true) const;
    static QImage as_image(const Polygon* polygon, const QRectF& area, const QSize& size, const QColor& inside,
                           const QColor& outside, bool absolute = true);
    // One bit per pixel of as_image: Qt::MaskInColor sets the pixels inside the polygon.
    QImage mask(const QRectF& area, const QSize& size, Qt::MaskMode mode, bool absolute = true) const;

    // The polygons of a polygon shapefile through the installed Shapefile_creator, all about the
    // centre of the file's bounding box, in file order. A shape's first ring and every further
    // clockwise ring (the format's outer rings: the parts of a multipart shape) become polygons;
    // its other rings become holes of the first polygon built so far that contains them; rings
    // inside no polygon end up as holes of one last polygon, the rectangle that bounds them.
    // Empty without a reader or when the file cannot be opened.
    static QList<Polygon> polys_from_shape_file(const QString& path);

private:
    QPolygonF m_outer;
    QPointF m_reference;
    QList<Polyline> m_holes;
    QRectF m_outer_box;
    QVector<QRectF> m_hole_boxes;
};

} // namespace Task_data
} // namespace TC
