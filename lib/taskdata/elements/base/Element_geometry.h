// Element_geometry: the geometry of point-carrying elements -- points (and the binary point
// files they may stand for), line strings, polygons, partfields and guidance patterns -- as
// plain coordinates, polygons with holes and field figures.
//
// Behind Element::find_closest_point, get_first_point and add_to_scene. Stateless functions;
// the caller holds the data lock of the elements it passes (as for every element operation).
#pragma once

#include <taskdata/common/Polygon.h>

#include <QList>
#include <QPointF>
#include <QRectF>
#include <QVector>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

class Element;
class Partfield;

namespace Element_geometry {

// Positions (x = longitude, y = latitude) of a point, a line string or the points of a binary
// point file, in order; empty for other kinds.
KTD_EXPORT QVector<QPointF> positions(const Element& element);

// The figures of one field, measured in metres on the local tangent plane about the field's
// own reference (the centre of its boundary's bounding box).
struct KTD_EXPORT Field_figures
{
    QPointF reference;          // degrees
    QList<TC::Task_data::Polygon> boundaries; // outer rings with their holes, metres about the reference
    QRectF bounding_box;        // degrees, x longitude, y latitude; empty without a boundary
    double area_m2 = 0.0;       // outer rings minus holes
    double perimeter_m = 0.0;   // outer rings and holes
};
// The boundary polygons (PLN type 1) of a field: exterior line strings (type 1) as outer
// rings, interior ones (type 2) as holes of the exterior that contains them.
KTD_EXPORT Field_figures field_figures(const Partfield& field);

} // namespace Element_geometry
} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
