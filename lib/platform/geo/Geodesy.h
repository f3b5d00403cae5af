// Geodesy primitives of the terminal: WGS 84 geodetic <-> earth-centred earth-fixed (ECEF)
// conversion and the small 3-vector / 3x3-matrix algebra the task data geometry is built on.
//
// The ellipsoid work is GeographicLib's (Geocentric); nothing here restates its formulas.
// Angles are radians, lengths metres. Plain values without shared state: any thread may call
// everything here at any time.
#pragma once

#include <platform/platform_export.h>

namespace Geo {

// A 3-vector of doubles (ECEF metres, or local east/north/up metres).
struct KPL_EXPORT SVec
{
    double v[3] = {0.0, 0.0, 0.0};

    SVec() = default;
    SVec(double x, double y, double z) : v{x, y, z} {}
    double& operator[](int i) { return v[i]; }
    double operator[](int i) const { return v[i]; }
    SVec operator+(const SVec& o) const { return SVec(v[0] + o.v[0], v[1] + o.v[1], v[2] + o.v[2]); }
    SVec operator-(const SVec& o) const { return SVec(v[0] - o.v[0], v[1] - o.v[1], v[2] - o.v[2]); }
};

// A 3x3 matrix of doubles, row-major: m[row][column].
struct KPL_EXPORT SMat
{
    double m[3][3] = {{0.0, 0.0, 0.0}, {0.0, 0.0, 0.0}, {0.0, 0.0, 0.0}};

    double* operator[](int row) { return m[row]; }
    const double* operator[](int row) const { return m[row]; }
    SVec operator*(const SVec& x) const;
    static SMat identity();
};

// Euclidean length.
KPL_EXPORT double norm(const SVec& v);
KPL_EXPORT SMat transpose(const SMat& m);

// Geodetic (latitude, longitude in radians, height in metres above the WGS 84 ellipsoid) to ECEF.
KPL_EXPORT void Geo2Decart(double lat, double lon, double h, double& X, double& Y, double& Z);
// ECEF to geodetic; the inverse of Geo2Decart (the point of the ellipsoid nearest to X, Y, Z).
KPL_EXPORT void Decart2Geo(double X, double Y, double Z, double& lat, double& lon, double& h);
// The rotation that takes local (east, north, up) components at (lat, lon) to ECEF components.
KPL_EXPORT SMat OrthoMat(double lat, double lon);

} // namespace Geo
