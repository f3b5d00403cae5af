// Process data dictionary: designators, the embedded table and the units parsed from it.
// The reference-file test is what keeps the checked-in generated sources honest: regenerate with
// scripts/generate_ddi.cmake whenever it fails after the dictionary export changed.
#include <QFile>
#include <QSet>
#include <QtTest>

#include <taskdata/common/DDI_strings.h>
#include <taskdata/common/DDI_table.h>

#include "test_support.h"

using TC::Task_data::DDI_strings;
using TC::Task_data::DDI_table;

class Tst_ddi : public QObject
{
    Q_OBJECT

private slots:
    void designator_data();
    void designator();
    void table_entry_data();
    void table_entry();
    void range_data();
    void range();
    void embedded_text_shape();
    void matches_reference_files();
};

void Tst_ddi::designator_data()
{
    QTest::addColumn<int>("ddi");
    QTest::addColumn<QString>("expected");

    QTest::newRow("0 version") << 0 << QStringLiteral("Data Dictionary Version");
    // DDIs 1..5 were renamed after early 2018; this dictionary edition keeps the older text.
    QTest::newRow("1 older name") << 1 << QStringLiteral("Setpoint Volume Per Area Application Rate");
    QTest::newRow("263") << 263 << QStringLiteral("Average Yield Mass Per Area");
    QTest::newRow("528 last standard") << 528 << QStringLiteral("Last Bale Capacity");
    QTest::newRow("57342 PGN") << 57342 << QStringLiteral("PGN Based Data");
    QTest::newRow("57343 default request") << 57343 << QStringLiteral("Request Default Process Data");
    QTest::newRow("57344 proprietary") << 57344 << QStringLiteral("65534 Proprietary DDI Range");
    QTest::newRow("65535 reserved") << 65535 << QStringLiteral("Reserved");

    // Gaps and unpublished numbers read "Unknown": the rows of table_entry without an entry.
    // Published designators with doubled or trailing spaces are kept as they are (the reference
    // file test holds all of them).
    QTest::newRow("191 trailing") << 191 << QStringLiteral("Lint Turnout Percentage ");
    QTest::newRow("306 doubled and trailing") << 306 << QStringLiteral("True Rotation Point  X-Offset ");
    QTest::newRow("433 doubled") << 433 << QStringLiteral("Actual  Application Rate of Nitrogen");
}

void Tst_ddi::designator()
{
    QFETCH(int, ddi);
    QFETCH(QString, expected);
    QCOMPARE(DDI_strings::str(static_cast<unsigned short>(ddi)), expected);
}

void Tst_ddi::table_entry_data()
{
    QTest::addColumn<int>("ddi");
    QTest::addColumn<bool>("present");
    QTest::addColumn<QString>("unit_symbol");
    QTest::addColumn<QString>("unit_description");
    QTest::addColumn<double>("resolution");

    QTest::newRow("0") << 0 << true << QStringLiteral("not defined") << QStringLiteral("not defined") << 1.0;
    // Non-ASCII unit symbols must come through the UTF-8 decoding intact.
    QTest::newRow("1 mm³/m²") << 1 << true << QStringLiteral("mm³/m²") << QStringLiteral("Capacity per area unit") << 0.01;
    QTest::newRow("116 m²") << 116 << true << QStringLiteral("m²") << QStringLiteral("Area") << 1.0;
    QTest::newRow("177 0.001") << 177 << true << QStringLiteral("mm") << QStringLiteral("Length") << 0.001;
    QTest::newRow("215 0.05") << 215 << true << QStringLiteral("h") << QStringLiteral("Hour") << 0.05;
    QTest::newRow("263") << 263 << true << QStringLiteral("mg/m²") << QStringLiteral("Mass per area unit") << 1.0;
    QTest::newRow("495 empty description") << 495 << true << QStringLiteral("n.a.") << QString() << 1.0;
    QTest::newRow("528 last standard") << 528 << true << QStringLiteral("kg/h") << QStringLiteral("Mass per hour unit") << 1.0;
    QTest::newRow("57344 resolution 0") << 57344 << true << QStringLiteral("n.a.") << QString() << 0.0;
    QTest::newRow("65535") << 65535 << true << QStringLiteral("n.a.") << QString() << 0.0;

    // Gaps inside the standard range, after the last standard entry, around the PGN entries and
    // inside the proprietary range.
    for (int gap : {152, 527, 529, 57341, 57345, 65534})
        QTest::addRow("%d missing", gap) << gap << false << QString() << QString() << 0.0;
}

