// bench_files: loading and saving a whole task data directory, against a bare XML scan of the
// same files and against the npm package "isoxml" run as a black-box peer.
//
// On one generated directory of at least 40 MB (from `taskdata generate` when that tool is
// built, otherwise from the generator below, which takes the same options) it measures:
//   - XML_interface::load into a fresh tree, against a bare QXmlStreamReader scan of every XML
//     file of the directory (reading the file and visiting every token and attribute value);
//   - XML_interface::save of that tree into an empty directory;
//   - the peak resident set size of a separate process that loads and saves the directory
//     once (VmHWM, with /usr/bin/time's maximum resident set size beside it), and the time of
//     that process's first load;
//   - the same operations done by isoxml in node (bench/run_isoxml_peer.sh), timing and peak
//     memory measured the same way.
// Times are CPU seconds of the process (wall seconds beside them) because the build machines
// are shared; every figure is printed with its ratio to the baseline of the same run.
//
// Usage:
//   bench_files [--dir DIR] [--work DIR] [--reps N] [--no-peer] [--fields N --points K --tasks T]
//   bench_files generate OUTDIR [--fields N] [--points K] [--tasks T]
//   bench_files child (idle|load|roundtrip) DIR [OUTDIR]      (used by the benchmark itself)
#include "bench_util.h"

#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QXmlStreamReader>

#include <cmath>
#include <cstdio>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;
using namespace Ktd_bench;

