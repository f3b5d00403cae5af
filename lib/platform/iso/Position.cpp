#include <platform/iso/Position.h>

namespace Iso {

Position& Position::operator=(const Position& other)
{
    // Copy first, then lock this one: never hold both locks, so a = b and b = a cannot deadlock.
    if (this != &other)
        set(other.get());
    return *this;
}

Position::Fix Position::get() const
{
    QReadLocker locker(&lock_);
    return fix_;
}

void Position::set(const Fix& fix)
{
    QWriteLocker locker(&lock_);
    fix_ = fix;
}

bool Position::valid() const
{
    QReadLocker locker(&lock_);
    return fix_.valid;
}

void Position::invalidate()
{
    QWriteLocker locker(&lock_);
    fix_.valid = false;
}

QPointF Position::lon_lat() const
{
    QReadLocker locker(&lock_);
    return QPointF(fix_.longitude, fix_.latitude);
}

} // namespace Iso
