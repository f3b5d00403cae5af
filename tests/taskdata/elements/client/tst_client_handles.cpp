// Client handles: every accessor of a few kinds, generated from the catalogue, on a live element
// (the value goes in and comes back) and on an erased one (the empty result, nothing changed),
// the generic operations on an erased element; identity, lookup, list limits, the manager.
#include <taskdata/elements/client/Elements.h>

#include <QTemporaryDir>
#include <QtTest>

#include <functional>
#include <tuple>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements;
namespace C = TC::Task_data::Elements::Client;
namespace AB = TC::Task_data::Attributes::Base;

namespace {

// A tree with one element of each kind under test, as live handles, and the same kinds once
// more as handles whose elements were erased.
struct Fixture
{
    C::Element_man eman = C::Element_man::create();
    C::Task_data root = eman.create_client_root();
    using Handles = std::tuple<C::Task, C::Device, C::Time, C::Process_data_variable, C::Link>;
    Handles live;
    Handles dead;
    C::Task spare_task = root.create_task(); // a live child for adding to dead lists
    QVector<QSharedPointer<Base::Element>> targets; // link targets, kept alive

    Fixture()
    {
        live = make();
        dead = make();
        std::apply([](const auto&... h) { (h.kill(), ...); }, dead);
    }
    Handles make()
    {
        C::Task task = root.create_task();
        auto link_root = QSharedPointer<Base::Link_lst>::create(eman.get_eman_real().toWeakRef());
        auto group = link_root->groups.create();
        targets << link_root;
        const C::Link link(group->links.create());
        return {task, root.create_device(), task.create_time(),
                task.create_treatment_zone().create_process_data_variable(), link};
    }
    quint64 counter() const { return eman.get_eman_real()->change_counter(); }
    // The change counter and the registry: what an operation on an erased element leaves alone.
    QString state() const
    {
        QString out = QString::number(counter());
        const auto m = eman.get_eman_real();
        for (const QString& prefix : m->registered_prefixes())
            for (int n : m->registered_uids(prefix))
                out += ' ' + prefix + QString::number(n);
        return out;
    }

    // A value the attribute does not hold by default, within its range.
    template <class T>
    T sample(const AB::Integer<T>& a)
    {
        const auto& s = a.base_spec();
        return s.max != s.def ? s.max : s.min;
    }
    double sample(const AB::Float& a) { return a.base_spec().max != a.base_spec().def ? a.base_spec().max : a.base_spec().min; }
    QString sample(const AB::String& a) { return QStringLiteral("abcdefgh").left(int(a.base_spec().max_length)); }
    QDateTime sample(const AB::Datetime&) { return QDateTime(QDate(2023, 6, 1), QTime(12, 30), Qt::UTC); }
    int sample(const AB::UniqueID&) { return 4242; }
    template <class E>
    typename C::Client_of<E>::type sample(const AB::LinkedID_t<E>&)
    {
        using Target = std::conditional_t<std::is_same<E, Base::Element>::value, Base::Task, E>;
        auto t = QSharedPointer<Target>::create(eman.get_eman_real().toWeakRef());
        targets << t;
        return typename C::Client_of<E>::type(t.template staticCast<Base::Element>());
    }
};

} // namespace

// Each answers whether it held.
using Check = std::function<bool(Fixture&)>;
Q_DECLARE_METATYPE(Check)

namespace {

void add(const QByteArray& name, const Check& check) { QTest::newRow(name.constData()) << check; }

// One attribute `m` of the kind H (client) and B (base) named `kind`, set around each expansion
// below: on the erased element the empty result and nothing changed; on the live one the value
// goes in and comes back.
#define ROW_ATTR(m)                                                                             \
    add(kind + "::" #m, [](Fixture& f) {                                                        \
        const H h = std::get<H>(f.live), d = std::get<H>(f.dead);                               \
        const auto v = f.sample(static_cast<B*>(h.get_base_elem().data())->m);                  \
        const QString before = f.state();                                                       \
        const bool dead = d.m() == decltype(d.m())() && !d.set_##m(v) &&                        \
                          !d.m##_attribute().set_by_text("1") && f.state() == before;           \
        const quint64 counter = f.counter();                                                    \
        return dead && h.set_##m(v) && h.m() == v && f.counter() == counter + 1 &&              \
               h.m##_attribute().to_string() == h.get_attribute_string(B::idx_##m);             \
    });
#define ROW_K(Kind, m, ...) ROW_ATTR(m)
#define ROW_M(m, ...) ROW_ATTR(m)
#define ROW_LIST(T, m, tag, v, s, max)                                                          \
    add(kind + "::" #m, [](Fixture& f) {                                                        \
        const H h = std::get<H>(f.live), d = std::get<H>(f.dead);                               \
        const QString before = f.state();                                                       \
        const bool dead = d.m##_count() == 0 && !d.get_##s(0).valid() && !d.create_##s().valid() && \
                          f.state() == before;                                                  \
        const int n = h.m##_count();                                                            \
        const C::T child = h.create_##s();                                                      \
        const bool made = child.valid() && h.m##_count() == n + 1 && h.get_##s(n) == child;     \
        return dead && made && h.remove_##m(child) && h.m##_count() == n && !child.valid();     \
    });
