// The geometry kernel: distances and local metres held against GeographicLib's own geodesic and
// local-cartesian results, the rules of polylines and polygons that are easy to get wrong (the
// omitted closing edge, the 1e-12 tolerances, holes and their edges, the 1000 m guard), polygons
// from a shapefile set written by GDAL, and the element operations on a real field.
#include "test_support.h"

#include <taskdata/common/GPS_tools.h>
#include <taskdata/common/Polygon.h>
#include <taskdata/common/Scene.h>
#include <taskdata/common/Shapefile_creator.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <GeographicLib/Geodesic.hpp>
#include <GeographicLib/LocalCartesian.hpp>

#include <QGraphicsScene>
#include <QtTest>

using namespace TC::Task_data;
using namespace TC::Task_data::GPS_tools;
using Plane_polygon = TC::Task_data::Polygon;

class Tst_geometry : public QObject
{
    Q_OBJECT
private slots:
    void distance_against_geodesic_data();
    void distance_against_geodesic();
    void local_plane_against_local_cartesian_data();
    void local_plane_against_local_cartesian();
    void centre_guard_data();
    void centre_guard();
    void polyline_rules_data();
    void polyline_rules();
    void contains_data();
    void contains();
    void image_and_mask();
    void scene_coordinates_data();
    void scene_coordinates();
    void polygons_from_shapefile_data();
    void polygons_from_shapefile();
    void polygons_from_gdal_shapefile();
    void element_operations();
};

void Tst_geometry::distance_against_geodesic_data()
{
    QTest::addColumn<QPointF>("a");
    QTest::addColumn<QPointF>("b");
    QTest::newRow("100 m east at 48N") << QPointF(15.15, 48.13) << QPointF(15.151344, 48.13);
    QTest::newRow("5 km north at 60N") << QPointF(10.0, 60.0) << QPointF(10.0, 60.045);
    QTest::newRow("equator, across 0") << QPointF(-0.01, 0.001) << QPointF(0.02, -0.002);
}

void Tst_geometry::distance_against_geodesic()
{
    QFETCH(QPointF, a);
    QFETCH(QPointF, b);
    double s12 = 0.0;
    GeographicLib::Geodesic::WGS84().Inverse(a.y(), a.x(), b.y(), b.x(), s12);
    // The chord is shorter than the geodesic by about s^3 / (24 R^2): 0.13 mm at 5 km.
    QVERIFY2(qAbs(dist_in_metres(a, b) - s12) < 1e-3, qPrintable(QString::number(dist_in_metres(a, b) - s12)));
    // A scaled difference is the geodesic length within 0.1% over a few kilometres.
    const QPointF m = SF_calc(a).to_metres_from_ref(b);
    QVERIFY(qAbs(std::hypot(m.x(), m.y()) / s12 - 1.0) < 1e-3);
    QCOMPARE(SF_calc(a).from_metres_to_ref(m), b);
}

void Tst_geometry::local_plane_against_local_cartesian_data()
{
    QTest::addColumn<QVector<double>>("v"); // centre latitude, longitude, height; point latitude, longitude
    QTest::newRow("field at 48N") << QVector<double>{48.13, 15.15, 0.0, 48.135, 15.142};
    QTest::newRow("centre 300 m up") << QVector<double>{52.2, 7.2, 300.0, 52.19, 7.23};
    QTest::newRow("near the pole") << QVector<double>{89.9, 30.0, 0.0, 89.905, 120.0};
    QTest::newRow("across the date line") << QVector<double>{-16.5, 179.99, 0.0, -16.49, -179.99};
}

void Tst_geometry::local_plane_against_local_cartesian()
{
    QFETCH(QVector<double>, v);
    const double lat0 = v[0], lon0 = v[1], h0 = v[2], lat = v[3], lon = v[4];
    const GeographicLib::LocalCartesian reference(lat0, lon0, h0);
    double x = 0, y = 0, z = 0;
    reference.Forward(lat, lon, 0.0, x, y, z);

    CoordConv c;
    c.setLocalCenterLLHDeg(lat0, lon0, h0);
    double east = 0, north = 0;
    QVERIFY(c.convLLHDeg2Local(lat, lon, 0.0, &east, &north));
    QVERIFY2(qAbs(east - x) < 1e-6 && qAbs(north - y) < 1e-6, qPrintable(QStringLiteral("%1 %2").arg(east - x).arg(north - y)));

    // Back from the plane (up = 0 on the plane): as GeographicLib's reverse of the same point.
    double rlat = 0, rlon = 0, rh = 0, glat = 0, glon = 0, gh = 0;
    QVERIFY(c.convLocal2LLHDeg(east, north, &rlat, &rlon, &rh));
    reference.Reverse(east, north, 0.0, glat, glon, gh);
    QVERIFY(qAbs(rlat - glat) < 1e-10 && qAbs(rlon - glon) < 1e-10 && qAbs(rh - gh) < 1e-6);

    // A centre given in ECEF is the same centre.
    double cx = 0, cy = 0, cz = 0, clat = 0, clon = 0, ch = 0;
    c.getLocalCenterECEF(&cx, &cy, &cz);
    CoordConv e;
    e.setLocalCenterECEF(cx, cy, cz);
    e.getLocalCenterLLHDeg(&clat, &clon, &ch);
    QVERIFY(qAbs(clat - lat0) < 1e-10 && qAbs(clon - lon0) < 1e-10 && qAbs(ch - h0) < 1e-6);
}

