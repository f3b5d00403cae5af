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
#include <QProcess>
#include <QtTest>

using namespace TC::Task_data;
namespace Base = TC::Task_data::Elements::Base;

namespace {
struct Run_result
{
    int code = -1;
    QByteArray out;
};

Run_result run_tool(const QStringList& args)
{
    QProcess p;
    p.start(qEnvironmentVariable("KTD_BINARY_DIR") + QStringLiteral("/tools/taskdata/taskdata"), args);
    Run_result r;
    if (!p.waitForFinished(120000)) {
        p.kill();
        p.waitForFinished();
        return r;
    }
    r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = p.readAllStandardOutput();
    return r;
}

// Geodesic area and perimeter of a field's boundary (exterior rings minus interior rings),
// read from the tree without the library's geometry.
struct Geodesic_figures
{
    double area = 0.0;
    double perimeter = 0.0;
    double across = 0.0; // largest extent, metres
};

Geodesic_figures geodesic(const Base::Partfield& field)
{
    Geodesic_figures g;
    const GeographicLib::Geodesic& wgs84 = GeographicLib::Geodesic::WGS84();
    double min_lat = 90, max_lat = -90, min_lon = 180, max_lon = -180;
    for (const auto& pc : field.polygons.elements()) {
        const auto& pln = static_cast<const Base::Polygon&>(*pc);
        if (pln.type.get_val() != 1)
            continue;
        for (const auto& lc : pln.line_strings.elements()) {
            const auto& lsg = static_cast<const Base::Linestring&>(*lc);
            GeographicLib::PolygonArea ring(wgs84);
            int n = 0;
            for (const auto& p : lsg.points.elements()) {
                const auto& pt = static_cast<const Base::Point&>(*p);
                ring.AddPoint(pt.north.get_val(), pt.east.get_val());
                min_lat = qMin(min_lat, pt.north.get_val());
                max_lat = qMax(max_lat, pt.north.get_val());
                min_lon = qMin(min_lon, pt.east.get_val());
                max_lon = qMax(max_lon, pt.east.get_val());
                ++n;
            }
            if (n < 3)
                continue;
            double perimeter = 0, area = 0;
            ring.Compute(false, true, perimeter, area);
            g.area += (lsg.type.get_val() == 2 ? -1.0 : 1.0) * qAbs(area);
            g.perimeter += perimeter;
        }
    }
    double diagonal = 0;
    wgs84.Inverse(min_lat, min_lon, max_lat, max_lon, diagonal);
    g.across = diagonal;
    return g;
}
} // namespace

class Tst_geometry_commands : public QObject
{
    Q_OBJECT
private slots:
    void field_areas_against_geodesic_data();
    void field_areas_against_geodesic();
    void shape_info();
    void report_data();
    void report();
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
    const Run_result r = run_tool({QStringLiteral("fields"), dir, QStringLiteral("--json")});
    QCOMPARE(r.code, 0);
    const QJsonArray fields = QJsonDocument::fromJson(r.out).array();

    auto man = Base::Element_man::create();
    XML_interface xi(dir);
    QVERIFY(xi.load(man));
    auto root = man->root().staticCast<Base::Task_data>();
    QCOMPARE(fields.size(), root->partfields.count());
    int compared = 0;
    for (int i = 0; i < root->partfields.count(); ++i) {
        const auto field = root->partfields.typed_at(i);
        const QJsonObject o = fields.at(i).toObject();
        QCOMPARE(o.value("id").toString(), field->get_id_string());
        QCOMPARE(o.value("designator").toString(), field->designator.get_string());
        const Geodesic_figures g = geodesic(*field);
        if (g.area <= 0.0) {
            QCOMPARE(o.value("area_m2").toDouble(), 0.0);
            continue;
        }
        QVERIFY(g.across < 5000.0);
        const double area = o.value("area_m2").toDouble();
        const double perimeter = o.value("perimeter_m").toDouble();
        QVERIFY2(qAbs(area / g.area - 1.0) < 1e-3, qPrintable(QStringLiteral("%1 vs %2").arg(area).arg(g.area)));
        QVERIFY2(qAbs(perimeter / g.perimeter - 1.0) < 1e-3,
                 qPrintable(QStringLiteral("%1 vs %2").arg(perimeter).arg(g.perimeter)));
        ++compared;
    }
    QCOMPARE(compared, 1);
}

void Tst_geometry_commands::shape_info()
{
    const QString zones = Ktd_test::source_dir() + QStringLiteral("/tests/data/shapefiles/zones.shp");
    const Run_result r = run_tool({QStringLiteral("shape-info"), zones, QStringLiteral("--json")});
    QCOMPARE(r.code, 0);
    const QJsonObject o = QJsonDocument::fromJson(r.out).object();
    QCOMPARE(o.value("shape_type").toString(), QStringLiteral("polygon"));
    QCOMPARE(o.value("shape_count").toInt(), 3);
    const QJsonObject box = o.value("bounding_box").toObject();
    QCOMPARE(box.value("min_x").toDouble(), 15.1);
    QCOMPARE(box.value("max_y").toDouble(), 48.145);
    const QJsonArray attrs = o.value("numeric_attributes").toArray();
    QCOMPARE(attrs.size(), 2);
    QCOMPARE(attrs.at(1).toObject().value("name").toString(), QStringLiteral("n_kg"));
    QCOMPARE(attrs.at(1).toObject().value("min").toDouble(), 42.5);
    QCOMPARE(attrs.at(1).toObject().value("max").toDouble(), 60.25);
    QCOMPARE(run_tool({QStringLiteral("shape-info"), zones + QStringLiteral(".none")}).code, 2);
}

void Tst_geometry_commands::report_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("us");
    QTest::addColumn<QByteArray>("expect");
    QTest::addColumn<int>("code");
    QTest::newRow("html, metric") << "r.html" << false << QByteArray("6.42 ha") << 0;
    QTest::newRow("html, US units") << "r.htm" << true << QByteArray("15.85 ac") << 0;
    QTest::newRow("pdf") << "r.pdf" << false << QByteArray("%PDF-") << 0;
    QTest::newRow("unknown extension") << "r.txt" << false << QByteArray() << 2;
}

void Tst_geometry_commands::report()
{
    KTD_REQUIRE_CORPUS(corpus);
    QFETCH(QString, file);
    QFETCH(bool, us);
    QFETCH(QByteArray, expect);
    QFETCH(int, code);
    QTemporaryDir tmp;
    QStringList args{QStringLiteral("report"), corpus + QStringLiteral("/v4-field-export"), tmp.filePath(file)};
    if (us)
        args << QStringLiteral("--us");
    QCOMPARE(run_tool(args).code, code);
    QFile f(tmp.filePath(file));
    if (code != 0) {
        QVERIFY(!f.exists());
        return;
    }
    QVERIFY(f.open(QIODevice::ReadOnly));
    const QByteArray content = f.readAll();
    QVERIFY2(content.contains(expect), content.left(200).constData());
    if (!file.endsWith(QLatin1String(".pdf")))
        QVERIFY(content.contains("Lagerfeld") && content.contains("Josephinum"));
}

QTEST_MAIN(Tst_geometry_commands)
#include "tst_geometry_commands.moc"
