// Shapefile sets of a task: numeric columns and their ranges from sets written by GDAL, what is
// left when no reader is installed or a set cannot be opened, and copying a set into a task
// data directory under its number with the "NO FILE" rule for missing components.
#include "test_support.h"

#include <taskdata/elements/enhanced/tcgeo/Shape_file.h>
#include <taskdata/common/Scene.h>

#include <QGraphicsScene>
#include <QtTest>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Enhanced;

namespace {
QString fixture(const QString& name) { return Ktd_test::source_dir() + QStringLiteral("/tests/data/shapefiles/") + name; }
} // namespace

class Tst_shape_files : public QObject
{
    Q_OBJECT
private slots:
    void attribute_ranges_data();
    void attribute_ranges();
    void without_a_set();
    void copy_to_taskdata_data();
    void copy_to_taskdata();
};

void Tst_shape_files::attribute_ranges_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("count");
    QTest::addColumn<QStringList>("ranges"); // "name min max" per numeric column
    QTest::newRow("polygons, an empty cell") << "zones.shp" << int(Shapefile_handle::polygon_shape) << 3
                                             << QStringList{"rate 80 150.5", "n_kg 42.5 60.25"};
    QTest::newRow("polylines") << "tracks.shp" << int(Shapefile_handle::polyline_shape) << 2 << QStringList{"width 24 36"};
    QTest::newRow("points, by the table's name") << "markers.dbf" << int(Shapefile_handle::point_shape) << 2
                                                 << QStringList{"depth -0.5 0"};
}

void Tst_shape_files::attribute_ranges()
{
    QFETCH(QString, file);
    QFETCH(int, type);
    QFETCH(int, count);
    QFETCH(QStringList, ranges);
    Shape_file set(fixture(file));
    QVERIFY(set.is_open());
    QCOMPARE(set.handle()->shape_type(), type);
    QCOMPARE(set.handle()->shape_count(), count);
    QStringList seen;
    for (const Shape_attribute& a : set.get_attributes(true)) {
        QVERIFY(a.rates_valid());
        seen << QStringLiteral("%1 %2 %3").arg(a.name).arg(a.min_value).arg(a.max_value);
    }
    QCOMPARE(seen, ranges);
    QCOMPARE(set.get_rate(0, 1).toString(), QString(type == Shapefile_handle::polygon_shape ? "100" : type == Shapefile_handle::polyline_shape ? "24" : "-0.5"));
    QCOMPARE(set.get_rate(0, 0).toString(), set.handle()->value(0, 0).toString()); // the text column
    QVERIFY(!set.get_rate(count, 1).isValid());

    // Drawn: one item per shape, coloured by the first numeric column.
    QGraphicsScene graphics;
    Shape_attribute first = set.get_attributes(false).first();
    QVERIFY(!first.values_seen);
    set.add_to_scene(graphics, first, Scene(QPointF(15.12, 48.12)));
    QCOMPARE(graphics.items().size(), count);
    QVERIFY(first.rates_valid());
}

void Tst_shape_files::without_a_set()
{
    Shape_file missing(fixture(QStringLiteral("nothing.shp")));
    QVERIFY(!missing.is_open());
    QVERIFY(!missing.get_rate(0, 0).isValid());
    QVERIFY(missing.get_attributes(true).isEmpty());

    Shapefile_creator* installed = Shapefile_creator::instance();
    Shapefile_creator::set_instance(nullptr);
    Shape_file no_reader(fixture(QStringLiteral("zones.shp")));
    Shapefile_creator::set_instance(installed);
    QVERIFY(!no_reader.is_open());
    Shape_attribute none(QStringLiteral("rate"), 1);
    no_reader.calc_rates(none);
    QVERIFY(!none.rates_valid()); // a column that saw nothing
}

void Tst_shape_files::copy_to_taskdata_data()
{
    QTest::addColumn<QStringList>("present"); // components of the source set
    QTest::addColumn<QList<quint16>>("used");  // numbers the task already has
    QTest::addColumn<quint16>("number");
    QTest::addColumn<QString>("base");
    QTest::newRow("first set") << QStringList{"shp", "shx", "dbf"} << QList<quint16>{} << quint16(1) << "SHP00001";
    QTest::newRow("numbers taken") << QStringList{"shp", "shx", "dbf"} << QList<quint16>{1, 2, 4} << quint16(3)
                                   << "SHP00003";
    QTest::newRow("no table") << QStringList{"shp", "shx"} << QList<quint16>{} << quint16(1) << "SHP00001";
}

void Tst_shape_files::copy_to_taskdata()
{
    QFETCH(QStringList, present);
    QFETCH(QList<quint16>, used);
    QFETCH(quint16, number);
    QFETCH(QString, base);
    QTemporaryDir tmp;
    const QString source = tmp.filePath("Zones");
    for (const QString& ext : present)
        QVERIFY(QFile::copy(fixture(QStringLiteral("zones.") + ext), source + QLatin1Char('.') + ext));
    const QString task_dir = tmp.filePath("TASKDATA");
    QVERIFY(QDir().mkpath(task_dir));
    Shape_files sets;
    for (quint16 n : used)
        sets.insert(n, QSharedPointer<Shape_file>());
    Ktd_test::Capture_fd out(1);
    QCOMPARE(sets.copy_to_taskdata(source + QStringLiteral(".shp"), task_dir), number);
    const QString printed = out.text();
    QCOMPARE(Shape_files::base_name(number), base);
    for (const QString& ext : QStringList{"shp", "shx", "dbf"}) {
        const QString target = QDir(task_dir).filePath(base + QLatin1Char('.') + ext.toUpper());
        if (present.contains(ext)) {
            QVERIFY(QFileInfo::exists(target));
        } else {
            QVERIFY(!QFileInfo::exists(target));
            QCOMPARE(printed, QStringLiteral("NO FILE %1.%2 %3\n").arg(source, ext, target));
        }
    }
    QVERIFY(sets.value(number)->is_open());
    QCOMPARE(sets.value(number)->handle()->shape_count(), 3);
}

QTEST_MAIN(Tst_shape_files)
#include "tst_shape_files.moc"
