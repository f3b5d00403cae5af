// Identifier registry and links: free-number choice (including the gap scan near the top of the
// range), negative numbers for terminal-made elements, duplicates refused, GUID pairing, and
// references that resolve when their target arrives later.
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
QSharedPointer<Task_data> read_document(const QSharedPointer<Element_man>& man, const QByteArray& xml, XML_interface& xi)
{
    auto root = man->root().dynamicCast<Task_data>();
    if (!root) {
        root = QSharedPointer<Task_data>::create(man);
        man->set_root(root);
    }
    QXmlStreamReader r(xml);
    while (!r.atEnd())
        if (r.readNext() == QXmlStreamReader::StartElement) {
            root->load_xml(root, r, xi);
            break;
        }
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
    void new_elements_count_down();
    void deregister_twice();
    void identifiers_read_data();
    void identifiers_read();
    void reference_follows_renumbering();
    void reference_to_wrong_kind_waits();
    void unresolved_reference_written_back();
    void guid_attached_later();
    void erase_releases_descendants();
};

void Tst_identifiers::free_number_data()
{
    QTest::addColumn<QList<int>>("registered");
    QTest::addColumn<bool>("positive");
    QTest::addColumn<int>("expected");
    QTest::addColumn<QString>("message");
    QTest::newRow("empty positive") << QList<int>{} << true << 1 << "";
    QTest::newRow("empty negative") << QList<int>{} << false << -1 << "";
    QTest::newRow("largest plus one") << QList<int>{1, 2, 7} << true << 8 << "";
    QTest::newRow("negatives ignored for positive") << QList<int>{-5, 3} << true << 4 << "";
    QTest::newRow("smallest minus one") << QList<int>{-1, -2, -9} << false << -10 << "";
    QTest::newRow("positives ignored for negative") << QList<int>{5} << false << -1 << "";
    QTest::newRow("top reached scans for gap") << QList<int>{1, 2, 2147483645} << true << 3 << "";
    QTest::newRow("top reached gap at one") << QList<int>{2, 2147483645} << true << 1 << "";
    QTest::newRow("just below top") << QList<int>{2147483644} << true << 2147483645 << "";
    QTest::newRow("max int registered") << QList<int>{1, 2147483647} << true << 2 << "";
    QTest::newRow("bottom reached scans for gap") << QList<int>{-1, -2147483645} << false << -2 << "";
    QTest::newRow("just above bottom") << QList<int>{-2147483644} << false << -2147483645 << "";
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
    QCOMPARE(man->get_free_uid("PFD", positive), positive ? 1 : -1);
}

void Tst_identifiers::new_elements_count_down()
{
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man, R"(<ISO11783_TaskData VersionMajor="4"><TSK A="TSK5" G="1"/></ISO11783_TaskData>)", xi);
    auto first = root->tasks.create();
    auto second = root->tasks.create();
    QCOMPARE(first->id.get_as_string(), QString("TSK-1"));
    QCOMPARE(second->id.get_as_string(), QString("TSK-2"));
    QCOMPARE(root->tasks.typed_at(0)->id.get_val(), 5);
    QVERIFY(!first->get_guid().isNull());
    QVERIFY(first->get_guid() != second->get_guid());
    QCOMPARE(man->lookup("TSK", -2), second.staticCast<Element>());
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
    const bool first = man->deregister_uid("TSK", 3);
    const bool second = man->deregister_uid("TSK", 3);
    const bool zero = man->deregister_uid("TSK", 0);
    const bool unknown_prefix = man->deregister_uid("XYZ", 3);
    const QString printed = out.text(); // before any check: the test log shares stdout
    QVERIFY(first);
    QVERIFY(!second);
    QVERIFY(zero);
    QVERIFY(!unknown_prefix);
    QCOMPARE(printed, QString("Tried to deregister a unique ID(TSK3) that does not exist\n"));
}

void Tst_identifiers::identifiers_read_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QStringList>("written"); // fragments of the document written back
    QTest::newRow("number 0, link after it") << QByteArray(R"(<CTR A="CTR0" B="c"/><FRM A="FRM1" B="f" I="CTR0"/>)")
                                             << QStringList{R"(<CTR A="CTR0")", R"(I="CTR0")"};
    QTest::newRow("number 0, link before it") << QByteArray(R"(<FRM A="FRM1" B="f" I="CTR0"/><CTR A="CTR0" B="c"/>)")
                                              << QStringList{R"(<CTR A="CTR0")", R"(I="CTR0")"};
    QTest::newRow("forward link") << QByteArray(R"(<FRM A="FRM1" B="f" I="CTR7"/><CTR A="CTR7" B="c"/>)")
                                  << QStringList{R"(I="CTR7")"};
    QTest::newRow("leading zeros kept") << QByteArray(R"(<PFD A="PFD0007" C="p" D="0"/><TSK A="TSK1" E="PFD0007" G="1"/>)")
                                        << QStringList{R"(<PFD A="PFD0007")", R"(E="PFD0007")"};
    // A link names its target as the target's identifier is written.
    QTest::newRow("padded link to plain identifier")
        << QByteArray(R"(<PFD A="PFD7" C="p" D="0"/><TSK A="TSK1" E="PFD0007" G="1"/>)")
        << QStringList{R"(<PFD A="PFD7")", R"(E="PFD7")"};
    // The first element keeps a duplicated identifier and the links; a later one gets a new
    // number of the same sign, never 0.
    QTest::newRow("duplicate") << QByteArray(R"(<CTR A="CTR1" B="a"/><CTR A="CTR1" B="b"/><FRM A="FRM1" B="f" I="CTR1"/>)")
                               << QStringList{R"(<CTR A="CTR1" B="a")", R"(<CTR A="CTR2" B="b")", R"(I="CTR1")"};
    QTest::newRow("duplicate negative") << QByteArray(R"(<WKR A="WKR-1" B="a"/><WKR A="WKR-1" B="b"/>)")
                                        << QStringList{R"(<WKR A="WKR-1" B="a")", R"(<WKR A="WKR-2" B="b")"};
    QTest::newRow("duplicate 0") << QByteArray(R"(<WKR A="WKR0" B="a"/><WKR A="WKR0" B="b"/>)")
                                 << QStringList{R"(<WKR A="WKR0" B="a")", R"(<WKR A="WKR1" B="b")"};
    // The element kind decides the code, whatever the file says.
    QTest::newRow("foreign code") << QByteArray(R"(<TSK A="XYZ5" G="1"/>)") << QStringList{R"(<TSK A="TSK5")"};
}

