// Scene: maps task data positions (degrees) into the coordinates of a QGraphicsScene -- the
// positions themselves (the default), degrees about a reference, or metres about it -- and
// renders such scenes into images, north up.
//
// It keeps a copy of the terminal's position taken when it was made, so one drawing shows one
// consistent position. A plain value: owned by whoever made it; the QGraphicsScene it draws
// into belongs to the caller and, as any QGraphicsScene, to one thread.
#pragma once

#include <taskdata/common/GPS_tools.h>

#include <platform/iso/Position.h>

#include <QImage>
#include <QPointF>
#include <QSize>

class QGraphicsScene;

namespace TC {
namespace Task_data {

class KTD_EXPORT Scene
{
public:
    // Reference = the current position (the origin when there is no fix).
    explicit Scene(const Iso::Position& current = Iso::Position());
    explicit Scene(const QPointF& reference, const Iso::Position& current = Iso::Position());

    const GPS_tools::SF_calc& sf() const { return m_sf; }
    QPointF reference() const { return m_sf.ref(); }
    bool in_metres() const { return m_in_metres; }
    void set_in_metres(bool on) { m_in_metres = on; }
    bool absolute_degrees() const { return m_absolute_degrees; }
    void set_absolute_degrees(bool on) { m_absolute_degrees = on; }
    const Iso::Position::Fix& current() const { return m_current; }
    // Whether the copied position was a live fix when the scene was made.
    bool current_valid() const { return m_current_valid; }

    QPointF llh_to_scene(const QPointF& p) const;
    // A difference in metres to a difference in scene units.
    QPointF dmetres_to_dscene(const QPointF& d) const;

    // A white rectangle under everything drawn so far (margin: 5% around the items); with grid,
    // lines every 10 m, 100 m or 1 km, whatever gives at most about 20 lines; with frame, a
    // border line.
    void add_background(QGraphicsScene& graphics, bool grid, bool frame) const;
    // The scene, north up, scaled to fit `size` with its aspect kept, on white.
    QImage render(QGraphicsScene& graphics, const QSize& size) const;
    // The same on a transparent image (for overlays).
    QImage render_img(QGraphicsScene& graphics, const QSize& size) const;

private:
    QImage render_on(QGraphicsScene& graphics, const QSize& size, const QColor& background) const;
    GPS_tools::SF_calc m_sf;
    bool m_in_metres = false;
    bool m_absolute_degrees = true;
    Iso::Position::Fix m_current;
    bool m_current_valid = false;
};

namespace Scene_utils {
// The terminal's own marker: a triangle `size` metres long and wide at the scene's copied
// position, pointing along `heading` (degrees clockwise from north). Nothing without a fix.
KTD_EXPORT void add_observer_to_scene(QGraphicsScene& graphics, const Scene& scene, const QSizeF& size,
                                      double heading);
} // namespace Scene_utils

} // namespace Task_data
} // namespace TC
