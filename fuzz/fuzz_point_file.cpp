// libFuzzer harness for binary point files: arbitrary record bytes with an arbitrary presence
// mask and declared length, decoded from memory and from a file (numbinpts, short reads), then
// written back and decoded again. The integer fields (type, up, colour, accuracies) must come
// back exactly; coordinates only have to decode again without harm.
//
// Input: [mask u8][declared length u32 LE][record bytes]. Single-threaded; one file per run.
#include <taskdata/common/Point_list.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <QtEndian>

#include <cstdint>
#include <cstdlib>

using TC::Task_data::Point_list;

namespace {
QTemporaryDir& work_dir()
{
    static QTemporaryDir dir;
    return dir;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 5)
        return 0;
    const int mask = data[0];
    const quint32 declared = qFromLittleEndian<quint32>(data + 1);
    const char* records = reinterpret_cast<const char*>(data + 5);
    const qint64 length = qint64(size - 5);

    Point_list mem;
    mem.set_binary(true, mask);
    const qint64 n = mem.load_bin_data(records, length);
    const int rec = mem.binrecsz();
    if (rec == 0 ? n != 0 : n != length / rec)
        abort();

    {
        QFile f(work_dir().filePath(QStringLiteral("PNT00001.BIN")));
        if (!f.open(QIODevice::WriteOnly) || f.write(records, length) != length)
            return 0;
    }
    Point_list file;
    file.set_binary(true, mask);
    file.set_file(QStringLiteral("PNT00001"), work_dir().path(), declared);
    if (!file.load_bin())
        abort();
    const qint64 expected = rec == 0 ? 0 : (declared == 0 || declared > length ? length : declared) / rec;
    if (file.get_num_points() != quint64(expected) || file.numbinpts() != expected)
        abort();

    const QByteArray again = mem.bin_records();
    if (again.size() != n * rec)
        abort();
    Point_list back;
    back.set_binary(true, mask);
    back.load_bin_data(again.constData(), again.size());
    for (unsigned i = 0; i < mem.get_num_points(); ++i) {
        if (back.get_type(i) != mem.get_type(i) || back.get_up(i) != mem.get_up(i) ||
            back.get_colour(i) != mem.get_colour(i))
            abort();
        // Accuracies above 65 m are stored as 65000 mm; everything read from a file is at most 65.535.
        const double h = mem.get_horizontal_accuracy(i);
        if (h <= Point_list::max_accuracy && back.get_horizontal_accuracy(i) != h)
            abort();
    }
    return 0;
}
