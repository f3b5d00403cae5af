// Export_properties: how a text report of task data is formatted -- units (metric or US
// imperial), whether empty values are left out, the table, frame and character formats of each
// style -- and the cursor in the QTextDocument the report is written into.
//
// Shared data, copy-on-write: a copy carries the same cursor (into the same document, which the
// caller owns) and the same formats until one of them is changed. One thread per document.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QSharedDataPointer>
#include <QTextCharFormat>
#include <QTextCursor>
#include <QTextFrameFormat>
#include <QTextTableFormat>

class QTextTable;

namespace TC {
namespace Task_data {

class KTD_EXPORT Export_properties
{
public:
    enum style_t { style_normal, style_title, style_heading, style_subheading, style_label, style_value, style_note, num_styles };

    explicit Export_properties(const QTextCursor& cursor = QTextCursor());
    Export_properties(const Export_properties& other);
    Export_properties& operator=(const Export_properties& other);
    ~Export_properties();

    bool& us_imperial();
    bool us_imperial() const;
    bool& exclude_empty();
    bool exclude_empty() const;

    QTextTableFormat& table_format();
    QTextFrameFormat& frame_format();
    QTextCharFormat& char_format(style_t style);

    QTextCursor& cursor();
    // The cursor with `style`'s character format set.
    QTextCursor& cursor(style_t style);
    void set_style(style_t style);
    // Gives `c` the character format of `style`.
    void style(QTextCursor& c, style_t style) const;
    // A cursor in the cell (row, column) of `table`, with `style`.
    QTextCursor cell(QTextTable* table, int row, int column, style_t style) const;
    // enter: opens an indented section (a frame) for the content of level `level` and moves
    // the cursor into it; otherwise moves the cursor behind the innermost open section.
    void outline(bool enter, int level);
    // Formats of a plain report: sans serif, bold headings, tables with thin borders.
    void set_default();

    // Metric value in the units of the report: area m2 -> ha or ac, length m -> m or ft.
    double area(double m2) const { return us_imperial() ? m2 / 4046.8564224 : m2 / 10000.0; }
    QString area_unit() const { return us_imperial() ? QStringLiteral("ac") : QStringLiteral("ha"); }
    double length(double m) const { return us_imperial() ? m / 0.3048 : m; }
    QString length_unit() const { return us_imperial() ? QStringLiteral("ft") : QStringLiteral("m"); }

private:
    struct Data;
    QSharedDataPointer<Data> d;
};

} // namespace Task_data
} // namespace TC
