// Update events across threads: receivers living on a second thread, delivery order and count,
// dead receivers, flushes, stamps, the direct signal path and the registered type numbers.
#include <taskdata/elements/client/Elements.h>

#include "test_support.h"

#include <QCoreApplication>
#include <QProcess>
#include <QSemaphore>
#include <QThread>
#include <QtTest>

#include <chrono>
#include <functional>
#include <memory>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements;
namespace C = TC::Task_data::Elements::Client;

namespace {

// What a receiver saw, in arrival order. Written on the receiver's thread, read by the test
// after a flush (the flush's semaphore orders the two).
struct Seen
{
    QString receiver;
    int type;
    C::Element element;
    QString attribute; // XML name of the attribute, "" without one
    int index;         // child events: the index; else -1
};

class Recorder : public QObject
{
public:
    Recorder(const QString& name, QVector<Seen>* log) : m_name(name), m_log(log) {}
    bool event(QEvent* e) override
    {
        static const C::Event_types_ids ids;
        if (e->type() == ids.attribute_update) {
            const auto& p = static_cast<C::Attribute_update_qt_event*>(e)->payload();
            m_log->append({m_name, p.type, p.element, p.attribute.xml_name(), -1});
        } else if (e->type() == ids.child_added) {
            const auto& p = static_cast<C::Child_added_qt_event*>(e)->payload();
            m_log->append({m_name, p.type, p.element, p.list.get_tag(), p.index});
        } else if (e->type() == ids.child_removed) {
            const auto& p = static_cast<C::Child_removed_qt_event*>(e)->payload();
            m_log->append({m_name, p.type, p.element, p.list.get_tag(), p.index});
        } else if (e->type() == ids.binary_appended) {
            const auto& p = static_cast<C::Binary_appended_qt_event*>(e)->payload();
            m_log->append({m_name, p.type, p.element, QString(), -1});
        } else if (e->type() == ids.binary_modified) {
            const auto& p = static_cast<C::Binary_modified_qt_event*>(e)->payload();
            m_log->append({m_name, p.type, p.element, QString(), -1});
        } else if (e->type() == ids.flush) {
            if (first_flush_after < 0)
                first_flush_after = m_log->size();
            static_cast<C::Flush_qt_event*>(e)->payload().handle();
        } else {
            return QObject::event(e);
        }
        return true;
    }
    int first_flush_after = -1; // events logged when the first flush arrived

private:
    QString m_name;
    QVector<Seen>* m_log;
};

// Runs a function on the thread of the object it is posted to.
class Run_event : public QEvent
{
public:
    explicit Run_event(std::function<void()> f) : QEvent(QEvent::User), run(std::move(f)) {}
    std::function<void()> run;
};

class Runner : public QObject
{
public:
    bool event(QEvent* e) override
    {
        if (e->type() != QEvent::User)
            return QObject::event(e);
        static_cast<Run_event*>(e)->run();
        return true;
    }
};

// A second thread with receivers on it; everything is torn down on that thread.
class Receiver_thread
{
public:
    Receiver_thread()
    {
        m_runner.moveToThread(&m_thread);
        m_thread.start();
    }
    ~Receiver_thread()
    {
        run([this] { qDeleteAll(m_objects); });
        m_thread.quit();
        m_thread.wait();
        m_runner.moveToThread(QThread::currentThread());
    }
    Recorder* add(const QString& name)
    {
        auto r = new Recorder(name, &log);
        r->moveToThread(&m_thread);
        m_objects.append(r);
        return r;
    }
    // Runs f on the thread, after what was posted there before.
    void post(std::function<void()> f) { QCoreApplication::postEvent(&m_runner, new Run_event(std::move(f))); }
    // The same, waiting for it.
    void run(const std::function<void()>& f)
    {
        QSemaphore done;
        post([&] {
            f();
            done.release();
        });
        done.acquire();
    }
    void destroy(Recorder* r)
    {
        m_objects.removeAll(r);
        run([r] { delete r; });
    }
    // Everything posted so far has been handled when this returns.
    void flush()
    {
        QVERIFY(!m_objects.isEmpty());
        QVERIFY(post_flush_and_wait(m_objects.first()));
    }
    QVector<Seen> log;

private:
    QThread m_thread;
    Runner m_runner;
    QVector<Recorder*> m_objects;
};

struct Tree
{
    C::Element_man eman = C::Element_man::create();
    C::Task_data root = eman.create_client_root();
    C::Partfield field = root.create_partfield();
    C::Polygon polygon = field.create_polygon();
    C::Linestring ring = polygon.create_line_string();
    C::Point point = ring.create_point();
    C::Element by_name(const QString& name) const
    {
        return name == "root" ? C::Element(root) : name == "field" ? C::Element(field) : name == "polygon" ? C::Element(polygon) : name == "ring" ? C::Element(ring) : C::Element(point);
    }
};

QStringList names_of(const QVector<Seen>& log)
{
    QStringList out;
    for (const Seen& s : log)
        out << s.receiver;
    return out;
}

} // namespace

