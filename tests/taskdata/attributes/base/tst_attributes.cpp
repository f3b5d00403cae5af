// Text rules of the attribute kinds: clamping on input, defaults and variants on output, flags,
// hexadecimal NAME values, 14-decimal floats, truncation, date-time forms and identifiers.
#include <taskdata/attributes/base/Datetime.h>
#include <taskdata/attributes/base/Float.h>
#include <taskdata/attributes/base/Integer.h>
#include <taskdata/attributes/base/String.h>
#include <taskdata/attributes/base/LinkedID.h>
#include <taskdata/attributes/base/UniqueID.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QBuffer>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>
#include <QtTest>

using namespace TC::Task_data::Attributes::Base;
using namespace TC::Task_data::Elements::Base;

namespace {
// A family like the task status: a narrow range for old versions, a wider one from version 4.
Attribute::Variant_map percent_family;
Int16::Spec percent_v0{"X", 0, false, 0, 50, 7, 0, 10, &percent_family, 0};
Int16::Spec percent_v4{"X", 0, false, 0, 100, 9, 0, 10, &percent_family, 4};
Int8::Spec int8_spec{"X", 0, false, -1, 63, -1};
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

using Percent = Bound<Int16, percent_v4>;
using Small = Bound<Int8, int8_spec>;
using Byte = Bound<UInt8, uint8_spec>;
using Ddi = Bound<UInt16, ddi_spec>;
using Long = Bound<Int32, int32_spec>;
using ULong = Bound<UInt32, uint32_spec>;
using Name = Bound<UInt64, name_spec>;
using North = Bound<Float, north_spec>;
using Upper = Bound<String, upper_spec>;
using Label = Bound<String, label_v4>;

std::unique_ptr<Attribute> make(const QString& kind)
{
    if (kind == "percent")
        return std::make_unique<Percent>();
    if (kind == "int8")
        return std::make_unique<Small>();
    if (kind == "uint8")
        return std::make_unique<Byte>();
    if (kind == "ddi")
        return std::make_unique<Ddi>();
    if (kind == "int32")
        return std::make_unique<Long>();
    if (kind == "uint32")
        return std::make_unique<ULong>();
    if (kind == "name")
        return std::make_unique<Name>();
    if (kind == "north")
        return std::make_unique<North>();
    if (kind == "upper")
        return std::make_unique<Upper>();
    if (kind == "label")
        return std::make_unique<Label>();
    return nullptr;
}

// Sets an attribute of any kind the way an application does, from a text naming the value.
template <class I>
bool set_integer(const QSharedPointer<Element>& e, Attribute* a, const QString& text, bool& done)
{
    auto i = dynamic_cast<I*>(a);
    if (!i)
        return false;
    bool is_signed = false;
    const qint64 v = text.toLongLong(&is_signed, 0);
    done = i->set_val(e, typename I::value_type(is_signed ? quint64(v) : text.toULongLong(nullptr, 0)));
    return true;
}

bool set_from_text(const QSharedPointer<Element>& e, Attribute* a, const QString& text)
{
    bool done = false;
    if (set_integer<Int8>(e, a, text, done) || set_integer<UInt8>(e, a, text, done) ||
        set_integer<Int16>(e, a, text, done) || set_integer<UInt16>(e, a, text, done) ||
        set_integer<Int32>(e, a, text, done) || set_integer<UInt32>(e, a, text, done) ||
        set_integer<UInt64>(e, a, text, done))
        return done;
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

QSharedPointer<Element> find_first(const QSharedPointer<Element>& e, const QString& tag)
{
    if (e->get_tag() == tag)
        return e;
    for (unsigned l = 0; l < e->_num_element_lists(); ++l)
        for (const auto& c : e->_element_list(l)->elements())
            if (auto found = find_first(c, tag))
                return found;
    return QSharedPointer<Element>();
}

QSharedPointer<Task_data> read_root(const QSharedPointer<Element_man>& man, const QByteArray& xml)
{
    auto root = QSharedPointer<Task_data>::create(man);
    man->set_root(root);
    TC::Task_data::XML_interface xi;
    QXmlStreamReader r(xml);
    while (r.readNext() != QXmlStreamReader::StartElement && !r.atEnd()) {
    }
    root->load_xml(root, r, xi);
    return root;
}

QString written(const Attribute& a, int version)
{
    QString out;
    if (!a.xml_value(out, nullptr, version))
        return QStringLiteral("<not written>");
    return out;
}
} // namespace

class Tst_attributes : public QObject
{
    Q_OBJECT
private slots:
    void read_and_write_data();
    void read_and_write();
    void failed_integer_is_reported_data();
    void failed_integer_is_reported();
    void float_text_data();
    void float_text();
    void setters_notify_once();
    void datetime_forms_data();
    void datetime_forms();
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
    QTest::newRow("in range") << "percent" << "42" << true << "42" << "42";
    QTest::newRow("above max clamps") << "percent" << "250" << true << "100" << "7";
    QTest::newRow("below min clamps") << "percent" << "-3" << true << "0" << "0";
    QTest::newRow("only new version allows") << "percent" << "51" << true << "51" << "7";
    QTest::newRow("upper edge old version") << "percent" << "50" << true << "50" << "50";
    QTest::newRow("empty written empty") << "percent" << "" << false << "" << "";
    // A text that is no value of the kind reads as the default.
    QTest::newRow("garbage is the default") << "percent" << "4x" << false << "9" << "9";
    QTest::newRow("int8 negative edge") << "int8" << "-1" << true << "-1" << "-1";
    QTest::newRow("int8 below") << "int8" << "-2" << true << "-1" << "-1";
    // The parsed number is narrowed to the kind's width before it is clamped.
    QTest::newRow("uint8 narrowed then kept") << "uint8" << "300" << true << "44" << "44";
    QTest::newRow("uint8 above max") << "uint8" << "255" << true << "254" << "254";
    QTest::newRow("hex ddi") << "ddi" << "00D4" << true << "00D4" << "00D4";
    QTest::newRow("hex lower case read") << "ddi" << "dfFe" << true << "DFFE" << "DFFE";
    QTest::newRow("hex padded on output") << "ddi" << "1" << true << "0001" << "0001";
    QTest::newRow("hex with prefix is no number") << "ddi" << "0x12" << false << "FFFF" << "FFFF";
    QTest::newRow("hex minus one is no number") << "ddi" << "-1" << false << "FFFF" << "FFFF";
    QTest::newRow("unsigned negative is no number") << "uint32" << "-5" << false << "0" << "0";
    QTest::newRow("unsigned minus zero is zero") << "uint8" << "-0" << true << "0" << "0";
    QTest::newRow("int32 min") << "int32" << "-2147483648" << true << "-2147483648" << "-2147483648";
    QTest::newRow("int32 max") << "int32" << "2147483647" << true << "2147483647" << "2147483647";
    QTest::newRow("int32 overflow narrows") << "int32" << "2147483648" << true << "-2147483648" << "-2147483648";
    QTest::newRow("uint32 spec max") << "uint32" << "4294967295" << true << "4294967294" << "4294967294";
    QTest::newRow("leading plus") << "int32" << "+12" << true << "12" << "12";
    QTest::newRow("name keeps value") << "name" << "A00086000D20001E" << true << "A00086000D20001E"
                                      << "A00086000D20001E";
    QTest::newRow("name all ones") << "name" << "FFFFFFFFFFFFFFFF" << true << "FFFFFFFFFFFFFFFF"
                                   << "FFFFFFFFFFFFFFFF";
    QTest::newRow("name short padded") << "name" << "a0" << true << "00000000000000A0" << "00000000000000A0";
    QTest::newRow("float exact text") << "north" << "52.123456789" << true << "52.12345678900000"
                                      << "52.12345678900000";
    QTest::newRow("float clamps") << "north" << "91" << true << "90.00000000000000" << "90.00000000000000";
    QTest::newRow("float empty") << "north" << "" << false << "" << "";
    QTest::newRow("infinity is no number") << "north" << "Infinity" << false << "0.00000000000000" << "0.00000000000000";
    QTest::newRow("inf is no number") << "north" << "-inf" << false << "0.00000000000000" << "0.00000000000000";
    QTest::newRow("nan is no number") << "north" << "nan" << false << "0.00000000000000" << "0.00000000000000";
    QTest::newRow("string upper on output") << "upper" << "abcDEF" << true << "ABCDEF" << "ABCDEF";
    QTest::newRow("string truncated on input") << "upper" << "abcdefghij" << true << "ABCDEFGH" << "ABCDEFGH";
    QTest::newRow("string variant truncates") << "label" << "0123456789xyz" << true << "0123456789" << "0123";
    // Lengths count characters; a cut never splits a surrogate pair into invalid XML.
    QTest::newRow("pair counts once") << "upper" << QString("abcdefg\U0001F600") << true
                                      << QString("ABCDEFG\U0001F600") << QString("ABCDEFG\U0001F600");
    QTest::newRow("variant cut after a pair") << "label" << QString("abc\U0001F600xyz") << true
                                              << QString("abc\U0001F600xyz") << QString("abc\U0001F600");
    QTest::newRow("string empty") << "label" << "" << true << "" << "";
}

void Tst_attributes::read_and_write()
{
    QFETCH(QString, kind);
    QFETCH(QString, text);
    QFETCH(bool, parsed);
    QFETCH(QString, v4);
    QFETCH(QString, v3);
    std::unique_ptr<Attribute> a = make(kind);
    Ktd_test::Capture_fd quiet(2);
    QCOMPARE(a->set_by_xml_value(QSharedPointer<Element>(), text), parsed);
    QVERIFY(a->present());
    QCOMPARE(a->empty_text(), text.isEmpty());
    if (!text.isEmpty())
        QCOMPARE(a->valid(), parsed);
    QCOMPARE(written(*a, 4), v4);
    QCOMPARE(written(*a, 3), v3);
}

void Tst_attributes::failed_integer_is_reported_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("message");
    QTest::newRow("decimal") << "percent" << "12a" << "Failed to convert 12a=>0:0 at lib/taskdata/attributes/base/Attribute_Base_Int16::";
    QTest::newRow("hex") << "ddi" << "XYZ" << "Failed to convert XYZ=>0:0 at lib/taskdata/attributes/base/Attribute_Base_UInt16::";
    QTest::newRow("empty is silent") << "percent" << "" << "";
    QTest::newRow("float is silent") << "north" << "abc" << "";
}