void Tst_ddi::table_entry()
{
    QFETCH(int, ddi);
    QFETCH(bool, present);
    QFETCH(QString, unit_symbol);
    QFETCH(QString, unit_description);
    QFETCH(double, resolution);

    const DDI_table::Entry* e = DDI_table::find(static_cast<unsigned short>(ddi));
    if (!present) {
        QVERIFY(e == nullptr);
        QCOMPARE(DDI_strings::str(static_cast<unsigned short>(ddi)), QStringLiteral("Unknown"));
        return;
    }
    QVERIFY(e != nullptr);
    QCOMPARE(int(e->ddi), ddi);
    QCOMPARE(e->designator, DDI_strings::str(static_cast<unsigned short>(ddi)));
    QCOMPARE(e->unit_symbol, unit_symbol);
    QCOMPARE(e->unit_description, unit_description);
    QCOMPARE(e->resolution, resolution);
}

void Tst_ddi::range_data()
{
    QTest::addColumn<int>("ddi");
    QTest::addColumn<bool>("has_range");
    QTest::addColumn<double>("range_min");
    QTest::addColumn<double>("range_max");
    QTest::addColumn<QString>("max_text");

    QTest::newRow("0 int32 max") << 0 << true << 0.0 << 2147483647.0 << QStringLiteral("2147483647");
    QTest::newRow("51 signed int32") << 51 << true << -2147483648.0 << 2147483647.0 << QStringLiteral("2147483647");
    QTest::newRow("210 uint32") << 210 << true << 0.0 << 4294967295.0 << QStringLiteral("4294967295");
    // Bounds published already scaled by the resolution, with decimals.
    QTest::newRow("177 decimal max") << 177 << true << 0.0 << 2147483.647 << QStringLiteral("2147483.647");
    QTest::newRow("215 decimal max") << 215 << true << 0.0 << 210554060.75 << QStringLiteral("210554060.75");
    // Digit groups separated by spaces.
    QTest::newRow("207 grouped digits") << 207 << true << 0.0 << 100000000.0 << QStringLiteral("100 000 000");
    // Hexadecimal bounds, one or both.
    QTest::newRow("494 hex max") << 494 << true << 0.0 << 4294967295.0 << QStringLiteral("0xFFFFFFFF");
    QTest::newRow("495 hex both") << 495 << true << 0.0 << 4294967295.0 << QStringLiteral("0xFFFFFFFF");
    // No range published at all.
    QTest::newRow("57344 none") << 57344 << false << 0.0 << 0.0 << QString();
    QTest::newRow("65535 none") << 65535 << false << 0.0 << 0.0 << QString();
}

void Tst_ddi::range()
{
    QFETCH(int, ddi);
    QFETCH(bool, has_range);
    QFETCH(double, range_min);
    QFETCH(double, range_max);
    QFETCH(QString, max_text);

    const DDI_table::Entry* e = DDI_table::find(static_cast<unsigned short>(ddi));
    QVERIFY(e != nullptr);
    QCOMPARE(e->has_range, has_range);
    QCOMPARE(e->range_min, range_min);
    QCOMPARE(e->range_max, range_max);
    QCOMPARE(e->range_max_text, max_text);
}

void Tst_ddi::embedded_text_shape()
{
    const QByteArray text = DDI_table::text();
    QVERIFY(text.startsWith("0\t\"Data Dictionary Version\"\t"));
    QVERIFY(text.endsWith("\n"));
    QVERIFY(!text.contains('\r'));
    QVERIFY(!text.contains('\0'));
    QCOMPARE(DDI_table::row_count(), 526);
    QCOMPARE(int(text.count('\n')), DDI_table::row_count());

    // find() relies on strictly ascending DDIs.
    const QVector<DDI_table::Entry>& all = DDI_table::entries();
    QCOMPARE(all.size(), DDI_table::row_count());
    for (int i = 1; i < all.size(); ++i)
        QVERIFY2(all.at(i - 1).ddi < all.at(i).ddi, qPrintable(QString::number(all.at(i).ddi)));
}