class Tst_update_events : public QObject
{
    Q_OBJECT
private slots:
    void one_event_per_registration_data();
    void one_event_per_registration();
    void payload_describes_the_change_data();
    void payload_describes_the_change();
    void dead_receivers_removed_on_next_change();
    void registration_on_deleted_element_refused();
    void registrations_from_threads_all_kept();
    void flush_after_pending_updates();
    void stamps_equal_up_the_tree_data();
    void stamps_equal_up_the_tree();
    void noevent_setters_send_nothing_data();
    void noevent_setters_send_nothing();
    void direct_signals();
    void edits_inside_a_change_data();
    void edits_inside_a_change();
    void timelog_write_announced();
    void type_numbers_whatever_the_order_data();
    void type_numbers_whatever_the_order();
};

void Tst_update_events::one_event_per_registration_data()
{
    QTest::addColumn<QStringList>("registered"); // elements receivers are registered on, in order
    QTest::addColumn<QString>("changed");
    QTest::addColumn<QStringList>("expected"); // receivers in the order they get the change
    QTest::newRow("leaf change, receiver on root") << QStringList{"root"} << "point" << QStringList{"root"};
    QTest::newRow("leaf and root, twice") << QStringList{"root", "point"} << "point" << QStringList{"point", "root"};
    QTest::newRow("order leaf to root") << QStringList{"root", "field", "ring", "point"} << "point"
                                        << QStringList{"point", "ring", "field", "root"};
    QTest::newRow("root change, receiver below") << QStringList{"point", "root"} << "root" << QStringList{"root"};
    QTest::newRow("sibling branch untouched") << QStringList{"ring"} << "field" << QStringList{};
    QTest::newRow("same receiver twice") << QStringList{"field", "field"} << "point" << QStringList{"field", "field"};
}

void Tst_update_events::one_event_per_registration()
{
    QFETCH(QStringList, registered);
    QFETCH(QString, changed);
    QFETCH(QStringList, expected);
    Tree t;
    Receiver_thread rt;
    QHash<QString, Recorder*> by_element;
    for (const QString& name : registered) {
        Recorder*& r = by_element[name];
        if (!r)
            r = rt.add(name);
        QVERIFY(t.by_name(name).register_for_events(r));
    }
    rt.add("flush");
    QVERIFY(t.by_name(changed).pe_set_value("key", "changed"));
    rt.flush();
    QCOMPARE(names_of(rt.log), expected);
    for (const Seen& s : rt.log)
        QCOMPARE(s.element, t.by_name(changed));
}

void Tst_update_events::payload_describes_the_change_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("what");
    QTest::addColumn<int>("index");
    QTest::newRow("attribute") << int(attribute_updated) << "C" << -1;
    QTest::newRow("several attributes (reread)") << int(attribute_updated) << "" << -1;
    QTest::newRow("child added") << int(child_added) << "PNT" << 1;
    QTest::newRow("child removed") << int(child_removed) << "PNT" << 0;
    QTest::newRow("binary appended") << int(binary_appended) << "" << -1;
    QTest::newRow("binary modified") << int(binary_modified) << "" << -1;
}

