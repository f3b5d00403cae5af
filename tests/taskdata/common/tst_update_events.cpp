// Update events across threads: the delivery walk, what each change posts and stamps, dead
// receivers, flushes, registrations from two threads, the direct signal path, edits from inside
// a change and the registered type numbers.
#include <taskdata/elements/client/Elements.h>

#include "test_support.h"

#include <QCoreApplication>
#include <QProcess>
#include <QThread>
#include <QtTest>

#include <chrono>
#include <functional>
#include <memory>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements;
namespace C = TC::Task_data::Elements::Client;

namespace {

// What receivers saw, in arrival order. Receivers live on this thread (the flush test posts from
// another): what was posted to them arrives with QCoreApplication::sendPostedEvents().
struct Seen
{
    QString receiver;
    int type;
    C::Element element;
    QString what; // XML name of the attribute or of the list, "" without one
    int index;    // child events: the index; else -1
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

struct Tree
{
    C::Element_man eman = C::Element_man::create();
    C::Task_data root = eman.create_client_root();
    C::Partfield field = root.create_partfield();
    C::Polygon polygon = field.create_polygon();
    C::Linestring ring = polygon.create_line_string();
    C::Point point = ring.create_point();
    C::Task task = root.create_task();
    C::Time_log log = task.create_time_log();
    C::Element by_name(const QString& name) const
    {
        return QHash<QString, C::Element>{{"root", root}, {"field", field}, {"ring", ring},
                                          {"point", point}, {"log", log}}
            .value(name);
    }
    quint64 counter() const { return eman.get_eman_real()->change_counter(); }
};

QStringList names_of(const QVector<Seen>& log)
{
    QStringList out;
    for (const Seen& s : log)
        out << s.receiver;
    return out;
}

bool notify_timelog_write(const C::Time_log& log, int records, unsigned bytes)
{
    Base::Element_locker_new lock(log, -1);
    static_cast<Base::Time_log*>(lock.get())->notify_timelog_write(records, bytes);
    return true;
}

} // namespace

using Change = std::function<bool(Tree&)>; // true when the change was made
Q_DECLARE_METATYPE(Change)

class Tst_update_events : public QObject
{
    Q_OBJECT
private slots:
    void change_posts_and_stamps_data();
    void change_posts_and_stamps();
    void dead_and_unregistered_receivers();
    void registrations_from_threads_all_kept();
    void flush_after_pending_updates();
    void direct_signals();
    void edits_inside_a_change_data();
    void edits_inside_a_change();
    void type_numbers_whatever_the_order();
};

void Tst_update_events::change_posts_and_stamps_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<int>("type"); // of the event posted; -1: none
    QTest::addColumn<QString>("reached"); // receivers in the order they get it, the changed element's first
    QTest::addColumn<QString>("what");
    QTest::addColumn<int>("index");
    const QString point = "point ring field root", ring = "ring field root";
    QTest::newRow("attribute") << Change([](Tree& t) { return t.point.set_north(52.5); }) << int(attribute_updated)
                               << point << "C" << -1;
    QTest::newRow("extended parameter: no attribute") << Change([](Tree& t) { return t.point.pe_set_value("key", 3); })
                                                      << int(attribute_updated) << point << "" << -1;
    QTest::newRow("child added") << Change([](Tree& t) { return t.ring.create_point().valid(); }) << int(child_added)
                                 << ring << "PNT" << 1;
    QTest::newRow("child removed") << Change([](Tree& t) { return t.ring.remove_points(t.point); })
                                   << int(child_removed) << ring << "PNT" << 0;
    QTest::newRow("binary modified") << Change([](Tree& t) {
        Base::Element_locker_new lock(t.point, -1);
        static_cast<Base::Point*>(lock.get())->make_binary_points();
        static_cast<Base::Point*>(lock.get())->binary_points_changed();
        return true;
    }) << int(binary_modified) << point << "" << -1;
    QTest::newRow("binary appended") << Change([](Tree& t) { return notify_timelog_write(t.log, 10, 480); })
                                     << int(binary_appended) << "log root" << "" << -1;
    // Each setting path: element setter, link setter, attribute handle.
    QTest::newRow("noevent setters") << Change([](Tree& t) {
        return t.task.set_designator_noevent("quiet") && t.task.set_partfield_noevent(t.field) &&
               t.task.designator_attribute().set_string_noevent("again");
    }) << -1 << "" << "" << -1;
}

