// Parsing of the embedded dictionary table; see DDI_table.h for ownership and threading.
#include <taskdata/common/DDI_table.h>

#include <QList>
#include <algorithm>

namespace TC {
namespace Task_data {

// Defined in the generated DDI_table_data.cpp.
namespace ddi_table_data {
extern const char text[];
extern const int text_size;
} // namespace ddi_table_data

namespace {

// Column positions in the export, counted from 0.
enum Column {
    col_ddi = 0,
    col_designator = 1,
    col_unit_symbol = 5,
    col_unit_description = 6,
    col_resolution = 7,
    col_range_min = 9,
    col_range_max = 10,
    column_count = 19
};

QString unquoted(const QByteArray& field)
{
    if (field.size() >= 2 && field.startsWith('"') && field.endsWith('"'))
        return QString::fromUtf8(field.mid(1, field.size() - 2));
    return QString::fromUtf8(field);
}

bool all_digits(const QByteArray& s)
{
    return !s.isEmpty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A few published bounds are written "0x00000000" or with spaces between digit groups
// ("100 000 000"); both are read as the number they plainly mean. Anything else that is not a
// plain number leaves the bound unreadable rather than guessed.
bool parse_number(const QByteArray& field, double* value)
{
    QByteArray s = field;
    bool negative = false;
    if (s.startsWith('-')) {
        negative = true;
        s.remove(0, 1);
    }
    if (s.startsWith("0x") || s.startsWith("0X")) {
        const QByteArray digits = s.mid(2);
        bool ok = false;
        const qulonglong v = digits.toULongLong(&ok, 16);
        if (!ok || digits.isEmpty() || digits.contains(' '))
            return false;
        *value = negative ? -double(v) : double(v);
        return true;
    }
    if (s.contains(' ')) {
        // Only a well-formed grouping: 1-3 digits, then groups of exactly 3.
        const QList<QByteArray> groups = s.split(' ');
        for (int i = 0; i < groups.size(); ++i) {
            const QByteArray& g = groups.at(i);
            if (!all_digits(g) || g.size() > 3 || (i > 0 && g.size() != 3))
                return false;
        }
        s.replace(' ', QByteArray());
    }
    if (s.isEmpty() || !((s.at(0) >= '0' && s.at(0) <= '9') || s.at(0) == '.'))
        return false;
    bool ok = false;
    const double v = s.toDouble(&ok);
    if (!ok)
        return false;
    *value = negative ? -v : v;
    return true;
}

QVector<DDI_table::Entry> parse_table()
{
    QVector<DDI_table::Entry> entries;
    const QByteArray all = DDI_table::text();
    entries.reserve(all.count('\n'));
    for (const QByteArray& line : all.split('\n')) {
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() != column_count)
            continue; // the empty piece after the last LF, or a malformed row
        bool ok = false;
        const uint ddi = fields.at(col_ddi).toUInt(&ok);
        if (!ok || ddi > 0xFFFF)
            continue;

        DDI_table::Entry e;
        e.ddi = static_cast<unsigned short>(ddi);
        e.designator = unquoted(fields.at(col_designator));
        e.unit_symbol = unquoted(fields.at(col_unit_symbol));
        e.unit_description = unquoted(fields.at(col_unit_description));
        if (!parse_number(fields.at(col_resolution), &e.resolution))
            e.resolution = 0;
        e.range_min_text = unquoted(fields.at(col_range_min));
        e.range_max_text = unquoted(fields.at(col_range_max));
        double lo = 0, hi = 0;
        if (parse_number(fields.at(col_range_min), &lo) && parse_number(fields.at(col_range_max), &hi)) {
            e.has_range = true;
            e.range_min = lo;
            e.range_max = hi;
        }
        entries.append(e);
    }
    // The export is already ascending; sorting keeps find() correct should a regenerated one not be.
    std::stable_sort(entries.begin(), entries.end(),
                     [](const DDI_table::Entry& a, const DDI_table::Entry& b) { return a.ddi < b.ddi; });
    return entries;
}

} // namespace

QByteArray DDI_table::text()
{
    // The bytes live in static storage for the whole process, so no copy is needed.
    return QByteArray::fromRawData(ddi_table_data::text, ddi_table_data::text_size);
}

const QVector<DDI_table::Entry>& DDI_table::entries()
{
    static const QVector<Entry> table = parse_table();
    return table;
}

int DDI_table::row_count()
{
    return entries().size();
}

const DDI_table::Entry* DDI_table::find(unsigned short ddi)
{
    const QVector<Entry>& table = entries();
    const auto it = std::lower_bound(table.cbegin(), table.cend(), ddi,
                                     [](const Entry& e, unsigned short d) { return e.ddi < d; });
    if (it == table.cend() || it->ddi != ddi)
        return nullptr;
    return &*it;
}

} // namespace Task_data
} // namespace TC
