// Text rules of the attribute kinds: clamping on input, defaults and variants on output, flags,
// hexadecimal NAME values, 14-decimal floats, truncation, date-time forms and identifiers.
#include <taskdata/attributes/base/Datetime.h>
#include <taskdata/attributes/base/Float.h>
#include <taskdata/attributes/base/Integer.h>
#include <taskdata/attributes/base/String.h>
#include <taskdata/attributes/base/LinkedID.h>
#include <taskdata/attributes/base/UniqueID.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QtTest>

using namespace TC::Task_data::Attributes::Base;
using namespace TC::Task_data::Elements::Base;

namespace {
// A family like the task status: a narrow range for old versions, a wider one from version 4.
Attribute::Variant_map percent_family;
Int16::Spec percent_v0{"X", 0, false, 0, 50, 7, 0, 10, &percent_family, 0};
Int16::Spec percent_v4{"X", 0, false, 0, 100, 9, 0, 10, &percent_family, 4};
UInt8::Spec uint8_spec{"X", 0, false, 0, 254, 255};
UInt16::Spec ddi_spec{"X", 0, false, 0, 65535, 65535, 4, 16};
Int32::Spec int32_spec{"X", 0, false, std::numeric_limits<qint32>::min(), std::numeric_limits<qint32>::max(), 0};
UInt32::Spec uint32_spec{"X", 0, false, 0u, 4294967294u, 0u};
UInt64::Spec name_spec{"X", 0, false, 0ull, ~0ull, 0ull, 16, 16};
Float::Spec north_spec{"X", 0, false, -90.0, 90.0, 0.0, 12};
String::Spec upper_spec{"X", 0, false, 8, true};
Attribute::Variant_map label_family;
String::Spec label_v0{"X", 0, false, 4, false, &label_family, 0};
String::Spec label_v4{"X", 0, false, 10, false, &label_family, 4};
Datetime::Spec time_spec{"X", 0, false};

template <class A>
std::unique_ptr<Attribute> make_one()
{
    return std::make_unique<A>();
}

std::unique_ptr<Attribute> make(const QString& kind)
{
    static const QHash<QString, std::unique_ptr<Attribute> (*)()> kinds{
        {"percent", &make_one<Bound<Int16, percent_v4>>}, {"uint8", &make_one<Bound<UInt8, uint8_spec>>},
        {"ddi", &make_one<Bound<UInt16, ddi_spec>>},      {"int32", &make_one<Bound<Int32, int32_spec>>},
        {"uint32", &make_one<Bound<UInt32, uint32_spec>>}, {"name", &make_one<Bound<UInt64, name_spec>>},
        {"north", &make_one<Bound<Float, north_spec>>},   {"upper", &make_one<Bound<String, upper_spec>>},
        {"label", &make_one<Bound<String, label_v4>>},    {"time", &make_one<Bound<Datetime, time_spec>>}};
    return kinds.value(kind)();
}

// Sets an attribute the way an application does, from a text naming the value. The integer
// widths share one setter, so one of them stands for all.
bool set_from_text(const QSharedPointer<Element>& e, Attribute* a, const QString& text)
{
    if (auto i = dynamic_cast<UInt8*>(a))
        return i->set_val(e, quint8(text.toUInt()));
    if (auto f = dynamic_cast<Float*>(a))
        return f->set_val(e, text.toDouble());
    if (auto s = dynamic_cast<String*>(a))
        return s->set_string(e, text);
    if (auto d = dynamic_cast<Datetime*>(a))
        return d->set_qdt(e, QDateTime::fromString(text, Qt::ISODate));
    if (auto u = dynamic_cast<UniqueID*>(a))
        return u->set_val(e, text.mid(3).toInt());
    if (auto l = dynamic_cast<LinkedID*>(a))
        return l->set_val(e, text.left(3), text.mid(3).toInt());
    return false;
}

QString written(const Attribute& a, int version)
{
    QString out;
    return a.xml_value(out, nullptr, version) ? out : QStringLiteral("<not written>");
}
} // namespace

class Tst_attributes : public QObject
{
    Q_OBJECT
private slots:
    void read_and_write_data();
    void read_and_write();
    void setters_notify_only_changes();
    void datetime_valid_depends_on_previous_value();
    void uid_strings_data();
    void uid_strings();
    void set_after_empty_read_data();
    void set_after_empty_read();
};

