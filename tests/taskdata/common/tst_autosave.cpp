// Autosave: when a change is written (at once, after a burst, never twice) and its trace, what a
// flush waits for, and a child process killed while it edits and autosaves, whose directory must
// keep every change it confirmed.
#include <taskdata/common/Autosave.h>
#include <taskdata/common/Autosave_dispatcher.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/client/Elements.h>

#include "test_support.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <cstdio>
#include <algorithm>
#include <memory>
#include <unistd.h>

using namespace TC::Task_data;
namespace C = TC::Task_data::Elements::Client;
using Autosave = XML_interface_private::Autosave;

namespace {

QByteArray file(const QString& dir, const QString& name)
{
    QFile f(QDir(dir).filePath(name));
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// What a directory holds (read by a second manager), and what the crash test's edits change.
struct State
{
    QString customer = QStringLiteral("Customer");
    QStringList order{"First", "Second"}; // live tasks by designator, oldest first
    QMap<QString, int> zone{{"First", 0}, {"Second", 0}};
};

State read_state(const QString& dir, QString* error)
{
    C::Element_man eman = C::Element_man::create();
    XML_interface in(dir);
    if (!eman.load_xml(in))
        *error = in.fail_text();
    const C::Task_data root = eman.get_client_root();
    State s{root.get_customer(0).designator(), {}, {}};
    for (int i = 0; i < root.tasks_count(); ++i) {
        s.order << root.get_task(unsigned(i)).designator();
        s.zone[s.order.last()] = root.get_task(unsigned(i)).default_treatment_zone();
    }
    return s;
}

QStringList flat(const State& s)
{
    QStringList out{s.customer};
    for (const QString& task : s.order)
        out << QStringLiteral("%1:%2").arg(task).arg(s.zone.value(task));
    return out;
}

// A small document: one customer (written in the main file) and two tasks, saved individually.
struct Document
{
    QTemporaryDir dir;
    C::Element_man eman = C::Element_man::create();
    XML_interface xi{dir.path()};
    C::Customer customer;
    C::Task task;

    explicit Document(bool trace = false)
    {
        xi.set_individual_save(QStringLiteral("TSK"), true);
        xi.set_autosave_trace(trace);
        const C::Task_data root = eman.create_client_root();
        customer = root.create_customer();
        customer.set_designator(QStringLiteral("Customer"));
        root.create_task().set_designator(QStringLiteral("First"));
        task = root.create_task();
        task.set_designator(QStringLiteral("Second"));
    }
    QString task_file() const { return QStringLiteral("TSK_%1.XML").arg(task.id()); }
};

} // namespace

class tst_autosave : public QObject
{
    Q_OBJECT
private slots:
    void writes_data();
    void writes();
    void deleted_element_writes_nothing_data();
    void deleted_element_writes_nothing();
    void sync_puts_everything_on_disk_data();
    void sync_puts_everything_on_disk();
    void burst_does_not_wake_the_thread();
    void change_waits_for_one_element_not_the_document();
    void killed_while_saving_keeps_what_it_confirmed();
};

void tst_autosave::writes_data()
{
    QTest::addColumn<int>("delay");
    QTest::addColumn<bool>("own_file");
    QTest::addColumn<QString>("trace"); // the whole trace of the write; empty: tracing off
    QTest::newRow("delay 0, main file")
        << 0 << false << R"(^ASave 1 \d+ (\d+) ISO11783_TaskData ''<\d+\.\1> TD \1\.0 \d+\n$)";
    QTest::newRow("burst of ten, own file")
        << 60000 << true << R"(^ASave 1 \d+ (\d+) TSK 'Changed 9'<\d+\.\1> E \d+ \d+ TSK 'Changed 9'\n$)";
    QTest::newRow("delay 0, own file, not traced") << 0 << true << "";
}

// Delay 0 writes inside the handler, without the timer; ten changes within the delay are ten
// queue entries, one timer start and one write; an event at a stamp already written, none.
void tst_autosave::writes()
{
    QFETCH(int, delay);
    QFETCH(bool, own_file);
    QFETCH(QString, trace);
    Document doc(!trace.isEmpty());
    auto a = static_cast<Autosave*>(doc.xi.set_autosave(doc.eman, false, delay));
    QVERIFY(a);
    const QString name = own_file ? doc.task_file() : QStringLiteral("TASKDATA.XML");
    const int before = a->writes();
    Ktd_test::Capture_fd err(2);
    for (int i = 0; i < (delay ? 10 : 1); ++i) {
        const QString text = QStringLiteral("Changed %1").arg(i);
        QVERIFY(own_file ? doc.task.set_designator(text) : doc.customer.set_designator(text));
        QCoreApplication::sendPostedEvents(a);
    }
    QCOMPARE(a->writes() - before, delay ? 0 : 1);
    QCOMPARE(a->queue_size(), delay ? 10 : 0);
    QCOMPARE(a->timer_starts(), delay ? 1 : 0);
    QCOMPARE(a->timer_active(), delay > 0);
    a->save_queued_elements();
    QCOMPARE(a->writes() - before, 1);
    QVERIFY(!a->timer_active());
    QVERIFY(file(doc.dir.path(), name).contains(delay ? "Changed 9" : "Changed 0"));
    const QString traced = err.text();
    QVERIFY2(QRegularExpression(trace.isEmpty() ? "^$" : trace).match(traced).hasMatch(), qPrintable(traced));
    const C::Element changed = own_file ? C::Element(doc.task) : C::Element(doc.customer);
    QCoreApplication::postEvent(a, new C::Attribute_update_qt_event(
                                       C::Attribute_update(changed, TC::Task_data::Attributes::Client::Attribute())));
    QCoreApplication::sendPostedEvents(a);
    a->save_queued_elements();
    QCOMPARE(a->writes() - before, 1);
}

void tst_autosave::deleted_element_writes_nothing_data()
{
    QTest::addColumn<bool>("before_delivery");
    QTest::addColumn<QString>("message");
    QTest::newRow("deleted after its change was queued") << false << QString();
    QTest::newRow("deleted before its change arrived") << true << QString("Autosave no elem 94");
}

void tst_autosave::deleted_element_writes_nothing()
{
    QFETCH(bool, before_delivery);
    QFETCH(QString, message);
    Document doc(true);
    auto a = static_cast<Autosave*>(doc.xi.set_autosave(doc.eman, false, 60000));
    const QString own_name = doc.task_file();
    const QByteArray own = file(doc.dir.path(), own_name);
    QVERIFY(own.contains("Second"));
    const C::Task_data root = doc.eman.get_client_root();
    Ktd_test::Capture_fd err(2);
    QVERIFY(doc.task.set_designator("Gone"));
    if (!before_delivery)
        QCoreApplication::sendPostedEvents(a);
    QVERIFY(root.remove_tasks(doc.task));
    QVERIFY(!doc.task.valid());
    if (!before_delivery) // only the queued entry: the removal's own event is a change of the root
        QCoreApplication::removePostedEvents(a);
    QCoreApplication::sendPostedEvents(a);
    const int before = a->writes();
    a->save_queued_elements();
    QCOMPARE(a->writes() - before, before_delivery ? 1 : 0); // the root, for the removal
    QCOMPARE(err.text().section(QLatin1Char('\n'), 0, 0), message);
    QCOMPARE(file(doc.dir.path(), own_name), own);
}

// On its own thread, the changes of a burst after the first do not wake the autosave (each wake
// is a system call on the changing thread); they wait for the delay, and a flush for nothing.
void tst_autosave::burst_does_not_wake_the_thread()
{
    Document doc;
    QVERIFY(doc.xi.set_autosave(doc.eman, true, 60000));
    const auto dispatcher = XML_interface_private::of(doc.xi).dispatcher;
    QVERIFY(dispatcher);
    for (int i = 0; i < 20; ++i) {
        QVERIFY(doc.customer.set_designator(QStringLiteral("Burst %1").arg(i)));
        QThread::msleep(5);
    }
    QVERIFY2(dispatcher->early_wakes() <= 2, qPrintable(QString::number(dispatcher->early_wakes())));
    QElapsedTimer synced;
    synced.start();
    doc.xi.autosave_sync();
    QVERIFY(synced.elapsed() < 30000);
    QVERIFY(file(doc.dir.path(), "TASKDATA.XML").contains("Burst 19"));
}

// The writer reads the tree element by element on the way down. Another thread holds a second
// customer, so the writer stops there with the first customer already written; changing the
// first one again must not wait for it (with the whole tree held, it waited until the second
// customer was let go, 3 s later).
void tst_autosave::change_waits_for_one_element_not_the_document()
{
    Document doc;
    const C::Customer second = doc.eman.get_client_root().create_customer();
    QVERIFY(second.set_designator(QStringLiteral("Held")));
    QVERIFY(doc.xi.set_autosave(doc.eman, true, 0));
    QSemaphore held;
    QSemaphore release;
    std::unique_ptr<QThread> holder(QThread::create([&] {
        const Elements::Base::Element_locker_new lock(second.get_base_elem(), -1);
        held.release();
        release.tryAcquire(1, 3000);
    }));
    holder->start();
    held.acquire();
    QVERIFY(doc.customer.set_designator(QStringLiteral("Written")));
    QThread::msleep(300); // the writer is now waiting for the held customer
    QElapsedTimer changing;
    changing.start();
    QVERIFY(doc.customer.set_designator(QStringLiteral("Changed meanwhile")));
    const qint64 waited = changing.elapsed();
    release.release();
    holder->wait();
    QVERIFY2(waited < 1500, qPrintable(QString::number(waited)));
    doc.xi.autosave_sync();
    QVERIFY(file(doc.dir.path(), "TASKDATA.XML").contains("Changed meanwhile"));
}

void tst_autosave::sync_puts_everything_on_disk_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("nothing: the start's write") << "" << QStringList{"Customer", "First:0", "Second:0"};
    QTest::newRow("attribute in the main file") << "customer" << QStringList{"Synced", "First:0", "Second:0"};
    QTest::newRow("attribute in an own file") << "zone" << QStringList{"Customer", "First:0", "Second:7"};
    QTest::newRow("child added") << "add" << QStringList{"Customer", "First:0", "Second:0", "Third:0"};
    QTest::newRow("child removed") << "remove" << QStringList{"Customer", "Second:0"};
    // Delay 0: the autosave thread reads the tree while this one changes it (ThreadSanitizer).
    QTest::newRow("changes while it writes") << "burst" << QStringList{"Synced %1", "First:0", "Second:%2"};
}

