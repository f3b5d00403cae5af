// Date-time text of task data attributes read and written back, checked against hand-computed
// instants, and every date-time in the real task data sets; plus the little-endian byte reader.
#include <platform/iso/Time_source.h>
#include <platform/util/Binary_wrapper.h>

#include "test_support.h"

#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QTimeZone>
#include <QXmlStreamReader>
#include <QtTest>

#include <ctime>

using Iso::Isoxml_date;
using Iso::Time_source;

class Tst_time_source : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void read_write_data();
    void read_write();
    void unreadable_data();
    void unreadable();
    void plain_qdatetime_data();
    void plain_qdatetime();
    void format_built_data();
    void format_built();
    void parse_respects_view_bounds();

    void binary_reads_data();
    void binary_reads();
    void binary_cursor();
};

void Tst_time_source::initTestCase()
{
    // Zone-less text is local time; a fixed zone with daylight saving makes the expected
    // instants and the skipped hour of 2021-03-28 the same on every machine.
    qputenv("TZ", "Europe/Berlin");
    tzset();
    QCOMPARE(QDateTime(QDate(2021, 1, 1), QTime(12, 0), Qt::LocalTime).offsetFromUtc(), 3600);
}

void Tst_time_source::read_write_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("written"); // empty: the text itself
    QTest::addColumn<QString>("parsed");  // ms since the epoch, time spec, 100 ns beyond the ms,
                                          // fraction digits, zone form, offset; empty: not checked
    // clang-format off
    QTest::newRow("no zone, local summer time") << "2016-05-12T13:54:59" << "" << "1463054099000 spec 0 sub 0 digits 0 zone 0 offset 0";
    QTest::newRow("Z with ms") << "2021-03-18T22:00:00.000Z" << "" << "1616104800000 spec 1 sub 0 digits 3 zone 1 offset 0";
    QTest::newRow("negative offset with ms") << "2022-10-19T18:00:37.682-05:00" << "" << "1666220437682 spec 2 sub 0 digits 3 zone 2 offset -18000";
    QTest::newRow("7 digits keep 100 ns") << "2023-04-14T10:51:44.3655163+02:00" << "" << "1681462304365 spec 2 sub 5163 digits 7 zone 2 offset 7200";
    QTest::newRow("6 digits, microseconds") << "2023-04-14T10:51:44.365516+02:00" << "" << "1681462304365 spec 2 sub 5160 digits 6 zone 2 offset 7200";
    QTest::newRow("9 digits cut to 100 ns") << "2023-04-14T10:51:44.365516389+02:00" << "2023-04-14T10:51:44.365516300+02:00" << "1681462304365 spec 2 sub 5163 digits 9 zone 2 offset 7200";
    QTest::newRow("one digit, +hhmm") << "2020-06-30T23:59:59.9+0530" << "2020-06-30T23:59:59.9+05:30" << "1593541799900 spec 2 sub 0 digits 1 zone 2 offset 19800";
    QTest::newRow("offset hours only") << "2020-06-30T23:59:59-03" << "2020-06-30T23:59:59-03:00" << "1593572399000 spec 2 sub 0 digits 0 zone 2 offset -10800";
    QTest::newRow("+00:00 is an offset, not Z") << "2021-03-18T22:00:00+00:00" << "" << "1616104800000 spec 1 sub 0 digits 0 zone 2 offset 0";
    QTest::newRow("+14:00 on a leap day") << "2024-02-29T00:00:00+14:00" << "" << "1709114400000 spec 2 sub 0 digits 0 zone 2 offset 50400";
    QTest::newRow("skipped local hour keeps its wall clock") << "2021-03-28T02:30:00" << "" << "1616895000000 spec 2 sub 0 digits 0 zone 0 offset 0";
    QTest::newRow("first year") << "0001-01-01T00:00:00Z" << "" << "-62135596800000 spec 1 sub 0 digits 0 zone 1 offset 0";
    QTest::newRow("last 100 ns of 9999") << "9999-12-31T23:59:59.9999999Z" << "" << "253402300799999 spec 1 sub 9999 digits 7 zone 1 offset 0";
    QTest::newRow("trailing zeros are part of the text") << "2023-04-14T10:51:44.0000000+02:00" << "" << "";
    QTest::newRow("100 ns, half-hour offset") << "2023-04-14T10:51:44.0000001-09:30" << "" << "";
    QTest::newRow("repeated local hour") << "2021-10-31T02:30:00" << "" << "";
    QTest::newRow("version 3: cut, not rounded into the next year") << "2020-12-31T23:59:59.999+01:00" << "" << "";
    QTest::newRow("version 3: the wall clock, a day ahead of UTC") << "2024-03-01T01:00:00+14:00" << "" << "";
    QTest::newRow("last 100 ns of 9999 at -14:00") << "9999-12-31T23:59:59.9999999-14:00" << "" << "";
    QTest::newRow("z") << "2021-03-18T22:00:00.000z" << "2021-03-18T22:00:00.000Z" << "";
    QTest::newRow("t") << "2021-03-18t22:00:00Z" << "2021-03-18T22:00:00Z" << "";
    QTest::newRow("-00:00") << "2021-03-18T22:00:00-00:00" << "2021-03-18T22:00:00+00:00" << "";
    QTest::newRow("XML whitespace around") << "\n \t2021-03-18T22:00:00Z\r " << "2021-03-18T22:00:00Z" << "";
    // clang-format on

    // Every distinct date-time of the real task data sets, named after the file that has it first.
    const QString corpus = Ktd_test::corpus_dir();
    QMap<QString, QString> first_file;
    QDirIterator it(corpus, {QStringLiteral("*.xml")}, QDir::Files, QDirIterator::Subdirectories);
    while (!corpus.isEmpty() && it.hasNext()) {
        QFile f(it.next());
        QVERIFY2(f.open(QIODevice::ReadOnly), qPrintable(f.fileName()));
        QXmlStreamReader xml(&f);
        // A malformed set stops the reader early; the dates before the error still count.
        while (!xml.atEnd()) {
            if (xml.readNext() != QXmlStreamReader::StartElement || (xml.name() != "TIM" && xml.name() != "ASP"))
                continue;
            for (const char* name : {"A", "B"}) {
                const QString v = xml.attributes().value(QLatin1String(name)).toString();
                // Empty in a time log header: the value is in each binary record instead.
                if (!v.isEmpty() && !first_file.contains(v))
                    first_file.insert(v, QDir(corpus).relativeFilePath(f.fileName()));
            }
        }
    }
    QVERIFY2(corpus.isEmpty() || first_file.size() >= 20, "the corpus holds far more date-times than were found");
    for (auto i = first_file.cbegin(); i != first_file.cend(); ++i)
        QTest::newRow(qPrintable(i.value() + QLatin1Char(' ') + i.key())) << i.key() << "" << "";
}