// A receiver on each named element, registered root first: a change reaches those of the changed
// element and its ancestors, leaf to root, none below or beside it. It raises the counter once
// and stamps the element, its list and every ancestor with it, nothing else; appended binary data
// is not in the XML: not stamped.
void Tst_update_events::change_posts_and_stamps()
{
    QFETCH(Change, change);
    QFETCH(int, type);
    QFETCH(QString, reached);
    QFETCH(QString, what);
    QFETCH(int, index);
    Tree t;
    const C::Point other = t.field.create_point(); // a branch no change touches
    QVector<Seen> log;
    std::vector<std::unique_ptr<Recorder>> receivers;
    for (const char* name : {"root", "field", "ring", "point", "log"}) {
        receivers.emplace_back(new Recorder(name, &log));
        QVERIFY(t.by_name(name).register_for_events(receivers.back().get()));
    }
    const quint64 counter = t.counter(), root_stamp = t.root.stamp(), other_stamp = other.stamp();
    QVERIFY(change(t));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(names_of(log).join(' '), reached);
    const C::Element changed = t.by_name(reached.section(' ', 0, 0));
    for (const Seen& s : log) {
        QCOMPARE(s.type, type);
        QCOMPARE(s.element, changed);
        QCOMPARE(s.what, what);
        QCOMPARE(s.index, index);
    }
    const bool stamped = type >= 0 && type != binary_appended;
    const quint64 now = t.counter();
    QCOMPARE(now, stamped ? counter + 1 : counter);
    QCOMPARE(t.root.stamp(), stamped ? now : root_stamp);
    QCOMPARE(other.stamp(), other_stamp);
    if (!stamped)
        return;
    for (C::Element e = changed; e.valid(); e = e.get_parent())
        QCOMPARE(e.stamp(), now);
    QCOMPARE(changed.stamp(true), now); // the list it sits in
    if (index >= 0)
        QCOMPARE(t.ring.points().stamp(), now); // the list changed
}

// A destroyed receiver stays registered until the next change's walk meets it; an unregistered
// one gets nothing more; one registered twice gets each change twice.
void Tst_update_events::dead_and_unregistered_receivers()
{
    Tree t;
    QVector<Seen> log;
    auto doomed = std::make_unique<Recorder>("doomed", &log);
    Recorder alive("alive", &log), dropped("unregistered", &log);
    QVERIFY(t.root.register_for_events(doomed.get()));
    QVERIFY(t.root.register_for_events(&alive));
    QVERIFY(t.root.register_for_events(doomed.get()));
    QVERIFY(t.root.register_for_events(&alive));
    QVERIFY(t.ring.register_for_events(&dropped));
    QVERIFY(t.ring.unregister_for_events(&dropped));
    QVERIFY(!t.ring.unregister_for_events(&dropped));
    doomed.reset();
    QVERIFY(t.point.set_designator("x"));
    QCOMPARE(t.root.get_base_elem()->receiver_count(), 2);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(names_of(log), (QStringList{"alive", "alive"}));
}

// Two threads register on the same fresh elements at once: the receiver store of an element is
// made by whichever comes first and both registrations land in it. Both start on each element at
// one moment on the clock, set a few microseconds ahead by the second to arrive (leaving a barrier
// by watching a counter would let the last to arrive run ahead by a cache transfer, longer than
// the moment in which two threads can both find the store missing).
void Tst_update_events::registrations_from_threads_all_kept()
{
    Tree t;
    const int elements = Ktd_test::sanitized ? 2000 : 50000;
    QVector<QSharedPointer<Base::Element>> points;
    for (int i = 0; i < elements; ++i)
        points.append(t.ring.create_point().get_base_elem());
    QObject receivers[2];
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
        lost += 2 - p->receiver_count();
    QCOMPARE(lost, 0);
}

// A flush posted from another thread between two halves of the updates still comes after all of
// them: the receiver's thread (this one) delivers nothing until both halves are posted.
void Tst_update_events::flush_after_pending_updates()
{
    Tree t;
    QVector<Seen> log;
    Recorder r("root", &log);
    QVERIFY(t.root.register_for_events(&r));
    for (int i = 0; i < 20; ++i)
        QVERIFY(t.point.set_up(i + 1));
    std::unique_ptr<QThread> flusher(QThread::create([&r] { post_flush_and_wait(&r); }));
    flusher->start();
    QThread::msleep(50);
    for (int i = 20; i < 40; ++i)
        QVERIFY(t.point.set_up(i + 1));
    while (!flusher->wait(5))
        QCoreApplication::sendPostedEvents();
    QCOMPARE(log.size(), 40);
    QCOMPARE(r.first_flush_after, 40);
}

class Slots : public QObject
{
    Q_OBJECT
public:
    QStringList calls;
    std::function<void()> edit; // run by the element and value slots, inside the change
public slots:
    void element_updated(TC::Task_data::Elements::Client::Element e)
    {
        calls << "element " + e.get_tag();
        if (edit)
            edit();
    }
    void attribute_updated(TC::Task_data::Attributes::Client::Attribute a) { calls << "attribute " + a.xml_name(); }
    void value_changed(QVariant v)
    {
        calls << "value " + v.toString();
        if (edit)
            edit();
    }
    void written(int32_t records, uint32_t bytes) { calls << QString("write %1 %2").arg(records).arg(bytes); }
};

#define ELEMENT_SIGNAL SIGNAL(updated(TC::Task_data::Elements::Client::Element))
#define ELEMENT_SLOT SLOT(element_updated(TC::Task_data::Elements::Client::Element))