namespace {

struct Gen_options
{
    int fields = 200;
    int points = 4000; // boundary points per field
    int tasks = 400;
};

// ---------------------------------------------------------------------------------------------
// Fallback generator: a farm management export with customers, farms, products, a device
// description, workers, field boundaries and tasks with treatment zones and logged times.
// Written as plain text (not through the library) so the benchmark does not measure itself.
class Xml_out
{
public:
    explicit Xml_out(QByteArray& out) : m_out(out) {}
    Xml_out& open(const char* tag, int depth)
    {
        m_out.append(QByteArray(depth * 2, ' '));
        m_out.append('<').append(tag);
        return *this;
    }
    Xml_out& a(const char* name, const QByteArray& value)
    {
        m_out.append(' ').append(name).append("=\"").append(value).append('"');
        return *this;
    }
    Xml_out& a(const char* name, qint64 value) { return a(name, QByteArray::number(value)); }
    Xml_out& f(const char* name, double value)
    {
        char buf[64];
        const int n = std::snprintf(buf, sizeof buf, "%.14f", value);
        return a(name, QByteArray(buf, n));
    }
    void end_empty() { m_out.append("/>\n"); }
    void end_open() { m_out.append(">\n"); }
    void close(const char* tag, int depth)
    {
        m_out.append(QByteArray(depth * 2, ' ')).append("</").append(tag).append(">\n");
    }

private:
    QByteArray& m_out;
};

QByteArray id(const char* prefix, int n)
{
    return QByteArray(prefix) + QByteArray::number(n);
}

bool generate(const QString& outdir, const Gen_options& o)
{
    QDir().mkpath(outdir);
    QByteArray doc;
    doc.reserve(qint64(o.fields) * o.points * 72 + qint64(o.tasks) * 3000 + (1 << 20));
    doc.append("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    Xml_out x(doc);
    x.open("ISO11783_TaskData", 0)
        .a("VersionMajor", 4)
        .a("VersionMinor", 2)
        .a("ManagementSoftwareManufacturer", "Korvanel bench")
        .a("ManagementSoftwareVersion", "1.0")
        .a("DataTransferOrigin", 1)
        .end_open();
    const int customers = qMax(1, o.fields / 10);
    for (int c = 1; c <= customers; ++c)
        x.open("CTR", 1)
            .a("A", id("CTR", c))
            .a("B", "Customer " + QByteArray::number(c))
            .a("D", "Feldweg " + QByteArray::number(c))
            .a("F", QByteArray::number(48000 + c))
            .a("G", "Neuenkirchen")
            .a("I", "DE")
            .end_empty();
    for (int c = 1; c <= customers; ++c)
        x.open("FRM", 1).a("A", id("FRM", c)).a("B", "Farm " + QByteArray::number(c)).a("I", id("CTR", c)).end_empty();
    const int products = 20;
    for (int p = 1; p <= products; ++p)
        x.open("PDT", 1).a("A", id("PDT", p)).a("B", "Product " + QByteArray::number(p)).a("F", 1).end_empty();
    x.open("WKR", 1).a("A", "WKR1").a("B", "Driver").a("C", "Anna").end_empty();
    x.open("DVC", 1)
        .a("A", "DVC1")
        .a("B", "Sprayer 24m")
        .a("C", "3.2.1")
        .a("D", "A00086000D300841")
        .a("E", "SN12345")
        .a("F", "DF0A1B2C3D4E5F")
        .a("G", "FF000000006564")
        .end_open();
    const int sections = 12;
    x.open("DET", 2).a("A", "DET1").a("B", 1).a("C", 1).a("D", "Sprayer").a("E", 0).a("F", 0).end_open();
    x.open("DOR", 3).a("A", 100).end_empty();
    x.close("DET", 2);
    for (int s = 1; s <= sections; ++s) {
        x.open("DET", 2)
            .a("A", id("DET", s + 1))
            .a("B", s + 1)
            .a("C", 4)
            .a("D", "Section " + QByteArray::number(s))
            .a("E", s)
            .a("F", 1)
            .end_open();
        x.open("DOR", 3).a("A", 200 + s).end_empty();
        x.close("DET", 2);
    }
    x.open("DPD", 2).a("A", 100).a("B", "0001").a("C", 1).a("D", 8).a("E", "Setpoint rate").a("F", 300).end_empty();
    for (int s = 1; s <= sections; ++s) {
        x.open("DPD", 2).a("A", 200 + s).a("B", "00A1").a("C", 1).a("D", 8).a("E", "Actual condensed state").end_empty();
        x.open("DPT", 2).a("A", 400 + s).a("B", "0086").a("C", -1000 + 150 * s).a("D", "Offset X").a("E", 300).end_empty();
    }
    x.open("DVP", 2).a("A", 300).a("B", 0).f("C", 0.01).a("D", 2).a("E", "l/ha").end_empty();
    x.close("DVC", 1);

    quint64 seed = 0x9E3779B97F4A7C15ull;
    auto jitter = [&seed] {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return double(seed >> 11) / double(1ull << 53) - 0.5;
    };
    for (int f = 1; f <= o.fields; ++f) {
        const int c = (f - 1) % customers + 1;
        x.open("PFD", 1)
            .a("A", id("PFD", f))
            .a("C", "Field " + QByteArray::number(f))
            .a("D", 50000 + 37 * f)
            .a("E", id("CTR", c))
            .a("F", id("FRM", c))
            .end_open();
        x.open("PLN", 2).a("A", 1).a("C", 50000 + 37 * f).end_open();
        x.open("LSG", 3).a("A", 1).end_open();
        const double lat0 = 48.0 + 0.01 * (f % 100), lon0 = 15.0 + 0.015 * (f / 100);
        for (int i = 0; i < o.points; ++i) {
            const double a = 2 * M_PI * i / o.points;
            x.open("PNT", 4)
                .a("A", 2)
                .f("C", lat0 + 0.003 * std::sin(a) + 1e-7 * jitter())
                .f("D", lon0 + 0.0045 * std::cos(a) + 1e-7 * jitter())
                .end_empty();
        }
        x.close("LSG", 3);
        x.close("PLN", 2);
        x.close("PFD", 1);
    }
    for (int t = 1; t <= o.tasks; ++t) {
        const int f = (t - 1) % qMax(1, o.fields) + 1;
        const int c = (f - 1) % customers + 1;
        x.open("TSK", 1)
            .a("A", id("TSK", t))
            .a("B", "Spraying " + QByteArray::number(t))
            .a("C", id("CTR", c))
            .a("D", id("FRM", c))
            .a("E", id("PFD", f))
            .a("F", "WKR1")
            .a("G", 4)
            .a("H", 1)
            .end_open();
        x.open("TZN", 2).a("A", 1).a("B", "Default").end_open();
        x.open("PDV", 3).a("A", "0001").a("B", 200000 + t).a("C", id("PDT", (t - 1) % products + 1)).end_empty();
        x.close("TZN", 2);
        for (int k = 0; k < 4; ++k) {
            const QByteArray day = QByteArray::number(10 + k);
            x.open("TIM", 2)
                .a("A", "2024-05-" + day + "T08:00:00")
                .a("B", "2024-05-" + day + "T10:30:00")
                .a("D", 4)
                .end_open();
            x.open("DLV", 3).a("A", "0074").a("B", 12345 + t).a("C", "DET1").end_empty();
            for (int s = 1; s <= sections; ++s)
                x.open("DLV", 3).a("A", "00A1").a("B", s % 2).a("C", id("DET", s + 1)).end_empty();
            x.close("TIM", 2);
        }
        x.open("WAN", 2).a("A", "WKR1").end_empty();
        x.open("DAN", 2).a("A", "A00086000D300841").a("C", "DVC1").end_empty();
        x.close("TSK", 1);
    }
    x.close("ISO11783_TaskData", 0);

    QFile file(QDir(outdir).filePath(QStringLiteral("TASKDATA.XML")));
    if (!file.open(QIODevice::WriteOnly) || file.write(doc) != doc.size()) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(file.fileName()));
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------

QStringList xml_files(const QString& dir)
{
    QStringList out;
    for (const QFileInfo& fi : QDir(dir).entryInfoList(QDir::Files, QDir::Name))
        if (fi.suffix().compare(QLatin1String("xml"), Qt::CaseInsensitive) == 0)
            out.append(fi.absoluteFilePath());
    return out;
}

qint64 dir_bytes(const QString& dir, int* files = nullptr)
{
    qint64 n = 0;
    int count = 0;
    QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        n += it.fileInfo().size();
        ++count;
    }
    if (files)
        *files = count;
    return n;
}

// The floor: read each XML file and visit every token, element name, attribute name and value.
qint64 scan_bare(const QStringList& files, qint64* elements)
{
    qint64 chars = 0, n = 0;
    for (const QString& path : files) {
        QFile f(path);
        if (!f.open(QIODevice::ReadOnly))
            continue;
        const QByteArray data = f.readAll();
        QXmlStreamReader r(data);
        while (!r.atEnd()) {
            const auto t = r.readNext();
            if (t == QXmlStreamReader::StartElement) {
                ++n;
                chars += r.name().size();
                const QXmlStreamAttributes attrs = r.attributes();
                for (const QXmlStreamAttribute& a : attrs) {
                    const QStringRef v = a.value();
                    chars += a.name().size() + v.size();
                    if (!v.isEmpty())
                        chars += v.at(v.size() - 1).unicode();
                }
            } else if (t == QXmlStreamReader::Characters) {
                chars += r.text().size();
            }
        }
    }
    *elements = n;
    return chars;
}

qint64 tree_size(const Element* e)
{
    if (!e)
        return 0;
    qint64 n = 1;
    Element* m = const_cast<Element*>(e);
    for (unsigned l = 0; l < m->_num_element_lists(); ++l)
        for (const auto& c : m->_element_list(l)->elements())
            n += tree_size(c.data());
    return n;
}

bool load_dir(const QString& dir, QSharedPointer<Element_man>& man)
{
    man = Element_man::create();
    XML_interface xi(dir);
    if (!xi.load(man)) {
        std::printf("load failed: %s\n", qPrintable(xi.fail_text()));
        return false;
    }
    return true;
}

bool save_dir(const QString& outdir, const QSharedPointer<Element_man>& man)
{
    QDir(outdir).removeRecursively();
    QDir().mkpath(outdir);
    XML_interface xi(outdir);
    if (!xi.save(man)) {
        std::printf("save failed: %s\n", qPrintable(xi.fail_text()));
        return false;
    }
    return true;
}

// One operation in a fresh process so that its peak RSS is its own.
int run_child(const QStringList& args)
{
    const QString mode = args.value(0);
    const QString dir = args.value(1);
    QSharedPointer<Element_man> man;
    if (mode == QLatin1String("idle")) {
        // Library loaded, nothing read: the floor of the process.
        keep(Catalogue::kinds().size());
    } else {
        // The first load of a process also pays for fresh pages and cold caches.
        const double w0 = now_s(), c0 = cpu_s();
        if (!load_dir(dir, man))
            return 1;
        std::printf("first_load_cpu_s=%.3f first_load_s=%.3f peak_load_kb=%lld\n", cpu_s() - c0, now_s() - w0,
                    (long long)peak_rss_kb());
        if (mode == QLatin1String("roundtrip") && !save_dir(args.value(2), man))
            return 1;
    }
    std::printf("peak_kb=%lld\n", (long long)peak_rss_kb());
    return 0;
}

QHash<QString, QString> key_values(const QByteArray& text)
{
    QHash<QString, QString> out;
    for (const QByteArray& line : text.split('\n'))
        for (const QByteArray& word : line.simplified().split(' ')) {
            const int eq = word.indexOf('=');
            if (eq > 0)
                out.insert(QString::fromLatin1(word.left(eq)), QString::fromLatin1(word.mid(eq + 1)));
        }
    return out;
}

// Runs this executable as a child; under /usr/bin/time when present, whose "maximum resident
// set size" is reported next to the child's own figure as a cross-check.
QHash<QString, QString> run_self(const QStringList& args)
{
    QProcess p; // stdout and stderr apart: /usr/bin/time writes its figure to stderr
    const QString time_tool = QStringLiteral("/usr/bin/time");
    const QStringList child = QStringList{QStringLiteral("child")} + args;
    if (QFileInfo(time_tool).isExecutable())
        p.start(time_tool, QStringList{QStringLiteral("-f"), QStringLiteral("time_maxrss_kb=%M")} +
                               QStringList{QCoreApplication::applicationFilePath()} + child);
    else
        p.start(QCoreApplication::applicationFilePath(), child);
    p.waitForFinished(-1);
    const QByteArray out = p.readAllStandardOutput() + "\n" + p.readAllStandardError();
    if (p.exitCode() != 0)
        std::printf("child %s failed:\n%s\n", qPrintable(args.join(' ')), out.constData());
    return key_values(out);
}

QByteArray num(double v, int decimals)
{
    return QByteArray::number(v, 'f', decimals);
}

QByteArray mb(double bytes)
{
    return num(bytes / 1e6, 1) + " MB";
}

QByteArray verdict(bool met)
{
    return met ? "met" : "MISSED";
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    if (args.value(0) == QLatin1String("child"))
        return run_child(args.mid(1));

    Gen_options gen;
    QString dir, work;
    int reps = 3;
    bool peer = true;
    bool generate_only = false;
    QString generate_dir;
    if (args.value(0) == QLatin1String("generate")) {
        generate_only = true;
        generate_dir = args.value(1);
        args = args.mid(2);
    }
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args[i];
        const QString next = args.value(i + 1);
        if (a == QLatin1String("--dir"))
            dir = next, ++i;
        else if (a == QLatin1String("--work"))
            work = next, ++i;
        else if (a == QLatin1String("--reps"))
            reps = qMax(1, next.toInt()), ++i;
        else if (a == QLatin1String("--fields"))
            gen.fields = next.toInt(), ++i;
        else if (a == QLatin1String("--points"))
            gen.points = next.toInt(), ++i;
        else if (a == QLatin1String("--tasks"))
            gen.tasks = next.toInt(), ++i;
        else if (a == QLatin1String("--no-peer"))
            peer = false;
    }
    if (generate_only) {
        if (generate_dir.isEmpty()) {
            std::fprintf(stderr, "usage: bench_files generate OUTDIR [--fields N] [--points K] [--tasks T]\n");
            return 2;
        }
        return generate(generate_dir, gen) ? 0 : 1;
    }

