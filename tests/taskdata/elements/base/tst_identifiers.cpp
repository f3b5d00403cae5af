// Identifier registry and links: free-number choice (including the gap scan near the top of the
// range), negative numbers for terminal-made elements, duplicates refused, references that
// resolve when their target arrives later, the registry following erase and add, and identities
// (numbers and GUIDs) taken over by copies.
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QBuffer>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>
#include <QtTest>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;

namespace {
// Reads a document body (the children of its root) into the manager's root.
QSharedPointer<Task_data> read_document(const QSharedPointer<Element_man>& man, const QByteArray& body, XML_interface& xi)
{
    auto root = man->root().dynamicCast<Task_data>();
    if (!root) {
        root = QSharedPointer<Task_data>::create(man);
        man->set_root(root);
    }
    QXmlStreamReader r(R"(<ISO11783_TaskData VersionMajor="4">)" + body + "</ISO11783_TaskData>");
    r.readNextStartElement();
    root->load_xml(root, r, xi);
    return root;
}

QByteArray write_document(const QSharedPointer<Element>& root, XML_interface& xi)
{
    QByteArray out;
    QBuffer b(&out);
    b.open(QIODevice::WriteOnly);
    QXmlStreamWriter w(&b);
    root->save_xml(root, w, xi);
    return out;
}
} // namespace

class Tst_identifiers : public QObject
{
    Q_OBJECT
private slots:
    void free_number_data();
    void free_number();
    void new_elements_count_down_data();
    void new_elements_count_down();
    void deregister_twice();
    void identifiers_read_data();
    void identifiers_read();
    void reference_follows_renumbering();
    void registry_follows_the_tree_data();
    void registry_follows_the_tree();
    void copy_takes_identity_data();
    void copy_takes_identity();
};

void Tst_identifiers::free_number_data()
{
    QTest::addColumn<QList<int>>("registered");
    QTest::addColumn<bool>("positive");
    QTest::addColumn<int>("expected");
    QTest::newRow("largest plus one, negatives ignored") << QList<int>{-5, 1, 7} << true << 8;
    QTest::newRow("smallest minus one, positives ignored") << QList<int>{5, -1, -9} << false << -10;
    QTest::newRow("just below top") << QList<int>{2147483644} << true << 2147483645;
    QTest::newRow("top reached scans for gap") << QList<int>{1, 2, 2147483645} << true << 3;
    QTest::newRow("max int registered") << QList<int>{1, 2147483647} << true << 2;
    QTest::newRow("just above bottom") << QList<int>{-2147483644} << false << -2147483645;
    QTest::newRow("bottom reached scans for gap") << QList<int>{-1, -2147483645} << false << -2;
}

void Tst_identifiers::free_number()
{
    QFETCH(QList<int>, registered);
    QFETCH(bool, positive);
    QFETCH(int, expected);
    auto man = Element_man::create();
    for (int n : registered)
        QVERIFY(man->register_uid("TSK", n));
    QCOMPARE(man->get_free_uid("TSK", positive), expected);
    QCOMPARE(man->get_free_uid("PFD", positive), positive ? 1 : -1); // none registered
}

void Tst_identifiers::new_elements_count_down_data()
{
    QTest::addColumn<QString>("tag");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("second");
    QTest::newRow("task, after TSK5 was read") << "TSK" << "TSK-1" << "TSK-2";
    QTest::newRow("link group (its identifier is required)") << "LGP" << "LGP-1" << "LGP-2";
    QTest::newRow("point (its identifier is optional)") << "PNT" << "" << "";
}

void Tst_identifiers::new_elements_count_down()
{
    QFETCH(QString, tag);
    QFETCH(QString, first);
    QFETCH(QString, second);
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man, R"(<TSK A="TSK5" G="1"/><PFD A="PFD1" C="f" D="0"/>)", xi);
    auto links = QSharedPointer<Link_lst>::create(man);
    man->set_link_list(links);
    Element_list* list = tag == "TSK" ? static_cast<Element_list*>(&root->tasks)
                         : tag == "LGP" ? static_cast<Element_list*>(&links->groups)
                                        : static_cast<Element_list*>(&root->partfields.typed_at(0)->points);
    QSharedPointer<Element> a = list->create_and_add();
    QSharedPointer<Element> b = list->create_and_add();
    QCOMPARE(a->get_id_string(), first);
    QCOMPARE(b->get_id_string(), second);
    QCOMPARE(a->get_guid().isNull(), first.isEmpty());
    QVERIFY(first.isEmpty() || a->get_guid() != b->get_guid());
    if (!second.isEmpty())
        QCOMPARE(man->lookup(tag, b->get_id()), b);
    QCOMPARE(root->tasks.typed_at(0)->id.get_val(), 5);
    // An element never given a number has none: not 0, and nothing is written for it.
    auto bare = QSharedPointer<Task>::create(man);
    QVERIFY(!bare->has_id());
    QVERIFY(bare->get_id_string().isEmpty());
    QVERIFY(!write_document(bare, xi).contains(" A="));
}

