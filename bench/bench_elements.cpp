// bench_elements: bytes per element and elements per second of the element readers and writers.
//
// Builds in memory a TASKDATA.XML with one partfield whose polygons hold line strings with
// 1,000,000 points in total (type, north, east with 14 decimals, as terminals write them),
// then measures, each against a baseline measured in the same run:
//   - reading it through the element readers into a tree, against a bare QXmlStreamReader
//     scan of the same bytes that visits every token and every attribute value;
//   - the heap and RSS the tree costs, per element and per point, with the sizes of the
//     Point class and of its attribute members;
//   - writing the tree back, against a bare QXmlStreamWriter loop that writes the same bytes
//     from plain arrays (numbers formatted the same way).
// The input document is itself the output of the bare writer, so the tree's output must be
// byte-identical to it; the benchmark says so and fails (exit 1) when it is not.
//
// Usage: bench_elements [--points N] [--reps N] [--only scan|load|bare-write|save]
// --only runs just that step (reps times) and prints nothing else: for perf and callgrind.
#include "bench_util.h"

#include <taskdata/common/Fast_xml_reader.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <cmath>
#include <cstdio>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;
using namespace Ktd_bench;

namespace {

constexpr int rings_per_polygon = 4; // one outer ring and three holes, as fields with obstacles have

struct Geometry
{
    int polygons = 0;
    int points_per_ring = 0;
    QVector<double> north;
    QVector<double> east;
};

Geometry make_geometry(int total_points)
{
    Geometry g;
    g.points_per_ring = 1000;
    g.polygons = qMax(1, total_points / (rings_per_polygon * g.points_per_ring));
    const int n = g.polygons * rings_per_polygon * g.points_per_ring;
    g.north.resize(n);
    g.east.resize(n);
    // A fixed pseudo-random jitter makes every coordinate use all 14 decimals.
    quint64 seed = 0x9E3779B97F4A7C15ull;
    auto jitter = [&seed] {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return double(seed >> 11) / double(1ull << 53) - 0.5;
    };
    int k = 0;
    for (int p = 0; p < g.polygons; ++p) {
        const double lat0 = 48.1 + 0.004 * (p % 50);
        const double lon0 = 15.1 + 0.006 * (p / 50);
        for (int r = 0; r < rings_per_polygon; ++r) {
            const double radius = r == 0 ? 0.0015 : 0.0002;
            const double clat = lat0 + (r == 0 ? 0 : 0.0006 * (r - 2));
            for (int i = 0; i < g.points_per_ring; ++i, ++k) {
                const double a = 2 * M_PI * i / g.points_per_ring;
                g.north[k] = clat + radius * std::sin(a) + 1e-7 * jitter();
                g.east[k] = lon0 + 1.5 * radius * std::cos(a) + 1e-7 * jitter();
            }
        }
    }
    return g;
}

QString coordinate_text(double v)
{
    char buf[64];
    const int n = std::snprintf(buf, sizeof buf, "%.14f", v);
    return QString::fromLatin1(buf, n);
}

// The baseline writer: the same document from plain arrays, straight into QXmlStreamWriter.
QByteArray write_bare(const Geometry& g)
{
    QByteArray out;
    out.reserve(g.north.size() * 72);
    QBuffer buf(&out);
    buf.open(QIODevice::WriteOnly);
    QXmlStreamWriter w(&buf);
    w.setAutoFormatting(true);
    w.writeStartDocument();
    w.writeStartElement(QStringLiteral("ISO11783_TaskData"));
    w.writeAttribute(QStringLiteral("VersionMajor"), QStringLiteral("4"));
    w.writeAttribute(QStringLiteral("VersionMinor"), QStringLiteral("2"));
    w.writeAttribute(QStringLiteral("ManagementSoftwareManufacturer"), QStringLiteral("Korvanel"));
    w.writeAttribute(QStringLiteral("ManagementSoftwareVersion"), QStringLiteral("1.0"));
    w.writeAttribute(QStringLiteral("DataTransferOrigin"), QStringLiteral("1"));
    w.writeStartElement(QStringLiteral("PFD"));
    w.writeAttribute(QStringLiteral("A"), QStringLiteral("PFD1"));
    w.writeAttribute(QStringLiteral("C"), QStringLiteral("Lagerfeld Nord"));
    w.writeAttribute(QStringLiteral("D"), QStringLiteral("6410400"));
    int k = 0;
    for (int p = 0; p < g.polygons; ++p) {
        w.writeStartElement(QStringLiteral("PLN"));
        w.writeAttribute(QStringLiteral("A"), QStringLiteral("1"));
        for (int r = 0; r < rings_per_polygon; ++r) {
            w.writeStartElement(QStringLiteral("LSG"));
            w.writeAttribute(QStringLiteral("A"), r == 0 ? QStringLiteral("1") : QStringLiteral("2"));
            for (int i = 0; i < g.points_per_ring; ++i, ++k) {
                w.writeStartElement(QStringLiteral("PNT"));
                w.writeAttribute(QStringLiteral("A"), QStringLiteral("2"));
                w.writeAttribute(QStringLiteral("C"), coordinate_text(g.north[k]));
                w.writeAttribute(QStringLiteral("D"), coordinate_text(g.east[k]));
                w.writeEndElement();
            }
            w.writeEndElement();
        }
        w.writeEndElement();
    }
    w.writeEndElement();
    w.writeEndElement();
    w.writeEndDocument();
    return out;
}

// The baseline reader: every token, every element name, every attribute name and value.
qint64 scan_bare(const QByteArray& doc, qint64* elements)
{
    QXmlStreamReader r(doc);
    qint64 chars = 0;
    qint64 n = 0;
    while (!r.atEnd()) {
        switch (r.readNext()) {
        case QXmlStreamReader::StartElement: {
            ++n;
            chars += r.name().size();
            const QXmlStreamAttributes attrs = r.attributes();
            for (const QXmlStreamAttribute& a : attrs) {
                const QStringRef v = a.value();
                chars += a.name().size() + v.size();
                if (!v.isEmpty())
                    chars += v.at(v.size() - 1).unicode();
            }
            break;
        }
        case QXmlStreamReader::Characters:
            chars += r.text().size();
            break;
        default:
            break;
        }
    }
    if (r.hasError())
        std::printf("bare scan error: %s\n", qPrintable(r.errorString()));
    *elements = n;
    return chars;
}

struct Tree
{
    QSharedPointer<Element_man> man;
    QSharedPointer<Task_data> root;
};

bool load_tree(const QByteArray& doc, Tree& t)
{
    t.man = Element_man::create();
    t.root = QSharedPointer<Task_data>::create(t.man);
    t.man->set_root(t.root);
    XML_interface xi;
    QXmlStreamReader r(doc);
    while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
    }
    QSharedPointer<Element> self = t.root;
    const bool ok = t.root->load_xml(self, r, xi) && xi.ok();
    if (!ok)
        std::printf("element readers failed: %s\n", qPrintable(xi.fail_text()));
    return ok;
}

