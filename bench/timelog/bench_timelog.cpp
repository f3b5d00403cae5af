// Time log decoding speed: a task data directory with one time log of 1,000,000 records (time,
// seven position fields, 0..7 of 12 logged values per record, across two midnights) is written,
// then decoded in full -- every record with every value -- and timed against a plain sequential
// read of the same bytes (sum of every byte of the mapped file, and a memcpy of it) measured in
// the same run. The npm package "isoxml" decodes the same directory as a black-box peer
// (bench/timelog/run_isoxml_peer.sh); its records per second are compared with ours.
//
//   bench_timelog [--records N] [--reps N] [--dir DIR] [--generate DIR] [--no-peer]
//     --generate DIR  only write the data set into DIR
//     --dir DIR       decode an existing data set instead of a fresh one
// KTD_BENCH_NO_PEER=1 also leaves the peer out. Single-threaded.
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>
#include <taskdata/elements/enhanced/Log_helper.h>

#include "bench_util.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QtEndian>

#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

using TC::Task_data::XML_interface;
using TC::Task_data::Elements::Base::Element_man;
using TC::Task_data::Elements::Base::Task_data;
using TC::Task_data::Elements::Base::Time_log;
using TC::Task_data::Elements::Enhanced::Log_helper;
using namespace Ktd_bench;

namespace {

const int num_dlvs = 12;
const char* const ddis[num_dlvs] = {"0001", "0006", "0043", "0074", "0075", "0076",
                                    "0077", "0078", "008D", "0094", "00A1", "0117"};

bool write_text(const QString& path, const QByteArray& text)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(text) == text.size();
}

// The data set: TASKDATA.XML (a device with two elements, a task with the time log),
// TLG00001.XML and TLG00001.BIN.
bool generate(const QString& dir, unsigned records, qint64* binary_size)
{
    QDir().mkpath(dir);
    const QByteArray main =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<ISO11783_TaskData VersionMajor=\"4\" VersionMinor=\"3\" ManagementSoftwareManufacturer=\"Korvanel\" "
        "ManagementSoftwareVersion=\"1.0\" TaskControllerManufacturer=\"Korvanel\" TaskControllerVersion=\"1.0\" "
        "DataTransferOrigin=\"2\">\n"
        "<DVC A=\"DVC1\" B=\"Sprayer\" C=\"1.0\" D=\"A00086000C0C0000\" E=\"123\" F=\"FFFFFFFFFFFFFF\" "
        "G=\"FF000000006E65\">\n"
        "<DET A=\"DET1\" B=\"1\" C=\"1\" D=\"Sprayer\" E=\"0\" F=\"0\"/>\n"
        "<DET A=\"DET2\" B=\"2\" C=\"2\" D=\"Boom\" E=\"1\" F=\"1\"/>\n"
        "</DVC>\n"
        "<TSK A=\"TSK1\" B=\"Bench\" G=\"4\"><TLG A=\"TLG00001\" C=\"1\"/></TSK>\n"
        "</ISO11783_TaskData>\n";
    QByteArray header = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TIM A=\"\" D=\"4\">\n"
                        "<PTN A=\"\" B=\"\" C=\"\" D=\"\" E=\"\" F=\"\" G=\"\"/>\n";
    for (int i = 0; i < num_dlvs; ++i)
        header += QByteArray("<DLV A=\"") + ddis[i] + "\" B=\"\" C=\"DET" + (i < 4 ? "1" : "2") + "\"/>\n";
    header += "</TIM>\n";
    if (!write_text(dir + QStringLiteral("/TASKDATA.XML"), main) ||
        !write_text(dir + QStringLiteral("/TLG00001.XML"), header))
        return false;

    QFile f(dir + QStringLiteral("/TLG00001.BIN"));
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    std::vector<uchar> buf;
    buf.reserve(1 << 20);
    auto put = [&](const void* p, size_t n) {
        const uchar* b = static_cast<const uchar*>(p);
        buf.insert(buf.end(), b, b + n);
    };
    auto i32 = [&](qint32 v) {
        uchar x[4];
        qToLittleEndian(v, x);
        put(x, 4);
    };
    auto u16 = [&](quint16 v) {
        uchar x[2];
        qToLittleEndian(v, x);
        put(x, 2);
    };
    auto u8 = [&](quint8 v) { put(&v, 1); };
    qint64 total = 0;
    const qint64 start_ms = 8 * 3600000;
    for (unsigned i = 0; i < records; ++i) {
        // One record every 200 ms from 08:00: the log runs over two midnights.
        const qint64 t = start_ms + qint64(i) * 200;
        i32(qint32(t % 86400000));
        u16(quint16(15000 + t / 86400000));
        i32(qint32(520000000 + (i % 5000) * 13));  // north
        i32(qint32(100000000 + (i / 5000) * 17));  // east
        i32(qint32(120000 + int(i % 300)));         // up, mm
        u8(quint8(i % 7 == 0 ? 2 : 1));             // status
        u16(quint16(8 + i % 5));                    // PDOP
        u16(quint16(6 + i % 4));                    // HDOP
        u8(quint8(9 + i % 6));                      // satellites
        const int n = int((i * 5 + i / 7) % 8);
        u8(quint8(n));
        const int first = int(i % unsigned(num_dlvs - n + 1));
        for (int k = 0; k < n; ++k) {
            u8(quint8(first + k));
            i32(qint32(i * 31u + unsigned(k) * 1000u));
        }
        if (buf.size() > (1u << 20) - 128) {
            if (f.write(reinterpret_cast<const char*>(buf.data()), qint64(buf.size())) != qint64(buf.size()))
                return false;
            total += qint64(buf.size());
            buf.clear();
        }
    }
    if (f.write(reinterpret_cast<const char*>(buf.data()), qint64(buf.size())) != qint64(buf.size()))
        return false;
    total += qint64(buf.size());
    *binary_size = total;
    return true;
}

