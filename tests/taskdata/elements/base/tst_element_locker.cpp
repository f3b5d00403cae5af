// The element data lock: held across threads, timed out softly, keeping the element alive,
// recursive on one thread, never waited for against the lock order, and covering what it guards
// (read-modify-write cycles, links completed when their target registers, erase under a writer).
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QElapsedTimer>
#include <QSemaphore>
#include <QThread>
#include <QtTest>

#include <functional>
#include <memory>

using namespace TC::Task_data::Elements::Base;

namespace {
// Runs `body` on a thread of its own; joined (and checked to have finished) by finish().
struct Runner
{
    std::unique_ptr<QThread> thread;
    explicit Runner(std::function<void()> body) : thread(QThread::create(std::move(body))) { thread->start(); }
    bool finish(int ms = 10000) { return thread->wait(ms); }
};
} // namespace

class Tst_element_locker : public QObject
{
    Q_OBJECT
private slots:
    void timeout_fails_softly_data();
    void timeout_fails_softly();
    void keeps_element_alive();
    void nested_locking_data();
    void nested_locking();
    void read_modify_write_serialises();
    void pending_link_waits_for_its_owner();
    void erase_under_a_descending_writer();
};

void Tst_element_locker::timeout_fails_softly_data()
{
    QTest::addColumn<int>("timeout");
    QTest::addColumn<bool>("release_first");
    QTest::addColumn<bool>("expect_lock");
    QTest::newRow("held elsewhere, short wait") << 20 << false << false;
    QTest::newRow("held elsewhere, zero wait") << 0 << false << false;
    QTest::newRow("released before wait ends") << 5000 << true << true;
    QTest::newRow("released, unlimited wait") << -1 << true << true;
    QTest::newRow("null element") << -1 << true << false;
}

void Tst_element_locker::timeout_fails_softly()
{
    QFETCH(int, timeout);
    QFETCH(bool, release_first);
    QFETCH(bool, expect_lock);
    auto man = Element_man::create();
    QSharedPointer<Element> task = QSharedPointer<Task>::create(man);
    const bool null_element = QTest::currentDataTag() == QByteArray("null element");
    QSemaphore held, release, done;
    Runner holder([&] {
        Element_locker_new lock(task, -1);
        held.release();
        release.acquire();
    });
    held.acquire();
    bool got = false;
    bool access_null = false;
    Runner waiter([&] {
        Element_locker_new lock(null_element ? QSharedPointer<Element>() : task, timeout);
        got = lock.locked();
        access_null = lock.get() == nullptr && !lock;
        done.release();
    });
    if (release_first)
        release.release();
    done.acquire();
    if (!release_first)
        release.release();
    QVERIFY(holder.finish());
    QVERIFY(waiter.finish());
    QCOMPARE(got, expect_lock);
    QCOMPARE(access_null, !expect_lock);
}

void Tst_element_locker::keeps_element_alive()
{
    auto man = Element_man::create();
    QSharedPointer<Element> task = QSharedPointer<Task>::create(man);
    QWeakPointer<Element> weak = task;
    {
        Element_locker_new lock(task, 100);
        task.reset();
        QVERIFY(!weak.isNull());
        QCOMPARE(lock->get_tag(), QString("TSK"));
    }
    QVERIFY(weak.isNull());
}

// This thread takes `first`, then `second`, while another thread holds `busy` for 300 ms (or
// nothing is busy). A second lock in the order (re-entry, a descendant) is waited for; one
// against it (an ancestor, or an element outside the held one) is only tried, so it fails at
// once instead of waiting for a thread that may be waiting for this one. Afterwards `first` is
// still this thread's.
void Tst_element_locker::nested_locking_data()
{
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("second");
    QTest::addColumn<QString>("busy");
    QTest::addColumn<bool>("expect_second");
    QTest::newRow("same element twice") << "field" << "field" << "" << true;
    QTest::newRow("child under its parent, waited for") << "field" << "point" << "point" << true;
    QTest::newRow("parent under its child, free") << "point" << "field" << "" << true;
    QTest::newRow("parent under its child, busy") << "point" << "field" << "field" << false;
    QTest::newRow("unrelated element, busy") << "point" << "task" << "task" << false;
}