// The same through the library's own UTF-8 reader (what XML_interface::load uses for files it
// has checked whole).
bool load_tree_fast(const QByteArray& doc, Tree& t)
{
    t.man = Element_man::create();
    t.root = QSharedPointer<Task_data>::create(t.man);
    t.man->set_root(t.root);
    XML_interface xi;
    Fast_xml_reader r(doc);
    if (!r.prescan())
        return false;
    while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
    }
    QSharedPointer<Element> self = t.root;
    const bool ok = t.root->load_xml_from(self, r, xi, xml_part_all) && xi.ok();
    if (!ok)
        std::printf("element readers (fast reader) failed: %s\n", qPrintable(xi.fail_text()));
    return ok;
}

QByteArray save_tree(const Tree& t)
{
    QByteArray out;
    out.reserve(64 << 20);
    QBuffer buf(&out);
    buf.open(QIODevice::WriteOnly);
    QXmlStreamWriter w(&buf);
    w.setAutoFormatting(true);
    w.writeStartDocument();
    XML_interface xi;
    QSharedPointer<Element> self = t.root;
    if (!t.root->save_xml(self, w, xi))
        std::printf("element writers failed: %s\n", qPrintable(xi.fail_text()));
    w.writeEndDocument();
    return out;
}

qint64 tree_size(Element* e)
{
    qint64 n = 1;
    for (unsigned l = 0; l < e->_num_element_lists(); ++l)
        for (const auto& c : e->_element_list(l)->elements())
            n += tree_size(c.data());
    return n;
}