    QTemporaryDir tmp;
    if (work.isEmpty())
        work = tmp.path();
    QDir().mkpath(work);
    if (dir.isEmpty()) {
        dir = QDir(work).filePath(QStringLiteral("generated"));
        QDir(dir).removeRecursively();
        const QString tool = QStringLiteral(KTD_BENCH_BINARY_DIR "/tools/taskdata/taskdata");
        bool made = false;
        if (QFileInfo(tool).isExecutable()) {
            const QStringList targs{QStringLiteral("generate"), dir, QStringLiteral("--fields"),
                                    QString::number(gen.fields), QStringLiteral("--points"),
                                    QString::number(gen.points), QStringLiteral("--tasks"),
                                    QString::number(gen.tasks)};
            QProcess p;
            p.start(tool, targs);
            p.waitForFinished(-1);
            made = p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0 && !xml_files(dir).isEmpty();
            std::printf("generator: taskdata generate --fields %d --points %d --tasks %d%s\n", gen.fields, gen.points,
                        gen.tasks, made ? "" : " failed, using the benchmark's own generator");
        }
        if (!made) {
            if (!generate(dir, gen))
                return 1;
            std::printf("generator: bench_files generate --fields %d --points %d --tasks %d\n", gen.fields,
                        gen.points, gen.tasks);
        }
    }
    int file_count = 0;
    const qint64 bytes = dir_bytes(dir, &file_count);
    const QStringList xmls = xml_files(dir);
    std::printf("directory: %d files, %s (%d XML files)\n", file_count, mb(double(bytes)).constData(),
                xmls.size());
    if (bytes < 40 * 1000 * 1000)
        std::printf("note: the directory is smaller than 40 MB; raise --fields or --points\n");