void Tst_geometry::centre_guard_data()
{
    QTest::addColumn<QVector<double>>("centre"); // ECEF; empty: never set
    QTest::addColumn<bool>("converts");
    QTest::newRow("never set") << QVector<double>{} << false;
    QTest::newRow("999 m from the earth's centre") << QVector<double>{999.0, 0.0, 0.0} << false;
    QTest::newRow("on the surface") << QVector<double>{4194304.0, 1135097.0, 4735012.0} << true;
}

void Tst_geometry::centre_guard()
{
    QFETCH(QVector<double>, centre);
    QFETCH(bool, converts);
    CoordConv c;
    if (!centre.isEmpty())
        c.setLocalCenterECEF(centre[0], centre[1], centre[2]);
    double a = -1, b = -2, d = -3;
    QCOMPARE(c.convLocal2LLH(10.0, 20.0, &a, &b, &d), converts);
    QCOMPARE(c.convLocal2ECEF(10.0, 20.0, &a, &b, &d), converts);
    QCOMPARE(c.convECEF2Local(4194304.0, 1135097.0, 4735012.0, &a, &b), converts);
    if (!converts)
        QVERIFY(a == -1 && b == -2 && d == -3); // outputs untouched
}

void Tst_geometry::polyline_rules_data()
{
    QTest::addColumn<QPolygonF>("vertices");
    QTest::addColumn<double>("area");
    QTest::addColumn<int>("size_after_close");
    QTest::newRow("empty") << QPolygonF() << 0.0 << 0;
    QTest::newRow("one vertex") << QPolygonF(QVector<QPointF>{QPointF(1, 1)}) << 0.0 << 1;
    QTest::newRow("two vertices") << QPolygonF(QVector<QPointF>{{1, 1}, {5, 1}}) << 0.0 << 3;
    // The edge from the last vertex back to the first (1*1 - 1*4 = -3) is not added.
    QTest::newRow("unclosed triangle") << QPolygonF(QVector<QPointF>{{1, 1}, {5, 1}, {1, 4}}) << 7.5 << 4;
    QTest::newRow("closed counter-clockwise") << QPolygonF(QVector<QPointF>{{1, 1}, {5, 1}, {1, 4}, {1, 1}}) << 6.0 << 4;
    QTest::newRow("closed clockwise") << QPolygonF(QVector<QPointF>{{1, 1}, {1, 4}, {5, 1}, {1, 1}}) << -6.0 << 4;
    QTest::newRow("ends 1e-13 apart") << QPolygonF(QVector<QPointF>{{1, 1}, {5, 1}, {1, 4}, {1 + 1e-13, 1 - 1e-13}}) << 6.0 << 4;
    QTest::newRow("ends 1e-11 apart") << QPolygonF(QVector<QPointF>{{1, 1}, {5, 1}, {1, 4}, {1 + 1e-11, 1}}) << 6.0 << 5;
}

void Tst_geometry::polyline_rules()
{
    QFETCH(QPolygonF, vertices);
    QFETCH(double, area);
    QFETCH(int, size_after_close);
    Polyline line(vertices, QPointF(10, 20));
    QVERIFY(qAbs(line.compute_area() - area) < 1e-9);
    line.close();
    QCOMPARE(line.size(), size_after_close);

    // Moving the reference by no more than 1e-12 changes nothing, even with shifting.
    Polyline moved(vertices, QPointF(10, 20));
    moved.set_reference(QPointF(10 + 9e-13, 20 - 9e-13), true);
    QCOMPARE(moved.reference(), QPointF(10, 20));
    QCOMPARE(QPolygonF(moved), vertices);
    moved.set_reference(QPointF(11, 20), true);
    QCOMPARE(moved.reference(), QPointF(11, 20));
    QCOMPARE(QPolygonF(moved), vertices.translated(-1, 0)); // absolute positions kept
    moved.set_reference(QPointF(12, 20), false);
    QCOMPARE(QPolygonF(moved), vertices.translated(-1, 0));
}