QByteArray num(double v, int decimals = 0)
{
    return QByteArray::number(v, 'f', decimals);
}

QByteArray grouped(qint64 v)
{
    QByteArray s = QByteArray::number(v);
    for (int i = s.size() - 3; i > (v < 0 ? 1 : 0); i -= 3)
        s.insert(i, ',');
    return s;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int points = 1000000;
    int reps = 3;
    QString only;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--points"))
            points = args[++i].toInt();
        else if (args[i] == QLatin1String("--reps"))
            reps = qMax(1, args[++i].toInt());
        else if (args[i] == QLatin1String("--only"))
            only = args[++i];
    }

    const Geometry g = make_geometry(points);
    const QByteArray doc = write_bare(g);
    if (!only.isEmpty()) {
        Tree t;
        if (only == QLatin1String("save") && !load_tree(doc, t))
            return 1;
        for (int rep = 0; rep < reps; ++rep) {
            qint64 n = 0;
            if (only == QLatin1String("scan"))
                keep(scan_bare(doc, &n));
            else if (only == QLatin1String("load"))
                keep(load_tree(doc, t));
            else if (only == QLatin1String("bare-write"))
                keep(write_bare(g));
            else if (only == QLatin1String("save"))
                keep(save_tree(t));
            else
                return 2;
        }
        return 0;
    }
    const qint64 pnt_count = g.north.size();
    std::printf("bench_elements: TASKDATA.XML in memory, 1 PFD, %d PLN, %d LSG, %s PNT, %s bytes\n", g.polygons,
                g.polygons * rings_per_polygon, grouped(pnt_count).constData(), grouped(doc.size()).constData());

    // --- reading: interleaved with the bare scan so that both see the same machine state ---
    Timing t_scan, t_load, t_fast, t_free;
    qint64 scanned_elements = 0;
    qint64 heap_tree = 0, rss_tree = 0, tree_elements = 0;
    Tree kept;
    for (int rep = 0; rep < reps; ++rep) {
        {
            Stopwatch sw(t_scan);
            keep(scan_bare(doc, &scanned_elements));
        }
        const qint64 heap0 = heap_in_use();
        const qint64 rss0 = rss_bytes();
        Tree t;
        {
            Stopwatch sw(t_load);
            if (!load_tree(doc, t))
                return 1;
        }
        const qint64 heap1 = heap_in_use();
        const qint64 rss1 = rss_bytes();
        {
            Tree f;
            Stopwatch sw(t_fast);
            if (!load_tree_fast(doc, f))
                return 1;
        }
        if (rep == 0) {
            // The first tree is measured on a heap that has never held one, so RSS growth is real.
            heap_tree = heap1 - heap0;
            rss_tree = rss1 - rss0;
            tree_elements = tree_size(t.root.data());
        }
        if (rep + 1 == reps) {
            kept = t;
        } else {
            Stopwatch sw(t_free);
            t = Tree();
        }
    }
    if (tree_elements != scanned_elements) {
        std::printf("element count differs: tree %lld, document %lld\n", (long long)tree_elements,
                    (long long)scanned_elements);
        return 1;
    }

    // --- writing ---
    Timing t_bare_write, t_save;
    QByteArray ours;
    for (int rep = 0; rep < reps; ++rep) {
        {
            Stopwatch sw(t_bare_write);
            keep(write_bare(g));
        }
        Stopwatch sw(t_save);
        ours = save_tree(kept);
    }
    const bool identical = ours == doc;

    const double n = double(tree_elements);
    // Ratios use CPU time: on a shared machine the wall time also counts waiting for a core.
    const double scan = min_of(t_scan.cpu), load = min_of(t_load.cpu);
    const double bw = min_of(t_bare_write.cpu), save = min_of(t_save.cpu);
    std::printf("\nBest of %d interleaved runs; CPU seconds of the process (wall seconds in brackets);\n"
                "ratio = ours / baseline, on CPU time.\n\n",
                reps);
    auto secs = [](const Timing& t) { return num(min_of(t.cpu), 3) + " [" + num(min_of(t.wall), 3) + "]"; };
    Table speed({"step", "CPU s [wall s]", "elements/s", "ratio"});
    speed.add({"bare QXmlStreamReader scan (baseline)", secs(t_scan), grouped(qint64(n / scan)), "1.00"});
    speed.add({"element readers -> tree", secs(t_load), grouped(qint64(n / load)), num(load / scan, 2)});
    speed.add({"element readers -> tree, own UTF-8 reader (check + read)", secs(t_fast),
               grouped(qint64(n / min_of(t_fast.cpu))), num(min_of(t_fast.cpu) / scan, 2)});
    speed.add({"bare QXmlStreamWriter loop (baseline)", secs(t_bare_write), grouped(qint64(n / bw)), "1.00"});
    speed.add({"tree -> element writers", secs(t_save), grouped(qint64(n / save)), num(save / bw, 2)});
    if (!t_free.cpu.isEmpty())
        speed.add({"freeing the tree (for information)", secs(t_free), grouped(qint64(n / min_of(t_free.cpu))),
                   ""});
    speed.print();

    std::printf("\n");
    Table mem({"memory", "value"});
    mem.add({"elements in the tree", grouped(tree_elements)});
    mem.add({"heap of the tree (mallinfo2), bytes", grouped(heap_tree)});
    mem.add({"heap per element, bytes", num(heap_tree / n, 1)});
    mem.add({"heap per PNT (tree total / PNT count), bytes", num(double(heap_tree) / pnt_count, 1)});
    mem.add({"RSS growth of the tree (/proc/self/statm), bytes", grouped(rss_tree)});
    mem.add({"RSS per element, bytes", num(rss_tree / n, 1)});
    mem.add({"XML text per element, bytes", num(doc.size() / n, 1)});
    mem.add({"sizeof(Elements::Base::Point)", QByteArray::number(int(sizeof(Elements::Base::Point)))});
    mem.add({"  of which sizeof(Element) (base part)", QByteArray::number(int(sizeof(Element)))});
    const QByteArray pre = "  sizeof(Point::";
