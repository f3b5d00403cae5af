// The full process data dictionary table (ISO 11783-11 DDIs, 19 tab-separated columns) carried
// read-only inside the library, and the columns the unit layer needs, parsed from it once.
// The library owns every Entry for the life of the process; pointers handed out never dangle
// and the entries never change. Any thread may call any function: the first call parses under
// the compiler's thread-safe static initialisation.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>
#include <taskdata/taskdata_export.h>

namespace TC {
namespace Task_data {

class KTD_EXPORT DDI_table
{
public:
    struct Entry
    {
        unsigned short ddi = 0;
        QString designator;       // byte for byte as DDI_strings::str gives it
        QString unit_symbol;      // e.g. "mm³/m²", "n.a.", "not defined"
        QString unit_description; // may be empty
        double resolution = 0;    // value of one count in unit_symbol; 0 where none is published
        // The range is in counts as published. has_range is false when either bound is absent or
        // unreadable, and the bounds are then 0. Published bounds are plain integers, decimals,
        // 0x hex or digit groups separated by spaces; the *_text members keep them as written.
        bool has_range = false;
        double range_min = 0;
        double range_max = 0;
        QString range_min_text;
        QString range_max_text;
    };

    DDI_table() = delete;

    // The exact bytes of the dictionary export (UTF-8, LF line ends, one row per DDI).
    static QByteArray text();
    static int row_count();

    // Null when the DDI has no dictionary entry.
    static const Entry* find(unsigned short ddi);

    // Every entry, ascending by DDI.
    static const QVector<Entry>& entries();
};

} // namespace Task_data
} // namespace TC