void Tst_attributes::failed_integer_is_reported()
{
    QFETCH(QString, kind);
    QFETCH(QString, text);
    QFETCH(QString, message);
    std::unique_ptr<Attribute> a = make(kind);
    Ktd_test::Capture_fd err(2);
    a->set_by_xml_value(QSharedPointer<Element>(), text);
    const QString printed = err.text();
    if (message.isEmpty())
        QCOMPARE(printed, QString());
    else
        QVERIFY2(printed.startsWith(message) && printed.endsWith('\n'), qPrintable(printed));
}

void Tst_attributes::float_text_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("one tenth") << 0.1 << "0.10000000000000";
    QTest::newRow("one and a half") << 1.5 << "1.50000000000000";
    QTest::newRow("negative zero keeps sign") << -0.0 << "-0.00000000000000";
    QTest::newRow("coordinate") << -179.5 << "-179.50000000000000";
    QTest::newRow("tiny") << 1e-15 << "0.00000000000000";
}

void Tst_attributes::float_text()
{
    QFETCH(double, value);
    QFETCH(QString, text);
    QCOMPARE(Float::format(value), text);
    double back = 0;
    QVERIFY(Float::parse(text, back));
    QCOMPARE(Float::format(back), text);
}

void Tst_attributes::setters_notify_once()
{
    auto man = Element_man::create();
    auto task = QSharedPointer<Task>::create(man);
    const quint64 before = man->change_counter();
    QVERIFY(task->designator.set_string(task, "Spraying"));
    QCOMPARE(man->change_counter(), before + 1);
    QVERIFY(!task->designator.set_string(task, "Spraying"));
    QCOMPARE(man->change_counter(), before + 1);
    QVERIFY(task->status.set_val(task, 2));
    QCOMPARE(man->change_counter(), before + 2);
    QCOMPARE(task->stamp(), before + 2);
    QVERIFY(!task->designator.set_flag(task, Attribute::flag_valid, true));
    QVERIFY(task->designator.set_flag(task, Attribute::flag_valid, false));
    QCOMPARE(man->change_counter(), before + 3);
}