void Tst_geometry::contains_data()
{
    QTest::addColumn<QPointF>("p");
    QTest::addColumn<bool>("relative");
    QTest::addColumn<bool>("inside");
    // Outer square 0..10 with a square hole 4..6 and a triangular hole, about reference (100, 50).
    QTest::newRow("in the ring") << QPointF(2, 2) << false << true;
    QTest::newRow("in the hole") << QPointF(5, 5) << false << false;
    QTest::newRow("outside") << QPointF(11, 5) << false << false;
    QTest::newRow("in the triangle's box, not in it") << QPointF(8.9, 8.9) << false << true;
    QTest::newRow("in the triangle") << QPointF(7.5, 7.5) << false << false;
    QTest::newRow("absolute, in the ring") << QPointF(102, 52) << true << true;
    QTest::newRow("relative point given as absolute") << QPointF(2, 2) << true << false;
    // On a hole's edge the hole's own odd-even rule decides: its left and lower edges belong
    // to the hole, its right and upper edges to the ring.
    QTest::newRow("hole's left edge") << QPointF(4, 5) << false << false;
    QTest::newRow("hole's right edge") << QPointF(6, 5) << false << true;
}

void Tst_geometry::contains()
{
    QFETCH(QPointF, p);
    QFETCH(bool, relative);
    QFETCH(bool, inside);
    Plane_polygon poly(QPointF(100, 50));
    for (const QPointF& v : {QPointF(0, 0), QPointF(10, 0), QPointF(10, 10), QPointF(0, 10), QPointF(0, 0)})
        poly.append(v);
    poly.add_hole(QPolygonF(QVector<QPointF>{{4, 4}, {6, 4}, {6, 6}, {4, 6}, {4, 4}}));
    poly.add_hole(QPolygonF(QVector<QPointF>{{7, 7}, {9, 7}, {7, 9}, {7, 7}}));
    QCOMPARE(poly.contains(p, relative), inside);
    QCOMPARE(poly.bounding(true), QRectF(100, 50, 10, 10));
    QVERIFY(qAbs(poly.net_area() - (100.0 - 4.0 - 2.0)) < 1e-9);
}

void Tst_geometry::image_and_mask()
{
    Plane_polygon poly(QPointF(100, 50));
    poly.set_outer(QPolygonF(QVector<QPointF>{{0, 0}, {10, 0}, {10, 10}, {0, 10}}));
    poly.add_hole(QPolygonF(QVector<QPointF>{{4, 4}, {6, 4}, {6, 6}, {4, 6}}));
    const QRectF area(100, 50, 10, 10); // absolute
    const QImage img = poly.as_image(area, QSize(10, 10), Qt::red, Qt::blue);
    QCOMPARE(img.pixelColor(1, 1), QColor(Qt::red));  // in the ring (top row = north)
    QCOMPARE(img.pixelColor(5, 5), QColor(Qt::blue)); // in the hole
    QCOMPARE(Plane_polygon::as_image(nullptr, area, QSize(4, 4), Qt::red, Qt::blue).pixelColor(1, 1), QColor(Qt::blue));
    const QImage m = poly.mask(area, QSize(10, 10), Qt::MaskInColor);
    QCOMPARE(m.format(), QImage::Format_MonoLSB);
    int set = 0;
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x)
            set += m.pixelIndex(x, y);
    QCOMPARE(set, 96);
    // Only the lower half of the image's area is covered: the upper rows stay outside.
    const QImage half = poly.as_image(QRectF(100, 50, 10, 20), QSize(10, 20), Qt::red, Qt::blue);
    QCOMPARE(half.pixelColor(1, 1), QColor(Qt::blue));
    QCOMPARE(half.pixelColor(1, 18), QColor(Qt::red));
}