// On the background thread, which exists when set_autosave returns; with a delay that never
// passes in the test only the flush writes, and it does not wait for the delay.
void tst_autosave::sync_puts_everything_on_disk()
{
    QFETCH(QString, change);
    QFETCH(QStringList, expected);
    Document doc;
    QElapsedTimer clock;
    clock.start();
    QVERIFY(doc.xi.set_autosave(doc.eman, true, change == "burst" ? 0 : 600000));
    const C::Task_data root = doc.eman.get_client_root();
    if (change == "customer") {
        doc.customer.set_designator("Synced");
    } else if (change == "zone") {
        doc.task.set_default_treatment_zone(7);
    } else if (change == "add") {
        root.create_task().set_designator("Third");
    } else if (change == "remove") {
        root.remove_tasks(root.get_task(0));
    } else if (change == "burst") {
        int i = 0;
        for (; clock.elapsed() < 300; ++i) {
            doc.customer.set_designator(QStringLiteral("Synced %1").arg(i));
            doc.task.set_default_treatment_zone(quint8(i % 256));
        }
        expected[0] = expected[0].arg(i - 1);
        expected[2] = expected[2].arg((i - 1) % 256);
    }
    doc.xi.autosave_sync();
    QVERIFY2(clock.elapsed() < 60000, qPrintable(QString::number(clock.elapsed())));
    QString error;
    QCOMPARE(flat(read_state(doc.dir.path(), &error)), expected);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    doc.xi.set_autosave(C::Element_man(), true, 0);
    QVERIFY(!doc.xi.is_autosave());
    doc.xi.autosave_sync(); // off: returns at once
}

