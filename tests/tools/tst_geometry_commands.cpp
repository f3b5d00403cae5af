// The `taskdata` commands on field geometry as users run them: field areas of the real corpus
// held against GeographicLib's geodesic area of the same rings, shape-info on sets written by
// GDAL, and reports in HTML and PDF with metric and US units.
#include "test_support.h"

#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <GeographicLib/PolygonArea.hpp>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace TC::Task_data;
namespace Base = TC::Task_data::Elements::Base;

namespace {

// Exit code (-1 when it did not end) and standard output.
QPair<int, QByteArray> run_tool(const QStringList& args)
{
    QProcess p;
    p.start(qEnvironmentVariable("KTD_BINARY_DIR") + QStringLiteral("/tools/taskdata/taskdata"), args);
    const bool ended = p.waitForFinished(120000) && p.exitStatus() == QProcess::NormalExit;
    return {ended ? p.exitCode() : -1, p.readAllStandardOutput()};
}

// Geodesic area and perimeter of a field's boundary (exterior rings minus interior rings),
// read from the tree without the library's geometry.
QPair<double, double> geodesic(const Base::Partfield& field)
{
    double area = 0.0, perimeter = 0.0;
    for (const auto& pc : field.polygons.elements()) {
        const auto& pln = static_cast<const Base::Polygon&>(*pc);
        if (pln.type.get_val() != 1)
            continue;
        for (const auto& lc : pln.line_strings.elements()) {
            const auto& lsg = static_cast<const Base::Linestring&>(*lc);
            GeographicLib::PolygonArea ring(GeographicLib::Geodesic::WGS84());
            for (const auto& p : lsg.points.elements()) {
                const auto& pt = static_cast<const Base::Point&>(*p);
                ring.AddPoint(pt.north.get_val(), pt.east.get_val());
            }
            double ring_perimeter = 0, ring_area = 0;
            if (ring.Compute(false, true, ring_perimeter, ring_area) < 3)
                continue;
            area += (lsg.type.get_val() == 2 ? -1.0 : 1.0) * qAbs(ring_area);
            perimeter += ring_perimeter;
        }
    }
    return {area, perimeter};
}

} // namespace

class Tst_geometry_commands : public QObject
{
    Q_OBJECT
private slots:
    void field_areas_against_geodesic_data();
    void field_areas_against_geodesic();
    void outputs_data();
    void outputs();
};

void Tst_geometry_commands::field_areas_against_geodesic_data()
{
    QTest::addColumn<QString>("set"); // each with one field that has a boundary
    for (const char* set : {"v4-field-export", "v4-vector-prescription", "v3-guidance", "v4-guidance", "v4-task-full",
                            "v4-mixed-case-timelog"})
        QTest::newRow(set) << set;
}

void Tst_geometry_commands::field_areas_against_geodesic()
{
    KTD_REQUIRE_CORPUS(corpus);
    QFETCH(QString, set);
    const QString dir = corpus + QLatin1Char('/') + set;
    const auto r = run_tool({QStringLiteral("fields"), dir, QStringLiteral("--json")});
    QCOMPARE(r.first, 0);
    const QJsonArray fields = QJsonDocument::fromJson(r.second).array();

    auto man = Base::Element_man::create();
    XML_interface xi(dir);
    QVERIFY(xi.load(man));
    auto root = man->root().staticCast<Base::Task_data>();
    QCOMPARE(fields.size(), root->partfields.count());
    int compared = 0;
    for (int i = 0; i < root->partfields.count(); ++i) {
        const QJsonObject o = fields.at(i).toObject();
        QCOMPARE(o.value("id").toString(), root->partfields.typed_at(i)->get_id_string());
        const auto [area, perimeter] = geodesic(*root->partfields.typed_at(i));
        const double got_area = o.value("area_m2").toDouble(), got_perimeter = o.value("perimeter_m").toDouble();
        if (area <= 0.0) {
            QCOMPARE(got_area, 0.0);
            continue;
        }
        QVERIFY2(qAbs(got_area / area - 1.0) < 1e-3, qPrintable(QStringLiteral("%1 vs %2").arg(got_area).arg(area)));
        QVERIFY2(qAbs(got_perimeter / perimeter - 1.0) < 1e-3,
                 qPrintable(QStringLiteral("%1 vs %2").arg(got_perimeter).arg(perimeter)));
        ++compared;
    }
    QCOMPARE(compared, 1);
}

// What a command writes (to OUT, or to standard output when the row names no file). "%corpus"
// and "%out" in arguments stand for the corpus and the row's output file.
void Tst_geometry_commands::outputs_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArrayList>("expect"); // all of these in the output
    const QString zones = Ktd_test::source_dir() + QStringLiteral("/tests/data/shapefiles/zones.shp");
    QTest::newRow("shape-info") << QStringList{"shape-info", zones, "--json"} << QString() << 0
                                << QByteArrayList{"\"shape_type\": \"polygon\"", "\"shape_count\": 3", "\"min_x\": 15.1",
                                                  "\"name\": \"n_kg\"", "\"min\": 42.5", "\"max\": 60.25"};
    QTest::newRow("shape-info of no set") << QStringList{"shape-info", zones + ".none"} << QString() << 2
                                          << QByteArrayList{};
    const QStringList report{"report", "%corpus/v4-field-export", "%out"};
    QTest::newRow("html, metric") << report << "r.html" << 0 << QByteArrayList{"6.42 ha", "Lagerfeld", "Josephinum"};
    QTest::newRow("html, US units") << report + QStringList{"--us"} << "r.htm" << 0
                                    << QByteArrayList{"15.85 ac", "Lagerfeld", "Josephinum"};
    QTest::newRow("pdf") << report << "r.pdf" << 0 << QByteArrayList{"%PDF-"};
    QTest::newRow("unknown extension") << report << "r.txt" << 2 << QByteArrayList{};
}

void Tst_geometry_commands::outputs()
{
    QFETCH(QStringList, args);
    QFETCH(QString, file);
    QFETCH(int, code);
    QFETCH(QByteArrayList, expect);
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty() && args.join(' ').contains("%corpus"))
        QSKIP("reference corpus not found: set KTD_CORPUS_DIR to the folder of real task data sets");
    QTemporaryDir tmp;
    for (QString& a : args)
        a.replace("%corpus", corpus).replace("%out", tmp.filePath(file));
    const auto r = run_tool(args);
    QCOMPARE(r.first, code);
    QFile f(tmp.filePath(file));
    if (!file.isEmpty())
        QCOMPARE(f.exists(), code == 0);
    const QByteArray content = file.isEmpty() ? r.second : f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    for (const QByteArray& e : expect)
        QVERIFY2(content.contains(e), content.left(300).constData());
}

QTEST_MAIN(Tst_geometry_commands)
#include "tst_geometry_commands.moc"