void Tst_identifiers::identifiers_read()
{
    QFETCH(QByteArray, body);
    QFETCH(QStringList, written);
    const QByteArray xml = R"(<ISO11783_TaskData VersionMajor="4">)" + body + "</ISO11783_TaskData>";
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man, xml, xi);
    const QByteArray out = write_document(root, xi);
    for (const QString& w : written)
        QVERIFY2(out.contains(w.toUtf8()), out.constData());
    QCOMPARE(man->pending_link_count(), 0);
    if (root->farms.count())
        QVERIFY(root->farms.typed_at(0)->customer.target() == man->lookup("CTR", root->customers.typed_at(0)->get_id()));
    // Read again into the same tree, nothing moves.
    read_document(man, xml, xi);
    QCOMPARE(write_document(root, xi), out);
}

void Tst_identifiers::reference_follows_renumbering()
{
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man,
                              R"(<ISO11783_TaskData VersionMajor="4"><CTR A="CTR1" B="c"/>)"
                              R"(<FRM A="FRM1" B="f" I="CTR1"/><PFD A="PFD1" C="p" D="0" E="CTR1"/></ISO11783_TaskData>)",
                              xi);
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

void Tst_identifiers::reference_to_wrong_kind_waits()
{
    auto man = Element_man::create();
    XML_interface xi;
    // The farm's customer reference names a farm number: not a customer, so it stays pending.
    auto root = read_document(man, R"(<ISO11783_TaskData VersionMajor="4"><FRM A="FRM2" B="f" I="FRM2"/></ISO11783_TaskData>)", xi);
    auto farm = root->farms.typed_at(0);
    QVERIFY(farm->customer.target().isNull());
    QCOMPARE(man->pending_link_count(), 1);
}

void Tst_identifiers::unresolved_reference_written_back()
{
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man,
                              R"(<ISO11783_TaskData VersionMajor="4"><TSK A="TSK1" C="CTR9" E="" G="1"/></ISO11783_TaskData>)",
                              xi);
    const QByteArray out = write_document(root, xi);
    // A reference to a customer that never came is kept as read; an empty one is not written.
    QVERIFY2(out.contains(R"(C="CTR9")"), out.constData());
    QVERIFY2(!out.contains(R"(E=)"), out.constData());
}

void Tst_identifiers::guid_attached_later()
{
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man, R"(<ISO11783_TaskData VersionMajor="4"><WKR A="WKR3" B="w"/></ISO11783_TaskData>)", xi);
    const QUuid guid("{6f1c1d39-8f39-4c4e-9a3e-1b2c3d4e5f60}");
    man->register_uid_for_guid("WKR", 3, guid);
    QCOMPARE(root->workers.typed_at(0)->get_guid(), guid);
    QString prefix;
    int n = 0;
    QVERIFY(man->lookup_uid_for_guid(guid, prefix, n));
    QCOMPARE(prefix, QString("WKR"));
    QCOMPARE(n, 3);
}

void Tst_identifiers::erase_releases_descendants()
{
    auto man = Element_man::create();
    XML_interface xi;
    auto root = read_document(man,
                              R"(<ISO11783_TaskData VersionMajor="4"><DVC A="DVC1" D="0" F="00" G="FF">)"
                              R"(<DET A="DET1" B="1" C="1" E="0" F="0"/><DET A="DET2" B="2" C="2" E="1" F="1"/></DVC>)"
                              R"(</ISO11783_TaskData>)",
                              xi);
    QSharedPointer<Element> device = root->devices.at(0);
    QVERIFY(!man->check_uid_free("DET", 2));
    QVERIFY(device->erase(device));
    QCOMPARE(root->devices.count(), 0);
    QVERIFY(man->check_uid_free("DVC", 1));
    QVERIFY(man->check_uid_free("DET", 1));
    QVERIFY(man->check_uid_free("DET", 2));
}

QTEST_MAIN(Tst_identifiers)
#include "tst_identifiers.moc"
