// bench_creation: elements created per second by 1, 2 and 8 threads at once.
//
// Each creation makes an element, gives it a new identifier (chosen, checked and entered in the
// manager's registry in one step) and adds it to its list under the lock order. Three shapes:
//   - tasks, every thread adding to the document root's task list (one list, one element lock);
//   - numbered points, each thread adding to a field of its own (only the registry is shared);
//   - the identifiers alone: tasks made beforehand (not timed) numbered by the threads, which is
//     the one-step allocation by itself (number, registry entry, GUID and its index).
// Baseline, measured in the same run with the same threads and the same number of keys: every
// thread inserting its share of keys into one QHash under one QMutex, the least a shared,
// locked registry can cost. The ratio is ours over the baseline, in wall time.
//
// Usage: bench_creation [--elements N] [--reps N]
#include "bench_util.h"

#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QCoreApplication>
#include <QHash>
#include <QMutex>
#include <QThread>

#include <functional>
#include <memory>
#include <vector>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;
using namespace Ktd_bench;

namespace {

// Wall seconds for `threads` threads running body(thread index) at once, started together.
double run_threads(int threads, const std::function<void(int)>& body)
{
    std::vector<std::unique_ptr<QThread>> running;
    QAtomicInt ready = 0;
    QAtomicInt go = 0;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back(QThread::create([&, t] {
            ready.fetchAndAddOrdered(1);
            while (!go.loadAcquire())
                QThread::yieldCurrentThread();
            body(t);
        }));
        running.back()->start();
    }
    while (ready.loadAcquire() < threads)
        QThread::yieldCurrentThread();
    const double start = now_s();
    go.storeRelease(1);
    for (auto& r : running)
        r->wait();
    return now_s() - start;
}

double baseline(int threads, int total)
{
    QHash<int, const void*> registry;
    QMutex mutex;
    const int each = total / threads;
    return run_threads(threads, [&](int t) {
        for (int i = 0; i < each; ++i) {
            QMutexLocker lock(&mutex);
            registry.insert(-(t * each + i) - 1, &registry);
        }
    });
}

double tasks(int threads, int total)
{
    auto man = Element_man::create();
    auto root = XML_interface::create_document(man, 4);
    const int each = total / threads;
    const double s = run_threads(threads, [&](int) {
        for (int i = 0; i < each; ++i) {
            Element_locker_new lock(root, -1);
            keep(root->tasks.create());
        }
    });
    if (root->tasks.count() != each * threads || man->registered_uids("TSK").size() != each * threads)
        std::fprintf(stderr, "bench_creation: tasks went missing\n");
    return s;
}

double points(int threads, int total)
{
    auto man = Element_man::create();
    auto root = XML_interface::create_document(man, 4);
    QVector<QSharedPointer<Partfield>> fields;
    for (int t = 0; t < threads; ++t)
        fields.append(root->partfields.create());
    const int each = total / threads;
    const double s = run_threads(threads, [&](int t) {
        const QSharedPointer<Partfield> field = fields.at(t);
        for (int i = 0; i < each; ++i) {
            Element_locker_new lock(field, -1);
            const QSharedPointer<Elements::Base::Point> p = field->points.create();
            p->id.set_to_default(p, *man);
        }
    });
    if (man->registered_uids("PNT").size() != each * threads)
        std::fprintf(stderr, "bench_creation: points went missing\n");
    return s;
}

double numbers_only(int threads, int total)
{
    auto man = Element_man::create();
    const int each = total / threads;
    QVector<QVector<QSharedPointer<Task>>> made(threads);
    for (auto& list : made)
        for (int i = 0; i < each; ++i)
            list.append(QSharedPointer<Task>::create(man.toWeakRef()));
    const double s = run_threads(threads, [&](int t) {
        for (const auto& task : made.at(t))
            task->id.set_to_default(task, *man);
    });
    if (man->registered_uids("TSK").size() != each * threads)
        std::fprintf(stderr, "bench_creation: numbers went missing\n");
    return s;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int total = 200000;
    int reps = 3;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--elements"))
            total = qMax(8, args[++i].toInt());
        else if (args[i] == QLatin1String("--reps"))
            reps = qMax(1, args[++i].toInt());
    }
    std::printf("Elements created by 1, 2 and 8 threads at once (%d per measure, best of %d, %d cores),\n"
                "against the same threads inserting as many keys into one QHash under one QMutex:\n\n",
                total, reps, QThread::idealThreadCount());
    Table table({"what", "threads", "ours", "elements/s", "QHash + QMutex", "ratio"});
    const struct
    {
        const char* name;
        double (*measure)(int, int);
    } shapes[] = {{"tasks into the root's list", tasks},
                  {"numbered points, a field per thread", points},
                  {"identifiers alone, on made tasks", numbers_only}};
    for (const auto& shape : shapes) {
        for (int threads : {1, 2, 8}) {
            const int n = total / threads * threads;
            QVector<double> ours, bare;
            for (int rep = 0; rep < reps; ++rep) {
                bare.append(baseline(threads, n));
                ours.append(shape.measure(threads, n));
            }
            const double o = min_of(ours), b = min_of(bare);
            table.add({shape.name, QByteArray::number(threads), fmt("%.3f s", o), fmt("%.0f", n / o),
                       fmt("%.4f s", b), fmt("%.1fx", o / b)});
        }
    }
    table.print();
    return 0;
}