namespace {
// A reader that delivers rings as a test needs them: a writer other than GDAL may put a hole
// before its outer ring, or leave a hole-oriented ring outside every polygon.
struct Ring_reader : Shapefile_creator
{
    QVector<QVector<QPolygonF>> shapes; // rings per shape, absolute
    struct Handle : Shapefile_handle
    {
        const Ring_reader* r;
        int shape_type() const override { return polygon_shape; }
        QRectF bounds() const override { return QRectF(0, 0, 100, 100); }
        int shape_count() const override { return r->shapes.size(); }
        bool read_shape(int shape, Plane_polygon& out) const override
        {
            const auto& rings = r->shapes.at(shape);
            for (int i = 0; i < rings.size(); ++i) {
                const QPolygonF ring = rings[i].translated(-out.reference());
                i == 0 ? out.set_outer(ring) : out.add_hole(ring);
            }
            return !rings.isEmpty();
        }
        QList<Field> fields() const override { return {}; }
        QVariant value(int, int) const override { return QVariant(); }
    };
    std::unique_ptr<Shapefile_handle> open(const QString&) override
    {
        auto h = new Handle;
        h->r = this;
        return std::unique_ptr<Shapefile_handle>(h);
    }
};

QPolygonF square(double x, double y, double size, bool clockwise)
{
    QPolygonF p(QVector<QPointF>{{x, y}, {x + size, y}, {x + size, y + size}, {x, y + size}, {x, y}});
    if (clockwise)
        std::reverse(p.begin(), p.end());
    return p;
}
} // namespace

void Tst_geometry::scene_coordinates_data()
{
    QTest::addColumn<bool>("metres");
    QTest::addColumn<bool>("absolute");
    QTest::addColumn<QPointF>("scene"); // of (15.151, 48.132)
    QTest::addColumn<QPointF>("step");  // of a step of (10 m, 20 m)
    const QPointF ref(15.15, 48.13);
    const SF_calc sf(ref);
    const QPointF p(15.151, 48.132), d = p - ref;
    QTest::newRow("degrees, absolute") << false << true << p << sf.from_metres(QPointF(10, 20));
    QTest::newRow("degrees about the reference") << false << false << d << sf.from_metres(QPointF(10, 20));
    QTest::newRow("metres win over absolute") << true << true << sf.to_metres(d) << QPointF(10, 20);
}

void Tst_geometry::scene_coordinates()
{
    QFETCH(bool, metres);
    QFETCH(bool, absolute);
    QFETCH(QPointF, scene);
    QFETCH(QPointF, step);
    Iso::Position::Fix fix;
    fix.latitude = 48.2;
    fix.longitude = 15.2;
    fix.valid = true;
    Scene s(QPointF(15.15, 48.13), Iso::Position(fix));
    s.set_in_metres(metres);
    s.set_absolute_degrees(absolute);
    QCOMPARE(s.llh_to_scene(QPointF(15.151, 48.132)), scene);
    QCOMPARE(s.dmetres_to_dscene(QPointF(10, 20)), step);
    // The terminal's marker stands at the copied position, whatever the reference.
    QGraphicsScene graphics;
    Scene_utils::add_observer_to_scene(graphics, s, QSizeF(4, 6), 90.0);
    QCOMPARE(graphics.items().size(), 1);
    const QPointF at = s.llh_to_scene(QPointF(15.2, 48.2));
    QVERIFY(graphics.itemsBoundingRect().contains(at));
    QVERIFY(graphics.itemsBoundingRect().width() > graphics.itemsBoundingRect().height() * (metres ? 1.2 : 0.0));
}

void Tst_geometry::polygons_from_shapefile_data()
{
    QTest::addColumn<QVector<QVector<QPolygonF>>>("shapes");
    QTest::addColumn<QVector<int>>("holes"); // per polygon built
    QTest::addColumn<QRectF>("last_box");
    QTest::newRow("hole in its ring") << QVector<QVector<QPolygonF>>{{square(0, 0, 10, true), square(4, 4, 2, false)}}
                                      << QVector<int>{1} << QRectF(0, 0, 10, 10);
    QTest::newRow("hole before its part") << QVector<QVector<QPolygonF>>{{square(0, 0, 10, true), square(52, 52, 2, false),
                                                                          square(50, 50, 10, true)}}
                                          << QVector<int>{0, 1} << QRectF(50, 50, 10, 10);
    QTest::newRow("hole of an earlier shape's ring") << QVector<QVector<QPolygonF>>{{square(0, 0, 10, true)},
                                                                                    {square(20, 0, 5, true), square(1, 1, 1, false)}}
                                                     << QVector<int>{1, 0} << QRectF(20, 0, 5, 5);
    QTest::newRow("rings outside every polygon")
        << QVector<QVector<QPolygonF>>{{square(0, 0, 10, true), square(30, 30, 2, false), square(40, 20, 1, false)}}
        << QVector<int>{0, 2} << QRectF(30, 20, 11, 12);
}