void Tst_attributes::read_and_write_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("parsed");
    QTest::addColumn<QString>("v4");
    QTest::addColumn<QString>("v3");

    // Clamped on input to the widest member, replaced by the version's default on output.
    QTest::newRow("above max clamps") << "percent" << "250" << true << "100" << "7";
    QTest::newRow("below min clamps") << "percent" << "-3" << true << "0" << "0";
    QTest::newRow("only new version allows") << "percent" << "51" << true << "51" << "7";
    QTest::newRow("upper edge old version") << "percent" << "50" << true << "50" << "50";
    QTest::newRow("empty written empty") << "percent" << "" << false << "" << "";
    // A text that is no value of the kind reads as the default (and an integer kind says so).
    QTest::newRow("garbage is the default") << "percent" << "4x" << false << "9" << "9";
    // The parsed number is narrowed to the kind's width before it is clamped.
    QTest::newRow("uint8 narrowed then kept") << "uint8" << "300" << true << "44" << "44";
    QTest::newRow("hex with prefix is no number") << "ddi" << "0x12" << false << "FFFF" << "FFFF";
    QTest::newRow("hex minus one is no number") << "ddi" << "-1" << false << "FFFF" << "FFFF";
    QTest::newRow("unsigned negative is no number") << "uint32" << "-5" << false << "0" << "0";
    QTest::newRow("unsigned minus zero is zero") << "uint8" << "-0" << true << "0" << "0";
    QTest::newRow("int32 min") << "int32" << "-2147483648" << true << "-2147483648" << "-2147483648";
    QTest::newRow("int32 max") << "int32" << "2147483647" << true << "2147483647" << "2147483647";
    QTest::newRow("int32 overflow narrows") << "int32" << "2147483648" << true << "-2147483648" << "-2147483648";
    QTest::newRow("uint32 spec max") << "uint32" << "4294967295" << true << "4294967294" << "4294967294";
    QTest::newRow("leading plus") << "int32" << "+12" << true << "12" << "12";
    QTest::newRow("name all ones") << "name" << "FFFFFFFFFFFFFFFF" << true << "FFFFFFFFFFFFFFFF" << "FFFFFFFFFFFFFFFF";
    QTest::newRow("name short padded") << "name" << "a0" << true << "00000000000000A0" << "00000000000000A0";
    // Floats are written with 14 decimals.
    QTest::newRow("float exact text") << "north" << "52.123456789" << true << "52.12345678900000" << "52.12345678900000";
    QTest::newRow("float negative zero keeps sign") << "north" << "-0" << true << "-0.00000000000000" << "-0.00000000000000";
    QTest::newRow("float tiny") << "north" << "1e-15" << true << "0.00000000000000" << "0.00000000000000";
    QTest::newRow("float empty") << "north" << "" << false << "" << "";
    QTest::newRow("float clamps") << "north" << "91" << true << "90.00000000000000" << "90.00000000000000";
    QTest::newRow("inf is no number") << "north" << "-inf" << false << "0.00000000000000" << "0.00000000000000";
    QTest::newRow("nan is no number") << "north" << "nan" << false << "0.00000000000000" << "0.00000000000000";
    QTest::newRow("string truncated on input") << "upper" << "abcdefghij" << true << "ABCDEFGH" << "ABCDEFGH";
    QTest::newRow("string variant truncates") << "label" << "0123456789xyz" << true << "0123456789" << "0123";
    // Lengths count characters; a cut never splits a surrogate pair into invalid XML.
    QTest::newRow("pair counts once") << "upper" << QString("abcdefg\U0001F600") << true
                                      << QString("ABCDEFG\U0001F600") << QString("ABCDEFG\U0001F600");
    QTest::newRow("variant cut after a pair") << "label" << QString("abc\U0001F600xyz") << true
                                              << QString("abc\U0001F600xyz") << QString("abc\U0001F600");
    QTest::newRow("string empty") << "label" << "" << true << "" << "";
    // A date-time keeps its form; version 3 writes it without fraction and zone.
    QTest::newRow("date-time empty") << "time" << "" << true << "" << "";
    QTest::newRow("date-time without zone") << "time" << "2016-05-12T13:54:59" << true << "2016-05-12T13:54:59"
                                            << "2016-05-12T13:54:59";
    QTest::newRow("date-time utc with ms") << "time" << "2021-03-18T22:00:00.000Z" << true << "2021-03-18T22:00:00.000Z"
                                           << "2021-03-18T22:00:00";
    QTest::newRow("date-time negative offset") << "time" << "2022-10-19T18:00:37.682-05:00" << true
                                               << "2022-10-19T18:00:37.682-05:00" << "2022-10-19T18:00:37";
    QTest::newRow("date-time seven digits") << "time" << "2023-04-14T10:51:44.3655163+02:00" << true
                                            << "2023-04-14T10:51:44.3655163+02:00" << "2023-04-14T10:51:44";
}

void Tst_attributes::read_and_write()
{
    QFETCH(QString, kind);
    QFETCH(QString, text);
    QFETCH(bool, parsed);
    QFETCH(QString, v4);
    QFETCH(QString, v3);
    std::unique_ptr<Attribute> a = make(kind);
    Ktd_test::Capture_fd err(2);
    QCOMPARE(a->set_by_xml_value(QSharedPointer<Element>(), text), parsed);
    const QString printed = err.text();
    QVERIFY(a->present());
    QCOMPARE(a->empty_text(), text.isEmpty());
    if (!text.isEmpty() && kind != "time") // a date-time's first read is never flagged valid (below)
        QCOMPARE(a->valid(), parsed);
    QCOMPARE(written(*a, 4), v4);
    QCOMPARE(written(*a, 3), v3);
    // An integer text that is no number is reported; an empty one, or one of another kind, is not.
    const bool reported = !parsed && !text.isEmpty() && !QStringList{"north", "upper", "label", "time"}.contains(kind);
    const QString message = "Failed to convert " + text + "=>0:0 at lib/taskdata/attributes/base/Attribute_Base_";
    QVERIFY2(reported ? printed.startsWith(message) && printed.endsWith('\n') : printed.isEmpty(), qPrintable(printed));
}

