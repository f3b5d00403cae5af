#include "Shape_file.h"

#include <taskdata/common/Polygon.h>
#include <taskdata/common/Scene.h>
#include <taskdata/common/XML_interface.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGraphicsScene>

#include <cstdio>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Enhanced {

void Shape_attribute::update_rates(double v)
{
    min_value = std::min(min_value, v);
    max_value = std::max(max_value, v);
    values_seen = true;
}

Shape_file::Shape_file(const QString& path) : m_path(path), m_handle(Shapefile_creator::open_file(path))
{
    fprintf(stderr, "Use Shape: %s\n", path.toUtf8().constData());
}

Shape_file::~Shape_file() = default;

QVariant Shape_file::get_rate(int shape, int field) const
{
    return m_handle ? m_handle->value(shape, field) : QVariant();
}

void Shape_file::calc_rates(Shape_attribute& attr) const
{
    if (!m_handle)
        return;
    const int n = m_handle->shape_count();
    for (int i = 0; i < n; ++i) {
        bool ok = false;
        const double v = m_handle->value(i, attr.field).toDouble(&ok);
        if (ok)
            attr.update_rates(v);
    }
}

QList<Shape_attribute> Shape_file::get_attributes(bool calc) const
{
    QList<Shape_attribute> out;
    if (!m_handle)
        return out;
    const QList<Shapefile_handle::Field> fields = m_handle->fields();
    for (int f = 0; f < fields.size(); ++f) {
        if (!fields.at(f).numeric)
            continue;
        Shape_attribute a(fields.at(f).name, f);
        if (calc)
            calc_rates(a);
        out.append(a);
    }
    return out;
}

void Shape_file::add_to_scene(QGraphicsScene& graphics, Shape_attribute& attr, const Scene& scene, QPen pen,
                              int alpha) const
{
    if (!m_handle)
        return;
    fprintf(stderr, "%s", QStringLiteral("Shape: %1\n").arg(m_path).toUtf8().constData());
    if (!attr.values_seen)
        calc_rates(attr);
    const double span = attr.rates_valid() ? attr.max_value - attr.min_value : 0.0;
    const QPointF ref = m_handle->bounds().center();
    const int n = m_handle->shape_count();
    for (int i = 0; i < n; ++i) {
        Polygon shape(ref);
        if (!m_handle->read_shape(i, shape) || shape.isEmpty())
            continue;
        // Rings to scene coordinates; the path's odd-even fill cuts the holes out.
        auto to_scene = [&](const QPolygonF& ring) {
            QPolygonF out;
            out.reserve(ring.size());
            for (const QPointF& p : ring)
                out.append(scene.llh_to_scene(p + ref));
            return out;
        };
        QPainterPath path;
        path.setFillRule(Qt::OddEvenFill);
        path.addPolygon(to_scene(shape.outer()));
        path.closeSubpath();
        for (const Polyline& h : shape.holes()) {
            path.addPolygon(to_scene(h));
            path.closeSubpath();
        }
        bool ok = false;
        const double v = get_rate(i, attr.field).toDouble(&ok);
        QBrush brush(Qt::NoBrush);
        if (ok && attr.rates_valid()) {
            const double t = span > 0.0 ? (v - attr.min_value) / span : 0.5;
            brush = QBrush(QColor::fromHsvF((1.0 - qBound(0.0, t, 1.0)) * 240.0 / 360.0, 0.9, 0.9, alpha / 255.0));
        }
        graphics.addPath(path, pen, brush);
    }
}

QString Shape_files::base_name(quint16 number) { return QStringLiteral("SHP%1").arg(number, 5, 10, QLatin1Char('0')); }

quint16 Shape_files::copy_to_taskdata(const QString& source, const QString& taskdata_dir)
{
    fprintf(stderr, "Import Shape: %s\n", source.toUtf8().constData());
    int number = 1;
    while (contains(quint16(number))) {
        ++number;
        if (number >= 100000) {
            // Deliberately the first number again rather than failing.
            number = 1;
            break;
        }
    }
    const quint16 n = quint16(number);
    QString base = source;
    const QString suffix = QFileInfo(source).suffix().toLower();
    if (suffix == QLatin1String("shp") || suffix == QLatin1String("shx") || suffix == QLatin1String("dbf"))
        base.chop(4);
    XML_interface xi(taskdata_dir);
    for (const char* ext : {"SHP", "SHX", "DBF"}) {
        const QString target = QDir(taskdata_dir).filePath(QStringLiteral("%1.%2").arg(base_name(n), QLatin1String(ext)));
        // The component as it lies beside the source, in either letter case.
        QString from = base + QLatin1Char('.') + QLatin1String(ext);
        if (!QFileInfo::exists(from))
            from = base + QLatin1Char('.') + QString::fromLatin1(ext).toLower();
        QFile in(from);
        if (!QFileInfo::exists(from) || !in.open(QIODevice::ReadOnly)) {
            fprintf(stdout, "NO FILE %s %s\n", from.toUtf8().constData(), target.toUtf8().constData());
            fflush(stdout);
            continue;
        }
        QString error;
        if (!xi.write_file_atomic(target, in.readAll(), &error))
            fprintf(stderr, "Could not copy %s: %s\n", from.toUtf8().constData(), error.toUtf8().constData());
    }
    insert(n, QSharedPointer<Shape_file>::create(QDir(taskdata_dir).filePath(base_name(n) + QStringLiteral(".SHP"))));
    return n;
}

} // namespace Enhanced
} // namespace Elements
} // namespace Task_data
} // namespace TC
