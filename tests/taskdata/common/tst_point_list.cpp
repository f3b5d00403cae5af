// Point lists and binary point files: how many records a file holds (declared length against the
// real size, record size from the presence mask), reading with short files and shared values,
// the 65000 accuracy rule, and whole directories whose boundaries live in binary point files:
// written through the interface, read back with identical points, written anew when changed.
#include "test_support.h"

#include <taskdata/common/Point_list.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_geometry.h>
#include <taskdata/elements/base/Element_man.h>

#include <QDataStream>
#include <QXmlStreamWriter>
#include <QtEndian>
#include <QtTest>

using namespace TC::Task_data;
namespace Base = TC::Task_data::Elements::Base;

namespace {
QByteArray read_file(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void write_file(const QString& path, const QByteArray& data)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(data);
}

// A field whose boundary ring is one PNT standing for a binary point file.
QSharedPointer<Base::Point> binary_boundary(const QSharedPointer<Base::Element_man>& man, int n)
{
    auto root = XML_interface::create_document(man, 4);
    auto field = root->partfields.create();
    field->designator.set_string(field, QStringLiteral("binary field"));
    auto pln = field->polygons.create();
    pln->type.set_val(pln, 1);
    auto lsg = pln->line_strings.create();
    lsg->type.set_val(lsg, 1);
    auto pnt = QSharedPointer<Base::Point>::create(man.toWeakRef());
    lsg->points.add(pnt, -1, false);
    pnt->type.set_val(pnt, 2);
    pnt->filename.set_string(pnt, QStringLiteral("PNT00001"));
    Point_list& list = pnt->make_binary_points();
    list.set_binary(true, Point_list::bit_north | Point_list::bit_east | Point_list::bit_horizontal_accuracy);
    list.set_file(QStringLiteral("PNT00001"), QString());
    list.default_point().type = 2;
    // A circle of about 100 m around a point in Lower Austria, closed.
    for (int i = 0; i < n; ++i) {
        const double t = 2 * M_PI * (i % (n - 1)) / (n - 1);
        list.append_point(48.13 + 0.0009 * std::cos(t), 15.15 + 0.00135 * std::sin(t));
        list.set_horizontal_accuracy(unsigned(i), 0.02 * (i % 7));
    }
    pnt->binary_points_changed();
    return pnt;
}

QVector<Point> points_of(const QSharedPointer<Base::Element_man>& man)
{
    auto root = man->root().staticCast<Base::Task_data>();
    auto pnt = root->partfields.typed_at(0)->polygons.typed_at(0)->line_strings.typed_at(0)->points.typed_at(0);
    QVector<Point> out;
    if (const Point_list* l = pnt->binary_points())
        for (unsigned i = 0; i < l->get_num_points(); ++i)
            out.append(*l->point(i));
    return out;
}

bool same(const QVector<Point>& a, const QVector<Point>& b)
{
    if (a.size() != b.size())
        return false;
    for (int i = 0; i < a.size(); ++i)
        if (a[i].north != b[i].north || a[i].east != b[i].east || a[i].type != b[i].type ||
            a[i].horizontal_accuracy != b[i].horizontal_accuracy)
            return false;
    return true;
}
} // namespace

class Tst_point_list : public QObject
{
    Q_OBJECT
private slots:
    void numbinpts_data();
    void numbinpts();
    void records_data();
    void records();
    void accuracy_rule_data();
    void accuracy_rule();
    void index_beyond_count();
    void save_bin_element();
    void directory_round_trip();
};

void Tst_point_list::numbinpts_data()
{
    QTest::addColumn<int>("mask");
    QTest::addColumn<int>("declared");
    QTest::addColumn<int>("file_size"); // -1: no file
    QTest::addColumn<int>("record_size");
    QTest::addColumn<int>("count");
    QTest::newRow("record size 0") << 0 << 0 << 100 << 0 << 0;
    QTest::newRow("every field, length unknown") << 127 << 0 << 57 << 26 << 2;
    QTest::newRow("declared larger than the file") << 127 << 1000 << 52 << 26 << 2;
    QTest::newRow("declared smaller than the file") << 127 << 26 << 52 << 26 << 1;
    QTest::newRow("type, up, colour") << 25 << 0 << 30 << 6 << 5;
    QTest::newRow("no file") << 6 << 32 << -1 << 16 << 0;
}