#define ROWS(Cls)                                                                               \
    {                                                                                           \
        using H = C::Cls;                                                                       \
        using B = Base::Cls;                                                                    \
        const QByteArray kind = #Cls;                                                           \
        KTD_##Cls(ROW_K, ROW_K, ROW_M, ROW_M, ROW_M, ROW_M, ROW_M, ROW_M, ROW_K, ROW_K, ROW_M, ROW_LIST) \
    }

void add_rows()
{
    ROWS(Task)
    ROWS(Device)
    ROWS(Time)
    ROWS(Process_data_variable)
    ROWS(Link)
    // The generic operations on an erased task: one for each way the handle, its list handles
    // and its attribute handles reach the element, and those with a guard of their own.
    add("Element erased", [](Fixture& f) {
        const C::Task h = std::get<C::Task>(f.dead);
        const C::Element_list l(h, int(Base::Task::lidx_times));
        C::Element spare = f.spare_task;
        QObject r;
        QTemporaryDir dir;
        const QByteArray path = dir.filePath("task.xml").toLocal8Bit();
        const QString before = f.state();
        return !h.valid() && QByteArray(h.get_ctag()).isEmpty() && h.index_in_parent() == -1 &&
               !h.pe_set_value("k", 1) && h.pe_value("k", 7).toInt() == 7 && !h.add_to_list(spare, 0) &&
               !h.copy(f.spare_task, f.eman) && !spare.copy(h, f.eman) && !l.valid() && !l.add(f.spare_task) &&
               !l.copy_child(f.spare_task).valid() && !h.register_for_events(&r) &&
               !h.designator_attribute().connect(SIGNAL(destroyed()), &r, SLOT(deleteLater())) &&
               !h.save_to_xml(path.constData()) && !QFile::exists(path) && !h.get_element_man().valid() &&
               f.state() == before && f.spare_task.get_parent() == f.root;
    });
}

} // namespace

class Tst_client_handles : public QObject
{
    Q_OBJECT
private slots:
    void accessors_data();
    void accessors();
    void identity_and_lookup();
    void list_limits();
    void manager_saves_and_loads();
};

void Tst_client_handles::accessors_data()
{
    QTest::addColumn<Check>("check");
    add_rows();
}

void Tst_client_handles::accessors()
{
    QFETCH(Check, check);
    Fixture f;
    QVERIFY(check(f));
}

void Tst_client_handles::identity_and_lookup()
{
    Fixture f;
    const C::Task task = std::get<C::Task>(f.live);
    const C::Device device = std::get<C::Device>(f.live);
    QVERIFY(!(C::Element(task) == C::Element(f.spare_task)));
    QVERIFY(!C::Device(C::Element(task)).valid()); // a handle of another kind is empty
    QVERIFY(task.set_id(17) && device.set_id(17));
    QCOMPARE(f.eman.find_element<C::Task>(17), task);
    QCOMPARE(f.eman.find_element<C::Device>(17), device);
    QVERIFY(!f.eman.find_element<C::Task>(18).valid());
    QCOMPARE(std::get<C::Time>(f.live).find_element<C::Task>(17), task);

    // Paths run up to the nearest ancestor with an identifier, positions counted from 1.
    const C::Partfield field = f.root.create_partfield();
    const C::Polygon polygon = field.create_polygon();
    polygon.create_line_string();
    const C::Point point = polygon.create_line_string().create_point();
    QCOMPARE(point.get_full_id(), field.get_uid() + "/PLN[1]/LSG[2]/PNT[1]");
    QCOMPARE(C::Element(point.get_parent()).index_in_parent(), 1);
    QCOMPARE(task.get_full_id(), task.get_uid());
    QCOMPARE(f.root.get_full_id(), f.root.get_tag());

    QVERIFY(f.root.set_current_task(task));
    QVERIFY(task.kill());
    QVERIFY(!f.root.current_task().valid());
}

void Tst_client_handles::list_limits()
{
    Fixture f;
    const C::Task task = std::get<C::Task>(f.live);
    QVERIFY(task.create_grid().valid());
    QVERIFY(!task.create_grid().valid()); // one grid at most
    const C::Grid loose(QSharedPointer<Base::Grid>::create(f.eman.get_eman_real().toWeakRef()));
    QVERIFY(!task.add_grid(loose));
    QVERIFY(!task.times().add(loose)); // another kind
    QCOMPARE(task.grids_count(), 1);
}

// A manager keeps the version a document was read in; state belongs to the manager, not to the
// handle; destroying it takes the tree with it.
void Tst_client_handles::manager_saves_and_loads()
{
    QTemporaryDir dir;
    Fixture f;
    const C::Task task = std::get<C::Task>(f.live);
    QVERIFY(task.set_designator("Spraying"));
    f.eman.set_xml_version(3);
    QVERIFY(f.eman.save_to_xml(dir.path().toLocal8Bit().constData()));
    C::Element_man other = C::Element_man::create();
    QVERIFY(other.load_from_xml(dir.path().toLocal8Bit().constData()));
    QCOMPARE(other.get_xml_version(), 3);
    QCOMPARE(C::Element_man(other.get_eman_real()).get_taskdata_load_path(), dir.path());
    const C::Task loaded = other.find_element<C::Task>(task.id());
    QCOMPARE(loaded.designator(), QString("Spraying"));
    other.destroy();
    QVERIFY(!other.valid());
    QVERIFY(!loaded.valid());
}

QTEST_GUILESS_MAIN(Tst_client_handles)
#include "tst_client_handles.moc"
