// Shapelib_creator: the shapefile reader the library installs by default (see
// Shapefile_creator), on shapelib. It reads polygon, polyline, point and multipoint shapes
// (Z and M forms as their 2D kind) and the dBASE table.
//
// Ownership: the library keeps one instance for its lifetime and installs it while no other
// reader is installed; applications may make their own. Threads: open() may be called from
// any thread; each handle belongs to one thread at a time.
#pragma once

#include <taskdata/common/Shapefile_creator.h>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Enhanced {

class KTD_EXPORT Shapelib_creator : public Shapefile_creator
{
public:
    std::unique_ptr<Shapefile_handle> open(const QString& path) override;
    // The library's own instance (the one installed by default).
    static Shapelib_creator* library_instance();
};

} // namespace Enhanced
} // namespace Elements
} // namespace Task_data
} // namespace TC
