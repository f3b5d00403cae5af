#include "GPS_tools.h"

#include <platform/geo/Geodesy.h>


namespace TC {
namespace Task_data {
namespace GPS_tools {

namespace {
constexpr double rad_per_deg = 0.017453292519943295;
constexpr double min_centre_norm = 1000.0;

Geo::SVec ecef(const QPointF& p)
{
    Geo::SVec v;
    Geo::Geo2Decart(p.y() * rad_per_deg, p.x() * rad_per_deg, 0.0, v[0], v[1], v[2]);
    return v;
}
} // namespace

double dist_in_metres(const QPointF& a, const QPointF& b) { return Geo::norm(ecef(a) - ecef(b)); }

QPointF get_sf_to_meters(const QPointF& p)
{
    constexpr double step = 0.001;
    return QPointF(dist_in_metres(p, p + QPointF(step, 0.0)) / step, dist_in_metres(p, p + QPointF(0.0, step)) / step);
}

QPointF get_sf_from_meters(const QPointF& p)
{
    const QPointF to = get_sf_to_meters(p);
    return QPointF(1.0 / to.x(), 1.0 / to.y());
}

SF_calc::SF_calc(const QPointF& ref) : m_ref(ref), m_to(get_sf_to_meters(ref))
{
    m_from = QPointF(1.0 / m_to.x(), 1.0 / m_to.y());
}

struct CoordConv::Data
{
    Geo::SVec centre_ecef;
    Geo::SVec centre_llh; // latitude, longitude (radians), height (metres)
    Geo::SMat rotation;   // local east/north/up -> ECEF
    Geo::SMat inverse;    // ECEF -> local
};

CoordConv::CoordConv() : d(new Data) {}

CoordConv::~CoordConv() { delete d; }

CoordConv::CoordConv(const CoordConv& other) : d(new Data(*other.d)) {}

CoordConv& CoordConv::operator=(const CoordConv& other)
{
    *d = *other.d;
    return *this;
}

bool CoordConv::has_centre() const { return Geo::norm(d->centre_ecef) >= min_centre_norm; }

void CoordConv::setLocalCenterLLH(double lat, double lon, double h)
{
    d->centre_llh = Geo::SVec(lat, lon, h);
    Geo::Geo2Decart(lat, lon, h, d->centre_ecef[0], d->centre_ecef[1], d->centre_ecef[2]);
    d->rotation = Geo::OrthoMat(lat, lon);
    d->inverse = Geo::transpose(d->rotation);
}

void CoordConv::setLocalCenterLLHDeg(double lat, double lon, double h)
{
    setLocalCenterLLH(lat * rad_per_deg, lon * rad_per_deg, h);
}

void CoordConv::setLocalCenterECEF(double x, double y, double z)
{
    double lat = 0.0, lon = 0.0, h = 0.0;
    Geo::Decart2Geo(x, y, z, lat, lon, h);
    d->centre_ecef = Geo::SVec(x, y, z);
    d->centre_llh = Geo::SVec(lat, lon, h);
    setLocalCenterLLH(lat, lon, h);
}

void CoordConv::getLocalCenterLLH(double* lat, double* lon, double* h) const
{
    *lat = d->centre_llh[0];
    *lon = d->centre_llh[1];
    *h = d->centre_llh[2];
}

void CoordConv::getLocalCenterLLHDeg(double* lat, double* lon, double* h) const
{
    getLocalCenterLLH(lat, lon, h);
    *lat /= rad_per_deg;
    *lon /= rad_per_deg;
}

void CoordConv::getLocalCenterECEF(double* x, double* y, double* z) const
{
    *x = d->centre_ecef[0];
    *y = d->centre_ecef[1];
    *z = d->centre_ecef[2];
}

bool CoordConv::convECEF2Local(double x, double y, double z, double* east, double* north) const
{
    if (!has_centre())
        return false;
    const Geo::SVec local = d->inverse * (Geo::SVec(x, y, z) - d->centre_ecef);
    *east = local[0];
    *north = local[1];
    return true;
}

bool CoordConv::convLLH2Local(double lat, double lon, double h, double* east, double* north) const
{
    double x = 0.0, y = 0.0, z = 0.0;
    Geo::Geo2Decart(lat, lon, h, x, y, z);
    return convECEF2Local(x, y, z, east, north);
}

bool CoordConv::convLLHDeg2Local(double lat, double lon, double h, double* east, double* north) const
{
    return convLLH2Local(lat * rad_per_deg, lon * rad_per_deg, h, east, north);
}

bool CoordConv::convLocal2ECEF(double east, double north, double* x, double* y, double* z) const
{
    if (!has_centre())
        return false;
    const Geo::SVec p = d->rotation * Geo::SVec(east, north, 0.0) + d->centre_ecef;
    *x = p[0];
    *y = p[1];
    *z = p[2];
    return true;
}

bool CoordConv::convLocal2LLH(double east, double north, double* lat, double* lon, double* h) const
{
    double x = 0.0, y = 0.0, z = 0.0;
    if (!convLocal2ECEF(east, north, &x, &y, &z))
        return false;
    Geo::Decart2Geo(x, y, z, *lat, *lon, *h);
    return true;
}

bool CoordConv::convLocal2LLHDeg(double east, double north, double* lat, double* lon, double* h) const
{
    if (!convLocal2LLH(east, north, lat, lon, h))
        return false;
    *lat /= rad_per_deg;
    *lon /= rad_per_deg;
    return true;
}

} // namespace GPS_tools
} // namespace Task_data
} // namespace TC
