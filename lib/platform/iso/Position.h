// The terminal's current position, held by the element manager and read by map code.
// A Position owns its Fix; get() hands out a copy. Any thread may call get() and set() at the
// same time (a read-write lock guards the fix); copying a Position copies one consistent fix.
#pragma once

#include <platform/platform_export.h>

#include <QDateTime>
#include <QPointF>
#include <QReadWriteLock>

namespace Iso {

class KPL_EXPORT Position {
public:
    struct Fix {
        double latitude = 0.0;  // degrees, WGS 84, north positive
        double longitude = 0.0; // degrees, WGS 84, east positive
        double altitude = 0.0;  // metres
        quint8 gnss_status = 0; // as in the PTN status attribute (0 no fix, 1 GNSS, 2 DGNSS, ...)
        QDateTime time;         // when the fix was taken
        bool valid = false;     // false until a receiver delivered a fix, or after it was lost
    };

    Position() = default;
    explicit Position(const Fix& fix) : fix_(fix) {}
    Position(const Position& other) : fix_(other.get()) {}
    Position& operator=(const Position& other);

    Fix get() const;
    void set(const Fix& fix);
    bool valid() const;
    // Keeps the last coordinates for display but marks them as no longer current.
    void invalidate();
    // x longitude, y latitude, as the geometry code holds positions.
    QPointF lon_lat() const;

private:
    mutable QReadWriteLock lock_;
    Fix fix_;
};

} // namespace Iso