void Tst_geometry::polygons_from_shapefile()
{
    QFETCH(QVector<QVector<QPolygonF>>, shapes);
    QFETCH(QVector<int>, holes);
    QFETCH(QRectF, last_box);
    Shapefile_creator* installed = Shapefile_creator::instance();
    Ring_reader reader;
    reader.shapes = shapes;
    Shapefile_creator::set_instance(&reader);
    const QList<Plane_polygon> polys = Plane_polygon::polys_from_shape_file(QStringLiteral("any"));
    Shapefile_creator::set_instance(installed);
    QCOMPARE(polys.size(), holes.size());
    for (int i = 0; i < polys.size(); ++i) {
        QCOMPARE(polys[i].reference(), QPointF(50, 50));
        QCOMPARE(polys[i].holes().size(), holes[i]);
    }
    QCOMPARE(polys.last().bounding(true), last_box);
    if (QTest::currentDataTag() == QByteArray("rings outside every polygon"))
        QCOMPARE(polys.last().outer().size(), 5); // the bounding rectangle, closed
}

void Tst_geometry::polygons_from_gdal_shapefile()
{
    const QString zones = Ktd_test::source_dir() + QStringLiteral("/tests/data/shapefiles/zones.shp");
    const QList<Plane_polygon> polys = Plane_polygon::polys_from_shape_file(zones);
    // "north" with its hole, the two parts of "split", and "stray ring" with the ring outside
    // it, which GDAL writes as an outer ring of its own.
    QCOMPARE(polys.size(), 5);
    const QVector<int> holes{1, 0, 0, 0, 0};
    for (int i = 0; i < polys.size(); ++i) {
        QCOMPARE(polys[i].reference(), QPointF(15.1225, 48.1225)); // the file's bounding box centre
        QCOMPARE(polys[i].holes().size(), holes[i]);
    }
    QVERIFY(polys[0].contains(QPointF(15.101, 48.101), true));
    QVERIFY(!polys[0].contains(QPointF(15.105, 48.105), true)); // the hole
    QVERIFY(polys[2].contains(QPointF(15.125, 48.112), true));   // second part of "split"
    QVERIFY(polys[4].contains(QPointF(15.142, 48.142), true));   // the stray ring
    QVERIFY(qAbs(polys[0].net_area() - (1e-4 - 4e-6)) < 1e-12);

    // Without a reader nothing is read and nothing fails.
    Shapefile_creator* installed = Shapefile_creator::instance();
    QVERIFY(installed);
    Shapefile_creator::set_instance(nullptr);
    QVERIFY(Plane_polygon::polys_from_shape_file(zones).isEmpty());
    Shapefile_creator::set_instance(installed);
    QVERIFY(Plane_polygon::polys_from_shape_file(zones + QStringLiteral(".missing")).isEmpty());
}

void Tst_geometry::element_operations()
{
    KTD_REQUIRE_CORPUS(corpus);
    using namespace TC::Task_data::Elements::Base;
    auto man = Element_man::create();
    XML_interface xi(corpus + QStringLiteral("/v4-field-export"));
    QVERIFY(xi.load(man));
    auto root = man->root().staticCast<Task_data>();
    auto field = root->partfields.typed_at(0);
    auto ring = field->polygons.typed_at(0)->line_strings.typed_at(0);
    auto first = ring->points.typed_at(0);
    const QPointF first_pos(first->east.get_val(), first->north.get_val());
    QCOMPARE(field->get_first_point(), first_pos);
    QCOMPARE(ring->get_first_point(), first_pos);

    // A position 3 m east of the first vertex (outside the ring's edges near it) finds a
    // point of the boundary within those 3 m; the point itself is found at distance 0.
    const QPointF probe = SF_calc(first_pos).from_metres_to_ref(QPointF(3.0, 0.0));
    QPointF closest;
    double d = -1;
    QVERIFY(field->find_closest_point(probe, closest, true, &d));
    QVERIFY2(d >= 0.0 && d <= 3.0 + 1e-6, qPrintable(QString::number(d)));
    QVERIFY(first->find_closest_point(first_pos, closest, false, &d));
    QCOMPARE(d, 0.0);
    QPointF none;
    QVERIFY(!root->find_closest_point(probe, none, false, &d)); // the root has no geometry of its own

    QGraphicsScene graphics;
    Scene scene(first_pos);
    scene.set_in_metres(true);
    field->add_to_scene(graphics, scene);
    QVERIFY(!graphics.items().isEmpty());
    const QRectF r = graphics.itemsBoundingRect();
    QVERIFY(r.width() > 100 && r.width() < 1000); // metres about the first vertex
}

QTEST_MAIN(Tst_geometry)
#include "tst_geometry.moc"
