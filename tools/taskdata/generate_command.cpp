// Implementation of `taskdata generate`; see generate_command.h.
#include "generate_command.h"

#include "tool_support.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QUuid>

#include <cmath>
#include <unistd.h>

using namespace Taskdata_tool;
using namespace TC::Task_data::Elements::Base;

namespace {

using Man = QSharedPointer<Element_man>;

void print_usage(QTextStream& s)
{
    s << "usage: taskdata generate OUTDIR [--fields N] [--points K] [--tasks T] [--seed S]\n"
         "  OUTDIR      where the directory is written (created when missing)\n"
         "  --fields N  fields with a boundary each (default 10, 0..100000)\n"
         "  --points K  points per boundary ring, the last repeating the first (default 100, 4..10000000)\n"
         "  --tasks T   tasks spread over the fields (default 5, 0..100000)\n"
         "  --seed S    the same seed gives the same files (default 1)\n"
         "About 70 bytes of XML per point: --fields 200 --points 5000 writes about 72 MB.\n"
         "A size whose tree would not fit in the memory available is refused.\n"
         "exit code: 0 written, 2 bad usage, 3 OUTDIR could not be written\n";
}

// A small generator of its own: the standard distributions differ between libraries, and the
// same seed must give the same files everywhere.
class Rng
{
public:
    explicit Rng(quint64 seed) : m_state(seed) {}
    quint64 next()
    {
        quint64 z = (m_state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    double uniform() { return double(next() >> 11) * (1.0 / 9007199254740992.0); }
    double range(double lo, double hi) { return lo + (hi - lo) * uniform(); }
    int below(int n) { return n <= 0 ? 0 : int(next() % quint64(n)); }
    QUuid uuid()
    {
        const quint64 a = next();
        const quint64 b = next();
        // Random-based layout (version 4, RFC 4122 variant) so that readers accept it as a GUID.
        return QUuid(uint(a >> 32), ushort(a >> 16), ushort((a & 0x0FFF) | 0x4000), uchar(((b >> 56) & 0x3F) | 0x80),
                     uchar(b >> 48), uchar(b >> 40), uchar(b >> 32), uchar(b >> 24), uchar(b >> 16), uchar(b >> 8),
                     uchar(b));
    }

private:
    quint64 m_state;
};

template <class E>
QSharedPointer<E> make(const Man& man)
{
    return QSharedPointer<E>::create(man.toWeakRef());
}

// Identifiers as farm software gives them (positive numbers), GUIDs from the seed so that the
// GUID list is as repeatable as the main file.
template <class E>
QSharedPointer<E> make_with_id(const Man& man, Rng& rng, int n)
{
    QSharedPointer<E> e = make<E>(man);
    e->id.set_guid(rng.uuid());
    e->id.set_val(e, n);
    return e;
}

// Nine decimals: what the V4-3 schema allows for coordinates, about 0.1 mm.
double coordinate(double v) { return std::round(v * 1e9) / 1e9; }

const char* const last_names[] = {"Meyer", "Schulte", "Brinkmann", "Hoffmann", "Kuhlmann", "Wessels",
                                  "Niemann", "Bruns", "Tiemann", "Rolfes", "Lammers", "Wilke"};
const char* const first_names[] = {"Anna", "Bernd", "Carla", "Dirk", "Elke", "Frank", "Gesa", "Hinrich"};
const char* const cities[] = {"Vechta", "Cloppenburg", "Lohne", "Dinklage", "Damme", "Quakenbrueck"};

template <size_t N>
QString pick(const char* const (&names)[N], Rng& rng)
{
    return QString::fromLatin1(names[rng.below(int(N))]);
}

struct Device_parts
{
    QSharedPointer<Device> device;
    QSharedPointer<Device_element> boom;
};

// A trailed sprayer: device, boom and `sections` sections, with the process data a task
// controller needs for rate and section control.
Device_parts build_device(const Man& man, Rng& rng, int sections)
{
    auto dvc = make_with_id<Device>(man, rng, 1);
    dvc->designator.set_string_noevent(QStringLiteral("Sprayer 24 m"));
    dvc->software_version.set_string_noevent(QStringLiteral("2.4.1"));
    dvc->master_name.set_val_noevent(0xA00086000DE00001ULL);
    dvc->serial_number.set_string_noevent(QStringLiteral("SN-%1").arg(100000 + rng.below(900000)));
    dvc->structure_label.set_string_noevent(QStringLiteral("31303030303131"));
    dvc->localisation_label.set_string_noevent(QStringLiteral("FF000000006564"));

    int next_det = 1;
    auto det = [&](int object, int type, const QString& name, int number, int parent) {
        auto e = make_with_id<Device_element>(man, rng, next_det++);
        e->object_id.set_val_noevent(quint16(object));
        e->type.set_val_noevent(quint8(type));
        e->designator.set_string_noevent(name);
        e->element_number.set_val_noevent(quint16(number));
        e->parent_object_id.set_val_noevent(quint16(parent));
        dvc->elements.add(e, -1, false);
        return e;
    };
    auto reference = [&](const QSharedPointer<Device_element>& e, int object) {
        auto r = make<Device_object_reference>(man);
        r->object_id.set_val_noevent(quint16(object));
        e->object_references.add(r, -1, false);
    };
    auto process_data = [&](int object, quint16 ddi, int property, int triggers, const QString& name, int presentation) {
        auto p = make<Device_process_data>(man);
        p->object_id.set_val_noevent(quint16(object));
        p->ddi.set_val_noevent(ddi);
        p->property.set_val_noevent(quint8(property));
        p->trigger_methods.set_val_noevent(quint8(triggers));
        p->designator.set_string_noevent(name);
        if (presentation > 0)
            p->presentation_object_id.set_val_noevent(quint16(presentation));
        dvc->process_data.add(p, -1, false);
    };
    auto property = [&](int object, quint16 ddi, qint32 value, const QString& name, int presentation) {
        auto p = make<Device_property>(man);
        p->object_id.set_val_noevent(quint16(object));
        p->ddi.set_val_noevent(ddi);
        p->value.set_val_noevent(value);
        p->designator.set_string_noevent(name);
        if (presentation > 0)
            p->presentation_object_id.set_val_noevent(quint16(presentation));
        dvc->properties.add(p, -1, false);
    };
    auto presentation = [&](int object, qint32 offset, double scale, int decimals, const QString& unit) {
        auto v = make<Device_value_presentation>(man);
        v->object_id.set_val_noevent(quint16(object));
        v->offset.set_val_noevent(offset);
        v->scale.set_val_noevent(scale);
        v->number_of_decimals.set_val_noevent(quint8(decimals));
        v->unit_designator.set_string_noevent(unit);
        dvc->value_presentations.add(v, -1, false);
    };

    const int width_mm = 24000;
    auto device = det(1, 1, QStringLiteral("Sprayer"), 0, 0);
    auto boom = det(2, 2, QStringLiteral("Boom"), 1, 1);
    reference(device, 100);
    reference(device, 101);
    reference(device, 103);
    reference(boom, 102);
    reference(boom, 110);
    reference(boom, 111);
    process_data(100, 0x0001, 3, 8, QStringLiteral("Setpoint volume per area"), 200);
    process_data(101, 0x0002, 1, 13, QStringLiteral("Actual volume per area"), 200);
    process_data(102, 0x00A1, 1, 8, QStringLiteral("Actual condensed work state"), 0);
    process_data(103, 0x008D, 1, 8, QStringLiteral("Actual work state"), 0);
    property(110, 0x0086, -1500, QStringLiteral("Offset X"), 201);
    property(111, 0x0043, width_mm, QStringLiteral("Working width"), 201);
    const int section_width = width_mm / qMax(1, sections);
    for (int s = 0; s < sections; ++s) {
        auto sec = det(3 + s, 4, QStringLiteral("Section %1").arg(s + 1), 2 + s, 2);
        const int y_object = 120 + 2 * s;
        reference(sec, y_object);
        reference(sec, y_object + 1);
        property(y_object, 0x0087, -width_mm / 2 + section_width / 2 + s * section_width, QStringLiteral("Offset Y"),
                 201);
        property(y_object + 1, 0x0043, section_width, QStringLiteral("Section width"), 201);
    }
    presentation(200, 0, 0.01, 1, QStringLiteral("l/ha"));
    presentation(201, 0, 0.001, 2, QStringLiteral("m"));
    return {dvc, boom};
}

// What the tree and its written text take per point, per field and per task (measured: about
// 470 bytes per point with the main file's text held until it is written), with a margin.
constexpr qint64 bytes_per_point = 560;
constexpr qint64 bytes_per_field = 4096;
constexpr qint64 bytes_per_task = 8192;

// Memory the system can give without swapping, in bytes; -1 when unknown.
qint64 available_memory()
{
    QFile meminfo(QStringLiteral("/proc/meminfo"));
    if (meminfo.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : meminfo.readAll().split('\n')) {
            if (line.startsWith("MemAvailable:")) {
                bool ok = false;
                const qint64 kib = line.mid(13).trimmed().split(' ').value(0).toLongLong(&ok);
                if (ok)
                    return kib * 1024;
            }
        }
    }
    const long pages = ::sysconf(_SC_AVPHYS_PAGES);
    const long page = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && page > 0 ? qint64(pages) * page : -1;
}

} // namespace

bool build_generated_tree(const Man& man, const Generate_options& o)
{
    if (o.fields < 0 || o.points < 4 || o.tasks < 0)
        return false;
    Rng rng(o.seed);
    auto root = make<Task_data>(man);
    root->ver_major.set_val_noevent(4);
    root->ver_minor.set_val_noevent(3);
    root->mngt_sw_manufacturer.set_string_noevent(QStringLiteral("Korvanel taskdata generate"));
    root->mngt_sw_ver.set_string_noevent(QStringLiteral(KTD_TOOL_VERSION));
    root->data_xfer_origin.set_val_noevent(1);
    man->set_root(root);

    const int n_customers = qMax(2, (o.fields + 9) / 10);
    const int n_farms = qMax(1, (o.fields + 4) / 5);
    QVector<QSharedPointer<Customer>> customers;
    for (int i = 0; i < n_customers; ++i) {
        auto c = make_with_id<Customer>(man, rng, i + 1);
        c->designator.set_string_noevent(pick(last_names, rng));
        c->first_name.set_string_noevent(pick(first_names, rng));
        c->city.set_string_noevent(pick(cities, rng));
        c->postal_code.set_string_noevent(QString::number(49000 + rng.below(700)));
        c->country.set_string_noevent(QStringLiteral("DE"));
        root->customers.add(c, -1, false);
        customers.append(c);
    }
    QVector<QSharedPointer<Farm>> farms;
    for (int i = 0; i < n_farms; ++i) {
        auto f = make_with_id<Farm>(man, rng, i + 1);
        f->designator.set_string_noevent(QStringLiteral("Farm %1").arg(i + 1));
        f->city.set_string_noevent(pick(cities, rng));
        f->country.set_string_noevent(QStringLiteral("DE"));
        f->customer.set(f, customers.at(i % n_customers), false);
        root->farms.add(f, -1, false);
        farms.append(f);
    }
    QVector<QSharedPointer<Worker>> workers;
    for (int i = 0; i < 2; ++i) {
        auto w = make_with_id<Worker>(man, rng, i + 1);
        w->designator.set_string_noevent(pick(last_names, rng));
        w->first_name.set_string_noevent(pick(first_names, rng));
        root->workers.add(w, -1, false);
        workers.append(w);
    }
    QVector<QSharedPointer<Product>> products;
    const char* const product_names[] = {"Calcium ammonium nitrate", "AHL 28", "Winter wheat seed"};
    for (int i = 0; i < 3; ++i) {
        auto p = make_with_id<Product>(man, rng, i + 1);
        p->designator.set_string_noevent(QString::fromLatin1(product_names[i]));
        p->type.set_val_noevent(1);
        root->products.add(p, -1, false);
        products.append(p);
    }
    const QSharedPointer<Device> device = build_device(man, rng, 6).device;
    root->devices.add(device, -1, false);

    QVector<QSharedPointer<Partfield>> fields;
    const double metres_per_degree = 111320.0;
    const double pi = 3.14159265358979323846;
    for (int i = 0; i < o.fields; ++i) {
        auto f = make_with_id<Partfield>(man, rng, i + 1);
        const auto farm = farms.at(i % n_farms);
        f->designator.set_string_noevent(QStringLiteral("Field %1").arg(i + 1));
        f->customer.set(f, farm->customer.get_target(), false);
        f->farm.set(f, farm, false);

        // Fields on a grid of about 1.7 x 1.7 km cells, each a smoothly wobbling ring around its
        // centre: the angle only grows, so the ring never crosses itself.
        const double lat0 = 52.0 + (i / 25) * 0.015 + rng.range(-0.002, 0.002);
        const double lon0 = 8.0 + (i % 25) * 0.025 + rng.range(-0.003, 0.003);
        const double radius = rng.range(150.0, 400.0);
        const double a1 = rng.range(0.0, 0.12), a2 = rng.range(0.0, 0.08), a3 = rng.range(0.0, 0.04);
        const double p1 = rng.range(0, 2 * pi), p2 = rng.range(0, 2 * pi), p3 = rng.range(0, 2 * pi);
        const double lon_scale = metres_per_degree * std::cos(lat0 * pi / 180.0);
        auto polygon = make<Polygon>(man);
        polygon->type.set_val_noevent(1);
        polygon->designator.set_string_noevent(QStringLiteral("Boundary"));
        auto ring = make<Linestring>(man);
        ring->type.set_val_noevent(1);
        const int distinct = o.points - 1;
        QVector<QPointF> local;
        local.reserve(distinct);
        for (int k = 0; k < distinct; ++k) {
            const double t = 2 * pi * k / distinct;
            const double r = radius * (1 + a1 * std::sin(2 * t + p1) + a2 * std::sin(3 * t + p2) +
                                       a3 * std::sin(5 * t + p3) + rng.range(-0.004, 0.004));
            local.append(QPointF(r * std::sin(t), r * std::cos(t)));
        }
        double twice_area = 0;
        for (int k = 0; k < distinct; ++k) {
            const QPointF& a = local.at(k);
            const QPointF& b = local.at((k + 1) % distinct);
            twice_area += a.x() * b.y() - b.x() * a.y();
        }
        for (int k = 0; k <= distinct; ++k) {
            const QPointF& q = local.at(k % distinct);
            auto p = make<Point>(man);
            p->type.set_val_noevent(2);
            p->north.set_val_noevent(coordinate(lat0 + q.y() / metres_per_degree));
            p->east.set_val_noevent(coordinate(lon0 + q.x() / lon_scale));
            ring->points.add(p, -1, false);
        }
        f->area.set_val_noevent(quint32(std::llround(std::fabs(twice_area) / 2)));
        polygon->line_strings.add(ring, -1, false);
        f->polygons.add(polygon, -1, false);
        root->partfields.add(f, -1, false);
        fields.append(f);
    }

    const QDateTime first_start(QDate(2024, 3, 4), QTime(7, 0), Qt::UTC);
    for (int i = 0; i < o.tasks; ++i) {
        auto t = make_with_id<Task>(man, rng, i + 1);
        t->status.set_val_noevent(1);
        t->default_treatment_zone.set_val_noevent(1);
        if (!fields.isEmpty()) {
            const auto field = fields.at(i % fields.size());
            t->designator.set_string_noevent(QStringLiteral("Fertilising %1").arg(field->designator.get_string()));
            t->partfield.set(t, field, false);
            t->farm.set(t, field->farm.get_target(), false);
            t->customer.set(t, field->customer.get_target(), false);
        } else {
            t->designator.set_string_noevent(QStringLiteral("Fertilising %1").arg(i + 1));
            t->customer.set(t, customers.first(), false);
        }
        t->worker.set(t, workers.at(i % workers.size()), false);

        auto zone = make<Treatment_zone>(man);
        zone->code.set_val_noevent(1);
        zone->designator.set_string_noevent(QStringLiteral("Rate 1"));
        auto rate = make<Process_data_variable>(man);
        rate->ddi.set_val_noevent(0x0006); // setpoint mass per area, mg/m2
        rate->value.set_val_noevent(15000 + 100 * rng.below(101));
        rate->product.set(rate, products.first(), false);
        zone->process_data_variables.add(rate, -1, false);
        t->treatment_zones.add(zone, -1, false);

        auto time = make<Time>(man);
        time->start.set_qdt(time, first_start.addDays(i));
        time->type.set_val_noevent(1); // planned
        t->times.add(time, -1, false);

        auto allocation = make<Device_allocation>(man);
        allocation->master_name.set_val_noevent(device->master_name.get_val());
        allocation->device_ref.set(allocation, device, false);
        t->device_allocations.add(allocation, -1, false);

        auto trigger = make<Data_log_trigger>(man);
        trigger->ddi.set_val_noevent(0xDFFF); // the device's default set of process data
        trigger->method.set_val_noevent(31);
        t->data_log_triggers.add(trigger, -1, false);
        root->tasks.add(t, -1, false);
    }
    return true;
}

int run_generate_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
        print_usage(out);
        return exit_ok;
    }
    const Parsed_args pa = parse_args(args, {},
                                      {QStringLiteral("--fields"), QStringLiteral("--points"), QStringLiteral("--tasks"),
                                       QStringLiteral("--seed")});
    if (!pa.error.isEmpty() || pa.positional.size() != 1) {
        err << "taskdata generate: " << (pa.error.isEmpty() ? QStringLiteral("expected one OUTDIR") : pa.error) << '\n';
        print_usage(err);
        return exit_unusable;
    }
    Generate_options o;
    auto number = [&](const char* name, int lo, int hi, int& value) {
        const QString key = QString::fromLatin1(name);
        if (!pa.values.contains(key))
            return true;
        bool ok = false;
        const qlonglong v = pa.values.value(key).toLongLong(&ok);
        if (!ok || v < lo || v > hi) {
            err << "taskdata generate: " << key << " must be a number from " << lo << " to " << hi << '\n';
            return false;
        }
        value = int(v);
        return true;
    };
    if (!number("--fields", 0, 100000, o.fields) || !number("--points", 4, 10000000, o.points) ||
        !number("--tasks", 0, 100000, o.tasks))
        return exit_unusable;
    if (pa.values.contains(QStringLiteral("--seed"))) {
        bool ok = false;
        o.seed = pa.values.value(QStringLiteral("--seed")).toULongLong(&ok);
        if (!ok) {
            err << "taskdata generate: --seed must be a number from 0 to 18446744073709551615\n";
            return exit_unusable;
        }
    }

    // A size whose tree cannot be held is refused before anything is built: the alternative is
    // a machine that swaps for minutes and then kills the process.
    const qint64 needed =
        qint64(o.fields) * (qint64(o.points) * bytes_per_point + bytes_per_field) + qint64(o.tasks) * bytes_per_task;
    const qint64 available = available_memory();
    if (available > 0 && needed > available) {
        err << "taskdata generate: " << o.fields << " field(s) of " << o.points << " points need about "
            << needed / (1 << 20) << " MiB of memory; this machine has " << available / (1 << 20)
            << " MiB available\n";
        return exit_unusable;
    }

    const QString outdir = QDir(pa.positional.first()).absolutePath();
    if (!QDir().mkpath(outdir)) {
        err << "taskdata generate: cannot create " << outdir << '\n';
        return exit_write_failed;
    }
    const Man man = Element_man::create();
    man->set_task_data_dir(outdir);
    build_generated_tree(man, o);
    XML_interface xi(outdir);
    xi.set_output_dir(outdir);
    xi.set_format_version(4);
    // Nothing proprietary is made; leaving it out keeps the files valid against the schema.
    xi.set_keep_proprietary(false);
    Progress progress(QStringLiteral("generate"));
    xi.set_progress_handler([&](int done, int total) { progress.update(done, total); });
    if (!xi.save(man)) {
        err << "taskdata generate: " << xi.fail_text() << '\n';
        return exit_write_failed;
    }
    out << "wrote " << outdir << ": " << o.fields << " field(s) of " << o.points << " boundary points, " << o.tasks
        << " task(s), seed " << o.seed << '\n';
    return exit_ok;
}
