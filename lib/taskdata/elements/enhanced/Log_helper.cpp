#include "Log_helper.h"

#include <taskdata/common/DDI_table.h>
#include <taskdata/common/Symlink_policy.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Element_man.h>

#include <platform/util/Binary_wrapper.h>
#include <platform/util/Debug_print.h>

#include <QFileInfo>
#include <QIODevice>
#include <QXmlStreamReader>

#include <cstdio>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Enhanced {

namespace {

using Bin = Binary_wrapper<Binary_message_storage>;

const char* const debug_category = "timelog";
// The name under which this decoder reports inconsistencies, kept stable for log readers.
const char* const bug_source = "lib/taskdata/elements/enhanced/Element_Enhanced_Log_helper";

const unsigned pos_field_len[Log_helper::num_pos_fields] = {4, 4, 4, 1, 2, 2, 1, 4, 2};

const QDate& epoch()
{
    static const QDate d(1980, 1, 1);
    return d;
}

// An attribute the record carries: written in the header, but without a value.
inline bool carried(const Attributes::Base::Attribute& a) { return a.present() && a.empty_text(); }

} // namespace

unsigned Log_helper::get_pos_field_len(unsigned field)
{
    return field < num_pos_fields ? pos_field_len[field] : 0;
}

// ---------------------------------------------------------------------------------------------
// Value

void Log_helper::Value::init(Base::Data_log_value* dlv)
{
    *this = Value();
    if (!dlv)
        return;
    if (dlv->ddi.valid())
        ddi = dlv->ddi.get_val();
    if (dlv->device_element.valid()) {
        device_element = dlv->device_element.get_val();
        // The device element may not be loaded (a header read before or without its
        // document): the number waiting in the manager is still the one the header gives.
        if (device_element == 0) {
            if (QSharedPointer<Base::Element_man> man = dlv->man()) {
                QString tag;
                int id = 0;
                if (man->pending_link(&dlv->device_element, tag, id))
                    device_element = id;
            }
        }
    }
    if (ddi == ddi_pgn) {
        if (dlv->pgn.valid() && dlv->pgn.get_val() >= 0)
            pgn = quint32(dlv->pgn.get_val());
        if (dlv->start_bit.valid() && dlv->start_bit.get_val() >= 0)
            start_bit = quint8(dlv->start_bit.get_val());
        if (dlv->stop_bit.valid() && dlv->stop_bit.get_val() >= 0)
            stop_bit = quint8(dlv->stop_bit.get_val());
    }
    const DDI_table::Entry* e = DDI_table::find(ddi);
    resolution = (e && e->resolution != 0) ? e->resolution : 1;
}

unsigned Log_helper::Value::diff(const Value& o) const
{
    unsigned d = 0;
    if (ddi != o.ddi)
        d |= 1;
    if (device_element != o.device_element)
        d |= 2;
    if (pgn != o.pgn)
        d |= 4;
    if (start_bit != o.start_bit)
        d |= 8;
    if (stop_bit != o.stop_bit)
        d |= 16;
    return d;
}

bool Log_helper::Value::operator<(const Value& o) const
{
    if (ddi != o.ddi)
        return ddi < o.ddi;
    if (device_element != o.device_element)
        return device_element < o.device_element;
    if (pgn != o.pgn)
        return pgn < o.pgn;
    if (start_bit != o.start_bit)
        return start_bit < o.start_bit;
    return stop_bit < o.stop_bit;
}

// ---------------------------------------------------------------------------------------------
// Record

void Log_helper::Record::set_time(const QDateTime& dt)
{
    if (!dt.isValid()) {
        time = 0;
        day = 0;
        return;
    }
    time = quint32(dt.time().msecsSinceStartOfDay());
    const qint64 d = epoch().daysTo(dt.date());
    day = d < 0 ? 0u : quint32(d);
}

QDateTime Log_helper::Record::date_time() const
{
    return QDateTime(epoch().addDays(qint64(day)), QTime(0, 0), Qt::UTC).addMSecs(qint64(time));
}

