// Implementation of `taskdata generate`; see generate_command.h.
#include "generate_command.h"

#include "tool_support.h"

#include <taskdata/elements/client/Elements.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QUuid>

#include <cmath>
#include <unistd.h>

using namespace Taskdata_tool;
namespace Client = TC::Task_data::Elements::Client;

namespace {

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

// Identifiers as farm software gives them (positive numbers), GUIDs from the seed so that the
// GUID list is as repeatable as the main file. The GUID goes first: the number then takes it.
template <class H>
H with_id(const H& e, Rng& rng, int n)
{
    e.set_guid(rng.uuid());
    e.set_id_noevent(n);
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

// A trailed sprayer: device, boom and `sections` sections, with the process data a task
// controller needs for rate and section control. Nothing is announced while the tree is built.
Client::Device build_device(const Client::Task_data& root, Rng& rng, int sections)
{
    const auto dvc = with_id(root.create_device(false), rng, 1);
    dvc.set_designator_noevent(QStringLiteral("Sprayer 24 m"));
    dvc.set_software_version_noevent(QStringLiteral("2.4.1"));
    dvc.set_master_name_noevent(0xA00086000DE00001ULL);
    dvc.set_serial_number_noevent(QStringLiteral("SN-%1").arg(100000 + rng.below(900000)));
    dvc.set_structure_label_noevent(QStringLiteral("31303030303131"));
    dvc.set_localisation_label_noevent(QStringLiteral("FF000000006564"));

    int next_det = 1;
    auto det = [&](int object, int type, const QString& name, int number, int parent) {
        const auto e = with_id(dvc.create_element(false), rng, next_det++);
        e.set_object_id_noevent(quint16(object));
        e.set_type_noevent(quint8(type));
        e.set_designator_noevent(name);
        e.set_element_number_noevent(quint16(number));
        e.set_parent_object_id_noevent(quint16(parent));
        return e;
    };
    auto reference = [&](const Client::Device_element& e, int object) {
        e.create_object_reference(false).set_object_id_noevent(quint16(object));
    };
    auto process_data = [&](int object, quint16 ddi, int property, int triggers, const QString& name, int presentation) {
        const auto p = dvc.create_process_data(false);
        p.set_object_id_noevent(quint16(object));
        p.set_ddi_noevent(ddi);
        p.set_property_noevent(quint8(property));
        p.set_trigger_methods_noevent(quint8(triggers));
        p.set_designator_noevent(name);
        if (presentation > 0)
            p.set_presentation_object_id_noevent(quint16(presentation));
    };
    auto property = [&](int object, quint16 ddi, qint32 value, const QString& name, int presentation) {
        const auto p = dvc.create_property(false);
        p.set_object_id_noevent(quint16(object));
        p.set_ddi_noevent(ddi);
        p.set_value_noevent(value);
        p.set_designator_noevent(name);
        if (presentation > 0)
            p.set_presentation_object_id_noevent(quint16(presentation));
    };
    auto presentation = [&](int object, qint32 offset, double scale, int decimals, const QString& unit) {
        const auto v = dvc.create_value_presentation(false);
        v.set_object_id_noevent(quint16(object));
        v.set_offset_noevent(offset);
        v.set_scale_noevent(scale);
        v.set_number_of_decimals_noevent(quint8(decimals));
        v.set_unit_designator_noevent(unit);
    };

    const int width_mm = 24000;
    const auto device = det(1, 1, QStringLiteral("Sprayer"), 0, 0);
    const auto boom = det(2, 2, QStringLiteral("Boom"), 1, 1);
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
        const auto sec = det(3 + s, 4, QStringLiteral("Section %1").arg(s + 1), 2 + s, 2);
        const int y_object = 120 + 2 * s;
        reference(sec, y_object);
        reference(sec, y_object + 1);
        property(y_object, 0x0087, -width_mm / 2 + section_width / 2 + s * section_width, QStringLiteral("Offset Y"),
                 201);
        property(y_object + 1, 0x0043, section_width, QStringLiteral("Section width"), 201);
    }
    presentation(200, 0, 0.01, 1, QStringLiteral("l/ha"));
    presentation(201, 0, 0.001, 2, QStringLiteral("m"));
    return dvc;
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

bool build_generated_tree(const Client::Element_man& eman, const Generate_options& o)
{
    if (o.fields < 0 || o.points < 4 || o.tasks < 0 || !eman.valid())
        return false;
    Rng rng(o.seed);
    Client::Element_man man = eman;
    man.set_xml_version(4);
    const Client::Task_data root = man.create_client_root();
    root.set_ver_major_noevent(4);
    root.set_ver_minor_noevent(3);
    root.set_mngt_sw_manufacturer_noevent(QStringLiteral("Korvanel taskdata generate"));
    root.set_mngt_sw_ver_noevent(QStringLiteral(KTD_TOOL_VERSION));
    root.set_data_xfer_origin_noevent(1);

    const int n_customers = qMax(2, (o.fields + 9) / 10);
    const int n_farms = qMax(1, (o.fields + 4) / 5);
    QVector<Client::Customer> customers;
    for (int i = 0; i < n_customers; ++i) {
        const auto c = with_id(root.create_customer(false), rng, i + 1);
        c.set_designator_noevent(pick(last_names, rng));
        c.set_first_name_noevent(pick(first_names, rng));
        c.set_city_noevent(pick(cities, rng));
        c.set_postal_code_noevent(QString::number(49000 + rng.below(700)));
        c.set_country_noevent(QStringLiteral("DE"));
        customers.append(c);
    }
    QVector<Client::Farm> farms;
    for (int i = 0; i < n_farms; ++i) {
        const auto f = with_id(root.create_farm(false), rng, i + 1);
        f.set_designator_noevent(QStringLiteral("Farm %1").arg(i + 1));
        f.set_city_noevent(pick(cities, rng));
        f.set_country_noevent(QStringLiteral("DE"));
        f.set_customer_noevent(customers.at(i % n_customers));
        farms.append(f);
    }
    QVector<Client::Worker> workers;
    for (int i = 0; i < 2; ++i) {
        const auto w = with_id(root.create_worker(false), rng, i + 1);
        w.set_designator_noevent(pick(last_names, rng));
        w.set_first_name_noevent(pick(first_names, rng));
        workers.append(w);
    }
    QVector<Client::Product> products;
    const char* const product_names[] = {"Calcium ammonium nitrate", "AHL 28", "Winter wheat seed"};
    for (int i = 0; i < 3; ++i) {
        const auto p = with_id(root.create_product(false), rng, i + 1);
        p.set_designator_noevent(QString::fromLatin1(product_names[i]));
        p.set_type_noevent(1);
        products.append(p);
    }
    const Client::Device device = build_device(root, rng, 6);

    QVector<Client::Partfield> fields;
    const double metres_per_degree = 111320.0;
    const double pi = 3.14159265358979323846;
    for (int i = 0; i < o.fields; ++i) {
        const auto f = with_id(root.create_partfield(false), rng, i + 1);
        const auto farm = farms.at(i % n_farms);
        f.set_designator_noevent(QStringLiteral("Field %1").arg(i + 1));
        f.set_customer_noevent(farm.customer());
        f.set_farm_noevent(farm);

        // Fields on a grid of about 1.7 x 1.7 km cells, each a smoothly wobbling ring around its
        // centre: the angle only grows, so the ring never crosses itself.
        const double lat0 = 52.0 + (i / 25) * 0.015 + rng.range(-0.002, 0.002);
        const double lon0 = 8.0 + (i % 25) * 0.025 + rng.range(-0.003, 0.003);
        const double radius = rng.range(150.0, 400.0);
        const double a1 = rng.range(0.0, 0.12), a2 = rng.range(0.0, 0.08), a3 = rng.range(0.0, 0.04);
        const double p1 = rng.range(0, 2 * pi), p2 = rng.range(0, 2 * pi), p3 = rng.range(0, 2 * pi);
        const double lon_scale = metres_per_degree * std::cos(lat0 * pi / 180.0);
        const auto polygon = f.create_polygon(false);
        polygon.set_type_noevent(1);
        polygon.set_designator_noevent(QStringLiteral("Boundary"));
        const auto ring = polygon.create_line_string(false);
        ring.set_type_noevent(1);
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
            const auto p = ring.create_point(false);
            p.set_type_noevent(2);
            p.set_north_noevent(coordinate(lat0 + q.y() / metres_per_degree));
            p.set_east_noevent(coordinate(lon0 + q.x() / lon_scale));
        }
        f.set_area_noevent(quint32(std::llround(std::fabs(twice_area) / 2)));
        fields.append(f);
    }

    const QDateTime first_start(QDate(2024, 3, 4), QTime(7, 0), Qt::UTC);
    for (int i = 0; i < o.tasks; ++i) {
        const auto t = with_id(root.create_task(false), rng, i + 1);
        t.set_status_noevent(1);
        t.set_default_treatment_zone_noevent(1);
        if (!fields.isEmpty()) {
            const auto field = fields.at(i % fields.size());
            t.set_designator_noevent(QStringLiteral("Fertilising %1").arg(field.designator()));
            t.set_partfield_noevent(field);
            t.set_farm_noevent(field.farm());
            t.set_customer_noevent(field.customer());
        } else {
            t.set_designator_noevent(QStringLiteral("Fertilising %1").arg(i + 1));
            t.set_customer_noevent(customers.first());
        }
        t.set_worker_noevent(workers.at(i % workers.size()));

        const auto zone = t.create_treatment_zone(false);
        zone.set_code_noevent(1);
        zone.set_designator_noevent(QStringLiteral("Rate 1"));
        const auto rate = zone.create_process_data_variable(false);
        rate.set_ddi_noevent(0x0006); // setpoint mass per area, mg/m2
        rate.set_value_noevent(15000 + 100 * rng.below(101));
        rate.set_product_noevent(products.first());

        const auto time = t.create_time(false);
        time.set_start_noevent(first_start.addDays(i));
        time.set_type_noevent(1); // planned

        const auto allocation = t.create_device_allocation(false);
        allocation.set_master_name_noevent(device.master_name());
        allocation.set_device_ref_noevent(device);

        const auto trigger = t.create_data_log_trigger(false);
        trigger.set_ddi_noevent(0xDFFF); // the device's default set of process data
        trigger.set_method_noevent(31);
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
    Client::Element_man man = Client::Element_man::create();
    man.get_eman_real()->set_task_data_dir(outdir);
    build_generated_tree(man, o);
    XML_interface xi(outdir);
    xi.set_output_dir(outdir);
    xi.set_format_version(4);
    // Nothing proprietary is made; leaving it out keeps the files valid against the schema.
    xi.set_keep_proprietary(false);
    Progress progress(QStringLiteral("generate"));
    xi.set_progress_handler([&](int done, int total) { progress.update(done, total); });
    if (!man.save_xml(xi)) {
        err << "taskdata generate: " << xi.fail_text() << '\n';
        return exit_write_failed;
    }
    out << "wrote " << outdir << ": " << o.fields << " field(s) of " << o.points << " boundary points, " << o.tasks
        << " task(s), seed " << o.seed << '\n';
    return exit_ok;
}
