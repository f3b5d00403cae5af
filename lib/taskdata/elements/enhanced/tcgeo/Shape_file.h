// Shape_file: one shapefile set of a task (SHPnnnnn.SHP/.SHX/.DBF in the task data directory)
// with its open handle; Shape_files: a task's sets by number.
//
// A Shape_file owns its handle (opened through the installed Shapefile_creator when made);
// Shape_files owns its Shape_files (shared, so a map image being drawn keeps its set alive).
// Threads: one thread at a time per Shape_file.
#pragma once

#include <taskdata/common/Shapefile_creator.h>
#include <taskdata/elements/enhanced/tcgeo/Shape_attribute.h>

#include <QBrush>
#include <QList>
#include <QMap>
#include <QPen>
#include <QSharedPointer>
#include <QString>
#include <QVariant>

#include <memory>

class QGraphicsScene;

namespace TC {
namespace Task_data {

class Scene;

namespace Elements {
namespace Enhanced {

// Names under which a shapefile choice is kept: settings keys, captions (translated where
// shown) and the proprietary attribute names of a process data variable.
namespace Shape_keys {
constexpr const char* shape_file = "shape_file";
constexpr const char* shape_file_name = "shape_file_name";
constexpr const char* shape_attribute = "shape_attribute";
constexpr const char* shape_attribute_name = "shape_attribute_name";
constexpr const char* shape_scale = "shape_scale";
constexpr const char* caption_shape_file = "shape file";
constexpr const char* caption_shape_file_name = "shape file name";
constexpr const char* caption_shape_attribute = "Shape Attribute";
constexpr const char* caption_shape_attribute_name = "shape attribute name";
constexpr const char* caption_shape_scale = "Shape Scale";
constexpr const char* p_shape_file = "P231_Shape_file";
constexpr const char* p_shape_file_name = "P231_Shape_file_name";
constexpr const char* p_shape_attribute = "P231_Shape_attrib";
constexpr const char* p_shape_attribute_name = "P231_Shape_attrib_name";
constexpr const char* p_shape_scale = "P231_Shape_scale";
} // namespace Shape_keys

class KTD_EXPORT Shape_file
{
public:
    explicit Shape_file(const QString& path);
    ~Shape_file();
    Shape_file(const Shape_file&) = delete;
    Shape_file& operator=(const Shape_file&) = delete;

    QString path() const { return m_path; }
    bool is_open() const { return bool(m_handle); }
    const Shapefile_handle* handle() const { return m_handle.get(); }
    // Value of column `field` for shape `shape`; invalid when the set is not open.
    QVariant get_rate(int shape, int field) const;
    // Every value of the attribute's column that converts to a number widens its range.
    void calc_rates(Shape_attribute& attr) const;
    // The numeric columns, each with its range when calc is set.
    QList<Shape_attribute> get_attributes(bool calc) const;
    // Draws the polygons of the set, each filled by its value of `attr` on a scale from blue
    // (minimum) to red (maximum); shapes without a value are drawn unfilled.
    void add_to_scene(QGraphicsScene& graphics, Shape_attribute& attr, const Scene& scene, QPen pen = QPen(Qt::black, 0),
                      int alpha = 160) const;

private:
    QString m_path;
    std::unique_ptr<Shapefile_handle> m_handle;
};

class KTD_EXPORT Shape_files : public QMap<quint16, QSharedPointer<Shape_file>>
{
public:
    // Copies the set `source` (any component, or the name without extension) into `taskdata_dir`
    // as SHPnnnnn.SHP, .SHX and .DBF under the first number from 1 not in use here, and records
    // it. A missing component prints "NO FILE <source> <target>" and the others are still
    // copied; every file is written atomically. Answers the number.
    quint16 copy_to_taskdata(const QString& source, const QString& taskdata_dir);
    // "SHP00001"
    static QString base_name(quint16 number);
};

} // namespace Enhanced
} // namespace Elements
} // namespace Task_data
} // namespace TC