    // --- in-process timings, interleaved so that every side sees the same machine state ---
    const QString out_ours = QDir(work).filePath(QStringLiteral("out_ours"));
    Timing t_scan, t_load, t_save, t_free;
    qint64 scanned = 0, loaded = 0;
    for (int rep = 0; rep < reps; ++rep) {
        {
            Stopwatch sw(t_scan);
            keep(scan_bare(xmls, &scanned));
        }
        QSharedPointer<Element_man> man;
        {
            Stopwatch sw(t_load);
            if (!load_dir(dir, man))
                return 1;
        }
        loaded = tree_size(man->root().data());
        {
            Stopwatch sw(t_save);
            if (!save_dir(out_ours, man))
                return 1;
        }
        Stopwatch sw(t_free);
        man.reset();
    }
    std::printf("elements: %lld start tags in the XML files, %lld elements in the loaded tree\n", (long long)scanned,
                (long long)loaded);
    std::printf("saved: %s\n", mb(double(dir_bytes(out_ours))).constData());

    // --- peak memory, each in a process of its own ---
    const QHash<QString, QString> idle = run_self({QStringLiteral("idle"), dir});
    const QHash<QString, QString> ours_peak = run_self({QStringLiteral("roundtrip"), dir, out_ours});

    // --- the peer ---
    QHash<QString, QString> iso;
    if (peer) {
        const QString script = QStringLiteral(KTD_BENCH_SOURCE_DIR "/run_isoxml_peer.sh");
        QProcess p;
        p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        p.start(QStringLiteral("bash"), {script, dir, QDir(work).filePath(QStringLiteral("out_isoxml")),
                                         QString::number(reps)});
        p.waitForFinished(-1);
        const QByteArray out = p.readAllStandardOutput();
        std::printf("%s", out.constData());
        if (p.exitCode() == 0)
            iso = key_values(out);
        else
            std::printf("isoxml peer unavailable (exit %d); its rows are left out\n", p.exitCode());
    }