// The library prints notes on standard output while loading; the report there must stay
// clean Markdown, so they go to standard error while this lives.
struct Stdout_to_stderr
{
    int saved;
    Stdout_to_stderr()
    {
        std::fflush(stdout);
        saved = ::dup(STDOUT_FILENO);
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
    }
    ~Stdout_to_stderr()
    {
        std::fflush(stdout);
        if (saved >= 0) {
            ::dup2(saved, STDOUT_FILENO);
            ::close(saved);
        }
    }
};

struct Loaded
{
    QSharedPointer<Element_man> man;
    QSharedPointer<Time_log> tlg;
};

Loaded load(const QString& dir)
{
    Loaded l;
    l.man = Element_man::create();
    l.man->set_task_data_dir(dir);
    XML_interface xi(dir);
    if (!xi.load(l.man))
        return l;
    auto root = l.man->root().dynamicCast<Task_data>();
    if (root && root->tasks.count() > 0 && root->tasks.typed_at(0)->time_logs.count() > 0)
        l.tlg = root->tasks.typed_at(0)->time_logs.typed_at(0);
    return l;
}

// Every field and value of every record, folded so that nothing can be skipped.
quint64 decode_all(Log_helper& h, unsigned* records)
{
    const unsigned n = h.get_num_records();
    Log_helper::Record r;
    quint64 sum = 0;
    double fsum = 0;
    for (unsigned i = 0; i < n; ++i) {
        if (!h.get_record(r, i))
            break;
        sum += r.time + r.day + r.status + r.satellites;
        fsum += r.north + r.east + r.up + double(r.pdop) + double(r.hdop);
        for (int d = 0; d < r.dlv_count(); ++d)
            sum += quint64(r.dlv_value_at(d)) * (r.dlv_number_at(d) + 1u);
        ++*records;
    }
    keep(fsum);
    return sum;
}