void Tst_update_events::payload_describes_the_change()
{
    QFETCH(int, type);
    QFETCH(QString, what);
    QFETCH(int, index);
    Tree t;
    C::Time_log log = t.root.create_task().create_time_log();
    Receiver_thread rt;
    QVERIFY(t.root.register_for_events(rt.add("root")));
    C::Element expected_element = t.ring;
    switch (type) {
    case attribute_updated:
        if (what.isEmpty()) {
            QVERIFY(t.ring.stamp(false, true, true) > 0);
        } else {
            QVERIFY(t.point.set_north(52.5));
            expected_element = t.point;
        }
        break;
    case child_added:
        QVERIFY(t.ring.create_point().valid());
        break;
    case child_removed:
        QVERIFY(t.ring.remove_points(t.point));
        break;
    case binary_modified: {
        expected_element = t.point;
        Base::Element_locker_new lock(t.point, -1);
        static_cast<Base::Point*>(lock.get())->make_binary_points();
        static_cast<Base::Point*>(lock.get())->binary_points_changed();
        break;
    }
    default:
        expected_element = log;
        {
            Base::Element_locker_new lock(log, -1);
            static_cast<Base::Time_log*>(lock.get())->notify_timelog_write(10, 480);
        }
    }
    rt.add("flush");
    rt.flush();
    QCOMPARE(rt.log.size(), 1);
    QCOMPARE(rt.log.first().type, type);
    QCOMPARE(rt.log.first().element, expected_element);
    QCOMPARE(rt.log.first().attribute, what);
    QCOMPARE(rt.log.first().index, index);
}

void Tst_update_events::dead_receivers_removed_on_next_change()
{
    Tree t;
    Receiver_thread rt;
    Recorder* doomed = rt.add("doomed");
    Recorder* alive = rt.add("alive");
    QVERIFY(t.root.register_for_events(doomed));
    QVERIFY(t.root.register_for_events(alive));
    QVERIFY(t.root.register_for_events(doomed));
    rt.destroy(doomed);
    const auto root = t.root.get_base_elem();
    QCOMPARE(root->receiver_count(), 3); // nothing changed yet: the entries wait for the walk
    QVERIFY(t.point.set_designator("x"));
    QCOMPARE(root->receiver_count(), 1);
    rt.flush();
    QCOMPARE(names_of(rt.log), QStringList{"alive"});
}

void Tst_update_events::registration_on_deleted_element_refused()
{
    Tree t;
    Receiver_thread rt;
    Recorder* r = rt.add("r");
    const C::Point point = t.point;
    QVERIFY(t.ring.remove_points(point));
    t.point = C::Point();
    QVERIFY(!point.valid());
    QVERIFY(!point.register_for_events(r));
    QVERIFY(!point.unregister_for_events(r));
    QVERIFY(t.ring.register_for_events(r));
    QVERIFY(t.ring.unregister_for_events(r));
    QVERIFY(!t.ring.unregister_for_events(r));
}

// Two threads registering on the same fresh elements at once: the receiver store of an element
// is made by whichever thread comes first and every registration lands in it.
void Tst_update_events::registrations_from_threads_all_kept()
{
    Tree t;
    const bool sanitizer = qEnvironmentVariableIsSet("TSAN_OPTIONS") || qEnvironmentVariableIsSet("ASAN_OPTIONS");
    const int elements = sanitizer ? 2000 : 50000;
    const int per_element = 1;
    QVector<QSharedPointer<Base::Element>> points;
    for (int i = 0; i < elements; ++i)
        points.append(t.ring.create_point().get_base_elem());
    QObject receivers[2];
    // Both threads start on each element at one moment: the second to arrive sets a start a few
    // microseconds ahead on the clock, and both spin until it (leaving a barrier together by
    // watching a counter would let the last to arrive run ahead by a cache transfer, longer than
    // the moment in which two threads can both find the store missing).
    std::atomic<int> arrived{0};
    const std::unique_ptr<std::atomic<qint64>[]> start(new std::atomic<qint64>[size_t(elements)]());
    const auto now = [] { return std::chrono::steady_clock::now().time_since_epoch().count(); };
    auto work = [&](QObject* receiver) {
        for (int k = 0; k < elements; ++k) {
            std::atomic<qint64>& at = start[k];
            if (arrived.fetch_add(1) % 2 == 1)
                at.store(now() + 3000);
            for (int spins = 1; at.load() == 0 || now() < at.load(); ++spins)
                if (spins % 4096 == 0)
                    QThread::yieldCurrentThread(); // the other thread may wait for a core
            for (int i = 0; i < per_element; ++i)
                points.at(k)->register_for_events(points.at(k), receiver);
        }
    };
    std::unique_ptr<QThread> a(QThread::create(work, &receivers[0])), b(QThread::create(work, &receivers[1]));
    a->start();
    b->start();
    a->wait();
    b->wait();
    int lost = 0;
    for (const auto& p : points)
        lost += 2 * per_element - p->receiver_count();
    QCOMPARE(lost, 0);
}

