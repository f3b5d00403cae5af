// Geometry benchmark, each figure against a baseline measured in the same run:
// - Polygon::contains on a field of 10,000 outer vertices with 10 holes, against a bare loop of
//   QPolygonF::containsPoint over the outer ring alone for the same query points;
// - loading a binary point file of 1,000,000 points (every field, 26 bytes a record) through
//   Point_list::load_bin, against a plain read of the same bytes (read whole and summed).
// Usage: bench_geometry [--reps N] (KTD_BENCH_REPS is the default of N). Single-threaded.
#include "bench_util.h"

#include <taskdata/common/Point_list.h>
#include <taskdata/common/Polygon.h>
#include <taskdata/common/XML_interface.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <cmath>
#include <random>

using namespace Ktd_bench;
using namespace TC::Task_data;

namespace {

QPolygonF ring(double cx, double cy, double r, int n, std::mt19937& rng)
{
    std::uniform_real_distribution<double> wobble(0.97, 1.03);
    QPolygonF p;
    p.reserve(n + 1);
    for (int i = 0; i < n; ++i) {
        const double t = 2 * M_PI * i / n;
        const double rr = r * wobble(rng);
        p.append(QPointF(cx + rr * std::cos(t), cy + rr * std::sin(t)));
    }
    p.append(p.first());
    return p;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int reps = qMax(1, qEnvironmentVariableIntValue("KTD_BENCH_REPS"));
    if (!qEnvironmentVariableIsSet("KTD_BENCH_REPS"))
        reps = 3;
    for (int i = 1; i + 1 < argc; ++i)
        if (QByteArray(argv[i]) == "--reps")
            reps = qMax(1, atoi(argv[i + 1]));

    // --- contains ---
    std::mt19937 rng(14);
    Polygon field(QPointF(15.15, 48.13));
    field.set_outer(ring(0, 0, 500, 10000, rng));
    for (int h = 0; h < 10; ++h) {
        const double a = 2 * M_PI * h / 10;
        field.add_hole(ring(250 * std::cos(a), 250 * std::sin(a), 40, 50, rng));
    }
    const int queries = 20000;
    QVector<QPointF> probes;
    std::uniform_real_distribution<double> coord(-550, 550);
    for (int i = 0; i < queries; ++i)
        probes.append(QPointF(coord(rng), coord(rng)));
    Timing ours, bare;
    long inside_ours = 0, inside_bare = 0;
    for (int r = 0; r < reps; ++r) {
        {
            Stopwatch s(bare);
            inside_bare = 0;
            for (const QPointF& p : probes)
                inside_bare += field.outer().containsPoint(p, Qt::OddEvenFill);
        }
        {
            Stopwatch s(ours);
            inside_ours = 0;
            for (const QPointF& p : probes)
                inside_ours += field.contains(p, false);
        }
    }
    keep(inside_ours + inside_bare);

    // --- binary point file ---
    const int points = 1000000;
    QTemporaryDir dir;
    Point_list made;
    made.set_binary(true, Point_list::all_fields);
    made.set_file(QStringLiteral("PNT00001"), dir.path());
    made.reserve(points);
    std::uniform_real_distribution<double> deg(-0.01, 0.01);
    for (int i = 0; i < points; ++i) {
        made.append_point(48.13 + deg(rng), 15.15 + deg(rng));
        made.set_horizontal_accuracy(unsigned(i), 0.02);
    }
    const QByteArray bytes = made.bin_records();
    {
        QFile f(dir.filePath(QStringLiteral("PNT00001.BIN")));
        if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
            return 1;
    }
    Timing load, plain;
    unsigned loaded = 0;
    for (int r = 0; r < reps; ++r) {
        {
            QByteArray all;
            Stopwatch s(plain);
            QFile f(dir.filePath(QStringLiteral("PNT00001.BIN")));
            if (!f.open(QIODevice::ReadOnly))
                return 1;
            all = f.readAll();
            quint64 sum = 0;
            for (char c : all)
                sum += uchar(c);
            keep(sum);
        }
        Point_list l; // released after the measure: loading is what is timed
        l.set_binary(true, Point_list::all_fields);
        l.set_file(QStringLiteral("PNT00001"), dir.path());
        {
            Stopwatch s(load);
            l.load_bin();
            loaded = l.get_num_points();
            keep(l.get_north(loaded - 1));
        }
    }
    if (loaded != unsigned(points))
        return 1;

    const double t_ours = min_of(ours.cpu), t_bare = min_of(bare.cpu);
    const double t_load = min_of(load.cpu), t_plain = min_of(plain.cpu);
    printf("| measure | result |\n| --- | --- |\n");
    printf("| `Polygon::contains`, 10,000 vertices and 10 holes of 50 | %.0f queries/s (%d of %d inside) |\n",
           queries / t_ours, int(inside_ours), queries);
    printf("| vs bare `QPolygonF::containsPoint` on the outer ring | %.0f queries/s: ours takes %.2fx its time |\n",
           queries / t_bare, t_ours / t_bare);
    printf("| binary point file, %d points of 26 bytes (%.1f MB) | %.1f ms, %.3g points/s |\n", points,
           bytes.size() / 1e6, t_load * 1e3, points / t_load);
    printf("| vs a plain read of the same bytes (read whole, summed) | %.1f ms: loading takes %.2fx its time |\n",
           t_plain * 1e3, t_load / t_plain);
    return 0;
}