void Tst_identifiers::deregister_twice()
{
    auto man = Element_man::create();
    man->register_uid("TSK", 3);
    man->register_uid("TSK", -1); // 0 is looked up among the numbers 0 and below
    Ktd_test::Capture_fd out(1);
    const QVector<bool> done{man->deregister_uid("TSK", 3), man->deregister_uid("TSK", 3), man->deregister_uid("TSK", 0),
                             man->deregister_uid("XYZ", 3)};
    const QString printed = out.text(); // before any check: the test log shares stdout
    QCOMPARE(done, (QVector<bool>{true, false, true, false}));
    QCOMPARE(printed, QString("Tried to deregister a unique ID(TSK3) that does not exist\n"));
}

void Tst_identifiers::identifiers_read_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QStringList>("written"); // fragments of the document written back ("!": not there)
    QTest::addColumn<int>("pending");         // links left waiting
    QTest::newRow("number 0, links before and after it")
        << QByteArray(R"(<FRM A="FRM1" B="f" I="CTR0"/><CTR A="CTR0" B="c"/><FRM A="FRM2" B="g" I="CTR0"/>)")
        << QStringList{R"(<CTR A="CTR0")", R"(B="f" I="CTR0")", R"(B="g" I="CTR0")"} << 0;
    // Leading zeros are kept; a link names its target as the target's identifier is written.
    QTest::newRow("leading zeros") << QByteArray(R"(<PFD A="PFD0007" C="p" D="0"/><PFD A="PFD8" C="q" D="0"/>)"
                                                 R"(<TSK A="TSK1" E="PFD0007" G="1"/><TSK A="TSK2" E="PFD0008" G="1"/>)")
                                   << QStringList{R"(<PFD A="PFD0007")", R"(E="PFD0007")", R"(<PFD A="PFD8")", R"(E="PFD8")"} << 0;
    // The first element keeps a duplicated identifier and the links; a later one gets a new
    // number of the same sign, never 0.
    QTest::newRow("duplicate") << QByteArray(R"(<CTR A="CTR1" B="a"/><CTR A="CTR1" B="b"/><FRM A="FRM1" B="f" I="CTR1"/>)")
                               << QStringList{R"(<CTR A="CTR1" B="a")", R"(<CTR A="CTR2" B="b")", R"(I="CTR1")"} << 0;
    QTest::newRow("duplicate negative and 0")
        << QByteArray(R"(<WKR A="WKR-1" B="a"/><WKR A="WKR-1" B="b"/><WKR A="WKR0" B="c"/><WKR A="WKR0" B="d"/>)")
        << QStringList{R"(<WKR A="WKR-1" B="a")", R"(<WKR A="WKR-2" B="b")", R"(<WKR A="WKR0" B="c")", R"(<WKR A="WKR1" B="d")"} << 0;
    // The element kind decides the code, whatever the file says.
    QTest::newRow("foreign code") << QByteArray(R"(<TSK A="XYZ5" G="1"/>)") << QStringList{R"(<TSK A="TSK5")"} << 0;
    QTest::newRow("empty identifier written empty") << QByteArray(R"(<CTR A="" B="c"/>)") << QStringList{R"(<CTR A="" B="c")"} << 0;
    // A link to a target that never came is kept as read; an empty one is not written.
    QTest::newRow("unresolved link kept") << QByteArray(R"(<TSK A="TSK1" C="CTR9" E="" G="1"/>)")
                                          << QStringList{R"(C="CTR9")", "!E="} << 1;
    // A farm's customer link naming a farm number finds no customer: it waits.
    QTest::newRow("link to the wrong kind waits") << QByteArray(R"(<FRM A="FRM2" B="f" I="FRM2"/>)")
                                                  << QStringList{R"(I="FRM2")"} << 1;
}