void Tst_attributes::datetime_forms_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("v3");
    QTest::newRow("no zone") << "2016-05-12T13:54:59" << "2016-05-12T13:54:59";
    QTest::newRow("utc with ms") << "2021-03-18T22:00:00.000Z" << "2021-03-18T22:00:00";
    QTest::newRow("negative offset") << "2022-10-19T18:00:37.682-05:00" << "2022-10-19T18:00:37";
    QTest::newRow("seven digits") << "2023-04-14T10:51:44.3655163+02:00" << "2023-04-14T10:51:44";
}

void Tst_attributes::datetime_forms()
{
    QFETCH(QString, text);
    QFETCH(QString, v3);
    auto man = Element_man::create();
    auto tim = QSharedPointer<Time>::create(man);
    QVERIFY(tim->start.set_by_xml_value(tim, text));
    QCOMPARE(written(tim->start, 4), text);
    QCOMPARE(written(tim->start, 3), v3);
}

void Tst_attributes::datetime_valid_depends_on_previous_value()
{
    // The valid flag of a read takes the value held before it into account: the first read
    // into a fresh attribute is never flagged valid, a second read of a good text is.
    auto man = Element_man::create();
    auto tim = QSharedPointer<Time>::create(man);
    tim->start.set_by_xml_value(tim, QStringLiteral("2016-05-12T13:54:59"));
    QVERIFY(tim->start.valid());
    QVERIFY(!tim->start.is_flag_set(Attribute::flag_valid));
    tim->start.set_by_xml_value(tim, QStringLiteral("2016-05-12T13:55:00"));
    QVERIFY(tim->start.is_flag_set(Attribute::flag_valid));
    tim->start.set_by_xml_value(tim, QStringLiteral("no date"));
    QVERIFY(!tim->start.is_flag_set(Attribute::flag_valid));
    QCOMPARE(written(tim->start, 4), QString());
}

