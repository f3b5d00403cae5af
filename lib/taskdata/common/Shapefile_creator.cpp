#include "Shapefile_creator.h"

#include <atomic>

namespace TC {
namespace Task_data {

namespace {
// Constant-initialised, so a reader installed by another file's static initialiser is never
// overwritten by this one's.
std::atomic<Shapefile_creator*> g_instance{nullptr};
} // namespace

Shapefile_handle::~Shapefile_handle() = default;
Shapefile_creator::~Shapefile_creator() = default;

Shapefile_creator* Shapefile_creator::instance() { return g_instance.load(); }

void Shapefile_creator::set_instance(Shapefile_creator* creator) { g_instance.store(creator); }

std::unique_ptr<Shapefile_handle> Shapefile_creator::open_file(const QString& path)
{
    Shapefile_creator* c = instance();
    return c ? c->open(path) : nullptr;
}

} // namespace Task_data
} // namespace TC