void Tst_identifiers::identifiers_read()
{
    QFETCH(QByteArray, body);
    QFETCH(QStringList, written);
    QFETCH(int, pending);
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man, body, xi);
    const QByteArray out = write_document(root, xi);
    for (const QString& w : written)
        QVERIFY2(w.startsWith('!') ? !out.contains(w.mid(1).toUtf8()) : out.contains(w.toUtf8()), out.constData());
    QCOMPARE(man->pending_link_count(), pending);
    if (root->farms.count())
        QVERIFY(root->farms.typed_at(0)->customer.target() ==
                (root->customers.count() ? man->lookup("CTR", root->customers.typed_at(0)->get_id()) : nullptr));
    // Read again into the same tree, nothing moves.
    read_document(man, body, xi);
    QCOMPARE(write_document(root, xi), out);
}

void Tst_identifiers::reference_follows_renumbering()
{
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man, R"(<CTR A="CTR1" B="c"/><FRM A="FRM1" B="f" I="CTR1"/><PFD A="PFD1" C="p" D="0" E="CTR1"/>)", xi);
    auto customer = root->customers.typed_at(0);
    QVERIFY(customer->id.set_val(customer, 42));
    QVERIFY(!man->check_uid_free("CTR", 42));
    QVERIFY(man->check_uid_free("CTR", 1));
    const QByteArray out = write_document(root, xi);
    QVERIFY2(out.contains(R"(I="CTR42")") && out.contains(R"(E="CTR42")"), out.constData());
    // A number already taken is refused and the old one kept.
    auto other = root->customers.create();
    QVERIFY(!other->id.set_val(other, 42));
    QCOMPARE(other->id.get_val(), -1);
}

// A device with two elements is erased (or not), renumbered while out of the tree, its number
// taken by another device meanwhile, and added again: the registry always holds exactly the
// elements in the tree, and an element never comes back under a number in use.
void Tst_identifiers::registry_follows_the_tree_data()
{
    QTest::addColumn<int>("read"); // the device's number in the file
    QTest::addColumn<bool>("erase");
    QTest::addColumn<int>("renumber_while_out"); // 0: not renumbered
    QTest::addColumn<bool>("number_taken");      // another device takes the device's number
    QTest::addColumn<bool>("add_again");
    QTest::addColumn<bool>("added");
    QTest::addColumn<int>("number");
    QTest::addColumn<bool>("registered");
    QTest::newRow("erased: device and its elements leave") << 1 << true << 0 << false << false << false << 1 << false;
    QTest::newRow("erased and added again: registered again") << 1 << true << 0 << false << true << true << 1 << true;
    QTest::newRow("renumbered while out: the new number on return") << 1 << true << 8 << false << true << true << 8 << true;
    QTest::newRow("number taken while out: a new negative one") << 1 << true << 0 << true << true << true << -1 << true;
    QTest::newRow("added twice: refused, nothing changes") << 1 << false << 0 << false << true << false << 1 << true;
    QTest::newRow("number 0 erased and added again: 0 registered again")
        << 0 << true << 0 << false << true << true << 0 << true;
}

void Tst_identifiers::registry_follows_the_tree()
{
    QFETCH(int, read);
    QFETCH(bool, erase);
    QFETCH(int, renumber_while_out);
    QFETCH(bool, number_taken);
    QFETCH(bool, add_again);
    QFETCH(bool, added);
    QFETCH(int, number);
    QFETCH(bool, registered);
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man, R"(<DVC A="DVC)" + QByteArray::number(read) + R"(" D="0" F="00" G="FF">)"
                                   R"(<DET A="DET1" B="1" C="1" E="0" F="0"/><DET A="DET2" B="2" C="2" E="1" F="1"/></DVC>)", xi);
    QSharedPointer<Device> device = root->devices.typed_at(0);
    if (erase) {
        QSharedPointer<Element> self = device;
        QVERIFY(device->erase(self));
        QCOMPARE(root->devices.count(), 0);
    }
    if (renumber_while_out)
        QVERIFY(device->id.set_val(device, renumber_while_out));
    if (number_taken) {
        auto other = root->devices.create();
        QVERIFY(other->id.set_val(other, read));
    }
    if (add_again) {
        Ktd_test::Capture_fd quiet(2);
        QCOMPARE(root->devices.add(device), added);
    }
    QCOMPARE(root->devices.count(), (erase && !added ? 0 : 1) + (number_taken ? 1 : 0));
    QCOMPARE(device->id.get_val(), number);
    QVERIFY(device->has_id());
    QCOMPARE(man->lookup("DVC", number) == device, registered);
    const QList<int> elements = man->registered_uids("DET");
    QCOMPARE(elements, registered ? (QList<int>{1, 2}) : QList<int>());
    // Registered identifiers keep their GUIDs in the GUID list; released ones leave it.
    QUuid guid;
    QCOMPARE(man->lookup_guid("DVC", number, guid) && guid == device->get_guid(), registered);
}