void Tst_time_source::read_write()
{
    QFETCH(QString, text);
    QFETCH(QString, written);
    QFETCH(QString, parsed);
    if (written.isEmpty())
        written = text;
    Isoxml_date d;
    QVERIFY(Time_source::parse_isoxml_date(text, d));
    const QDateTime plain = Time_source::from_isoxml_date(text);
    if (!parsed.isEmpty()) {
        QCOMPARE(QStringLiteral("%1 spec %2 sub %3 digits %4 zone %5 offset %6")
                     .arg(d.value.toMSecsSinceEpoch()).arg(int(d.value.timeSpec())).arg(d.sub_ms)
                     .arg(d.fraction_digits).arg(d.zone_form).arg(d.offset_seconds), parsed);
        QCOMPARE(plain.toMSecsSinceEpoch(), d.value.toMSecsSinceEpoch());
        if (d.zone_form == Isoxml_date::No_zone)
            QCOMPARE(plain.timeSpec(), Qt::LocalTime);
    }
    QCOMPARE(Time_source::format_isoxml_date(d, 4), written);
    Isoxml_date again;
    QVERIFY(Time_source::parse_isoxml_date(written, again));
    QCOMPARE(Time_source::format_isoxml_date(again, 4), written);
    QCOMPARE(again.value.toMSecsSinceEpoch(), d.value.toMSecsSinceEpoch());
    QCOMPARE(again.sub_ms, d.sub_ms);

    // The plain QDateTime path keeps the instant (to the millisecond), not the text.
    QCOMPARE(Time_source::from_isoxml_date(Time_source::to_isoxml_date(plain, 4)), plain);
    // Version 3 has neither fraction nor zone: the wall clock as written, cut to the second.
    const QString v3 = written.left(19);
    QCOMPARE(Time_source::format_isoxml_date(d, 3), v3);
    // The skipped local hour is the one text whose plain QDateTime has another wall clock.
    if (d.zone_form != Isoxml_date::No_zone || d.value.timeSpec() == Qt::LocalTime)
        QCOMPARE(Time_source::to_isoxml_date(plain, 3), v3);
}

