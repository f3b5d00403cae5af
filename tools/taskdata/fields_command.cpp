// Implementation of `taskdata fields`; see fields_command.h.
#include "fields_command.h"

#include "tool_support.h"

#include <taskdata/elements/base/Element_geometry.h>

#include <QJsonArray>
#include <QJsonDocument>

using namespace Taskdata_tool;
using namespace TC::Task_data::Elements::Base;

namespace {

void print_usage(QTextStream& s)
{
    s << "usage: taskdata fields DIR [--json]\n"
         "  per field: identifier, designator, customer, farm, boundary area (outer rings minus\n"
         "  holes) in hectares, perimeter in metres, bounding box and the area the file declares\n"
         "  --json  an array with one object per field (\"id\", \"designator\", \"area_m2\", ...)\n"
         "exit code: 0 printed, 2 bad usage or DIR not loadable\n";
}

QString designator_of(const QSharedPointer<Element>& e) { return e ? e->get_designator() : QString(); }

} // namespace

int run_fields_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
        print_usage(out);
        return exit_ok;
    }
    const Parsed_args pa = parse_args(args, {QStringLiteral("--json")}, {});
    if (!pa.error.isEmpty() || pa.positional.size() != 1) {
        err << "taskdata fields: " << (pa.error.isEmpty() ? QStringLiteral("expected one directory") : pa.error) << '\n';
        print_usage(err);
        return exit_unusable;
    }
    Loaded_dir d;
    if (!load_directory(pa.positional.first(), d)) {
        err << "taskdata fields: " << d.error << '\n';
        return exit_unusable;
    }
    const bool json = pa.flags.contains(QStringLiteral("--json"));
    QJsonArray list;
    walk_all(d, [&](const QSharedPointer<Element>& e) {
        const auto field = e.dynamicCast<Partfield>();
        if (!field)
            return;
        const Element_geometry::Field_figures f = Element_geometry::field_figures(*field);
        const bool declared = field->area.present() && field->area.valid();
        const QString id = element_name(field.data());
        const QString customer = designator_of(field->customer.target());
        const QString farm = designator_of(field->farm.target());
        if (json) {
            QJsonObject o{{QStringLiteral("id"), id},
                          {QStringLiteral("designator"), field->designator.get_string()},
                          {QStringLiteral("customer"), customer},
                          {QStringLiteral("farm"), farm},
                          {QStringLiteral("boundary_polygons"), f.boundaries.size()},
                          {QStringLiteral("area_m2"), f.area_m2},
                          {QStringLiteral("area_ha"), f.area_m2 / 10000.0},
                          {QStringLiteral("perimeter_m"), f.perimeter_m}};
            if (!f.bounding_box.isNull())
                o.insert(QStringLiteral("bounding_box"),
                         QJsonObject{{QStringLiteral("min_lon"), f.bounding_box.left()},
                                     {QStringLiteral("min_lat"), f.bounding_box.top()},
                                     {QStringLiteral("max_lon"), f.bounding_box.right()},
                                     {QStringLiteral("max_lat"), f.bounding_box.bottom()}});
            if (declared)
                o.insert(QStringLiteral("declared_area_m2"), double(field->area.get_val()));
            list.append(o);
            return;
        }
        out << id << "  " << field->designator.get_string();
        if (!customer.isEmpty())
            out << "  customer " << customer;
        if (!farm.isEmpty())
            out << "  farm " << farm;
        out << '\n';
        if (f.boundaries.isEmpty()) {
            out << "  no boundary\n";
        } else {
            out << "  area " << QString::number(f.area_m2 / 10000.0, 'f', 4) << " ha, perimeter "
                << QString::number(f.perimeter_m, 'f', 1) << " m, " << f.boundaries.size() << " boundary polygon(s)\n"
                << "  bounding box " << QString::number(f.bounding_box.left(), 'f', 7) << ' '
                << QString::number(f.bounding_box.top(), 'f', 7) << " .. "
                << QString::number(f.bounding_box.right(), 'f', 7) << ' '
                << QString::number(f.bounding_box.bottom(), 'f', 7) << " (lon lat)\n";
        }
        if (declared)
            out << "  declared area " << QString::number(field->area.get_val() / 10000.0, 'f', 4) << " ha\n";
    });
    if (json)
        out << QJsonDocument(list).toJson(QJsonDocument::Indented);
    return exit_ok;
}
