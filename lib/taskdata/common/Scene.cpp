#include "Scene.h"

#include <QGraphicsPolygonItem>
#include <QGraphicsRectItem>
#include <QGraphicsScene>
#include <QPainter>

#include <cmath>

namespace TC {
namespace Task_data {

Scene::Scene(const Iso::Position& current)
    : m_current(current.get()), m_current_valid(m_current.valid)
{
    m_sf = GPS_tools::SF_calc(QPointF(m_current.longitude, m_current.latitude));
}

Scene::Scene(const QPointF& reference, const Iso::Position& current)
    : m_sf(reference), m_current(current.get()), m_current_valid(m_current.valid)
{
}

QPointF Scene::llh_to_scene(const QPointF& p) const
{
    if (m_in_metres)
        return m_sf.to_metres_from_ref(p);
    if (m_absolute_degrees)
        return p;
    return p - m_sf.ref();
}

QPointF Scene::dmetres_to_dscene(const QPointF& d) const { return m_in_metres ? d : m_sf.from_metres(d); }

void Scene::add_background(QGraphicsScene& graphics, bool grid, bool frame) const
{
    QRectF r = graphics.itemsBoundingRect();
    if (r.isEmpty())
        return;
    r.adjust(-r.width() * 0.05, -r.height() * 0.05, r.width() * 0.05, r.height() * 0.05);
    QGraphicsRectItem* back = graphics.addRect(r, frame ? QPen(Qt::darkGray, 0) : QPen(Qt::NoPen), QBrush(Qt::white));
    back->setZValue(-1000);
    if (!grid)
        return;
    // Grid spacing in metres, turned into scene units on each axis.
    const QPointF extent_m = m_in_metres ? QPointF(r.width(), r.height()) : m_sf.to_metres(QPointF(r.width(), r.height()));
    double step = 10.0;
    while (std::max(extent_m.x(), extent_m.y()) / step > 20.0)
        step *= 10.0;
    const QPointF d = dmetres_to_dscene(QPointF(step, step));
    const QPen pen(QColor(220, 220, 220), 0);
    for (double x = std::ceil(r.left() / d.x()) * d.x(); x <= r.right(); x += d.x())
        graphics.addLine(x, r.top(), x, r.bottom(), pen)->setZValue(-999);
    for (double y = std::ceil(r.top() / d.y()) * d.y(); y <= r.bottom(); y += d.y())
        graphics.addLine(r.left(), y, r.right(), y, pen)->setZValue(-999);
}

QImage Scene::render_on(QGraphicsScene& graphics, const QSize& size, const QColor& background) const
{
    if (size.isEmpty())
        return QImage();
    QImage img(size, QImage::Format_ARGB32_Premultiplied);
    img.fill(background);
    const QRectF source = graphics.itemsBoundingRect();
    if (source.isEmpty())
        return img;
    QPainter painter(&img);
    painter.setRenderHint(QPainter::Antialiasing, true);
    // Scene y grows to the north; image rows grow downwards: mirror vertically.
    const double scale = std::min(size.width() / source.width(), size.height() / source.height());
    const QPointF centre(size.width() / 2.0, size.height() / 2.0);
    QTransform t;
    t.translate(centre.x(), centre.y());
    t.scale(scale, -scale);
    t.translate(-source.center().x(), -source.center().y());
    painter.setTransform(t);
    graphics.render(&painter, source, source, Qt::IgnoreAspectRatio);
    return img;
}

QImage Scene::render(QGraphicsScene& graphics, const QSize& size) const { return render_on(graphics, size, Qt::white); }

QImage Scene::render_img(QGraphicsScene& graphics, const QSize& size) const
{
    return render_on(graphics, size, Qt::transparent);
}

namespace Scene_utils {

void add_observer_to_scene(QGraphicsScene& graphics, const Scene& scene, const QSizeF& size, double heading)
{
    if (!scene.current_valid())
        return;
    const QPointF at = scene.llh_to_scene(QPointF(scene.current().longitude, scene.current().latitude));
    const double a = heading * M_PI / 180.0;
    // Marker corners in metres about the position, rotated to the heading (east = sin, north = cos).
    auto corner = [&](double along, double across) {
        const QPointF m(along * std::sin(a) + across * std::cos(a), along * std::cos(a) - across * std::sin(a));
        return at + scene.dmetres_to_dscene(m);
    };
    const double l = size.height(), w = size.width();
    QPolygonF marker({corner(l * 0.5, 0.0), corner(-l * 0.5, w * 0.5), corner(-l * 0.5, -w * 0.5)});
    QGraphicsPolygonItem* item = graphics.addPolygon(marker, QPen(Qt::black, 0), QBrush(Qt::red));
    item->setZValue(1000);
}

} // namespace Scene_utils

} // namespace Task_data
} // namespace TC