void Tst_attributes::setters_notify_only_changes()
{
    auto man = Element_man::create();
    auto task = QSharedPointer<Task>::create(man);
    QVERIFY(task->designator.set_string(task, "Spraying"));
    const quint64 before = man->change_counter();
    QVERIFY(!task->designator.set_string(task, "Spraying"));
    QVERIFY(!task->designator.set_flag(task, Attribute::flag_valid, true));
    QCOMPARE(man->change_counter(), before);
    QVERIFY(task->designator.set_flag(task, Attribute::flag_valid, false));
    QCOMPARE(man->change_counter(), before + 1);
    QCOMPARE(task->stamp(), before + 1);
}

// The valid flag of a read takes the value held before it into account: the first read into a
// fresh attribute is never flagged valid, a second read of a good text is.
void Tst_attributes::datetime_valid_depends_on_previous_value()
{
    std::unique_ptr<Attribute> a = make("time");
    a->set_by_xml_value(QSharedPointer<Element>(), QStringLiteral("2016-05-12T13:54:59"));
    QVERIFY(static_cast<Datetime*>(a.get())->valid() && !a->is_flag_set(Attribute::flag_valid));
    a->set_by_xml_value(QSharedPointer<Element>(), QStringLiteral("2016-05-12T13:55:00"));
    QVERIFY(a->is_flag_set(Attribute::flag_valid));
    a->set_by_xml_value(QSharedPointer<Element>(), QStringLiteral("no date"));
    QVERIFY(!a->is_flag_set(Attribute::flag_valid));
    QCOMPARE(written(*a, 4), QString());
}

void Tst_attributes::uid_strings_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("prefix");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("message");
    QTest::newRow("negative") << "TSK-1" << true << "TSK" << -1 << "";
    QTest::newRow("zero padded") << "TLG00012" << true << "TLG" << 12 << "";
    QTest::newRow("no number") << "TSK" << false << "" << 0 << "Error deconstructing A TSK\n";
    QTest::newRow("lone minus") << "TSK-" << false << "" << 0 << "Error deconstructing B TSK-\n";
    QTest::newRow("minus ends number") << "A-1-2" << true << "A-1" << -2 << "";
    QTest::newRow("too large") << "TSK99999999999" << false << "" << 0 << "Error deconstructing B TSK99999999999\n";
}

void Tst_attributes::uid_strings()
{
    QFETCH(QString, text);
    QFETCH(bool, ok);
    QFETCH(QString, prefix);
    QFETCH(int, number);
    QFETCH(QString, message);
    QString p;
    int n = 0;
    Ktd_test::Capture_fd err(2);
    QCOMPARE(UniqueID::deconstruct_uid_string(p, n, text), ok);
    QCOMPARE(err.text(), message);
    if (ok) {
        QCOMPARE(p, prefix);
        QCOMPARE(n, number);
        QCOMPARE(UniqueID::construct_uid_string(p, n), text.startsWith("TLG") ? QString("TLG12") : text);
    }
}

// Read as empty text, then set by the application: the value is written, not the empty text.
void Tst_attributes::set_after_empty_read_data()
{
    QTest::addColumn<QString>("tag");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("integer, task status") << "TSK" << "G" << "3" << "3";
    QTest::newRow("Float, point north") << "PNT" << "C" << "52.5" << "52.50000000000000";
    QTest::newRow("String, field designator") << "PFD" << "C" << "North" << "North";
    QTest::newRow("Datetime, time start") << "TIM" << "A" << "2024-03-04T07:00:00Z" << "2024-03-04T07:00:00Z";
    QTest::newRow("UniqueID, field") << "PFD" << "A" << "PFD7" << "PFD7";
    QTest::newRow("LinkedID, field customer") << "PFD" << "E" << "CTR1" << "CTR1";
}

void Tst_attributes::set_after_empty_read()
{
    QFETCH(QString, tag);
    QFETCH(QString, name);
    QFETCH(QString, value);
    QFETCH(QString, text);
    auto man = Element_man::create();
    auto customer = Catalogue::create("CTR", man); // the link's target
    QVERIFY(customer->id_attribute()->set_val(customer, 1));
    QSharedPointer<Element> e = Catalogue::create(tag, man);
    Attribute* a = e->find_attribute(name);
    a->set_by_xml_value(e, QString());
    QVERIFY(a->empty_text());
    QVERIFY(set_from_text(e, a, value));
    QString out;
    QVERIFY(!a->empty_text() && a->xml_value(out, e.data(), 4));
    QCOMPARE(out, text);
}

QTEST_MAIN(Tst_attributes)
#include "tst_attributes.moc"