    // Ratios use CPU time: on a shared machine the wall time also counts waiting for a core.
    const double scan = min_of(t_scan.cpu), load = min_of(t_load.cpu), save = min_of(t_save.cpu);
    const double load_wall = min_of(t_load.wall), save_wall = min_of(t_save.wall);
    std::printf("\nBest of %d runs: CPU seconds of the process [wall seconds]; ratios on CPU time (on wall time\n"
                "in brackets). Peak RSS: VmHWM of a process that loads and saves the directory once\n"
                "(/usr/bin/time's maximum resident set size in brackets).\n\n",
                reps);
    auto secs = [](const Timing& t) { return num(min_of(t.cpu), 3) + " [" + num(min_of(t.wall), 3) + "]"; };
    auto kb = [](const QHash<QString, QString>& h, const char* key) {
        return h.value(QString::fromLatin1(key)).toDouble() * 1024;
    };
    auto peak_text = [&](const QHash<QString, QString>& h) {
        QByteArray s = mb(kb(h, "peak_kb"));
        if (h.contains(QStringLiteral("time_maxrss_kb")))
            s += " [" + mb(kb(h, "time_maxrss_kb")) + "]";
        return s;
    };
    Table t({"measure", "CPU s [wall s] / MB", "ratio", "target"});
    t.add({"bare QXmlStreamReader scan", secs(t_scan), "1.00", ""});
    t.add({"our load (XML_interface::load)", secs(t_load),
           num(load / scan, 3) + " [" + num(load_wall / min_of(t_scan.wall), 2) + "] x scan",
           "<= 1.5 " + verdict(load / scan <= 1.5)});
    const double first_load = ours_peak.value(QStringLiteral("first_load_cpu_s")).toDouble();
    t.add({"our load, first in a fresh process",
           num(first_load, 3) + " [" + ours_peak.value(QStringLiteral("first_load_s")).toLatin1() + "]",
           num(first_load / scan, 2) + " x scan", ""});
    t.add({"our save (XML_interface::save)", secs(t_save), "", ""});
    t.add({"our tree freed", secs(t_free), "", ""});
    const double our_peak = kb(ours_peak, "peak_kb");
    t.add({"our peak RSS, load + save", peak_text(ours_peak), "", ""});
    t.add({"our peak RSS, load only", mb(kb(ours_peak, "peak_load_kb")), "", ""});
    t.add({"our process with nothing loaded", peak_text(idle), "", ""});
    bool ok_targets = load / scan <= 1.5;
    QByteArray summary = QByteArray("SUMMARY bench_files load_vs_scan=") + num(load / scan, 2);
    if (!iso.isEmpty()) {
        const double iload = iso.value(QStringLiteral("load_cpu_s")).toDouble();
        const double isave = iso.value(QStringLiteral("save_cpu_s")).toDouble();
        const double iload_wall = iso.value(QStringLiteral("load_s")).toDouble();
        const double isave_wall = iso.value(QStringLiteral("save_s")).toDouble();
        const double ipeak = kb(iso, "peak_kb");
        const QByteArray runs = " (best of " + iso.value(QStringLiteral("load_runs")).toLatin1() + ")";
        const QByteArray save_runs = " (best of " + iso.value(QStringLiteral("save_runs")).toLatin1() + ")";
        t.add({"isoxml load (parseISOXMLFile)" + runs, num(iload, 3) + " [" + num(iload_wall, 3) + "]",
               num(iload / load, 1) + " [" + num(iload_wall / load_wall, 1) + "] x ours",
               ">= 10 " + verdict(iload / load >= 10)});
        const double ifirst = iso.value(QStringLiteral("first_load_cpu_s")).toDouble();
        t.add({"isoxml load, first in a fresh process",
               num(ifirst, 3) + " [" + iso.value(QStringLiteral("first_load_s")).toLatin1() + "]",
               num(ifirst / first_load, 1) + " x our first", ""});
        t.add({"isoxml save (saveISOXML + write)" + save_runs, num(isave, 3) + " [" + num(isave_wall, 3) + "]",
               num(isave / save, 1) + " [" + num(isave_wall / save_wall, 1) + "] x ours",
               ">= 10 " + verdict(isave / save >= 10)});
        t.add({"isoxml peak RSS, load + save", peak_text(iso), num(our_peak / ipeak, 2) + " ours / isoxml",
               "< 0.33 " + verdict(our_peak / ipeak < 1.0 / 3)});
        t.add({"isoxml peak RSS, load only", mb(kb(iso, "peak_load_kb")), "", ""});
        t.add({"node process with isoxml, nothing loaded", mb(kb(iso, "idle_kb")), "", ""});
        ok_targets = ok_targets && iload / load >= 10 && isave / save >= 10 && our_peak / ipeak < 1.0 / 3;
        summary += " isoxml_load_vs_ours=" + num(iload / load, 1) + " isoxml_save_vs_ours=" + num(isave / save, 1) +
                   " peak_ours_vs_isoxml=" + num(our_peak / ipeak, 2);
    }
    t.print();
    std::printf("\n%s\n", summary.constData());
    std::printf("all targets %s\n", ok_targets ? "met" : "NOT met (see MISSED)");
    return 0;
}