QString Log_helper::Record::get_pos_name(unsigned field)
{
    switch (field) {
    case pos_north:
        return QStringLiteral("North");
    case pos_east:
        return QStringLiteral("East");
    case pos_up:
        return QStringLiteral("Up");
    case pos_status:
        return QStringLiteral("Status");
    case pos_pdop:
        return QStringLiteral("PDOP");
    case pos_hdop:
        return QStringLiteral("HDOP");
    case pos_satellites:
        return QStringLiteral("Num Sats");
    case pos_gps_utc_time:
        return QStringLiteral("GPS ms");
    case pos_gps_utc_date:
        return QStringLiteral("GPS day");
    default:
        return QString();
    }
}

QVariant Log_helper::Record::get_pos_field(unsigned field) const
{
    switch (field) {
    case pos_north:
        return QVariant(north);
    case pos_east:
        return QVariant(east);
    case pos_up:
        return QVariant(up);
    case pos_status:
        return QVariant(int(status));
    case pos_pdop:
        return QVariant(pdop);
    case pos_hdop:
        return QVariant(hdop);
    case pos_satellites:
        return QVariant(int(satellites));
    case pos_gps_utc_time:
        return QVariant(static_cast<unsigned int>(gps_utc_time));
    case pos_gps_utc_date:
        return QVariant(static_cast<unsigned int>(gps_utc_date));
    default:
        return QVariant();
    }
}

namespace {
template <class T, class Pick>
void pick_field(T& mine, const T& theirs, Pick better)
{
    if (better(theirs, mine))
        mine = theirs;
}
} // namespace

template <class Better>
void Log_helper::Record::take_extremes(const Record& o, Better better)
{
    // Time and day are one moment, so a log crossing midnight keeps its real extremes.
    if (better(o.day, day) || (o.day == day && better(o.time, time))) {
        day = o.day;
        time = o.time;
    }
    pick_field(north, o.north, better);
    pick_field(east, o.east, better);
    pick_field(up, o.up, better);
    pick_field(status, o.status, better);
    pick_field(pdop, o.pdop, better);
    pick_field(hdop, o.hdop, better);
    pick_field(satellites, o.satellites, better);
    pick_field(gps_utc_time, o.gps_utc_time, better);
    pick_field(gps_utc_date, o.gps_utc_date, better);
    field_mask |= o.field_mask;
    for (int i = 0; i < o.m_dlvs.size(); ++i) {
        const Dlv& d = o.m_dlvs[i];
        if (!has_dlv(d.number) || better(d.value, dlv(d.number)))
            set_dlv(d.number, d.value);
    }
}

void Log_helper::Record::min(const Record& o)
{
    take_extremes(o, [](auto a, auto b) { return a < b; });
}

void Log_helper::Record::max(const Record& o)
{
    take_extremes(o, [](auto a, auto b) { return a > b; });
}

const QMap<quint8, qint32>& Log_helper::Record::get_dlvs() const
{
    // Built on demand: decoding keeps values in a flat array, a map per record would cost a
    // node allocation per value.
    if (!m_map_valid) {
        m_map.clear();
        for (const Dlv& d : m_dlvs)
            m_map.insert(d.number, d.value);
        m_map_valid = true;
    }
    return m_map;
}

bool Log_helper::Record::has_dlv(quint8 number) const
{
    const int i = lower_bound(number);
    return i < m_dlvs.size() && m_dlvs[i].number == number;
}

qint32 Log_helper::Record::dlv(quint8 number, qint32 absent) const
{
    const int i = lower_bound(number);
    return i < m_dlvs.size() && m_dlvs[i].number == number ? m_dlvs[i].value : absent;
}