void Tst_update_events::flush_after_pending_updates()
{
    Tree t;
    Receiver_thread rt;
    Recorder* r = rt.add("root");
    QVERIFY(t.root.register_for_events(r));
    // The receiver's thread is kept busy so that everything queues up behind it; the flush is
    // posted between two halves of the updates and must still come after all of them.
    QSemaphore started, release;
    rt.post([&] {
        started.release();
        release.acquire();
    });
    started.acquire();
    const int changes = 40;
    for (int i = 0; i < changes / 2; ++i)
        QVERIFY(t.point.set_up(i + 1));
    std::unique_ptr<QThread> flusher(QThread::create([r] { post_flush_and_wait(r); }));
    flusher->start();
    QTest::qWait(50);
    for (int i = changes / 2; i < changes; ++i)
        QVERIFY(t.point.set_up(i + 1));
    release.release();
    QVERIFY(flusher->wait(10000));
    rt.flush();
    QCOMPARE(rt.log.size(), changes);
    QCOMPARE(r->first_flush_after, changes);
}

void Tst_update_events::stamps_equal_up_the_tree_data()
{
    QTest::addColumn<QString>("change");
    QTest::newRow("attribute of the leaf") << "attribute";
    QTest::newRow("child added to the leaf's list") << "add";
    QTest::newRow("child removed") << "remove";
    QTest::newRow("extended parameter") << "parameter";
}

void Tst_update_events::stamps_equal_up_the_tree()
{
    QFETCH(QString, change);
    Tree t;
    C::Point other = t.field.create_point(); // a branch the change does not touch
    const quint64 before = other.stamp();
    const quint64 counter = t.eman.get_eman_real()->change_counter();
    if (change == "attribute")
        QVERIFY(t.point.set_east(8.25));
    else if (change == "add")
        QVERIFY(t.ring.create_point().valid());
    else if (change == "remove")
        QVERIFY(t.ring.remove_points(t.point));
    else
        QVERIFY(t.point.pe_set_value("key", 3));
    const quint64 now = t.eman.get_eman_real()->change_counter();
    QCOMPARE(now, counter + 1);
    const C::Element changed = change == "attribute" || change == "parameter" ? C::Element(t.point) : C::Element(t.ring);
    for (const C::Element& e : {changed, C::Element(t.ring), C::Element(t.polygon), C::Element(t.field), C::Element(t.root)})
        QCOMPARE(e.stamp(), now);
    QCOMPARE(changed.stamp(true), now);      // the list the changed element sits in
    QCOMPARE(t.ring.points().stamp(), now);  // the list changed or holding the change
    QCOMPARE(other.stamp(), before);
}

void Tst_update_events::noevent_setters_send_nothing_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("quiet");
    for (const char* kind : {"string", "integer", "float", "link", "date-time", "attribute handle"}) {
        QTest::addRow("%s, noevent", kind) << QString(kind) << true;
        QTest::addRow("%s, with event", kind) << QString(kind) << false;
    }
}

