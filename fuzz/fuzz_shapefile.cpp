// libFuzzer harness for shapefile sets read through the installed reader (shapelib behind
// Shapefile_creator): arbitrary main, index and table files are opened, every shape and cell is
// read, attribute ranges computed and the polygons with their holes built.
//
// Input: [main length u16 LE][index length u16 LE][main bytes][index bytes][table bytes].
// Single-threaded; the three files are rewritten for every input.
#include <taskdata/common/Polygon.h>
#include <taskdata/elements/enhanced/tcgeo/Shape_file.h>

#include <QFile>
#include <QTemporaryDir>
#include <QtEndian>

#include <cstdint>
#include <cstdlib>

using namespace TC::Task_data;
using TC::Task_data::Elements::Enhanced::Shape_attribute;
using TC::Task_data::Elements::Enhanced::Shape_file;

namespace {
QTemporaryDir& work_dir()
{
    static QTemporaryDir dir;
    return dir;
}

bool put(const QString& name, const uint8_t* data, size_t size)
{
    QFile f(work_dir().filePath(name));
    return f.open(QIODevice::WriteOnly) && f.write(reinterpret_cast<const char*>(data), qint64(size)) == qint64(size);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 4)
        return 0;
    const size_t main_len = qMin<size_t>(qFromLittleEndian<quint16>(data), size - 4);
    const size_t index_len = qMin<size_t>(qFromLittleEndian<quint16>(data + 2), size - 4 - main_len);
    const uint8_t* p = data + 4;
    if (!put(QStringLiteral("set.shp"), p, main_len) || !put(QStringLiteral("set.shx"), p + main_len, index_len) ||
        !put(QStringLiteral("set.dbf"), p + main_len + index_len, size - 4 - main_len - index_len))
        return 0;

    const QString path = work_dir().filePath(QStringLiteral("set.shp"));
    const Shape_file set(path);
    if (!set.is_open())
        return 0;
    const Shapefile_handle& h = *set.handle();
    const int shapes = qMin(h.shape_count(), 2000);
    for (int i = -1; i <= shapes; ++i) {
        Polygon shape(h.bounds().center());
        h.read_shape(i, shape);
        for (int f = -1; f <= h.fields().size(); ++f)
            set.get_rate(i, f);
    }
    QList<Shape_attribute> attrs = set.get_attributes(true);
    for (const Shape_attribute& a : attrs)
        if (a.values_seen && !(a.min_value <= a.max_value) && a.min_value == a.min_value && a.max_value == a.max_value)
            abort(); // a range that saw numbers is never inverted (NaN aside)
    if (h.shape_count() <= 2000)
        Polygon::polys_from_shape_file(path);
    return 0;
}