int Log_helper::Record::lower_bound(quint8 number) const
{
    int lo = 0;
    int hi = m_dlvs.size();
    while (lo < hi) {
        const int mid = (lo + hi) / 2;
        if (m_dlvs[mid].number < number)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

void Log_helper::Record::set_dlv(quint8 number, qint32 value)
{
    m_map_valid = false;
    // Records list their values in ascending number as a rule: appending is the common case.
    const int n = m_dlvs.size();
    if (n == 0 || m_dlvs[n - 1].number < number) {
        m_dlvs.append(Dlv{number, value});
        return;
    }
    const int lo = lower_bound(number);
    if (m_dlvs[lo].number == number) {
        m_dlvs[lo].value = value;
        return;
    }
    m_dlvs.insert(lo, Dlv{number, value});
}

void Log_helper::Record::clear_dlvs()
{
    m_dlvs.clear();
    m_map_valid = false;
}

// ---------------------------------------------------------------------------------------------
// Record_cache

Log_helper::Record_cache::Record_cache(unsigned capacity) : m_slots(int(qMax(1u, capacity))) {}

const Log_helper::Record* Log_helper::Record_cache::find(unsigned index) const
{
    if (m_count == 0 || index < m_first || index - m_first >= m_count)
        return nullptr;
    const unsigned cap = capacity();
    return &m_slots[int((m_head + (index - m_first)) % cap)];
}

const Log_helper::Record* Log_helper::Record_cache::insert(const Record& record)
{
    const unsigned cap = capacity();
    const unsigned index = record.index;
    unsigned slot;
    if (const Record* held = find(index)) {
        slot = unsigned(held - m_slots.constData());
    } else if (m_count > 0 && index == m_first + m_count) {
        if (m_count == cap) {
            m_head = (m_head + 1) % cap;
            ++m_first;
            --m_count;
        }
        slot = (m_head + m_count) % cap;
        ++m_count;
    } else if (m_count > 0 && index + 1 == m_first) {
        if (m_count == cap)
            --m_count;
        m_head = (m_head + cap - 1) % cap;
        m_first = index;
        ++m_count;
        slot = m_head;
    } else {
        m_head = 0;
        m_first = index;
        m_count = 1;
        slot = 0;
    }
    m_slots[int(slot)] = record;
    return &m_slots[int(slot)];
}

void Log_helper::Record_cache::clear()
{
    m_head = 0;
    m_first = 0;
    m_count = 0;
}

// ---------------------------------------------------------------------------------------------
// Log_helper

Log_helper::Log_helper() = default;

Log_helper::Log_helper(const QSharedPointer<Base::Time_log>& tlg) { init(tlg); }

Log_helper::~Log_helper()
{
    close_debug();
    reset();
}

void Log_helper::reset()
{
    if (m_data && m_bytes.isEmpty())
        m_file.unmap(const_cast<uchar*>(m_data));
    if (m_file.isOpen())
        m_file.close();
    m_data = nullptr;
    m_size = 0;
    m_bytes.clear();
    m_binary_path.clear();
    m_header.reset();
    m_values.clear();
    m_ok = false;
    m_fail_text.clear();
    m_time_len = m_pos_len = 0;
    m_fixed = 1;
    m_pos_mask = m_field_mask = 0;
    m_header_time_valid = false;
    m_header_time = m_header_day = 0;
    m_cur_index = 0;
    m_cur_offset = 0;
    m_num_records = -1;
    m_trailing = 0;
    for (quint64& s : m_seen)
        s = 0;
    m_cache.clear();
    m_extremes_valid = false;
    m_min = Record();
    m_max = Record();
    m_base_valid = false;
    m_base_time = m_base_day = 0;
}

bool Log_helper::fail(const QString& text)
{
    if (m_fail_text.isEmpty())
        m_fail_text = text;
    Debug_print::dprint(debug_category, "%s", qPrintable(text));
    return false;
}

bool Log_helper::load_header(const QSharedPointer<Base::Element_man>& man, const QByteArray& xml,
                             const QString& name)
{
    QXmlStreamReader r(xml);
    while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
    }
    if (r.hasError() || !r.isStartElement())
        return fail(QStringLiteral("%1: no header element (%2)").arg(name, r.errorString()));
    if (r.name() != QLatin1String("TIM"))
        return fail(QStringLiteral("%1: the header root is %2, not TIM").arg(name, r.name().toString()));
    auto tim = QSharedPointer<Base::Time>::create(man.toWeakRef());
    XML_interface xi;
    xi.set_cur_infilepath(name);
    if (!tim->load_xml(tim, r, xi) || !xi.ok() || r.hasError())
        return fail(QStringLiteral("%1: %2").arg(name, xi.ok() ? r.errorString() : xi.fail_text()));
    m_header = tim;
    return true;
}

bool Log_helper::setup_time_record(Base::Time* tim)
{
    m_time_len = 0;
    m_field_mask &= quint16(~mask_time);
    m_header_time_valid = false;
    m_header_time = m_header_day = 0;
    m_fixed = m_time_len + m_pos_len + 1;
    if (!tim)
        return fail(QStringLiteral("no TIM header"));
    // B stands in for A only when A is absent: a written A (empty or not) decides alone.
    const Attributes::Base::Datetime* which = nullptr;
    if (tim->start.present())
        which = &tim->start;
    else if (tim->stop.present())
        which = &tim->stop;
    if (!which)
        return true;
    if (which->empty_text()) {
        m_time_len = 6;
        m_field_mask |= mask_time;
    } else if (which->valid()) {
        Record r;
        r.set_time(which->get_qdt());
        m_header_time = r.time;
        m_header_day = r.day;
        m_header_time_valid = true;
    }
    m_fixed = m_time_len + m_pos_len + 1;
    return true;
}

bool Log_helper::setup_pos_record(Base::Position* ptn)
{
    m_pos_mask = 0;
    m_pos_len = 0;
    m_field_mask &= mask_time;
    m_fixed = m_time_len + m_pos_len + 1;
    if (!ptn)
        return true;
    const Attributes::Base::Attribute* fields[num_pos_fields] = {
        &ptn->north, &ptn->east, &ptn->up, &ptn->status, &ptn->pdop,
        &ptn->hdop, &ptn->number_of_satellites, &ptn->gps_utc_time, &ptn->gps_utc_date};
    for (unsigned i : {unsigned(pos_north), unsigned(pos_east), unsigned(pos_status)})
        if (!fields[i]->present())
            return fail(QStringLiteral("the header PTN has no %1 attribute").arg(fields[i]->xml_name()));
    for (unsigned i = 0; i < num_pos_fields; ++i) {
        if (carried(*fields[i])) {
            m_pos_mask |= quint16(1u << i);
            m_pos_len += pos_field_len[i];
        }
    }
    m_field_mask = quint16((m_field_mask & mask_time) | (m_pos_mask << 1));
    m_fixed = m_time_len + m_pos_len + 1;
    return true;
}

bool Log_helper::setup_layout()
{
    Base::Time* tim = m_header.data();
    if (!setup_time_record(tim))
        return false;
    // A header has one PTN; should there be more, the first describes the records.
    Base::Position* ptn = tim->positions.count() > 0 ? tim->positions.typed_at(0).data() : nullptr;
    if (!setup_pos_record(ptn))
        return false;
    const int n = tim->data_log_values.count();
    m_values.resize(n);
    for (int i = 0; i < n; ++i)
        m_values[i].init(tim->data_log_values.typed_at(i).data());
    return true;
}

namespace {
// A time log's file: under the name the data gives ("TLG0001.bin") first, then under the name the
// library writes ("TLG00001.BIN").
QString find_log_file(Base::Element_man& man, Base::Time_log* tlg, const QString& extension)
{
    const QString read = tlg->filename.read_text();
    const QString path = read.isEmpty() ? QString() : man.find_file(read + extension);
    return path.isEmpty() ? man.find_file(tlg->filename.get_as_string() + extension) : path;
}
} // namespace

bool Log_helper::open_binmap(Base::Time_log* tlg)
{
    if (!tlg)
        return fail(QStringLiteral("no time log"));
    QSharedPointer<Base::Element_man> man = tlg->man();
    if (!man)
        return fail(QStringLiteral("the time log belongs to no element manager"));
    const QString name = tlg->filename.get_as_string() + QStringLiteral(".BIN");
    const QString path = find_log_file(*man, tlg, QStringLiteral(".BIN"));
    if (path.isEmpty())
        return fail(QStringLiteral("%1 not found in \"%2\"").arg(name, man->task_data_dir()));
    if (Symlink_policy::refuses(path))
        return fail(Symlink_policy::message(path));
    m_binary_path = path;
    m_file.setFileName(path);
    if (!m_file.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("%1: %2").arg(path, m_file.errorString()));
    const qint64 actual = m_file.size();
    qint64 expected = actual;
    const auto& b = tlg->filelength;
    if (b.valid() && !b.empty_text() && b.get_val() != filelength_unknown)
        expected = qint64(b.get_val());
    if (expected != actual) {
        m_file.close();
        return fail(QStringLiteral("%1 holds %2 bytes, the time log declares %3").arg(path).arg(actual).arg(expected));
    }
    m_size = quint64(actual);
    if (actual > 0) {
        uchar* p = m_file.map(0, actual);
        if (!p) {
            m_file.close();
            m_size = 0;
            return fail(QStringLiteral("%1: cannot be mapped (%2)").arg(path, m_file.errorString()));
        }
        m_data = p;
    }
    m_cur_index = 0;
    m_cur_offset = 0;
    return true;
}

bool Log_helper::init(const QSharedPointer<Base::Time_log>& tlg, QString debug_file)
{
    close_debug();
    reset();
    if (!tlg) {
        fail(QStringLiteral("Timelog is of no use"));
        fputs("Timelog is of no use\n", stdout);
        fflush(stdout);
        return false;
    }
    if (!debug_file.isEmpty()) {
        m_debug_file.reset(new QFile(debug_file));
        if (m_debug_file->open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
            m_debug = m_debug_file.get();
        else
            m_debug_file.reset();
    }
    bool ok = false;
    do {
        QSharedPointer<Base::Element_man> man = tlg->man();
        if (!man) {
            fail(QStringLiteral("the time log belongs to no element manager"));
            break;
        }
        const QString header_name = tlg->filename.get_as_string() + QStringLiteral(".XML");
        const QString header_path = find_log_file(*man, tlg.data(), QStringLiteral(".XML"));
        if (header_path.isEmpty()) {
            fail(QStringLiteral("%1 not found in \"%2\"").arg(header_name, man->task_data_dir()));
            break;
        }
        if (Symlink_policy::refuses(header_path)) {
            fail(Symlink_policy::message(header_path));
            break;
        }
        QFile f(header_path);
        if (!f.open(QIODevice::ReadOnly)) {
            fail(QStringLiteral("%1: %2").arg(header_path, f.errorString()));
            break;
        }
        if (!load_header(man, f.readAll(), header_path) || !setup_layout() || !open_binmap(tlg.data()))
            break;
        ok = true;
    } while (false);
    if (!ok) {
        const QString why = m_fail_text;
        reset();
        m_fail_text = why;
        fputs("init failed\n", stdout);
        fflush(stdout);
        return false;
    }
    m_ok = true;
    return true;
}

bool Log_helper::init_from_data(const QSharedPointer<Base::Element_man>& man, const QByteArray& header_xml,
                                const QByteArray& binary, quint32 filelength)
{
    close_debug();
    reset();
    bool ok = false;
    do {
        if (!man) {
            fail(QStringLiteral("no element manager"));
            break;
        }
        if (!load_header(man, header_xml, QStringLiteral("header")) || !setup_layout())
            break;
        if (filelength != filelength_unknown && qint64(filelength) != qint64(binary.size())) {
            fail(QStringLiteral("the records hold %1 bytes, the time log declares %2").arg(binary.size()).arg(filelength));
            break;
        }
        m_bytes = binary;
        m_size = quint64(m_bytes.size());
        m_data = m_size ? reinterpret_cast<const uchar*>(m_bytes.constData()) : nullptr;
        ok = true;
    } while (false);
    if (!ok) {
        const QString why = m_fail_text;
        reset();
        m_fail_text = why;
        fputs("init failed\n", stdout);
        fflush(stdout);
        return false;
    }
    m_ok = true;
    return true;
}

const uchar* Log_helper::get_raw_record(unsigned index, unsigned* dlv_count)
{
    if (!m_data)
        return nullptr;
    if (m_num_records >= 0 && qint64(index) >= m_num_records)
        return nullptr;
    if (index < m_cur_index) {
        m_cur_index = 0;
        m_cur_offset = 0;
    }
    for (;;) {
        const quint64 count_at = m_cur_offset + m_fixed - 1;
        if (count_at >= m_size)
            return nullptr;
        const unsigned n = m_data[count_at];
        // A record cut off by the end of the file is no record.
        if (m_cur_offset + m_fixed + 5ull * n > m_size)
            return nullptr;
        if (m_cur_index == index) {
            if (dlv_count)
                *dlv_count = n;
            return m_data + m_cur_offset;
        }
        m_cur_offset += m_fixed + 5ull * n;
        ++m_cur_index;
    }
}

unsigned Log_helper::get_num_records()
{
    if (m_num_records >= 0)
        return unsigned(m_num_records);
    // Counted with a cursor of its own so that the reading position stays where it was.
    quint64 off = 0;
    quint64 count = 0;
    if (m_data) {
        for (;;) {
            const quint64 count_at = off + m_fixed - 1;
            if (count_at >= m_size)
                break;
            const quint64 len = m_fixed + 5ull * m_data[count_at];
            if (off + len > m_size)
                break;
            off += len;
            ++count;
        }
    }
    m_num_records = qint64(qMin<quint64>(count, 0xFFFFFFFFu));
    m_trailing = qint64(m_size - off);
    if (m_trailing)
        Debug_print::dprint(debug_category, "%s: %lld bytes after the last whole record",
                            qPrintable(m_binary_path), static_cast<long long>(m_trailing));
    return unsigned(m_num_records);
}

qint64 Log_helper::trailing_bytes()
{
    get_num_records();
    return m_trailing;
}

bool Log_helper::decode(Record& rec, unsigned index, bool clear_values)
{
    unsigned located = 0;
    const uchar* p = get_raw_record(index, &located);
    if (!p)
        return false;
    const quint16 pm = m_pos_mask;
    if (m_field_mask & mask_time) {
        rec.time = quint32(Bin::i32_at(p));
        rec.day = Bin::u16_at(p + 4);
        p += 6;
    } else if (m_header_time_valid) {
        rec.time = m_header_time;
        rec.day = m_header_day;
    }
    if (pm) {
        if (pm & (1u << pos_north)) {
            rec.north = Bin::i32_at(p) * 1e-7;
            p += 4;
        }
        if (pm & (1u << pos_east)) {
            rec.east = Bin::i32_at(p) * 1e-7;
            p += 4;
        }
        if (pm & (1u << pos_up)) {
            rec.up = Bin::i32_at(p) * 0.001;
            p += 4;
        }
        if (pm & (1u << pos_status))
            rec.status = *p++;
        else
            rec.status = status_none;
        if (pm & (1u << pos_pdop)) {
            rec.pdop = float(Bin::u16_at(p) * 0.1);
            p += 2;
        }
        if (pm & (1u << pos_hdop)) {
            rec.hdop = float(Bin::u16_at(p) * 0.1);
            p += 2;
        }
        if (pm & (1u << pos_satellites))
            rec.satellites = *p++;
        if (pm & (1u << pos_gps_utc_time)) {
            rec.gps_utc_time = Bin::u32_at(p);
            p += 4;
        }
        if (pm & (1u << pos_gps_utc_date)) {
            rec.gps_utc_date = Bin::u16_at(p);
            p += 2;
        }
    } else {
        rec.status = status_none;
    }
    const unsigned n = *p++;
    if (n != located) {
        printf("BUG @ %s:%d (%d:%d\n", bug_source, __LINE__, int(located), int(n));
        fflush(stdout);
        return false;
    }
    if (clear_values)
        rec.clear_dlvs();
    for (unsigned i = 0; i < n; ++i, p += 5) {
        const quint8 number = p[0];
        rec.set_dlv(number, Bin::i32_at(p + 1));
        m_seen[number >> 6] |= quint64(1) << (number & 63);
    }
    rec.field_mask = m_field_mask;
    rec.index = index;
    if (m_debug)
        debug_record(rec);
    return true;
}

bool Log_helper::get_record(Record& rec, unsigned index) { return decode(rec, index, true); }

bool Log_helper::update_record(Record& rec, unsigned index) { return decode(rec, index, false); }

const Log_helper::Record* Log_helper::record(unsigned index)
{
    if (const Record* held = m_cache.find(index))
        return held;
    Record rec;
    if (!get_record(rec, index))
        return nullptr;
    return m_cache.insert(rec);
}

void Log_helper::compute_extremes()
{
    m_extremes_valid = true;
    m_min = Record();
    m_max = Record();
    const unsigned n = get_num_records();
    Record rec;
    for (unsigned i = 0; i < n; ++i) {
        if (!get_record(rec, i))
            break;
        if (i == 0) {
            m_min = rec;
            m_max = rec;
        } else {
            m_min.min(rec);
            m_max.max(rec);
        }
    }
}

const Log_helper::Record& Log_helper::get_min_record()
{
    if (!m_extremes_valid)
        compute_extremes();
    return m_min;
}

const Log_helper::Record& Log_helper::get_max_record()
{
    if (!m_extremes_valid)
        compute_extremes();
    return m_max;
}

QVector<quint8> Log_helper::dlvs_seen() const
{
    QVector<quint8> out;
    for (unsigned n = 0; n < 256; ++n)
        if (m_seen[n >> 6] & (quint64(1) << (n & 63)))
            out.append(quint8(n));
    return out;
}

quint32 Log_helper::get_dtime(const Record& rec, quint32 base_time, quint32 base_day)
{
    if (rec.day == base_day)
        return rec.time > base_time ? rec.time - base_time : 0;
    if (rec.day < base_day)
        return 0;
    const qint64 d = qint64(rec.day - base_day) * qint64(ms_per_day) + qint64(rec.time) - qint64(base_time);
    if (d <= 0)
        return 0;
    return d > qint64(dtime_overflow) ? dtime_overflow : quint32(d);
}

quint32 Log_helper::get_dtime(const Record& rec)
{
    if (!m_base_valid) {
        // The base is read without the cache and without debug lines: it is not a visit.
        QIODevice* debug = m_debug;
        m_debug = nullptr;
        Record first;
        if (get_record(first, 0)) {
            m_base_time = first.time;
            m_base_day = first.day;
            m_base_valid = true;
        }
        m_debug = debug;
    }
    return get_dtime(rec, m_base_time, m_base_day);
}

void Log_helper::set_debug_device(QIODevice* device)
{
    close_debug();
    m_debug = device;
}

void Log_helper::debug_record(const Record& rec)
{
    QByteArray line;
    line.reserve(96 + rec.dlv_count() * 32);
    line += "RECORD idx=" + QByteArray::number(rec.index) + " day=" + QByteArray::number(rec.day) +
            " time_ms=" + QByteArray::number(rec.time) + " north=" + QByteArray::number(rec.north, 'f', 7) +
            " east=" + QByteArray::number(rec.east, 'f', 7) + '\n';
    for (int i = 0; i < rec.dlv_count(); ++i)
        line += "    DLV=" + QByteArray::number(rec.dlv_number_at(i)) +
                " Value=" + QByteArray::number(rec.dlv_value_at(i)) + '\n';
    m_debug->write(line);
}

void Log_helper::close_debug()
{
    if (!m_debug)
        return;
    QByteArray text("DLVS Seen:\n");
    for (quint8 n : dlvs_seen())
        text += "Seen DLV=" + QByteArray::number(n) + '\n';
    m_debug->write(text);
    m_debug = nullptr;
    if (m_debug_file) {
        m_debug_file->close();
        m_debug_file.reset();
    }
}

} // namespace Enhanced
} // namespace Elements
} // namespace Task_data
} // namespace TC