void Tst_time_source::unreadable_data()
{
    QTest::addColumn<QString>("text");

    QTest::newRow("empty") << QString();
    QTest::newRow("blank") << "   ";
    QTest::newRow("no seconds") << "2021-03-18T22:00";
    QTest::newRow("month 13") << "2021-13-01T00:00:00";
    QTest::newRow("month 0") << "2021-00-01T00:00:00";
    QTest::newRow("day 0") << "2021-01-00T00:00:00";
    QTest::newRow("Feb 29 of 1900") << "1900-02-29T00:00:00";
    QTest::newRow("Apr 31") << "2021-04-31T00:00:00";
    QTest::newRow("hour 24") << "2021-03-18T24:00:00";
    QTest::newRow("minute 60") << "2021-03-18T23:60:00";
    QTest::newRow("leap second") << "2016-12-31T23:59:60Z";
    QTest::newRow("year 0") << "0000-01-01T00:00:00Z";
    QTest::newRow("five-digit year") << "12021-03-18T22:00:00";
    QTest::newRow("space separator") << "2021-03-18 22:00:00";
    QTest::newRow("sign in a field") << "2021-03-+8T22:00:00";
    QTest::newRow("non-ASCII digits") << QString::fromUtf8("２０２１-03-18T22:00:00");
    QTest::newRow("dot without digits") << "2021-03-18T22:00:00.Z";
    QTest::newRow("10 fraction digits") << "2021-03-18T22:00:00.1234567890Z";
    QTest::newRow("comma fraction") << "2021-03-18T22:00:00,5Z";
    QTest::newRow("offset beyond 14:00") << "2021-03-18T22:00:00+14:01";
    QTest::newRow("offset minute 60") << "2021-03-18T22:00:00+01:60";
    QTest::newRow("offset one-digit hour") << "2021-03-18T22:00:00+2:00";
    QTest::newRow("offset and Z") << "2021-03-18T22:00:00+02:00Z";
    QTest::newRow("trailing junk") << "2021-03-18T22:00:00Z junk";
    QTest::newRow("NUL inside") << QString::fromLatin1("2021-03-18T22:00:00\0Z", 21);
}

void Tst_time_source::unreadable()
{
    QFETCH(QString, text);

    Isoxml_date d;
    d.fraction_digits = 5; // out must be reset, not left half-filled
    QVERIFY(!Time_source::parse_isoxml_date(text, d));
    QVERIFY(d == Isoxml_date());
    QVERIFY(!Time_source::from_isoxml_date(text).isValid());
}

