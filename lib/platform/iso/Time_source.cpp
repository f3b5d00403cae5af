#include <platform/iso/Time_source.h>

#include <QDate>
#include <QTime>

namespace Iso {

namespace {

constexpr int max_offset_seconds = 14 * 3600;
constexpr quint32 pow10[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000};

inline int digit_at(const QChar* p)
{
    const unsigned d = unsigned(p->unicode()) - unsigned('0');
    return d < 10 ? int(d) : -1;
}

// -1 when any of the n characters is not an ASCII digit.
inline int digits_at(const QChar* p, int n)
{
    int v = 0;
    for (int i = 0; i < n; ++i) {
        const int d = digit_at(p + i);
        if (d < 0)
            return -1;
        v = v * 10 + d;
    }
    return v;
}

inline bool is_xml_space(QChar c)
{
    const ushort u = c.unicode();
    return u == ' ' || u == '\t' || u == '\n' || u == '\r';
}

inline char* put_digits(char* out, int value, int n)
{
    for (int i = n - 1; i >= 0; --i) {
        out[i] = char('0' + value % 10);
        value /= 10;
    }
    return out + n;
}

// Qt has no valid local QDateTime for a wall-clock time skipped by a daylight-saving change.
// The text still names an instant: the one it denotes with the offset in force before the gap.
// A fixed offset keeps the wall clock, so the text can be written back as read.
QDateTime local_or_gap(const QDate& date, const QTime& time)
{
    QDateTime local(date, time, Qt::LocalTime);
    if (local.isValid())
        return local;
    const qint64 wall_as_utc = QDateTime(date, time, Qt::UTC).toMSecsSinceEpoch();
    const int before =
        QDateTime::fromMSecsSinceEpoch(wall_as_utc - 24LL * 3600 * 1000, Qt::LocalTime).offsetFromUtc();
    return QDateTime(date, time, Qt::OffsetFromUTC, before);
}

} // namespace

bool Isoxml_date::operator==(const Isoxml_date& other) const
{
    // QDateTime equality compares instants only; the zone fields decide how the text looks.
    return value == other.value && value.timeSpec() == other.value.timeSpec() && sub_ms == other.sub_ms &&
           fraction_digits == other.fraction_digits && zone_form == other.zone_form &&
           offset_seconds == other.offset_seconds;
}

bool Time_source::parse_isoxml_date(QStringView text, Isoxml_date& out)
{
    out = Isoxml_date();
    const QChar* p = text.data();
    qsizetype n = text.size();
    while (n > 0 && is_xml_space(*p)) {
        ++p;
        --n;
    }
    while (n > 0 && is_xml_space(p[n - 1]))
        --n;
    if (n < 19)
        return false;

    const int year = digits_at(p, 4);
    const int month = digits_at(p + 5, 2);
    const int day = digits_at(p + 8, 2);
    const int hour = digits_at(p + 11, 2);
    const int minute = digits_at(p + 14, 2);
    const int second = digits_at(p + 17, 2);
    const QChar t = p[10];
    if (p[4] != QLatin1Char('-') || p[7] != QLatin1Char('-') || (t != QLatin1Char('T') && t != QLatin1Char('t')) ||
        p[13] != QLatin1Char(':') || p[16] != QLatin1Char(':'))
        return false;
    // Digit errors give -1, which every range check below rejects.
    if (year < 1 || !QDate::isValid(year, month, day) || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
        second < 0 || second > 59)
        return false;

    qsizetype i = 19;
    int fraction_digits = 0;
    quint32 units_100ns = 0;
    if (i < n && p[i] == QLatin1Char('.')) {
        ++i;
        int d;
        while (i < n && (d = digit_at(p + i)) >= 0) {
            if (fraction_digits < 7)
                units_100ns = units_100ns * 10 + quint32(d);
            if (++fraction_digits > 9)
                return false;
            ++i;
        }
        if (fraction_digits == 0)
            return false;
        if (fraction_digits < 7)
            units_100ns *= pow10[7 - fraction_digits];
    }

    int zone_form = Isoxml_date::No_zone;
    int offset = 0;
    if (i < n) {
        const QChar z = p[i];
        if (z == QLatin1Char('Z') || z == QLatin1Char('z')) {
            zone_form = Isoxml_date::Utc_designator;
            ++i;
        } else if (z == QLatin1Char('+') || z == QLatin1Char('-')) {
            ++i;
            if (n - i < 2)
                return false;
            const int oh = digits_at(p + i, 2);
            i += 2;
            int om = 0;
            if (i < n) {
                if (p[i] == QLatin1Char(':'))
                    ++i;
                if (n - i < 2)
                    return false;
                om = digits_at(p + i, 2);
                i += 2;
            }
            if (oh < 0 || om < 0 || om > 59)
                return false;
            offset = (oh * 60 + om) * 60;
            if (offset > max_offset_seconds)
                return false;
            if (z == QLatin1Char('-'))
                offset = -offset;
            zone_form = Isoxml_date::Numeric_offset;
        }
    }
    if (i != n)
        return false;

    const QDate date(year, month, day);
    const QTime time(hour, minute, second, int(units_100ns / 10000));
    QDateTime value;
    switch (zone_form) {
    case Isoxml_date::Utc_designator:
        value = QDateTime(date, time, Qt::UTC);
        break;
    case Isoxml_date::Numeric_offset:
        value = QDateTime(date, time, Qt::OffsetFromUTC, offset);
        break;
    default:
        value = local_or_gap(date, time);
        break;
    }
    if (!value.isValid())
        return false;

    out.value = value;
    out.sub_ms = quint16(units_100ns % 10000);
    out.fraction_digits = quint8(fraction_digits);
    out.zone_form = quint8(zone_form);
    out.offset_seconds = offset;
    return true;
}

QString Time_source::format_isoxml_date(const Isoxml_date& d, int version)
{
    if (!d.value.isValid())
        return QString();

    int zone_form = d.zone_form <= Isoxml_date::Numeric_offset ? d.zone_form : int(Isoxml_date::No_zone);
    int offset = d.offset_seconds;
    // Offsets the zone designator cannot carry (seconds, beyond 14 h) are written as the same
    // instant in UTC; version 3 writes no designator, so its wall clock may keep them.
    if (version >= 4 && zone_form == Isoxml_date::Numeric_offset &&
        (offset % 60 != 0 || offset > max_offset_seconds || offset < -max_offset_seconds))
        zone_form = Isoxml_date::Utc_designator;

    QDateTime wall;
    switch (zone_form) {
    case Isoxml_date::Utc_designator:
        wall = d.value.toUTC();
        break;
    case Isoxml_date::Numeric_offset:
        wall = d.value.toOffsetFromUtc(offset);
        break;
    default:
        wall = d.value; // its own wall clock, also for the fixed offset kept for a gap time
        break;
    }
    const QDate date = wall.date();
    const QTime time = wall.time();
    if (date.year() < 1 || date.year() > 9999)
        return QString();

    char buf[48];
    char* o = buf;
    o = put_digits(o, date.year(), 4);
    *o++ = '-';
    o = put_digits(o, date.month(), 2);
    *o++ = '-';
    o = put_digits(o, date.day(), 2);
    *o++ = 'T';
    o = put_digits(o, time.hour(), 2);
    *o++ = ':';
    o = put_digits(o, time.minute(), 2);
    *o++ = ':';
    o = put_digits(o, time.second(), 2);

    if (version >= 4) {
        const quint32 units_100ns = quint32(time.msec()) * 10000 + qMin<quint32>(d.sub_ms, 9999);
        int digits = qMin<int>(d.fraction_digits, 9);
        if (digits < 7 && units_100ns % pow10[7 - digits] != 0)
            digits = units_100ns % 10000 == 0 ? 3 : 7;
        if (digits > 0) {
            *o++ = '.';
            for (int k = 0; k < digits; ++k)
                *o++ = k < 7 ? char('0' + (units_100ns / pow10[6 - k]) % 10) : '0';
        }
        if (zone_form == Isoxml_date::Utc_designator) {
            *o++ = 'Z';
        } else if (zone_form == Isoxml_date::Numeric_offset) {
            *o++ = offset < 0 ? '-' : '+';
            const int minutes = (offset < 0 ? -offset : offset) / 60;
            o = put_digits(o, minutes / 60, 2);
            *o++ = ':';
            o = put_digits(o, minutes % 60, 2);
        }
    }
    return QString::fromLatin1(buf, int(o - buf));
}

QDateTime Time_source::from_isoxml_date(const QString& text)
{
    Isoxml_date d;
    if (!parse_isoxml_date(QStringView(text), d))
        return QDateTime();
    if (d.zone_form == Isoxml_date::No_zone && d.value.timeSpec() != Qt::LocalTime)
        return d.value.toLocalTime();
    return d.value;
}

QString Time_source::to_isoxml_date(const QDateTime& dt, int version)
{
    Isoxml_date d;
    d.value = dt;
    d.fraction_digits = dt.time().msec() != 0 ? 3 : 0;
    switch (dt.timeSpec()) {
    case Qt::UTC:
        d.zone_form = Isoxml_date::Utc_designator;
        break;
    case Qt::OffsetFromUTC:
    case Qt::TimeZone:
        d.zone_form = Isoxml_date::Numeric_offset;
        d.offset_seconds = dt.offsetFromUtc();
        break;
    default:
        d.zone_form = Isoxml_date::No_zone;
        break;
    }
    return format_isoxml_date(d, version);
}

} // namespace Iso