void Tst_update_events::noevent_setters_send_nothing()
{
    QFETCH(QString, kind);
    QFETCH(bool, quiet);
    Tree t;
    C::Task task = t.root.create_task();
    C::Time time = task.create_time();
    Receiver_thread rt;
    QVERIFY(t.root.register_for_events(rt.add("root")));
    const quint64 stamp = t.root.stamp();
    bool changed = false;
    if (kind == "string")
        changed = quiet ? task.set_designator_noevent("quiet") : task.set_designator("loud");
    else if (kind == "integer")
        changed = quiet ? task.set_status_noevent(3) : task.set_status(3);
    else if (kind == "float")
        changed = quiet ? t.point.set_north_noevent(10.5) : t.point.set_north(10.5);
    else if (kind == "link")
        changed = quiet ? task.set_partfield_noevent(t.field) : task.set_partfield(t.field);
    else if (kind == "date-time") {
        const QDateTime when(QDate(2024, 5, 1), QTime(6, 30), Qt::UTC);
        changed = quiet ? time.set_start_noevent(when) : time.set_start(when);
    } else {
        const auto a = task.designator_attribute();
        changed = quiet ? a.set_string_noevent("quiet") : a.set_string("loud");
    }
    QVERIFY(changed);
    rt.flush();
    QCOMPARE(rt.log.size(), quiet ? 0 : 1);
    QCOMPARE(t.root.stamp() == stamp, quiet);
}

class Slot_counter : public QObject
{
    Q_OBJECT
public:
    QStringList calls;
    QVector<C::Element> elements;
    QVector<TC::Task_data::Attributes::Client::Attribute> attributes;
    std::function<void()> edit; // run by the element and value slots, inside the change
public slots:
    void element_updated(TC::Task_data::Elements::Client::Element e)
    {
        calls << "element";
        elements << e;
        if (edit)
            edit();
    }
    void attribute_updated(TC::Task_data::Attributes::Client::Attribute a)
    {
        calls << "attribute";
        attributes << a;
    }
    void value_changed(QVariant v)
    {
        calls << "value " + v.toString();
        if (edit)
            edit();
    }
    void written(int32_t records, uint32_t bytes) { calls << QString("write %1 %2").arg(records).arg(bytes); }
};

void Tst_update_events::direct_signals()
{
    Tree t;
    Slot_counter s;
    QVERIFY(t.root.connect(SIGNAL(updated(TC::Task_data::Elements::Client::Element)), &s,
                           SLOT(element_updated(TC::Task_data::Elements::Client::Element))));
    QVERIFY(t.point.connect(SIGNAL(updated(TC::Task_data::Attributes::Client::Attribute)), &s,
                            SLOT(attribute_updated(TC::Task_data::Attributes::Client::Attribute))));
    QVERIFY(t.point.east_attribute().connect(SIGNAL(value_changed(QVariant)), &s, SLOT(value_changed(QVariant))));
    QVERIFY(!t.point.connect(SIGNAL(updated(int)), &s, SLOT(element_updated(TC::Task_data::Elements::Client::Element))));
    QVERIFY(t.point.set_east(7.5));
    QVERIFY(t.point.set_north(50.0)); // another attribute: no value_changed
    QCOMPARE(s.calls, (QStringList{"attribute", "value 7.5", "element", "attribute", "element"}));
    QCOMPARE(s.elements, (QVector<C::Element>{t.root, t.root}));
    QCOMPARE(s.attributes, (QVector<TC::Task_data::Attributes::Client::Attribute>{t.point.east_attribute(),
                                                                                 t.point.north_attribute()}));
    s.calls.clear();
    QVERIFY(t.root.disconnect(SIGNAL(updated(TC::Task_data::Elements::Client::Element)), &s));
    QVERIFY(t.point.set_east(7.0));
    QCOMPARE(s.calls, (QStringList{"attribute", "value 7"}));
}

// Everything here runs on one thread that already holds the changed element's lock (and, in the
// copy, the source's): the element lock must let that thread in again.
void Tst_update_events::edits_inside_a_change_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("value slot edits the same element") << "value slot";
    QTest::newRow("updated slot edits an ancestor") << "ancestor slot";
    QTest::newRow("operations under the caller's lock") << "caller lock";
    QTest::newRow("copy locks both through set") << "copy";
}

