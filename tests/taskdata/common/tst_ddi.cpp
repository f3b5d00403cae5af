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
    void table_entry_data();
    void table_entry();
    void ascending();
    void matches_reference_files();
};

// Designators and unit texts are held against the reference files below; here the numbers
// parsed from the published texts, and the numbers without an entry.
void Tst_ddi::table_entry_data()
{
    QTest::addColumn<int>("ddi");
    QTest::addColumn<QString>("expected"); // resolution, then the range or "no range"

    QTest::newRow("1 resolution 0.01") << 1 << "0.01 0..2147483647";
    QTest::newRow("51 signed int32") << 51 << "1 -2147483648..2147483647";
    QTest::newRow("177 decimal max") << 177 << "0.001 0..2147483.647";
    QTest::newRow("215 0.05, decimal max") << 215 << "0.05 0..210554060.75";
    QTest::newRow("207 grouped digits") << 207 << "1 0..100000000";
    QTest::newRow("494 hex max") << 494 << "1 0..4294967295";
    QTest::newRow("495 hex both") << 495 << "1 0..4294967295";
    QTest::newRow("57344 resolution 0, no range") << 57344 << "0 no range";
    // Gaps inside the standard range, after the last standard entry, around the PGN entries and
    // inside the proprietary range.
    for (int gap : {152, 527, 529, 57341, 57345, 65534})
        QTest::addRow("%d missing", gap) << gap << "missing";
}

void Tst_ddi::table_entry()
{
    QFETCH(int, ddi);
    QFETCH(QString, expected);
    const DDI_table::Entry* e = DDI_table::find(static_cast<unsigned short>(ddi));
    if (!e) {
        QCOMPARE(QStringLiteral("missing"), expected);
        QCOMPARE(DDI_strings::str(static_cast<unsigned short>(ddi)), QStringLiteral("Unknown"));
        return;
    }
    QCOMPARE(int(e->ddi), ddi);
    const QString range = e->has_range ? QStringLiteral("%1..%2").arg(e->range_min, 0, 'g', 12).arg(e->range_max, 0, 'g', 12)
                                       : QStringLiteral("no range");
    QCOMPARE(QStringLiteral("%1 %2").arg(e->resolution, 0, 'g', 12).arg(range), expected);
}

// find() relies on strictly ascending DDIs.
void Tst_ddi::ascending()
{
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
    }
    QCOMPARE(listed.size(), 526);

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