#define KTD_SIZE_ROW(m) mem.add({pre + #m ")", QByteArray::number(int(sizeof(Elements::Base::Point::m)))});
    KTD_SIZE_ROW(type)
    KTD_SIZE_ROW(designator)
    KTD_SIZE_ROW(north)
    KTD_SIZE_ROW(east)
    KTD_SIZE_ROW(up)
    KTD_SIZE_ROW(colour)
    KTD_SIZE_ROW(id)
    KTD_SIZE_ROW(horizontal_accuracy)
    KTD_SIZE_ROW(vertical_accuracy)
    KTD_SIZE_ROW(filename)
    KTD_SIZE_ROW(filelength)
    KTD_SIZE_ROW(icon_id)
#undef KTD_SIZE_ROW
    mem.add({"slot in the parent list (QSharedPointer)", QByteArray::number(int(sizeof(QSharedPointer<Element>)))});
    mem.print();

    std::printf("\nround trip: tree output %s the input document (%s bytes written)\n",
                identical ? "is byte-identical to" : "DIFFERS from", grouped(ours.size()).constData());
    if (!identical) {
        int i = 0;
        while (i < ours.size() && i < doc.size() && ours[i] == doc[i])
            ++i;
        std::printf("first difference at byte %d:\n  input:  %s\n  output: %s\n", i,
                    doc.mid(qMax(0, i - 60), 140).constData(), ours.mid(qMax(0, i - 60), 140).constData());
    }
    std::printf("\nSUMMARY bench_elements load_vs_scan=%.2f save_vs_bare=%.2f heap_per_element=%.1f "
                "heap_per_pnt=%.1f sizeof_point=%d identical=%d\n",
                load / scan, save / bw, heap_tree / n, double(heap_tree) / pnt_count, int(sizeof(Elements::Base::Point)),
                identical ? 1 : 0);
    return identical ? 0 : 1;
}
