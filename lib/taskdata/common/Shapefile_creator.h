// Shapefile_creator: the door through which the library reads ESRI shapefile sets (.shp main
// file, .shx index, .dbf attribute table) without parsing the format itself.
//
// A reader is a Shapefile_creator installed process-wide with set_instance(); the library ships
// one on shapelib and installs it when it is loaded, so instance() has a reader unless an
// application installed another one or none (set_instance(nullptr)). The instance is not owned
// by the library: the installer keeps it alive while installed. open() hands out a
// Shapefile_handle owned by the caller. Threads: install before other threads read shapefiles;
// a handle is used by one thread at a time, different handles on different threads freely.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QList>
#include <QRectF>
#include <QString>
#include <QVariant>

#include <memory>

namespace TC {
namespace Task_data {

class Polygon;

// One open shapefile set.
class KTD_EXPORT Shapefile_handle
{
public:
    enum Shape_type { null_shape = 0, point_shape = 1, polyline_shape = 3, polygon_shape = 5, multipoint_shape = 8 };
    struct Field
    {
        QString name;     // dBASE column name
        bool numeric;     // an integer or floating point column
        int width;
        int decimals;
    };

    virtual ~Shapefile_handle();
    virtual int shape_type() const = 0; // Shape_type of the main file (Z and M forms mapped to their 2D kind)
    // Bounding box of the whole file, x longitude, y latitude.
    virtual QRectF bounds() const = 0;
    virtual int shape_count() const = 0;
    // Shape `shape` about the polygon's reference: its first ring (line, or the points of a point
    // shape) as the outer ring, every further ring or part as a hole, in file order. False when
    // the shape cannot be read.
    virtual bool read_shape(int shape, Polygon& out) const = 0;
    virtual QList<Field> fields() const = 0;
    // Value of column `field` of row `shape`: a double for numeric columns, a string otherwise;
    // an invalid QVariant when the cell is empty or out of range.
    virtual QVariant value(int shape, int field) const = 0;
};

class KTD_EXPORT Shapefile_creator
{
public:
    virtual ~Shapefile_creator();
    // The set at `path` (any of its component names, or the name without extension); null
    // when it cannot be opened.
    virtual std::unique_ptr<Shapefile_handle> open(const QString& path) = 0;

    static Shapefile_creator* instance();
    static void set_instance(Shapefile_creator* creator);
    // Opens through the installed reader; null without one.
    static std::unique_ptr<Shapefile_handle> open_file(const QString& path);
};

} // namespace Task_data
} // namespace TC
