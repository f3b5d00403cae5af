// The element data lock: held across threads, timed out softly, and keeping the element alive.
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QSemaphore>
#include <QThread>
#include <QtTest>

#include <atomic>

using namespace TC::Task_data::Elements::Base;

class Tst_element_locker : public QObject
{
    Q_OBJECT
private slots:
    void timeout_fails_softly_data();
    void timeout_fails_softly();
    void keeps_element_alive();
    void null_element_holds_nothing();
    void concurrent_writers_serialise();
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
}

void Tst_element_locker::timeout_fails_softly()
{
    QFETCH(int, timeout);
    QFETCH(bool, release_first);
    QFETCH(bool, expect_lock);
    auto man = Element_man::create();
    QSharedPointer<Element> task = QSharedPointer<Task>::create(man);
    QSemaphore held, release, done;
    std::unique_ptr<QThread> holder(QThread::create([&] {
        Element_locker_new lock(task, -1);
        held.release();
        release.acquire();
    }));
    holder->start();
    held.acquire();
    bool got = false;
    bool access_null = false;
    std::unique_ptr<QThread> waiter(QThread::create([&] {
        Element_locker_new lock(task, timeout);
        got = lock.locked();
        access_null = lock.get() == nullptr;
        done.release();
    }));
    waiter->start();
    if (release_first)
        release.release();
    done.acquire();
    if (!release_first)
        release.release();
    holder->wait();
    waiter->wait();
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

void Tst_element_locker::null_element_holds_nothing()
{
    Element_locker_new lock(QSharedPointer<Element>(), 10);
    QVERIFY(!lock.locked());
    QVERIFY(!lock);
    QVERIFY(lock.get() == nullptr);
}

void Tst_element_locker::concurrent_writers_serialise()
{
    auto man = Element_man::create();
    auto task = QSharedPointer<Task>::create(man);
    constexpr int rounds = 2000;
    auto writer = [&](int base) {
        for (int i = 0; i < rounds; ++i) {
            Element_locker_new lock(task, -1);
            auto t = static_cast<Task*>(lock.get());
            t->default_treatment_zone.set_val(task, quint8((base + i) % 200));
            t->designator.set_string(task, QString::number(base + i));
        }
    };
    std::unique_ptr<QThread> a(QThread::create(writer, 0));
    std::unique_ptr<QThread> b(QThread::create(writer, 100000));
    a->start();
    b->start();
    a->wait();
    b->wait();
    Element_locker_new lock(task, -1);
    const int last = task->designator.get_string().toInt();
    QVERIFY(last == rounds - 1 || last == 100000 + rounds - 1);
    QCOMPARE(int(task->default_treatment_zone.get_val()), last % 200);
}

QTEST_MAIN(Tst_element_locker)
#include "tst_element_locker.moc"
