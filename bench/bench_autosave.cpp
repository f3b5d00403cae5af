// bench_autosave: what autosave costs the thread that changes the tree, and how soon a change is
// on disk.
//
// Builds a document of about 40 MB of XML (fields with boundary points, customers, tasks saved
// individually) in a scratch directory, then:
//   - changes one boundary point through its client handle in batches (200 changes, then a
//     pause of 2 ms, as an editing application would), with autosave off and then on (on its
//     background thread, delay 500 ms, so that the main file is rewritten several times while
//     the changes go on); the figures are the changing thread's wall time per change, median
//     and longest, with the ratio on/off and against the same changes posted to a receiver on
//     another thread that only counts them (what any observer costs);
//   - with delay 0, the time from a change to its bytes being synced on disk (the change, then
//     autosave_sync()), for a task saved in a file of its own and for a point in the main file,
//     against a full save of the directory (XML_interface::save) measured in the same run.
//
// Usage: bench_autosave [--reps N] [--points N] [--dir DIR]
#include "bench_util.h"

#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/client/Elements.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements;
using namespace Ktd_bench;
namespace C = TC::Task_data::Elements::Client;

namespace {

struct Document
{
    C::Element_man eman = C::Element_man::create();
    C::Point point;
    C::Task task;
};

Document build(int points)
{
    Document d;
    C::Task_data root = d.eman.create_client_root();
    for (int i = 0; i < 20; ++i)
        root.create_customer().set_designator(QStringLiteral("Customer %1").arg(i));
    for (int i = 0; i < 50; ++i) {
        d.task = root.create_task();
        d.task.set_designator(QStringLiteral("Task %1").arg(i));
    }
    const int per_ring = 5000;
    for (int made = 0; made < points;) {
        C::Partfield field = root.create_partfield(false);
        field.set_designator(QStringLiteral("Field %1").arg(made / per_ring));
        C::Linestring ring = field.create_polygon(false).create_line_string(false);
        auto base = ring.get_base_elem().staticCast<Base::Linestring>();
        for (int i = 0; i < per_ring && made < points; ++i, ++made) {
            auto p = base->points.create(false);
            p->type.set_val_noevent(2);
            p->north.set_val_noevent(52.0 + i * 1e-5);
            p->east.set_val_noevent(9.0 + i * 1e-5);
            d.point = C::Point(p);
        }
    }
    return d;
}

// Takes events and flushes, and does nothing else.
class Counter : public QObject
{
public:
    bool event(QEvent* e) override
    {
        static const C::Event_types_ids ids;
        if (e->type() == ids.flush)
            static_cast<C::Flush_qt_event*>(e)->payload().handle();
        return true;
    }
};

// What reading the clock twice costs: taken off each timed change.
double clock_ns()
{
    QVector<double> v;
    v.reserve(20000);
    for (int i = 0; i < 20000; ++i) {
        const double t0 = now_s();
        v.append((now_s() - t0) * 1e9);
    }
    return median_of(v);
}

// Changes in batches of 200 with a pause after each batch. Odd batches are timed change by
// change (the median and the longest), even ones as a whole: their mean per change includes
// the rare changes that pay for waking the autosave thread.
struct Run
{
    QVector<double> per_change;
    QVector<double> batch_means;
};

Run change_ns(const C::Point& point, int batches, double clock)
{
    Run run;
    run.per_change.reserve(batches * 100);
    run.batch_means.reserve(batches / 2 + 1);
    int k = 0;
    for (int b = 0; b < batches; ++b) {
        if (b % 2 == 0) {
            const double t0 = now_s();
            for (int i = 0; i < 200; ++i, ++k)
                point.set_north(52.0 + (k & 1) * 1e-6);
            run.batch_means.append((now_s() - t0) * 1e9 / 200);
        } else {
            for (int i = 0; i < 200; ++i, ++k) {
                const double t0 = now_s();
                point.set_north(52.0 + (k & 1) * 1e-6);
                run.per_change.append((now_s() - t0) * 1e9 - clock);
            }
        }
        QThread::msleep(2);
    }
    return run;
}

// Best of the repetitions: the machine only ever adds time.
struct Figures
{
    double median = 1e300;
    double mean = 1e300;
    double longest = 0;
    void add(const Run& run)
    {
        median = qMin(median, median_of(run.per_change));
        mean = qMin(mean, median_of(run.batch_means));
        longest = qMax(longest, *std::max_element(run.per_change.begin(), run.per_change.end()));
    }
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int reps = 3;
    int points = 600000;
    QString where;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args.at(i) == QLatin1String("--reps"))
            reps = qMax(1, args.at(i + 1).toInt());
        else if (args.at(i) == QLatin1String("--points"))
            points = qMax(10, args.at(i + 1).toInt());
        else if (args.at(i) == QLatin1String("--dir"))
            where = args.at(i + 1);
    }
    QTemporaryDir scratch(where.isEmpty() ? QDir::tempPath() + "/bench_autosave-XXXXXX" : where + "/bench_autosave-XXXXXX");
    const QString dir = scratch.path();
    Document d = build(points);

    // A full save first: the baseline, and the directory the autosave keeps current.
    Timing full;
    for (int r = 0; r < reps; ++r) {
        XML_interface xi(dir);
        xi.set_individual_save(QStringLiteral("TSK"), true);
        Stopwatch s(full);
        if (!d.eman.save_xml(xi)) {
            fprintf(stderr, "save failed: %s\n", qPrintable(xi.fail_text()));
            return 1;
        }
    }
    const double main_mb = QFileInfo(QDir(dir).filePath("TASKDATA.XML")).size() / 1e6;

    XML_interface xi(dir);
    xi.set_individual_save(QStringLiteral("TSK"), true);
    xi.set_autosave_trace(false);
    QThread observer;
    observer.start();
    auto counter = new Counter;
    counter->moveToThread(&observer);
    const double clock = clock_ns();
    Figures off, on, observed;
    for (int r = 0; r < reps; ++r) {
        off.add(change_ns(d.point, 1000, clock));
        d.eman.get_client_root().register_for_events(counter);
        observed.add(change_ns(d.point, 1000, clock));
        d.eman.get_client_root().unregister_for_events(counter);
        post_flush_and_wait(counter);
        xi.set_autosave(d.eman, true, 500);
        on.add(change_ns(d.point, 1000, clock));
        xi.set_autosave(C::Element_man(), true, 0); // writes what is queued, then stops
    }

    // Change to synced bytes, delay 0.
    xi.set_autosave(d.eman, true, 0);
    Timing own, main_file;
    for (int r = 0; r < 5 * reps; ++r) {
        {
            Stopwatch s(own);
            d.task.set_designator(QStringLiteral("Renamed %1").arg(r));
            xi.autosave_sync();
        }
        {
            Stopwatch s(main_file);
            d.point.set_east(9.5 + r * 1e-6);
            xi.autosave_sync();
        }
    }
    xi.set_autosave(C::Element_man(), true, 0);
    observer.quit();
    observer.wait();
    delete counter;
    const double full_s = median_of(full.wall);
    const double own_s = median_of(own.wall);
    const double main_s = median_of(main_file.wall);

    printf("Autosave (bench_autosave: %d points, main file %.1f MB, 50 tasks saved individually; each timed change\n"
           "less %.0f ns for reading the clock)\n\n",
           points, main_mb, clock);
    Table t({"measure", "result", "baseline", "ratio"});
    t.add({"per change, autosave off (median)", fmt("%.0f ns", off.median), "", ""});
    t.add({"per change, one receiver that only counts (median)", fmt("%.0f ns", observed.median), "autosave off",
           fmt("%.2fx", observed.median / off.median)});
    t.add({"per change, autosave on (median)", fmt("%.0f ns", on.median), "autosave off",
           fmt("%.2fx", on.median / off.median)});
    t.add({"", "", "one receiver that only counts", fmt("%.2fx", on.median / observed.median)});
    t.add({"per change, autosave off / on (mean)", fmt("%.0f ns", off.mean) + " / " + fmt("%.0f ns", on.mean),
           "autosave off", fmt("%.2fx", on.mean / off.mean)});
    t.add({"longest change, autosave off / on", fmt("%.1f ms", off.longest / 1e6) + " / " + fmt("%.1f ms", on.longest / 1e6),
           "", ""});
    t.add({"change to synced bytes, task in its own file", fmt("%.1f ms", own_s * 1e3), "full save of the directory",
           fmt("%.3fx", own_s / full_s)});
    t.add({"change to synced bytes, point in the main file", fmt("%.1f ms", main_s * 1e3), "full save of the directory",
           fmt("%.2fx", main_s / full_s)});
    t.add({"full save of the directory (XML_interface::save)", fmt("%.1f ms", full_s * 1e3), "", ""});
    t.print();
    return 0;
}
