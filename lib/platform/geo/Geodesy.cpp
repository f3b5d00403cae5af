#include "Geodesy.h"

#include <GeographicLib/Geocentric.hpp>

#include <cmath>
#include <vector>

namespace Geo {

namespace {
constexpr double deg_per_rad = 57.29577951308232;

const GeographicLib::Geocentric& wgs84() { return GeographicLib::Geocentric::WGS84(); }
} // namespace

SVec SMat::operator*(const SVec& x) const
{
    SVec r;
    for (int i = 0; i < 3; ++i)
        r.v[i] = m[i][0] * x.v[0] + m[i][1] * x.v[1] + m[i][2] * x.v[2];
    return r;
}

SMat SMat::identity()
{
    SMat r;
    r.m[0][0] = r.m[1][1] = r.m[2][2] = 1.0;
    return r;
}

double norm(const SVec& v) { return std::sqrt(v.v[0] * v.v[0] + v.v[1] * v.v[1] + v.v[2] * v.v[2]); }

SMat transpose(const SMat& m)
{
    SMat t;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            t.m[i][j] = m.m[j][i];
    return t;
}

void Geo2Decart(double lat, double lon, double h, double& X, double& Y, double& Z)
{
    wgs84().Forward(lat * deg_per_rad, lon * deg_per_rad, h, X, Y, Z);
}

void Decart2Geo(double X, double Y, double Z, double& lat, double& lon, double& h)
{
    double lat_deg = 0.0, lon_deg = 0.0;
    wgs84().Reverse(X, Y, Z, lat_deg, lon_deg, h);
    lat = lat_deg / deg_per_rad;
    lon = lon_deg / deg_per_rad;
}

SMat OrthoMat(double lat, double lon)
{
    // GeographicLib hands out the east/north/up -> ECEF rotation with the forward conversion,
    // row-major, which is the layout of SMat.
    std::vector<double> rotation(9);
    double x = 0.0, y = 0.0, z = 0.0;
    wgs84().Forward(lat * deg_per_rad, lon * deg_per_rad, 0.0, x, y, z, rotation);
    SMat r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            r.m[i][j] = rotation[size_t(3 * i + j)];
    return r;
}

} // namespace Geo