static QString unquoted(const QByteArray& field)
{
    if (field.size() >= 2 && field.startsWith('"') && field.endsWith('"'))
        return QString::fromUtf8(field.mid(1, field.size() - 2));
    return QString::fromUtf8(field);
}

void Tst_ddi::matches_reference_files()
{
    KTD_REQUIRE_SHARED(shared);

    QFile designators_file(shared + QStringLiteral("/ddi/ddi_designators.tsv"));
    QVERIFY2(designators_file.open(QIODevice::ReadOnly), qPrintable(designators_file.fileName()));
    const QByteArray designators = designators_file.readAll();
    QVERIFY(designators.endsWith('\n'));

    QSet<int> listed;
    int doubled = 0, trailing = 0;
    const QList<QByteArray> lines = designators.left(designators.size() - 1).split('\n');
    for (const QByteArray& line : lines) {
        const int tab = line.indexOf('\t');
        QVERIFY2(tab > 0, line.constData());
        bool ok = false;
        const int ddi = line.left(tab).toInt(&ok);
        QVERIFY2(ok && ddi >= 0 && ddi <= 0xFFFF, line.constData());
        const QString expected = QString::fromUtf8(line.mid(tab + 1));
        QCOMPARE(DDI_strings::str(static_cast<unsigned short>(ddi)), expected);
        listed.insert(ddi);
        doubled += expected.contains(QLatin1String("  ")) ? 1 : 0;
        trailing += expected.endsWith(QLatin1Char(' ')) ? 1 : 0;
    }
    QCOMPARE(listed.size(), 526);
    // Guards against an editor or a regeneration that tidies whitespace.
    QCOMPARE(doubled, 14);
    QCOMPARE(trailing, 21);

    for (int ddi = 0; ddi <= 0xFFFF; ++ddi) {
        if (listed.contains(ddi))
            continue;
        const auto d = static_cast<unsigned short>(ddi);
        if (DDI_strings::str(d) != QLatin1String("Unknown") || DDI_table::find(d) != nullptr)
            QFAIL(qPrintable(QStringLiteral("DDI %1 is not in the dictionary but is known").arg(ddi)));
    }

    QFile table_file(shared + QStringLiteral("/ddi/ddi_table.tsv"));
    QVERIFY2(table_file.open(QIODevice::ReadOnly), qPrintable(table_file.fileName()));
    const QByteArray table = table_file.readAll();
    QVERIFY2(DDI_table::text() == table, "embedded table differs from ddi_table.tsv: regenerate");
    QCOMPARE(DDI_table::row_count(), listed.size());

    // Every row is found with its published columns, and every published bound is readable.
    const QList<QByteArray> rows = table.left(table.size() - 1).split('\n');
    QCOMPARE(rows.size(), listed.size());
    for (const QByteArray& row : rows) {
        const QList<QByteArray> f = row.split('\t');
        QCOMPARE(f.size(), 19);
        const int ddi = f.at(0).toInt();
        QVERIFY2(listed.contains(ddi), row.constData());
        const DDI_table::Entry* e = DDI_table::find(static_cast<unsigned short>(ddi));
        QVERIFY2(e != nullptr, row.constData());
        QCOMPARE(e->designator, DDI_strings::str(e->ddi));
        QCOMPARE(e->designator, unquoted(f.at(1)));
        QCOMPARE(e->unit_symbol, unquoted(f.at(5)));
        QCOMPARE(e->unit_description, unquoted(f.at(6)));
        QCOMPARE(e->range_min_text, unquoted(f.at(9)));
        QCOMPARE(e->range_max_text, unquoted(f.at(10)));
        const bool published = !f.at(9).isEmpty() && !f.at(10).isEmpty();
        QVERIFY2(e->has_range == published, row.left(80).constData());
        if (published)
            QVERIFY2(e->range_min <= e->range_max, row.left(80).constData());
    }
}

QTEST_MAIN(Tst_ddi)
#include "tst_ddi.moc"