quint64 sum_bytes(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return 0;
    const qint64 size = f.size();
    const uchar* p = f.map(0, size);
    if (!p)
        return 0;
    quint64 s = 0;
    for (qint64 i = 0; i < size; ++i)
        s += p[i];
    return s;
}

qint64 copy_bytes(const QString& path, std::vector<char>& into)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return 0;
    const qint64 size = f.size();
    const uchar* p = f.map(0, size);
    if (!p)
        return 0;
    into.resize(size_t(size));
    std::memcpy(into.data(), p, size_t(size));
    keep(into[size_t(size) / 2]);
    return size;
}

// key=value words of the peer's "isoxml-timelog:" lines.
QHash<QString, QString> run_peer(const QString& dir)
{
    QHash<QString, QString> kv;
    const QString script = QStringLiteral(KTD_BENCH_SOURCE_DIR "/timelog/run_isoxml_peer.sh");
    QProcess p;
    p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p.start(QStringLiteral("bash"), {script, dir});
    if (!p.waitForFinished(-1) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0) {
        kv.insert(QStringLiteral("error"), QString::number(p.exitCode()));
        return kv;
    }
    for (const QByteArray& line : p.readAllStandardOutput().split('\n')) {
        if (!line.startsWith("isoxml-timelog:"))
            continue;
        for (const QByteArray& w : line.mid(15).trimmed().split(' ')) {
            const int eq = w.indexOf('=');
            if (eq > 0)
                kv.insert(QString::fromUtf8(w.left(eq)), QString::fromUtf8(w.mid(eq + 1)));
        }
    }
    return kv;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    unsigned records = 1000000;
    int reps = 5;
    QString dir_arg, generate_dir;
    bool peer = qEnvironmentVariable("KTD_BENCH_NO_PEER") != QLatin1String("1");
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        const QString& a = args[i];
        const bool has_value = i + 1 < args.size();
        if (a == QLatin1String("--records") && has_value)
            records = args[++i].toUInt();
        else if (a == QLatin1String("--reps") && has_value)
            reps = qMax(1, args[++i].toInt());
        else if (a == QLatin1String("--dir") && has_value)
            dir_arg = args[++i];
        else if (a == QLatin1String("--generate") && has_value)
            generate_dir = args[++i];
        else if (a == QLatin1String("--no-peer"))
            peer = false;
        else {
            std::fprintf(stderr, "usage: bench_timelog [--records N] [--reps N] [--dir DIR] [--generate DIR] [--no-peer]\n");
            return 2;
        }
    }

    qint64 binary_size = 0;
    if (!generate_dir.isEmpty()) {
        if (!generate(generate_dir, records, &binary_size)) {
            std::fprintf(stderr, "cannot write the data set into %s\n", qPrintable(generate_dir));
            return 1;
        }
        std::printf("wrote %u records (%lld bytes) into %s\n", records, static_cast<long long>(binary_size),
                    qPrintable(generate_dir));
        return 0;
    }
    QTemporaryDir tmp;
    QString dir = dir_arg;
    if (dir.isEmpty()) {
        dir = tmp.path() + QStringLiteral("/TASKDATA");
        if (!tmp.isValid() || !generate(dir, records, &binary_size)) {
            std::fprintf(stderr, "cannot write the data set\n");
            return 1;
        }
    }
    const QString bin_path = dir + QStringLiteral("/TLG00001.BIN");
    binary_size = QFileInfo(bin_path).size();

    QVector<double> t_sum, t_copy, t_load, t_init, t_decode;
    unsigned decoded = 0;
    std::vector<char> copy;
    for (int rep = 0; rep < reps; ++rep) {
        double t0 = now_s();
        keep(sum_bytes(bin_path));
        t_sum.append(now_s() - t0);

        t0 = now_s();
        keep(copy_bytes(bin_path, copy));
        t_copy.append(now_s() - t0);

        Loaded l;
        Log_helper h;
        {
            Stdout_to_stderr quiet;
            t0 = now_s();
            l = load(dir);
            t_load.append(now_s() - t0);
            if (!l.tlg) {
                std::fprintf(stderr, "cannot load %s\n", qPrintable(dir));
                return 1;
            }
            t0 = now_s();
            if (!h.init(l.tlg))
                return 1;
            t_init.append(now_s() - t0);
        }

        t0 = now_s();
        decoded = 0;
        keep(decode_all(h, &decoded));
        t_decode.append(now_s() - t0);
        if (decoded != h.get_num_records() || h.trailing_bytes() != 0) {
            std::fprintf(stderr, "decoded %u of %u records\n", decoded, h.get_num_records());
            return 1;
        }
    }
    copy.clear();
    copy.shrink_to_fit();

    const double sum = min_of(t_sum), cp = min_of(t_copy), ld = min_of(t_load), in = min_of(t_init),
                 dec = min_of(t_decode);
    const double mb = double(binary_size) / 1e6;
    std::printf("Time log of %u records, %.1f MB (%.1f bytes per record); best of %d runs.\n\n", decoded, mb,
                double(binary_size) / qMax(1u, decoded), reps);
    Table t({"measure", "time (ms)", "MB/s", "records/s", "time / plain read"});
    auto row = [&](const char* name, double s) {
        t.add({name, fmt("%.1f", s * 1e3), fmt("%.0f", mb / s), fmt("%.3g", decoded / s), fmt("%.2f", s / sum)});
    };
    row("plain read: sum of every byte (baseline)", sum);
    row("plain read: memcpy of the mapped file", cp);
    row("decode: every record, every value", dec);
    // Reads a few kilobytes whatever the log's size: a rate would mean nothing.
    t.add({"load TASKDATA.XML + init (header, map)", fmt("%.1f", (ld + in) * 1e3), "-", "-",
           fmt("%.2f", (ld + in) / sum)});
    row("load + init + decode", ld + in + dec);
    t.print();

    if (!peer) {
        std::printf("\nisoxml peer left out.\n");
        return 0;
    }
    std::fflush(stdout);
    const QHash<QString, QString> kv = run_peer(dir);
    if (kv.contains(QStringLiteral("error")) || !kv.contains(QStringLiteral("decode_s"))) {
        std::printf("\nisoxml peer unavailable (exit %s); its rows are left out.\n",
                    qPrintable(kv.value(QStringLiteral("error"), QStringLiteral("?"))));
        return 0;
    }
    const double p_records = kv.value(QStringLiteral("records")).toDouble();
    const double p_decode = kv.value(QStringLiteral("decode_s")).toDouble();
    const double p_total = kv.value(QStringLiteral("total_s")).toDouble();
    std::printf("\nisoxml %s (node %s) on the same directory, best of %s runs:\n\n",
                qPrintable(kv.value(QStringLiteral("version"))), qPrintable(kv.value(QStringLiteral("node"))),
                qPrintable(kv.value(QStringLiteral("reps"))));
    Table c({"measure", "isoxml records/s", "ours records/s", "ours / isoxml"});
    if (p_records != decoded)
        std::printf("note: isoxml decoded %.0f records, we decoded %u\n", p_records, decoded);
    c.add({"decode (binary to records)", fmt("%.3g", p_records / p_decode), fmt("%.3g", decoded / dec),
           fmt("%.1fx", (decoded / dec) / (p_records / p_decode))});
    c.add({"load + decode (whole directory)", fmt("%.3g", p_records / p_total), fmt("%.3g", decoded / (ld + in + dec)),
           fmt("%.1fx", (decoded / (ld + in + dec)) / (p_records / p_total))});
    c.print();
    const double ratio = (decoded / dec) / (p_records / p_decode);
    std::printf("\nTarget: decoding at least 20x the records per second of isoxml: %s (%.1fx).\n",
                ratio >= 20 ? "met" : "NOT met", ratio);
    return 0;
}