void Tst_element_locker::nested_locking()
{
    QFETCH(QString, first);
    QFETCH(QString, second);
    QFETCH(QString, busy);
    QFETCH(bool, expect_second);
    auto man = Element_man::create();
    auto root = QSharedPointer<Task_data>::create(man);
    man->set_root(root);
    auto field = root->partfields.create();
    auto point = field->points.create();
    const QHash<QString, QSharedPointer<Element>> named{{"field", field}, {"point", point}, {"task", root->tasks.create()}};

    Element_locker_new outer(named.value(first), -1);
    QVERIFY(outer);
    QSemaphore held;
    std::unique_ptr<Runner> other;
    if (!busy.isEmpty()) {
        other.reset(new Runner([&] {
            Element_locker_new lock(named.value(busy), -1);
            held.release();
            QThread::msleep(300);
        }));
        held.acquire();
    }
    QElapsedTimer clock;
    clock.start();
    bool got = false;
    {
        Element_locker_new inner(named.value(second), -1);
        got = inner.locked();
    }
    const qint64 waited = clock.elapsed();
    QCOMPARE(got, expect_second);
    if (!expect_second)
        QVERIFY2(waited < 250, "a lock against the order was waited for");
    bool elsewhere = true;
    Runner probe([&] { elsewhere = Element_locker_new(named.value(first), 0).locked(); });
    QVERIFY(probe.finish());
    QVERIFY2(!elsewhere, "letting go of the inner lock let go of the outer one");
    if (other)
        QVERIFY(other->finish());
}

void Tst_element_locker::read_modify_write_serialises()
{
    // Each writer reads a counter, yields, and writes it back plus one: without the lock the
    // writers overwrite each other's increments and the total comes out short.
    auto man = Element_man::create();
    auto field = QSharedPointer<Partfield>::create(man);
    constexpr int writers = 4;
    const int rounds = Ktd_test::sanitized ? 300 : 2000;
    std::vector<std::unique_ptr<Runner>> threads;
    for (int w = 0; w < writers; ++w)
        threads.emplace_back(new Runner([&] {
            for (int i = 0; i < rounds; ++i) {
                Element_locker_new lock(field, -1);
                const quint32 seen = field->area.get_val();
                QThread::yieldCurrentThread();
                field->area.set_val(field, seen + 1);
            }
        }));
    for (auto& t : threads)
        QVERIFY(t->finish(60000));
    QCOMPARE(field->area.get_val(), quint32(writers * rounds));
}

void Tst_element_locker::pending_link_waits_for_its_owner()
{
    // A task waits for field 5. While another thread holds the task, the field gets number 5:
    // the task must not change under that thread's feet; the link completes once it lets go.
    auto man = Element_man::create();
    auto root = QSharedPointer<Task_data>::create(man);
    man->set_root(root);
    auto task = root->tasks.create();
    auto field = root->partfields.create();
    QVERIFY(!task->partfield.set_val(task, 5));
    QCOMPARE(man->pending_link_count(), 1);

    QSemaphore held, numbered, release;
    QSharedPointer<Element> seen_while_held = field; // anything but null
    bool renumbered = false;
    Runner holder([&] {
        Element_locker_new lock(task, -1);
        held.release();
        numbered.acquire();
        seen_while_held = task->partfield.target();
        release.acquire();
    });
    held.acquire();
    Runner renumberer([&] {
        Element_locker_new lock(field, -1);
        renumbered = field->id.set_val(field, 5);
        numbered.release();
    });
    QThread::msleep(50);
    release.release();
    QVERIFY(holder.finish());
    QVERIFY(renumberer.finish());
    QVERIFY(renumbered);
    QVERIFY2(seen_while_held.isNull(), "the link was completed while another thread held its owner");
    QCOMPARE(task->partfield.target(), field.staticCast<Element>());
    QCOMPARE(man->pending_link_count(), 0);
}

void Tst_element_locker::erase_under_a_descending_writer()
{
    // A writer holds the parent and waits for the child, while the child's holder erases it
    // (which needs the parent): the eraser lets go of the child while it waits, so both finish.
    auto man = Element_man::create();
    auto root = QSharedPointer<Task_data>::create(man);
    man->set_root(root);
    auto field = root->partfields.create();
    QSharedPointer<Element> point = field->points.create();
    QSemaphore child_held, parent_held;
    bool erased = false;
    bool writer_got_child = false;
    Runner eraser([&] {
        Element_locker_new lock(point, -1);
        child_held.release();
        parent_held.acquire();
        QSharedPointer<Element> self = point;
        erased = point->erase(self);
    });
    child_held.acquire();
    Runner writer([&] {
        Element_locker_new parent(field, -1);
        parent_held.release();
        Element_locker_new child(point, -1);
        writer_got_child = child.locked();
    });
    QVERIFY2(writer.finish(5000), "writer and eraser deadlocked");
    QVERIFY2(eraser.finish(5000), "writer and eraser deadlocked");
    QVERIFY(erased);
    QVERIFY(writer_got_child);
    QCOMPARE(field->points.count(), 0);
}

QTEST_MAIN(Tst_element_locker)
#include "tst_element_locker.moc"