void Tst_time_source::plain_qdatetime_data()
{
    QTest::addColumn<QDateTime>("dt");
    QTest::addColumn<QString>("v4");
    QTest::addColumn<QString>("v3");

    const QDate day(2021, 3, 18);
    QTest::newRow("UTC with ms") << QDateTime(day, QTime(22, 0, 0, 5), Qt::UTC) << "2021-03-18T22:00:00.005Z"
                                 << "2021-03-18T22:00:00";
    QTest::newRow("offset -05:45 with ms") << QDateTime(day, QTime(6, 1, 2, 682), Qt::OffsetFromUTC, -(5 * 3600 + 45 * 60))
                                           << "2021-03-18T06:01:02.682-05:45" << "2021-03-18T06:01:02";
    QTest::newRow("local") << QDateTime(day, QTime(23, 59, 59, 999), Qt::LocalTime) << "2021-03-18T23:59:59.999"
                           << "2021-03-18T23:59:59";
    QTest::newRow("named zone in summer")
        << QDateTime(QDate(2021, 7, 1), QTime(12, 0), QTimeZone("America/Chicago")) << "2021-07-01T12:00:00-05:00"
        << "2021-07-01T12:00:00";
    // Seconds in an offset cannot be written; the instant survives as UTC.
    QTest::newRow("offset with seconds") << QDateTime(day, QTime(1, 0, 1), Qt::OffsetFromUTC, 3601)
                                         << "2021-03-18T00:00:00Z" << "2021-03-18T01:00:01";
    QTest::newRow("invalid") << QDateTime() << QString() << QString();
    QTest::newRow("year 10000") << QDateTime(QDate(10000, 1, 1), QTime(0, 0), Qt::UTC) << QString() << QString();
}

void Tst_time_source::plain_qdatetime()
{
    QFETCH(QDateTime, dt);
    QFETCH(QString, v4);
    QFETCH(QString, v3);

    QCOMPARE(Time_source::to_isoxml_date(dt, 4), v4);
    QCOMPARE(Time_source::to_isoxml_date(dt, 3), v3);
    if (!v4.isEmpty())
        QCOMPARE(Time_source::from_isoxml_date(v4).toMSecsSinceEpoch(), dt.toMSecsSinceEpoch());
}

void Tst_time_source::format_built_data()
{
    QTest::addColumn<QDateTime>("value");
    QTest::addColumn<QVector<int>>("fields"); // 100 ns beyond the ms, fraction digits, zone form, offset
    QTest::addColumn<QString>("v4");

    const QDateTime utc(QDate(2021, 3, 18), QTime(22, 0, 0, 5), Qt::UTC);
    const QDateTime whole(QDate(2021, 3, 18), QTime(22, 0), Qt::UTC);
    // Too few digits for the value held: widen rather than lose precision.
    QTest::newRow("ms, one digit asked") << utc << QVector<int>{0, 1, 1, 0} << "2021-03-18T22:00:00.005Z";
    QTest::newRow("100 ns, 3 digits asked") << utc << QVector<int>{1, 3, 1, 0} << "2021-03-18T22:00:00.0050001Z";
    QTest::newRow("digits asked beyond value") << whole << QVector<int>{0, 5, 1, 0} << "2021-03-18T22:00:00.00000Z";
    // The zone fields decide the wall clock, whatever the QDateTime's own spec.
    QTest::newRow("UTC value, +05:30 asked") << whole << QVector<int>{0, 0, 2, 19800} << "2021-03-19T03:30:00+05:30";
    QTest::newRow("offset value, Z asked") << whole.toOffsetFromUtc(-7200) << QVector<int>{0, 0, 1, 0} << "2021-03-18T22:00:00Z";
}

void Tst_time_source::format_built()
{
    QFETCH(QDateTime, value);
    QFETCH(QVector<int>, fields);
    QFETCH(QString, v4);
    Isoxml_date d;
    d.value = value;
    d.sub_ms = quint16(fields[0]);
    d.fraction_digits = quint8(fields[1]);
    d.zone_form = quint8(fields[2]);
    d.offset_seconds = fields[3];
    QCOMPARE(Time_source::format_isoxml_date(d, 4), v4);
}

void Tst_time_source::parse_respects_view_bounds()
{
    // Attribute values arrive as views into a larger buffer: nothing beyond the view may count.
    const QString buffer = QStringLiteral("A=\"2021-03-18T22:00:00.5Z\" B=\"x\"");
    Isoxml_date d;
    QVERIFY(Time_source::parse_isoxml_date(QStringView(buffer).mid(3, 22), d));
    QCOMPARE(Time_source::format_isoxml_date(d, 4), QStringLiteral("2021-03-18T22:00:00.5Z"));
    QVERIFY(Time_source::parse_isoxml_date(QStringView(buffer).mid(3, 21), d));
    QCOMPARE(int(d.zone_form), int(Isoxml_date::No_zone));
    QVERIFY(!Time_source::parse_isoxml_date(QStringView(buffer).mid(3, 20), d));
}

