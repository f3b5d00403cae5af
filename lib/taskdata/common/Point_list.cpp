#include "Point_list.h"

#include "File_lookup.h"
#include "XML_interface.h"

#include <QFile>
#include <QFileInfo>
#include <QSharedData>
#include <QXmlStreamWriter>
#include <QtEndian>

#include <cmath>
#include <cstring>

namespace TC {
namespace Task_data {

struct Point_list::Data : QSharedData
{
    bool binary = false;
    int mask = 0;
    QString file_name;
    QString dir;
    quint32 declared_length = 0;
    bool loaded = false;
    bool modified = false; // points changed since they were read from the file
    Point defaults;
    std::vector<Point> points;
};

namespace {
// Field sizes in record order (bit i of the mask).
constexpr int field_size[7] = {1, 8, 8, 4, 1, 2, 2};

quint16 accuracy_mm(double metres)
{
    if (metres > Point_list::max_accuracy)
        return 65000;
    if (!(metres > 0.0))
        return 0;
    return quint16(metres * 1000.0 + 0.5);
}

qint64 degrees_e16(double degrees) { return qint64(std::llround(degrees * 1e16)); }
} // namespace

Point_list::Point_list() : d(new Data) {}
Point_list::Point_list(const Point_list& other) = default;
Point_list& Point_list::operator=(const Point_list& other) = default;
Point_list::~Point_list() = default;

const Point* Point_list::point(unsigned i) const { return i < d->points.size() ? &d->points[i] : nullptr; }

#define KTD_POINT_FIELD(getter, setter, T, field)                                                                 \
    T Point_list::getter(unsigned i) const { return i < d->points.size() ? d->points[i].field : T(); }           \
    void Point_list::setter(unsigned i, T value)                                                                  \
    {                                                                                                             \
        if (i < d->points.size()) {                                                                               \
            d->points[i].field = value;                                                                           \
            d->modified = true;                                                                                   \
        }                                                                                                         \
    }
KTD_POINT_FIELD(get_type, set_type, quint8, type)
KTD_POINT_FIELD(get_north, set_north, double, north)
KTD_POINT_FIELD(get_east, set_east, double, east)
KTD_POINT_FIELD(get_up, set_up, qint32, up)
KTD_POINT_FIELD(get_colour, set_colour, quint8, colour)
KTD_POINT_FIELD(get_horizontal_accuracy, set_horizontal_accuracy, double, horizontal_accuracy)
KTD_POINT_FIELD(get_vertical_accuracy, set_vertical_accuracy, double, vertical_accuracy)
KTD_POINT_FIELD(get_icon_id, set_icon_id, quint8, icon_id)
#undef KTD_POINT_FIELD

QString Point_list::get_designator(unsigned i) const
{
    return i < d->points.size() ? d->points[i].designator : QString();
}

void Point_list::set_designator(unsigned i, const QString& text)
{
    if (i < d->points.size()) {
        d->points[i].designator = text;
        d->modified = true;
    }
}

QPointF Point_list::get_east_north(unsigned i) const
{
    return i < d->points.size() ? QPointF(d->points[i].east, d->points[i].north) : QPointF();
}

unsigned Point_list::get_num_points() const { return unsigned(d->points.size()); }

void Point_list::reserve(unsigned n) { d->points.reserve(n); }

unsigned Point_list::append_point()
{
    d->points.push_back(d->defaults);
    d->modified = true;
    return unsigned(d->points.size() - 1);
}

unsigned Point_list::append_point(double north, double east)
{
    const unsigned i = append_point();
    d->points[i].north = north;
    d->points[i].east = east;
    return i;
}

bool Point_list::remove_point(unsigned i)
{
    if (i >= d->points.size())
        return false;
    d->points.erase(d->points.begin() + i);
    d->modified = true;
    return true;
}

void Point_list::clear_points()
{
    d->points.clear();
    d->modified = true;
}

void Point_list::copy(const Point_list& from, int index)
{
    if (index < 0) {
        d = from.d;
        return;
    }
    if (const Point* p = from.point(unsigned(index))) {
        d->points.push_back(*p);
        d->modified = true;
    }
}

const Point& Point_list::default_point() const { return d->defaults; }
Point& Point_list::default_point() { return d->defaults; }

bool Point_list::get_is_binary() const { return d->binary; }

void Point_list::set_binary(bool binary, int presence_mask)
{
    d->binary = binary;
    d->mask = presence_mask & all_fields;
}

int Point_list::presence_mask() const { return d->mask; }
QString Point_list::get_file_name() const { return d->file_name; }
QString Point_list::file_dir() const { return d->dir; }
quint32 Point_list::declared_length() const { return d->declared_length; }
bool Point_list::is_loaded() const { return d->loaded; }
bool Point_list::is_modified() const { return d->modified; }

void Point_list::set_file(const QString& name, const QString& dir, quint32 declared_length)
{
    d->file_name = name;
    d->dir = dir;
    d->declared_length = declared_length;
}

int Point_list::binrecsz() const
{
    int size = 0;
    for (int bit = 0; bit < 7; ++bit)
        if (d->mask & (1 << bit))
            size += field_size[bit];
    return size;
}

qint64 Point_list::numbinpts() const
{
    const int rec = binrecsz();
    if (rec == 0)
        return 0;
    const QString path = File_lookup::find(d->dir, d->file_name + QStringLiteral(".BIN"), true).path;
    const qint64 actual = path.isEmpty() ? 0 : QFileInfo(path).size();
    qint64 length = d->declared_length;
    if (length == 0 || length > actual)
        length = actual;
    return length / rec;
}

qint64 Point_list::load_bin_data(const char* data, qint64 size)
{
    const int rec = binrecsz();
    d->points.clear();
    d->points.shrink_to_fit();
    d->loaded = true;
    d->modified = false;
    if (rec == 0 || size <= 0)
        return 0;
    const qint64 n = size / rec;
    // Every point starts as the default point; the fields of its record overwrite it. The
    // designator is shared only when there is one (copying even an empty QString costs a
    // reference count check per point).
    const Point& def = d->defaults;
    d->points.resize(size_t(n));
    const int mask = d->mask;
    const uchar* p = reinterpret_cast<const uchar*>(data);
    for (Point& pt : d->points) {
        pt.type = def.type;
        pt.colour = def.colour;
        pt.icon_id = def.icon_id;
        pt.up = def.up;
        pt.north = def.north;
        pt.east = def.east;
        pt.horizontal_accuracy = def.horizontal_accuracy;
        pt.vertical_accuracy = def.vertical_accuracy;
        if (!def.designator.isNull())
            pt.designator = def.designator;
        if (mask & bit_type)
            pt.type = *p++;
        if (mask & bit_north) {
            pt.north = double(qFromLittleEndian<qint64>(p)) * 1e-16;
            p += 8;
        }
        if (mask & bit_east) {
            pt.east = double(qFromLittleEndian<qint64>(p)) * 1e-16;
            p += 8;
        }
        if (mask & bit_up) {
            pt.up = qFromLittleEndian<qint32>(p);
            p += 4;
        }
        if (mask & bit_colour)
            pt.colour = *p++;
        if (mask & bit_horizontal_accuracy) {
            pt.horizontal_accuracy = qFromLittleEndian<quint16>(p) * 0.001;
            p += 2;
        }
        if (mask & bit_vertical_accuracy) {
            pt.vertical_accuracy = qFromLittleEndian<quint16>(p) * 0.001;
            p += 2;
        }
    }
    return n;
}

bool Point_list::load_bin()
{
    if (!d->binary || d->loaded)
        return true;
    d->points.clear();
    const QString path = File_lookup::find(d->dir, d->file_name + QStringLiteral(".BIN"), true).path;
    QFile f(path);
    if (path.isEmpty() || !f.open(QIODevice::ReadOnly))
        return false;
    const int rec = binrecsz();
    const qint64 wanted = qint64(numbinpts()) * rec;
    // Mapped when the file allows it; a short read (a file cut while we read) ends the list.
    if (wanted > 0) {
        if (const uchar* map = f.map(0, wanted)) {
            load_bin_data(reinterpret_cast<const char*>(map), wanted);
            f.unmap(const_cast<uchar*>(map));
        } else {
            const QByteArray bytes = f.read(wanted);
            load_bin_data(bytes.constData(), bytes.size());
        }
    }
    d->loaded = true;
    d->modified = false;
    return true;
}

void Point_list::unload_bin()
{
    if (!d->binary)
        return;
    d->points.clear();
    d->points.shrink_to_fit();
    d->loaded = false;
    d->modified = false;
}

QByteArray Point_list::bin_records() const
{
    const int rec = binrecsz();
    QByteArray out(int(qint64(rec) * qint64(d->points.size())), Qt::Uninitialized);
    uchar* p = reinterpret_cast<uchar*>(out.data());
    const int mask = d->mask;
    for (const Point& pt : d->points) {
        if (mask & bit_type)
            *p++ = pt.type;
        if (mask & bit_north) {
            qToLittleEndian<qint64>(degrees_e16(pt.north), p);
            p += 8;
        }
        if (mask & bit_east) {
            qToLittleEndian<qint64>(degrees_e16(pt.east), p);
            p += 8;
        }
        if (mask & bit_up) {
            qToLittleEndian<qint32>(pt.up, p);
            p += 4;
        }
        if (mask & bit_colour)
            *p++ = pt.colour;
        if (mask & bit_horizontal_accuracy) {
            qToLittleEndian<quint16>(accuracy_mm(pt.horizontal_accuracy), p);
            p += 2;
        }
        if (mask & bit_vertical_accuracy) {
            qToLittleEndian<quint16>(accuracy_mm(pt.vertical_accuracy), p);
            p += 2;
        }
    }
    return out;
}

bool Point_list::write_bin(XML_interface& xi) const
{
    if (d->file_name.isEmpty()) {
        xi.set_fail(QStringLiteral("Binary point list without a file name"));
        return false;
    }
    return xi.write_file(d->file_name + QStringLiteral(".BIN"), bin_records());
}

bool Point_list::save_bin(QXmlStreamWriter& w, XML_interface& xi) const
{
    const Point& p = d->defaults;
    auto field = [&](const char* name, int bit, const QString& value) {
        w.writeAttribute(QLatin1String(name), (d->mask & bit) ? QString() : value);
    };
    w.writeStartElement(QStringLiteral("PNT"));
    field("A", bit_type, QString::number(p.type));
    if (!p.designator.isEmpty())
        w.writeAttribute(QStringLiteral("B"), p.designator);
    field("C", bit_north, QString::number(p.north, 'g', 17));
    field("D", bit_east, QString::number(p.east, 'g', 17));
    field("E", bit_up, QString::number(p.up));
    field("F", bit_colour, QString::number(p.colour));
    field("H", bit_horizontal_accuracy, QString::number(p.horizontal_accuracy, 'g', 17));
    field("I", bit_vertical_accuracy, QString::number(p.vertical_accuracy, 'g', 17));
    w.writeAttribute(QStringLiteral("J"), d->file_name);
    w.writeAttribute(QStringLiteral("K"), QString::number(qint64(binrecsz()) * qint64(d->points.size())));
    w.writeEndElement();
    return write_bin(xi);
}

} // namespace Task_data
} // namespace TC