// --- a process killed while it edits with autosave on ---

namespace {

// Names made by run `run`, op `i`: unique across runs.
QString name(int run, char what, int i) { return QStringLiteral("%1%2.%3").arg(what).arg(run).arg(i); }

void apply(State& s, int run, int i)
{
    const QString n = name(run, i % 4 ? 't' : 'c', i);
    if (i % 4 == 0) {
        s.customer = n;
    } else if (i % 4 == 1) {
        s.zone[n] = 0;
        s.order << n;
    } else if (i % 4 == 2 && s.order.size() > 2) {
        s.zone.remove(s.order.takeFirst());
    } else if (i % 4 == 3) {
        s.zone[s.order.last()] = i % 250;
    }
}

void apply(const C::Task_data& root, C::Customer& customer, int run, int i)
{
    const QString n = name(run, i % 4 ? 't' : 'c', i);
    if (i % 4 == 0)
        customer.set_designator(n);
    else if (i % 4 == 1)
        root.create_task().set_designator(n);
    else if (i % 4 == 2 && root.tasks_count() > 2)
        root.remove_tasks(root.get_task(0));
    else if (i % 4 == 3)
        root.get_task(unsigned(root.tasks_count() - 1)).set_default_treatment_zone(quint8(i % 250));
}

void say(const QByteArray& line)
{
    const QByteArray l = line + '\n';
    if (::write(1, l.constData(), size_t(l.size())) < 0)
        std::_Exit(4);
}

// The child: loads the directory, edits until killed, confirming after every autosave_sync.
[[noreturn]] void edit_until_killed(const QString& dir, int run)
{
    C::Element_man eman = C::Element_man::create();
    XML_interface xi(dir);
    if (!eman.load_xml(xi))
        std::_Exit(3);
    XML_interface autosave(dir);
    autosave.set_individual_save(QStringLiteral("TSK"), true);
    autosave.set_autosave_trace(false);
    autosave.set_autosave(eman, true, 5);
    const C::Task_data root = eman.get_client_root();
    C::Customer customer = root.get_customer(0);
    say("ready");
    for (int i = 0;; ++i) {
        say("op " + QByteArray::number(i)); // may be on disk from here on
        apply(root, customer, run, i);
        if (i % 8 == 7) {
            autosave.autosave_sync();
            say("ok " + QByteArray::number(i + 1)); // ops below this are on disk
        }
    }
}

} // namespace