void Tst_update_events::edits_inside_a_change()
{
    QFETCH(QString, how);
    Tree t;
    Slot_counter s;
    const quint64 counter = t.eman.get_eman_real()->change_counter();
    if (how == "value slot") {
        s.edit = [&t] { t.point.set_north(1.5); };
        QVERIFY(t.point.east_attribute().connect(SIGNAL(value_changed(QVariant)), &s, SLOT(value_changed(QVariant))));
        QVERIFY(t.point.set_east(7.5));
    } else if (how == "ancestor slot") {
        s.edit = [&t] { t.field.set_designator("edited"); };
        QVERIFY(t.field.connect(SIGNAL(updated(TC::Task_data::Elements::Client::Element)), &s,
                                SLOT(element_updated(TC::Task_data::Elements::Client::Element))));
        QVERIFY(t.point.set_east(7.5));
        QCOMPARE(t.field.designator(), QString("edited"));
    } else if (how == "caller lock") {
        Base::Element_locker_new lock(t.point, -1);
        QVERIFY(t.point.set_east(7.5) && t.point.set_north(1.5));
    } else {
        C::Point source = t.ring.create_point();
        QVERIFY(source.set_east(7.5) && source.set_north(1.5));
        QVERIFY(t.point.copy(source, t.eman, false));
        QCOMPARE(t.point.east(), 7.5);
        return;
    }
    QCOMPARE(t.eman.get_eman_real()->change_counter(), counter + 2);
    if (how != "ancestor slot")
        QCOMPARE(t.point.north(), 1.5);
}

void Tst_update_events::timelog_write_announced()
{
    Tree t;
    C::Task task = t.root.create_task();
    C::Time_log log = task.create_time_log();
    Slot_counter s;
    QVERIFY(task.connect(SIGNAL(timelog_write(int32_t, uint32_t)), &s, SLOT(written(int32_t, uint32_t))));
    const quint64 stamp = t.root.stamp();
    {
        Base::Element_locker_new lock(log, -1);
        static_cast<Base::Time_log*>(lock.get())->notify_timelog_write(12, 576);
    }
    QCOMPARE(s.calls, QStringList{"write 12 576"});
    QCOMPARE(t.root.stamp(), stamp); // the XML did not change
}

void Tst_update_events::type_numbers_whatever_the_order_data()
{
    QTest::addColumn<QString>("order"); // slots in the order of first use, in a fresh process
    QTest::newRow("attribute update first") << "0,1,2,3,4,5";
    QTest::newRow("flush first") << "5,4,3,2,1,0";
    QTest::newRow("binary modified first") << "4,0,5,2,1,3";
}

void Tst_update_events::type_numbers_whatever_the_order()
{
    QFETCH(QString, order);
    QProcess p;
    p.start(QCoreApplication::applicationFilePath(), {"--register-types", order});
    QVERIFY(p.waitForFinished(30000));
    const QStringList numbers = QString::fromLatin1(p.readAllStandardOutput()).split(' ', Qt::SkipEmptyParts);
    QCOMPARE(numbers.size(), 6);
    QCOMPARE(numbers.first(), QString("21572"));
    QCOMPARE(QSet<QString>(numbers.begin(), numbers.end()).size(), 6);
}

// In a fresh process: registers the event kinds in the given order of first use and prints
// their numbers, then checks that the table agrees.
static int register_types(const QString& order)
{
    const std::function<QEvent::Type()> kinds[] = {
        &C::Attribute_update_qt_event::event_type, &C::Child_added_qt_event::event_type,
        &C::Child_removed_qt_event::event_type, &C::Binary_appended_qt_event::event_type,
        &C::Binary_modified_qt_event::event_type, &C::Flush_qt_event::event_type};
    QStringList out;
    for (const QString& k : order.split(','))
        out << QString::number(kinds[k.toInt()]());
    const C::Event_types_ids ids;
    const QEvent::Type table[] = {ids.attribute_update, ids.child_added,     ids.child_removed,
                                  ids.binary_appended,  ids.binary_modified, ids.flush};
    for (int i = 0; i < 6; ++i)
        if (table[i] != kinds[i]())
            return 1;
    printf("%s\n", qPrintable(out.join(' ')));
    return 0;
}

int main(int argc, char** argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--register-types") == 0)
        return register_types(QString::fromLatin1(argv[2]));
    Ktd_test::Application app(argc, argv);
    Tst_update_events t;
    return QTest::qExec(&t, argc, argv);
}

#include "tst_update_events.moc"