void Tst_point_list::numbinpts()
{
    QFETCH(int, mask);
    QFETCH(int, declared);
    QFETCH(int, file_size);
    QFETCH(int, record_size);
    QFETCH(int, count);
    QTemporaryDir dir;
    if (file_size >= 0)
        write_file(dir.filePath("pnt00009.bin"), QByteArray(file_size, '\x01')); // found regardless of case
    Point_list l;
    l.set_binary(true, mask);
    l.set_file(QStringLiteral("PNT00009"), dir.path(), quint32(declared));
    QCOMPARE(l.binrecsz(), record_size);
    QCOMPARE(l.numbinpts(), qint64(count));
    QCOMPARE(l.load_bin(), file_size >= 0);
    QCOMPARE(int(l.get_num_points()), count);
}

void Tst_point_list::records_data()
{
    QTest::addColumn<int>("mask");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("last"); // count: north, east, up, horizontal accuracy of the last point
    QByteArray rec;
    QDataStream ds(&rec, QIODevice::WriteOnly);
    ds.setByteOrder(QDataStream::LittleEndian);
    ds << quint8(5) << qint64(521234567890123456LL) << qint64(-1234567890123456LL) << qint32(-2500) << quint8(7)
       << quint16(1234) << quint16(65000);
    QTest::newRow("every field") << 127 << rec << "1: 52.1234567890123 -0.123456789012346 -2500 1.234";
    // Fields the file does not carry keep the shared values (north 48.5, up 100, accuracy 0.5).
    QTest::newRow("east only") << 4 << rec.mid(9, 8) + rec.mid(9, 8) << "2: 48.5 -0.123456789012346 100 0.5";
}

void Tst_point_list::records()
{
    QFETCH(int, mask);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, last);
    QTemporaryDir dir;
    write_file(dir.filePath("PNT00002.BIN"), bytes);
    Point_list l;
    l.default_point().north = 48.5;
    l.default_point().up = 100;
    l.default_point().horizontal_accuracy = 0.5;
    l.set_binary(true, mask);
    l.set_file(QStringLiteral("PNT00002"), dir.path());
    QVERIFY(l.load_bin());
    const unsigned n = l.get_num_points();
    QCOMPARE(QStringLiteral("%1: %2 %3 %4 %5").arg(n).arg(l.get_north(n - 1), 0, 'g', 15).arg(l.get_east(n - 1), 0, 'g', 15)
                 .arg(l.get_up(n - 1)).arg(l.get_horizontal_accuracy(n - 1)), last);
    QCOMPARE(l.bin_records(), bytes); // written back, the records are the bytes read
    l.unload_bin();
    QVERIFY(l.get_num_points() == 0 && !l.is_loaded());
}

void Tst_point_list::accuracy_rule_data()
{
    QTest::addColumn<double>("metres");
    QTest::addColumn<int>("stored");
    QTest::newRow("just above 65 m") << 65.0001 << 65000;
    QTest::newRow("65 m") << 65.0 << 65000;
    QTest::newRow("rounded up") << 1.2345 << 1235;
    QTest::newRow("rounded down") << 0.0004 << 0;
    QTest::newRow("negative") << -1.0 << 0;
}

void Tst_point_list::accuracy_rule()
{
    QFETCH(double, metres);
    QFETCH(int, stored);
    Point_list l;
    l.set_binary(true, Point_list::bit_horizontal_accuracy | Point_list::bit_vertical_accuracy);
    l.append_point();
    l.set_horizontal_accuracy(0, metres);
    l.set_vertical_accuracy(0, metres);
    const QByteArray r = l.bin_records();
    QCOMPARE(r.size(), 4);
    QCOMPARE(int(qFromLittleEndian<quint16>(r.constData())), stored);
    QCOMPARE(int(qFromLittleEndian<quint16>(r.constData() + 2)), stored);
}