void Tst_update_events::direct_signals()
{
    Tree t;
    Slots s;
    QVERIFY(t.root.connect(ELEMENT_SIGNAL, &s, ELEMENT_SLOT));
    QVERIFY(t.point.connect(SIGNAL(updated(TC::Task_data::Attributes::Client::Attribute)), &s,
                            SLOT(attribute_updated(TC::Task_data::Attributes::Client::Attribute))));
    QVERIFY(t.point.east_attribute().connect(SIGNAL(value_changed(QVariant)), &s, SLOT(value_changed(QVariant))));
    QVERIFY(t.task.connect(SIGNAL(timelog_write(int32_t, uint32_t)), &s, SLOT(written(int32_t, uint32_t))));
    QVERIFY(!t.point.connect(SIGNAL(updated(int)), &s, ELEMENT_SLOT));
    QVERIFY(t.point.set_east(7.5));
    QVERIFY(t.point.set_north(50.0)); // another attribute: no value_changed
    notify_timelog_write(t.log, 12, 576);
    const QString root = "element " + t.root.get_tag();
    QCOMPARE(s.calls, (QStringList{"attribute D", "value 7.5", root, "attribute C", root, "write 12 576"}));
    s.calls.clear();
    QVERIFY(t.root.disconnect(ELEMENT_SIGNAL, &s));
    QVERIFY(t.point.set_east(7.0));
    QCOMPARE(s.calls, (QStringList{"attribute D", "value 7"}));
}

using Edit = std::function<bool(Tree&, Slots&)>; // true when it held
Q_DECLARE_METATYPE(Edit)

// Everything here runs on one thread that already holds the changed element's lock (and, in the
// copy, the source's): the element lock must let that thread in again.
void Tst_update_events::edits_inside_a_change_data()
{
    QTest::addColumn<Edit>("edit");
    QTest::addColumn<int>("changes");
    QTest::newRow("value slot edits the same element") << Edit([](Tree& t, Slots& s) {
        s.edit = [&t] { t.point.set_north(1.5); };
        return t.point.east_attribute().connect(SIGNAL(value_changed(QVariant)), &s, SLOT(value_changed(QVariant))) &&
               t.point.set_east(7.5) && t.point.north() == 1.5;
    }) << 2;
    QTest::newRow("updated slot edits an ancestor") << Edit([](Tree& t, Slots& s) {
        s.edit = [&t] { t.field.set_designator("edited"); };
        return t.field.connect(ELEMENT_SIGNAL, &s, ELEMENT_SLOT) && t.point.set_east(7.5) &&
               t.field.designator() == "edited";
    }) << 2;
    QTest::newRow("operations under the caller's lock") << Edit([](Tree& t, Slots&) {
        Base::Element_locker_new lock(t.point, -1);
        return t.point.set_east(7.5) && t.point.set_north(1.5) && t.point.north() == 1.5;
    }) << 2;
    QTest::newRow("copy locks both through set") << Edit([](Tree& t, Slots&) {
        const C::Point source = t.ring.create_point();
        return source.set_east(7.5) && t.point.copy(source, t.eman, false) && t.point.east() == 7.5;
    }) << 3; // the new point, its value, the copy
}

void Tst_update_events::edits_inside_a_change()
{
    QFETCH(Edit, edit);
    QFETCH(int, changes);
    Tree t;
    Slots s;
    const quint64 counter = t.counter();
    QVERIFY(edit(t, s));
    QCOMPARE(t.counter(), counter + changes);
}

// In a fresh process the kinds are first used in an order unlike the table's: each still gets a
// number of its own and the table agrees.
void Tst_update_events::type_numbers_whatever_the_order()
{
    QCOMPARE(QProcess::execute(QCoreApplication::applicationFilePath(), {"--register-types"}), 0);
}

static int register_types()
{
    const std::function<QEvent::Type()> kinds[] = {
        &C::Attribute_update_qt_event::event_type, &C::Child_added_qt_event::event_type,
        &C::Child_removed_qt_event::event_type, &C::Binary_appended_qt_event::event_type,
        &C::Binary_modified_qt_event::event_type, &C::Flush_qt_event::event_type};
    for (int k : {4, 0, 5, 2, 1, 3})
        kinds[k]();
    const C::Event_types_ids ids;
    const QVector<int> table{ids.attribute_update, ids.child_added,     ids.child_removed,
                             ids.binary_appended,  ids.binary_modified, ids.flush};
    for (int i = 0; i < 6; ++i)
        if (table[i] != kinds[i]())
            return 1;
    return QSet<int>(table.begin(), table.end()).size() == 6 ? 0 : 2;
}

int main(int argc, char** argv)
{
    if (argc == 2 && qstrcmp(argv[1], "--register-types") == 0)
        return register_types();
    Ktd_test::Application app(argc, argv);
    Tst_update_events t;
    return QTest::qExec(&t, argc, argv);
}

#include "tst_update_events.moc"
