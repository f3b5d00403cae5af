// Event memory: blocks freed on one thread come back to another without ever being handed out
// twice, what a thread holds when it ends is not lost, and a burst's excess goes back to the
// allocator.
#include <taskdata/common/Event_memory.h>

#include <QThread>
#include <QtTest>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace M = TC::Task_data::Event_memory;

namespace {
// A size of its own: nothing else in this process uses blocks of it.
constexpr std::size_t size = 200;
} // namespace

class Tst_event_memory : public QObject
{
    Q_OBJECT
private slots:
    void init()
    {
        if (!M::pooling())
            QSKIP("blocks are not kept under AddressSanitizer");
    }
    void given_on_one_thread_taken_on_another();
    void a_thread_that_ends_gives_back_what_it_held();
    void a_burst_beyond_the_kept_size_goes_back();
};

// A producer takes blocks and stamps each with a serial number, a consumer on another thread
// checks the stamp and gives the block back; at most `in_flight` are out at once. A block handed
// out twice shows as a stamp overwritten in flight; a give lost between threads shows as blocks
// made beyond what was ever out at once.
void Tst_event_memory::given_on_one_thread_taken_on_another()
{
    const int in_flight = 64;
    const qint64 rounds = 200000;
    std::mutex m;
    std::condition_variable cv;
    std::deque<std::pair<void*, qint64>> queue;
    std::atomic<int> overwritten{0};
    const int before = M::blocks(size);
    std::unique_ptr<QThread> consumer(QThread::create([&] {
        for (qint64 n = 0; n < rounds; ++n) {
            std::unique_lock<std::mutex> lock(m);
            cv.wait(lock, [&] { return !queue.empty(); });
            const auto item = queue.front();
            queue.pop_front();
            cv.notify_all();
            lock.unlock();
            qint64 stamp;
            std::memcpy(&stamp, static_cast<char*>(item.first) + 64, sizeof stamp);
            if (stamp != item.second)
                overwritten.fetch_add(1);
            M::give(item.first, size);
        }
    }));
    consumer->start();
    for (qint64 n = 0; n < rounds; ++n) {
        void* block = M::take(size);
        std::memcpy(static_cast<char*>(block) + 64, &n, sizeof n);
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, [&] { return int(queue.size()) < in_flight; });
        queue.emplace_back(block, n);
        cv.notify_all();
    }
    consumer->wait();
    QCOMPARE(overwritten.load(), 0);
    // Out at once: the queue, the one being stamped and the one being checked.
    QVERIFY2(M::blocks(size) - before <= in_flight + 2, qPrintable(QString::number(M::blocks(size) - before)));
}

void Tst_event_memory::a_thread_that_ends_gives_back_what_it_held()
{
    QVector<void*> held;
    for (int i = 0; i < 100; ++i)
        held.append(M::take(size));
    for (void* b : held)
        M::give(b, size);
    const int made = M::blocks(size);
    // The thread's first take moves all hundred kept blocks to its own list; it uses one. Joined,
    // not waited for as a QThread: that wait returns before the thread's own ending has run.
    std::thread([] { M::give(M::take(size), size); }).join();
    held.clear();
    for (int i = 0; i < 100; ++i)
        held.append(M::take(size));
    QCOMPARE(M::blocks(size), made);
    for (void* b : held)
        M::give(b, size);
}

void Tst_event_memory::a_burst_beyond_the_kept_size_goes_back()
{
    const int kept = int(M::kept_bytes_per_size / 208); // blocks are rounded up to 16 bytes
    QVector<void*> burst;
    for (int i = 0; i < kept + 1000; ++i)
        burst.append(M::take(size));
    QVERIFY(M::blocks(size) >= kept + 1000);
    for (void* b : burst)
        M::give(b, size);
    QCOMPARE(M::blocks(size), kept);
}

QTEST_GUILESS_MAIN(Tst_event_memory)
#include "tst_event_memory.moc"
