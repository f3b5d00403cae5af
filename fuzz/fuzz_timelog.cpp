// libFuzzer harness for the binary time log decoder: arbitrary header XML and record bytes go
// through the same paths an application uses (layout, framing, sequential and random access,
// the cache, extremes, debug output), from memory or from files in a temporary directory.
//
// Input: [flags u8][header length u16 LE][header XML][record bytes]. Flag bit 0: read through
// a TLG element and files instead of memory; bit 1: declare the record length in the TLG (the
// actual one, or one byte more with bit 2). Everything lives for one input; single-threaded.
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>
#include <taskdata/elements/enhanced/Log_helper.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

using TC::Task_data::Elements::Base::Element_man;
using TC::Task_data::Elements::Base::Time_log;
using TC::Task_data::Elements::Enhanced::Log_helper;

namespace {

// The decoder prints "init failed" for every unusable input; that is expected here.
void silence_stdout()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    if (!std::getenv("KTD_FUZZ_VERBOSE"))
        std::freopen("/dev/null", "w", stdout);
}

QTemporaryDir& work_dir()
{
    static QTemporaryDir dir;
    return dir;
}

bool write_file(const QString& path, const char* data, qint64 size)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(data, size) == size;
}

void exercise(Log_helper& h)
{
    Log_helper::Record r;
    // Walked before anything has counted the records, so that only the framing of each
    // record keeps the reads inside the bytes.
    unsigned walked = 0;
    while (h.get_record(r, walked))
        ++walked;
    const unsigned n = h.get_num_records();
    if (walked != n)
        std::abort();
    volatile double sink = 0;
    h.trailing_bytes();
    Log_helper::Record state;
    for (unsigned i = 0; i < n; ++i) {
        if (!h.get_record(r, i))
            std::abort(); // a counted record must decode
        h.update_record(state, i);
        sink = sink + r.north + r.east + double(r.dlv_count());
        for (int d = 0; d < r.dlv_count(); ++d)
            if (r.dlv_number_at(d) < unsigned(h.values().size()))
                sink = sink + h.values()[r.dlv_number_at(d)].decode(r.dlv_value_at(d));
        sink = sink + double(h.get_dtime(r));
        for (unsigned f = 0; f <= Log_helper::num_pos_fields; ++f)
            sink = sink + h.record(i)->get_pos_field(f).toDouble();
    }
    // Backwards and beyond the end: the cursor restarts and finds the same records.
    for (unsigned i = n; i-- > 0 && n - i < 64;) {
        unsigned count = 0;
        if (!h.get_raw_record(i, &count))
            std::abort();
        const Log_helper::Record* c = h.record(i);
        if (!c || c->index != i)
            std::abort();
    }
    if (h.get_raw_record(n, nullptr) || h.get_record(r, n + 7))
        std::abort();
    sink = sink + h.get_min_record().north + h.get_max_record().east;
    sink = sink + double(h.get_min_record().get_dlvs().size());
    (void)sink;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silence_stdout();
    if (size < 3)
        return 0;
    const unsigned flags = data[0];
    size_t header_len = size_t(data[1]) | (size_t(data[2]) << 8);
    if (header_len > size - 3)
        header_len = size - 3;
    const char* header = reinterpret_cast<const char*>(data + 3);
    const char* records = header + header_len;
    const size_t records_len = size - 3 - header_len;

    auto man = Element_man::create();
    Log_helper h;
    bool ok;
    if (flags & 1) {
        QTemporaryDir& dir = work_dir();
        if (!dir.isValid())
            return 0;
        man->set_task_data_dir(dir.path());
        if (!write_file(dir.filePath(QStringLiteral("TLG00001.XML")), header, qint64(header_len)) ||
            // The name in the letter case the lookup asks for: no note on stderr per input.
            !write_file(dir.filePath(QStringLiteral("TLG00001.BiN")), records, qint64(records_len)))
            return 0;
        auto tlg = QSharedPointer<Time_log>::create(man);
        tlg->filename.set_val(tlg, 1);
        if (flags & 2)
            tlg->filelength.set_val(tlg, quint32(records_len + ((flags & 4) ? 1 : 0)));
        QBuffer debug;
        debug.open(QIODevice::WriteOnly);
        ok = h.init(tlg);
        if (flags & 8)
            h.set_debug_device(&debug);
        if (ok)
            exercise(h);
        h.close_debug();
    } else {
        // The record bytes are viewed in place: libFuzzer's buffer ends exactly where the input
        // does, so any read past the last byte is reported.
        const QByteArray bin = QByteArray::fromRawData(records, int(records_len));
        quint32 declared = Log_helper::filelength_unknown;
        if (flags & 2)
            declared = quint32(records_len + ((flags & 4) ? 1 : 0));
        ok = h.init_from_data(man, QByteArray(header, int(header_len)), bin, declared);
        if (ok)
            exercise(h);
    }
    if ((flags & 6) == 6 && ok)
        std::abort(); // a declared length one byte over the actual must refuse the log
    return 0;
}