// After every kill the directory loads, and each element is as it was at some moment between
// the last confirmation and the last edit begun: nothing confirmed is lost, nothing is mixed.
void tst_autosave::killed_while_saving_keeps_what_it_confirmed()
{
    Document doc;
    const QString dir = doc.dir.path();
    QVERIFY(doc.eman.save_xml(doc.xi));
    State start; // what the directory holds
    QRandomGenerator random(13);
    for (int run = 0; run < 50; ++run) {
        QProcess child;
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        child.start(QCoreApplication::applicationFilePath(), {"--edit-until-killed", dir, QString::number(run)});
        QVERIFY(child.waitForStarted());
        QByteArray out;
        while (!out.contains("ready\n") && child.waitForReadyRead(30000))
            out += child.readAllStandardOutput();
        QVERIFY2(out.contains("ready\n"), out.constData());
        QTest::qSleep(int(random.bounded(5, 120)));
        ::kill(pid_t(child.processId()), SIGKILL);
        QVERIFY(child.waitForFinished(30000));
        out += child.readAllStandardOutput();
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);

        int confirmed = 0, begun = -1;
        for (const QByteArray& line : out.split('\n')) {
            if (line.startsWith("ok "))
                confirmed = line.mid(3).toInt();
            else if (line.startsWith("op "))
                begun = line.mid(3).toInt();
        }
        QString error;
        const State disk = read_state(dir, &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        // Each element as it was after the confirmed ops or after an op begun since.
        QVector<State> states{start};
        for (int i = 0; i <= begun; ++i) {
            states.append(states.last());
            apply(states.last(), run, i);
        }
        states.remove(0, confirmed);
        QSet<QString> tasks(disk.order.begin(), disk.order.end());
        bool customer = false;
        for (const State& st : states) {
            customer = customer || st.customer == disk.customer;
            tasks.unite(QSet<QString>(st.order.begin(), st.order.end()));
        }
        const QString where = QString("run %1 (ok %2, op %3): ").arg(run).arg(confirmed).arg(begun);
        QVERIFY2(customer, qPrintable(where + disk.customer));
        for (const QString& task : tasks)
            QVERIFY2(std::any_of(states.begin(), states.end(),
                                 [&](const State& st) { return st.zone.value(task, -1) == disk.zone.value(task, -1); }),
                     qPrintable(where + task));
        start = disk; // the next child starts from what is on disk
    }
}

int main(int argc, char** argv)
{
    Ktd_test::Application app(argc, argv);
    if (argc == 4 && qstrcmp(argv[1], "--edit-until-killed") == 0)
        edit_until_killed(QString::fromLocal8Bit(argv[2]), atoi(argv[3]));
    tst_autosave t;
    return QTest::qExec(&t, argc, argv);
}

#include "tst_autosave.moc"
