// bench_events: what a change costs the changing thread, and what a client handle read costs.
//
// Builds a tree of 100,000 elements (fields, polygons, rings, points) and changes one point's
// attribute deep in it (four levels below the root) again and again, with 0, 1 and 10 receivers
// registered on the root and living on a second thread that consumes the events meanwhile.
// Each figure is the changing thread's own CPU time per change (median over batches), next to
// a baseline measured in the same run:
//   - 0 receivers: the same change made without notification (set_val_noevent), so the ratio
//     is the price of the counter, the stamps and the look for receivers up the tree;
//   - 1 and 10 receivers: a bare loop storing the value and posting as many plain QEvents to
//     the same receivers, the least any cross-thread notification can cost;
// then the posted events per second, and a read of one attribute through a client handle
// against the same read from the base element under its lock (the way any other thread must
// read it) and without the lock.
//
// Usage: bench_events [--reps N] [--elements N]
#include "bench_util.h"

#include <taskdata/elements/client/Elements.h>

#include <QCoreApplication>
#include <QSemaphore>
#include <QThread>

#include <atomic>
#include <ctime>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements;
using namespace Ktd_bench;
namespace C = TC::Task_data::Elements::Client;

namespace {

double thread_cpu_s()
{
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Counts what arrives; handles flushes so the benchmark can wait for the queue to drain.
class Counter : public QObject
{
public:
    std::atomic<qint64> events{0};
    bool event(QEvent* e) override
    {
        static const C::Event_types_ids ids;
        if (e->type() == ids.flush)
            static_cast<C::Flush_qt_event*>(e)->payload().handle();
        else if (e->type() >= QEvent::User) // not Qt's own (the move to the thread)
            events.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
};

struct Tree
{
    C::Element_man eman = C::Element_man::create();
    C::Task_data root = eman.create_client_root();
    C::Point leaf;
    int elements = 1;
};

Tree build(int wanted)
{
    Tree t;
    const int points_per_ring = 1000;
    while (t.elements < wanted) {
        C::Partfield field = t.root.create_partfield(false);
        ++t.elements;
        for (int p = 0; p < 10 && t.elements < wanted; ++p) {
            C::Linestring ring = field.create_polygon(false).create_line_string(false);
            t.elements += 2;
            auto base = ring.get_base_elem().staticCast<Base::Linestring>();
            for (int i = 0; i < points_per_ring && t.elements < wanted; ++i, ++t.elements) {
                auto point = base->points.create(false);
                point->north.set_val_noevent(52.0 + i * 1e-5);
                t.leaf = C::Point(point);
            }
        }
    }
    return t;
}

// Median per item over batches of `n` calls of step(i), in the changing thread's CPU time.
template <class F>
double per_item_ns(int batches, int n, F&& step, const std::function<void()>& between = {})
{
    QVector<double> per;
    int k = 0;
    for (int b = 0; b < batches; ++b) {
        const double t0 = thread_cpu_s();
        for (int i = 0; i < n; ++i)
            step(k++);
        per.append((thread_cpu_s() - t0) / n * 1e9);
        if (between)
            between();
    }
    return median_of(per);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int reps = 3;
    int wanted = 100000;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args.at(i) == QLatin1String("--reps"))
            reps = qMax(1, args.at(i + 1).toInt());
        else if (args.at(i) == QLatin1String("--elements"))
            wanted = qMax(10, args.at(i + 1).toInt());
    }
    // Short batches, drained between them: a receiver that keeps up holds a few hundred events
    // at most, and so does the allocator.
    const int batches = 150 * reps;
    const int per_batch = 200;

    Tree t = build(wanted);
    const auto leaf = t.leaf.get_base_elem().staticCast<Base::Point>();
    const auto root = t.root.get_base_elem();
    int depth = 0;
    for (Base::Element* e = leaf.data(); e->parent_element(); e = e->parent_element())
        ++depth;

    QThread consumer_thread;
    consumer_thread.start();
    QVector<Counter*> counters;
    for (int i = 0; i < 10; ++i) {
        counters.append(new Counter);
        counters.last()->moveToThread(&consumer_thread);
    }
    auto drain = [&] {
        for (Counter* c : counters)
            post_flush_and_wait(c);
    };
    const QEvent::Type bare_type = QEvent::Type(QEvent::registerEventType());

    // One change: lock the leaf, set its attribute, unlock (the value alternates so that every
    // call changes something).
    auto change = [&](int k) {
        Base::Element_locker_new lock(leaf, -1);
        leaf->north.set_val(leaf, 52.0 + (k & 1) * 1e-6);
    };
    auto change_quiet = [&](int k) {
        Base::Element_locker_new lock(leaf, -1);
        leaf->north.set_val_noevent(52.0 + (k & 1) * 1e-6);
    };

    Table changes({"receivers on the root", "ns per change (median)", "baseline ns", "ratio",
                   "baseline"});
    double events_per_s[2] = {0, 0};
    for (int receivers : {0, 1, 10}) {
        for (int i = 0; i < receivers; ++i)
            root->register_for_events(root, counters.at(i));
        const double ns = per_item_ns(batches, per_batch, change, drain);
        double base_ns;
        QByteArray base_name;
        if (receivers == 0) {
            base_ns = per_item_ns(batches, per_batch, change_quiet);
            base_name = "the same change without notification";
        } else {
            base_ns = per_item_ns(
                batches, per_batch,
                [&](int k) {
                    Base::Element_locker_new lock(leaf, -1);
                    leaf->north.set_val_noevent(52.0 + (k & 1) * 1e-6);
                    for (int i = 0; i < receivers; ++i)
                        QCoreApplication::postEvent(counters.at(i), new QEvent(bare_type));
                },
                drain);
            base_name = receivers == 1 ? "store and one bare postEvent" : "store and 10 bare postEvents";
            events_per_s[receivers == 1 ? 0 : 1] = receivers * 1e9 / ns;
        }
        changes.add({QByteArray::number(receivers), fmt("%.0f", ns), fmt("%.0f", base_ns),
                     fmt("%.2fx", ns / base_ns), base_name});
        for (int i = 0; i < receivers; ++i)
            root->unregister_for_events(counters.at(i));
    }
    drain();
    const qint64 expected = qint64(batches) * per_batch * 22; // changes and bare posts, 1 + 10 receivers
    qint64 got = 0;
    for (Counter* c : counters)
        got += c->events.load();

    // Reads: through a client handle, from the base element under its lock, and bare.
    double sink = 0;
    const double handle_ns = per_item_ns(batches, per_batch * 10, [&](int) { sink += t.leaf.north(); });
    const double locked_ns = per_item_ns(batches, per_batch * 10, [&](int) {
        Base::Element_locker_new lock(leaf, -1);
        sink += static_cast<Base::Point*>(lock.get())->north.get_val();
    });
    const double bare_ns = per_item_ns(batches, per_batch * 10, [&](int) {
        sink += leaf->north.get_val();
        keep(sink);
    });
    keep(sink);

    std::printf("Tree of %d elements; the changed point is %d levels below the root. Changing thread's\n"
                "CPU time, median over %d batches of %d changes; receivers consume on a second thread.\n\n",
                t.elements, depth, batches, per_batch);
    changes.print();
    std::printf("\n");
    Table rates({"measure", "result"});
    rates.add({"events posted per second, 1 receiver", fmt("%.3g", events_per_s[0])});
    rates.add({"events posted per second, 10 receivers", fmt("%.3g", events_per_s[1])});
    rates.add({"events received / posted", QByteArray::number(got) + " / " + QByteArray::number(expected)});
    rates.add({"attribute read through a client handle", fmt("%.1f ns", handle_ns)});
    rates.add({"same read from the base element under its lock", fmt("%.1f ns", locked_ns) + " (handle " +
                                                                     fmt("%.2fx", handle_ns / locked_ns) + ")"});
    rates.add({"same read from the base element without the lock", fmt("%.1f ns", bare_ns) + " (handle " +
                                                                      fmt("%.1fx", handle_ns / bare_ns) + ")"});
    rates.print();

    for (Counter* c : counters)
        c->deleteLater();
    consumer_thread.quit();
    consumer_thread.wait();
    return got == expected ? 0 : 1;
}