// ---- Binary_wrapper ----

void Tst_time_source::binary_reads_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("type");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QVariant>("expected");
    auto b = [](const char* s, int n) { return QByteArray(s, n); };
    // One template reads every width: a signed, a wide, the two floating types, and short reads.
    QTest::newRow("i16 minimum") << b("\x00\x80", 2) << "i16" << true << QVariant(-32768);
    QTest::newRow("u64") << b("\x01\x00\x00\x00\x00\x00\x00\x80", 8) << "u64" << true
                         << QVariant(Q_UINT64_C(0x8000000000000001));
    QTest::newRow("float 1.5") << b("\x00\x00\xc0\x3f", 4) << "float" << true << QVariant(1.5);
    QTest::newRow("double -2.25") << b("\x00\x00\x00\x00\x00\x00\x02\xc0", 8) << "double" << true << QVariant(-2.25);
    QTest::newRow("u32 from 3 bytes") << b("\x01\x02\x03", 3) << "u32" << false << QVariant(0u);
    QTest::newRow("u8 from nothing") << QByteArray() << "u8" << false << QVariant(0u);
    QTest::newRow("double from 4 bytes") << b("\x00\x00\xc0\x3f", 4) << "double" << false << QVariant(0.0);
}

template<class W>
static QVariant read_one(W& w, const QString& type, bool& ok)
{
    // Start from a non-zero value: a failed read must clear it.
    if (type == "u8") { quint8 v = 7; ok = w.read_u8(v); return QVariant(uint(v)); }
    if (type == "i16") { qint16 v = 7; ok = w.read_i16(v); return QVariant(int(v)); }
    if (type == "u32") { quint32 v = 7; ok = w.read_u32(v); return QVariant(uint(v)); }
    if (type == "u64") { quint64 v = 7; ok = w.read_u64(v); return QVariant(v); }
    if (type == "float") { float v = 7; ok = w.read_float(v); return QVariant(double(v)); }
    double v = 7;
    ok = w.read_double(v);
    return QVariant(v);
}

void Tst_time_source::binary_reads()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, type);
    QFETCH(bool, ok);
    QFETCH(QVariant, expected);
    // Both storage kinds, the view over a buffer and the shared array, must behave alike.
    for (const bool owning : {false, true}) {
        const Binary_message_storage storage =
            owning ? Binary_message_storage(bytes) : Binary_message_storage(bytes.constData(), size_t(bytes.size()));
        Binary_wrapper<Binary_message_storage> w(storage);
        bool read_ok = !ok;
        QCOMPARE(read_one(w, type, read_ok), expected);
        QCOMPARE(read_ok, ok);
        QCOMPARE(w.position(), ok ? size_t(bytes.size()) : size_t(0)); // a failed read does not move
        QCOMPARE(w.at_end(), ok || bytes.isEmpty());
    }
}

void Tst_time_source::binary_cursor()
{
    const QByteArray bytes("\x10\x27\x00\x00" "\x2d\x00" "\x00\xca\x9a\xc5" "\x01\x02", 12);
    Binary_wrapper<Binary_message_storage> w(Binary_message_storage(bytes.constData(), size_t(bytes.size())));
    QVERIFY(!w.seek(13));
    QCOMPARE(w.position(), size_t(0));
    QVERIFY(w.seek(12) && w.at_end());
    QVERIFY(w.seek(6));
    QCOMPARE(w.remaining(), size_t(6));
    QCOMPARE(Binary_wrapper<Binary_message_storage>::i32_at(w.current()), qint32(0xc59aca00u));
    QVERIFY(!w.skip(7));
    QVERIFY(w.skip(6) && w.at_end());
}

QTEST_MAIN(Tst_time_source)
#include "tst_time_source.moc"
