// GPS_tools: WGS 84 positions (QPointF, x = longitude, y = latitude, degrees) and local metres.
//
// Two ways to metres: SF_calc, a flat-earth scale about one reference (one multiplication per
// component, good for a field), and CoordConv, the exact local tangent plane (east, north) about
// a centre. Both rest on the platform's geodesy primitives. Plain values: a converter belongs to
// whoever made it; different threads may use different converters freely.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QPointF>

namespace TC {
namespace Task_data {
namespace GPS_tools {

// Straight-line (chord) distance in metres between two positions at height 0: what the scale
// factors below are built on; within a field it equals the geodesic distance to well under 1 mm.
KTD_EXPORT double dist_in_metres(const QPointF& a, const QPointF& b);
// Metres per degree of longitude (x) and latitude (y) at p, measured over 0.001 degree.
KTD_EXPORT QPointF get_sf_to_meters(const QPointF& p);
// Degrees per metre: the reciprocals of get_sf_to_meters.
KTD_EXPORT QPointF get_sf_from_meters(const QPointF& p);

class KTD_EXPORT SF_calc
{
public:
    SF_calc() = default;
    explicit SF_calc(const QPointF& ref);
    const QPointF& ref() const { return m_ref; }
    const QPointF& sf_to_metres() const { return m_to; }
    const QPointF& sf_from_metres() const { return m_from; }
    // A difference in degrees to metres and back, component by component.
    QPointF to_metres(const QPointF& d) const { return QPointF(d.x() * m_to.x(), d.y() * m_to.y()); }
    QPointF from_metres(const QPointF& d) const { return QPointF(d.x() * m_from.x(), d.y() * m_from.y()); }
    QPointF to_metres_from_ref(const QPointF& p) const { return to_metres(p - m_ref); }
    QPointF from_metres_to_ref(const QPointF& m) const { return m_ref + from_metres(m); }

private:
    QPointF m_ref;
    QPointF m_to{1.0, 1.0};
    QPointF m_from{1.0, 1.0};
};

// Local tangent plane about a centre. Every conversion answers false, leaving its outputs
// untouched, while no centre is set (an ECEF centre shorter than 1000 m counts as none).
class KTD_EXPORT CoordConv
{
public:
    CoordConv();
    ~CoordConv();
    CoordConv(const CoordConv& other);
    CoordConv& operator=(const CoordConv& other);

    void setLocalCenterLLH(double lat, double lon, double h);
    void setLocalCenterLLHDeg(double lat, double lon, double h);
    void setLocalCenterECEF(double x, double y, double z);
    void getLocalCenterLLH(double* lat, double* lon, double* h) const;
    void getLocalCenterLLHDeg(double* lat, double* lon, double* h) const;
    void getLocalCenterECEF(double* x, double* y, double* z) const;

    bool convECEF2Local(double x, double y, double z, double* east, double* north) const;
    bool convLLH2Local(double lat, double lon, double h, double* east, double* north) const;
    bool convLLHDeg2Local(double lat, double lon, double h, double* east, double* north) const;
    bool convLocal2ECEF(double east, double north, double* x, double* y, double* z) const;
    bool convLocal2LLH(double east, double north, double* lat, double* lon, double* h) const;
    bool convLocal2LLHDeg(double east, double north, double* lat, double* lon, double* h) const;

private:
    struct Data;
    Data* d;
    bool has_centre() const;
};

} // namespace GPS_tools
} // namespace Task_data
} // namespace TC
