// Implementation of `taskdata shape-info`; see shape_info_command.h.
#include "shape_info_command.h"

#include "tool_support.h"

#include <taskdata/elements/enhanced/tcgeo/Shape_file.h>

#include <QJsonArray>
#include <QJsonDocument>

using namespace Taskdata_tool;
using TC::Task_data::Shapefile_handle;
using TC::Task_data::Elements::Enhanced::Shape_attribute;
using TC::Task_data::Elements::Enhanced::Shape_file;

namespace {

void print_usage(QTextStream& s)
{
    s << "usage: taskdata shape-info FILE.shp [--json]\n"
         "  shape type and count, bounding box, and every numeric attribute with its minimum\n"
         "  and maximum (the .shx and .dbf files are read from beside FILE.shp)\n"
         "exit code: 0 printed, 2 bad usage or the set cannot be opened\n";
}

QString type_name(int type)
{
    switch (type) {
    case Shapefile_handle::point_shape: return QStringLiteral("point");
    case Shapefile_handle::polyline_shape: return QStringLiteral("polyline");
    case Shapefile_handle::polygon_shape: return QStringLiteral("polygon");
    case Shapefile_handle::multipoint_shape: return QStringLiteral("multipoint");
    case Shapefile_handle::null_shape: return QStringLiteral("null");
    default: return QStringLiteral("type %1").arg(type);
    }
}

} // namespace

int run_shape_info_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
        print_usage(out);
        return exit_ok;
    }
    const Parsed_args pa = parse_args(args, {QStringLiteral("--json")}, {});
    if (!pa.error.isEmpty() || pa.positional.size() != 1) {
        err << "taskdata shape-info: " << (pa.error.isEmpty() ? QStringLiteral("expected one shapefile") : pa.error)
            << '\n';
        print_usage(err);
        return exit_unusable;
    }
    const Shape_file file(pa.positional.first());
    if (!file.is_open()) {
        err << "taskdata shape-info: cannot open " << pa.positional.first() << '\n';
        return exit_unusable;
    }
    const Shapefile_handle& h = *file.handle();
    const QRectF box = h.bounds();
    const QList<Shape_attribute> attrs = file.get_attributes(true);
    if (pa.flags.contains(QStringLiteral("--json"))) {
        QJsonArray list;
        for (const Shape_attribute& a : attrs) {
            QJsonObject o{{QStringLiteral("name"), a.name}, {QStringLiteral("values_seen"), a.values_seen}};
            if (a.rates_valid()) {
                o.insert(QStringLiteral("min"), a.min_value);
                o.insert(QStringLiteral("max"), a.max_value);
            }
            list.append(o);
        }
        const QJsonObject o{{QStringLiteral("file"), file.path()},
                            {QStringLiteral("shape_type"), type_name(h.shape_type())},
                            {QStringLiteral("shape_count"), h.shape_count()},
                            {QStringLiteral("bounding_box"),
                             QJsonObject{{QStringLiteral("min_x"), box.left()},
                                         {QStringLiteral("min_y"), box.top()},
                                         {QStringLiteral("max_x"), box.right()},
                                         {QStringLiteral("max_y"), box.bottom()}}},
                            {QStringLiteral("numeric_attributes"), list}};
        print_json(out, o);
        return exit_ok;
    }
    out << file.path() << ": " << h.shape_count() << ' ' << type_name(h.shape_type()) << " shape(s)\n"
        << "bounding box " << QString::number(box.left(), 'g', 12) << ' ' << QString::number(box.top(), 'g', 12)
        << " .. " << QString::number(box.right(), 'g', 12) << ' ' << QString::number(box.bottom(), 'g', 12) << '\n';
    for (const Shape_attribute& a : attrs) {
        out << "  " << a.name << ": ";
        if (a.rates_valid())
            out << QString::number(a.min_value, 'g', 12) << " .. " << QString::number(a.max_value, 'g', 12) << '\n';
        else
            out << "no values\n";
    }
    return exit_ok;
}
