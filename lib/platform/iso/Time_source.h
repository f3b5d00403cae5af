// Date-time text of ISO 11783-10 attributes (TIM A/B, ASP A/B, ...) to QDateTime and back.
// Stateless: every function is static and may be called from any thread at the same time.
// Callers own all values passed in and out. The element manager holds a Time_source* for the
// terminal; the object carries no state, so any instance (or none) serves.
//
// Text read (case-insensitive designators, surrounding XML whitespace ignored):
//   yyyy-MM-ddThh:mm:ss[.f{1..9}][Z | +hh:mm | -hh:mm | +hhmm | +hh]
// Year 0001..9999, hour 00..23 (no "24:00:00"), second 00..59 (no leap second), offset at most
// 14:00. Fraction digits beyond the seventh are dropped (100 ns is the finest step kept).
//
// Text written, by task data format version:
//   4 (and later): the same instant with the same zone form, offset and number of fraction
//     digits, so every text read comes back byte for byte. Only the tolerated variants are
//     normalised: 'z'/'t' become upper-case, "+0200" and "+02" become "+02:00", "-00:00"
//     becomes "+00:00", digits beyond the seventh become zeros.
//   3 (and earlier): the wall-clock time as recorded (local time at the stored offset, UTC
//     wall clock for "Z") as "yyyy-MM-ddThh:mm:ss", without fraction and without zone
//     designator, because older task controllers reject both. The fraction is cut, not
//     rounded, so the date never moves.
//
// Text without zone denotes the terminal's local time. A wall-clock time that falls into a
// daylight-saving gap of the local zone (Qt has no valid local QDateTime for it) is read as the
// instant it denotes with the offset in force just before the gap: Isoxml_date keeps it as
// Qt::OffsetFromUTC with zone_form 0, so the text is still written back unchanged, and
// from_isoxml_date() answers the same instant as a Qt::LocalTime value.
#pragma once

#include <platform/platform_export.h>

#include <QDateTime>
#include <QString>
#include <QStringView>

namespace Iso {

// A parsed date-time that can be written back exactly.
struct KPL_EXPORT Isoxml_date {
    QDateTime value;          // ms precision; Qt::LocalTime when the text had no zone, Qt::UTC for
                              // "Z" and for "+00:00" (Qt folds a zero offset), OffsetFromUTC else
    quint16 sub_ms = 0;       // the part below one millisecond, in units of 100 ns (0..9999)
    quint8 fraction_digits = 0; // fraction-of-second digits in the text (0..9); 7 keep 100 ns
    quint8 zone_form = 0;     // 0 no zone, 1 "Z", 2 numeric offset (also "+00:00")
    int offset_seconds = 0;   // for zone_form 2; 0 otherwise

    enum Zone_form : quint8 { No_zone = 0, Utc_designator = 1, Numeric_offset = 2 };

    bool operator==(const Isoxml_date& other) const;
    bool operator!=(const Isoxml_date& other) const { return !(*this == other); }
};

class KPL_EXPORT Time_source {
public:
    // Invalid QDateTime when the text is unreadable.
    static QDateTime from_isoxml_date(const QString& text);
    // Empty text when dt is invalid or its year is outside 1..9999.
    static QString to_isoxml_date(const QDateTime& dt, int version);

    // False (and out reset) when the text is unreadable. Called for every date-time attribute
    // while loading, so it parses by hand and allocates nothing beyond the QDateTime.
    static bool parse_isoxml_date(QStringView text, Isoxml_date& out);
    static bool parse_isoxml_date(const QString& text, Isoxml_date& out)
    {
        return parse_isoxml_date(QStringView(text), out);
    }
    // Empty text when d.value is invalid or its year is outside 1..9999. A value carrying more
    // precision than fraction_digits shows is written with 3 or 7 digits rather than cut.
    static QString format_isoxml_date(const Isoxml_date& d, int version);
};

} // namespace Iso