void Tst_attributes::uid_strings_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("prefix");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("message");
    QTest::newRow("negative") << "TSK-1" << true << "TSK" << -1 << "";
    QTest::newRow("positive") << "PFD3" << true << "PFD" << 3 << "";
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

// Read as empty text, then set by the application, written and read back: the value is there.
void Tst_attributes::set_after_empty_read_data()
{
    QTest::addColumn<QString>("tag");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("Int8, point type") << "PNT" << "A" << "2" << "2";
    QTest::newRow("UInt8, task status") << "TSK" << "G" << "3" << "3";
    QTest::newRow("UInt16, hexadecimal DDI") << "PDT" << "E" << "6" << "0006";
    QTest::newRow("Int32, point height") << "PNT" << "E" << "-5" << "-5";
    QTest::newRow("UInt32, field area") << "PFD" << "D" << "42" << "42";
    QTest::newRow("UInt64, device NAME") << "DVC" << "D" << "0xA00086000D20001E" << "A00086000D20001E";
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
    const QByteArray xml = R"(<ISO11783_TaskData VersionMajor="4" VersionMinor="3"><CTR A="CTR1" B="c"/>)"
                           R"(<PFD A="" C="" D="" E=""><PNT A="" C="" D="7" E=""/></PFD>)"
                           R"(<PDT A="PDT1" B="p" E=""/><TSK A="TSK1" G=""><TIM A="" D="1"/></TSK>)"
                           R"(<DVC A="DVC1" D="" F="00" G="FF"/></ISO11783_TaskData>)";
    auto man = Element_man::create();
    QSharedPointer<Element> e = find_first(read_root(man, xml), tag);
    QVERIFY(e);
    Attribute* a = e->find_attribute(name);
    QVERIFY(a && a->empty_text());
    QVERIFY(set_from_text(e, a, value));
    QVERIFY(!a->empty_text());

    QByteArray out;
    {
        QBuffer buffer(&out);
        buffer.open(QIODevice::WriteOnly);
        QXmlStreamWriter w(&buffer);
        TC::Task_data::XML_interface xi;
        man->root()->save_xml(man->root(), w, xi);
    }
    auto again = Element_man::create();
    QSharedPointer<Element> back = find_first(read_root(again, out), tag);
    QString back_text;
    QVERIFY(back && back->find_attribute(name)->xml_value(back_text, back.data(), 4));
    QCOMPARE(back_text, text);
}

QTEST_MAIN(Tst_attributes)
#include "tst_attributes.moc"