void Tst_point_list::index_beyond_count()
{
    Point_list l;
    l.default_point().north = 1.0;
    l.append_point();
    QCOMPARE(l.get_north(0), 1.0);
    QCOMPARE(l.get_north(1), 0.0); // not the shared value
    QVERIFY(!l.point(1));
    l.set_north(1, 9.0); // nothing to set
    QVERIFY(!l.remove_point(1));
    QCOMPARE(l.get_num_points(), 1u);
}

void Tst_point_list::save_bin_element()
{
    QTemporaryDir tmp;
    Point_list l;
    l.set_binary(true, Point_list::bit_north | Point_list::bit_east);
    l.set_file(QStringLiteral("PNT00007"), QString());
    l.default_point().type = 2;
    l.default_point().designator = QStringLiteral("B1");
    l.default_point().horizontal_accuracy = 0.5;
    l.append_point(48.1, 15.1);
    l.append_point(48.2, 15.2);
    QByteArray xml;
    QXmlStreamWriter w(&xml);
    XML_interface xi(tmp.path());
    QVERIFY(l.save_bin(w, xi));
    // Fields of the file empty, shared values as numbers, the file's name and length.
    QCOMPARE(xml, QByteArray("<PNT A=\"2\" B=\"B1\" C=\"\" D=\"\" E=\"0\" F=\"0\" H=\"0.5\" I=\"0\" J=\"PNT00007\" "
                             "K=\"32\"/>"));
    QCOMPARE(read_file(tmp.filePath("PNT00007.BIN")), l.bin_records());
    QCOMPARE(l.bin_records().size(), 32);
}

void Tst_point_list::directory_round_trip()
{
    QTemporaryDir tmp;
    const QString a = tmp.filePath("a"), b = tmp.filePath("b");
    auto man = Base::Element_man::create();
    const int n = 2001;
    binary_boundary(man, n);
    const QVector<Point> made = points_of(man);
    XML_interface out(a);
    QVERIFY(out.save(man));
    // 18 bytes per record (north, east, horizontal accuracy); K says so; C, D, H are left empty.
    QCOMPARE(QFileInfo(QDir(a).filePath("PNT00001.BIN")).size(), qint64(18 * n));
    const QByteArray xml = read_file(QDir(a).filePath("TASKDATA.XML"));
    QVERIFY2(xml.contains("<PNT A=\"2\" C=\"\" D=\"\" H=\"\" J=\"PNT00001\" K=\"36018\"/>"), xml.constData());

    auto back = Base::Element_man::create();
    XML_interface in(a);
    QVERIFY(in.load(back));
    const QVector<Point> read = points_of(back);
    QCOMPARE(read.size(), n);
    for (int i = 0; i < n; ++i) // within a double's step at 48 degrees, and millimetres
        QVERIFY(qAbs(read[i].north - made[i].north) < 2e-14 && qAbs(read[i].horizontal_accuracy - made[i].horizontal_accuracy) < 5e-4);

    // The field's boundary is measured from the points of the file.
    auto field = back->root().staticCast<Base::Task_data>()->partfields.typed_at(0);
    const auto f = Base::Element_geometry::field_figures(*field);
    QVERIFY2(qAbs(f.area_m2 - M_PI * 100.0 * 100.0) < 0.01 * M_PI * 1e4, qPrintable(QString::number(f.area_m2)));

    // A changed list is written anew, not copied as an unchanged one is.
    auto pnt = field->polygons.typed_at(0)->line_strings.typed_at(0)->points.typed_at(0);
    pnt->binary_points()->set_east(0, 15.5);
    pnt->binary_points()->remove_point(1);
    in.set_output_dir(b);
    QVERIFY(in.save(back));
    QCOMPARE(QFileInfo(QDir(b).filePath("PNT00001.BIN")).size(), qint64(18 * (n - 1)));
    auto changed = Base::Element_man::create();
    XML_interface in_b(b);
    QVERIFY(in_b.load(changed));
    QVERIFY(same(points_of(changed), points_of(back)));
    QCOMPARE(points_of(changed).first().east, 15.5);
}

QTEST_MAIN(Tst_point_list)
#include "tst_point_list.moc"