// A task linking customer CTR7 is copied into a fresh task, with or without its identifiers and
// with GUIDs translated or not. The destination knows the customer's GUID as CTR9 (and a mapped
// GUID as CTR11); copies in the same manager keep the source's own target.
void Tst_identifiers::copy_takes_identity_data()
{
    QTest::addColumn<bool>("same_manager");
    QTest::addColumn<bool>("copy_ids");
    QTest::addColumn<bool>("map_task");
    QTest::addColumn<bool>("map_customer");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("guid"); // "source", "mapped" or "own"
    QTest::addColumn<int>("customer");
    QTest::newRow("ids copied: number, GUID, link by GUID") << false << true << false << false << 3 << "source" << 9;
    QTest::newRow("ids copied, GUIDs mapped") << false << true << true << true << 3 << "mapped" << 11;
    QTest::newRow("own number, GUID mapped") << false << false << true << false << -1 << "mapped" << 9;
    QTest::newRow("own identity") << false << false << false << false << -1 << "own" << 9;
    QTest::newRow("same manager: number in use, own kept") << true << true << false << false << -1 << "own" << 7;
}

void Tst_identifiers::copy_takes_identity()
{
    QFETCH(bool, same_manager);
    QFETCH(bool, copy_ids);
    QFETCH(bool, map_task);
    QFETCH(bool, map_customer);
    QFETCH(int, number);
    QFETCH(QString, guid);
    QFETCH(int, customer);
    const QUuid task_guid = QUuid::createUuid(), customer_guid = QUuid::createUuid();
    const QUuid mapped_task = QUuid::createUuid(), mapped_customer = QUuid::createUuid();
    XML_interface xi;
    auto source_man = Element_man::create();
    auto source_root = read_document(source_man, R"(<CTR A="CTR7" B="c"/><TSK A="TSK3" B="t" C="CTR7" G="1"/>)", xi);
    source_man->register_uid_for_guid("TSK", 3, task_guid);
    source_man->register_uid_for_guid("CTR", 7, customer_guid);
    auto man = same_manager ? source_man : Element_man::create();
    auto root = same_manager ? source_root : read_document(man, R"(<CTR A="CTR9" B="c"/><CTR A="CTR11" B="m"/>)", xi);
    if (!same_manager) {
        man->register_uid_for_guid("CTR", 9, customer_guid);
        man->register_uid_for_guid("CTR", 11, mapped_customer);
    }
    QSharedPointer<Element> copy = root->tasks.create();
    const QUuid own_guid = copy->get_guid();
    QMap<QUuid, QUuid> map;
    if (map_task)
        map.insert(task_guid, mapped_task);
    if (map_customer)
        map.insert(customer_guid, mapped_customer);
    copy->set(copy, source_root->tasks.at(0).data(), false, true, map, {}, copy_ids);
    auto task = copy.staticCast<Task>();
    QCOMPARE(task->id.get_val(), number);
    const QUuid expected_guid = guid == "mapped" ? mapped_task : guid == "own" ? own_guid : task_guid;
    QCOMPARE(task->get_guid(), expected_guid);
    QCOMPARE(man->lookup("TSK", number), copy);
    QString prefix;
    int n = 0;
    QVERIFY(man->lookup_uid_for_guid(task->get_guid(), prefix, n));
    QCOMPARE(n, number);
    QCOMPARE(task->customer.get_val(), customer);
    QCOMPARE(task->designator.get_string(), QString("t"));
}

QTEST_MAIN(Tst_identifiers)
#include "tst_identifiers.moc"
