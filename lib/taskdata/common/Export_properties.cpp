#include "Export_properties.h"

#include <QFont>
#include <QSharedData>
#include <QTextFrame>
#include <QTextTable>
#include <QVector>

namespace TC {
namespace Task_data {

struct Export_properties::Data : QSharedData
{
    bool us_imperial = false;
    bool exclude_empty = true;
    QTextCursor cursor;
    QTextTableFormat table;
    QTextFrameFormat frame;
    QTextCharFormat chars[num_styles];
    QVector<QTextFrame*> sections; // open outline sections, innermost last
};

Export_properties::Export_properties(const QTextCursor& cursor) : d(new Data)
{
    d->cursor = cursor;
    set_default();
}

Export_properties::Export_properties(const Export_properties& other) = default;
Export_properties& Export_properties::operator=(const Export_properties& other) = default;
Export_properties::~Export_properties() = default;

bool& Export_properties::us_imperial() { return d->us_imperial; }
bool Export_properties::us_imperial() const { return d->us_imperial; }
bool& Export_properties::exclude_empty() { return d->exclude_empty; }
bool Export_properties::exclude_empty() const { return d->exclude_empty; }
QTextTableFormat& Export_properties::table_format() { return d->table; }
QTextFrameFormat& Export_properties::frame_format() { return d->frame; }

QTextCharFormat& Export_properties::char_format(style_t s)
{
    return d->chars[s >= 0 && s < num_styles ? s : style_normal];
}

QTextCursor& Export_properties::cursor() { return d->cursor; }

QTextCursor& Export_properties::cursor(style_t s)
{
    set_style(s);
    return d->cursor;
}

void Export_properties::set_style(style_t s) { style(d->cursor, s); }

void Export_properties::style(QTextCursor& c, style_t s) const
{
    c.setCharFormat(d->chars[s >= 0 && s < num_styles ? s : style_normal]);
}

QTextCursor Export_properties::cell(QTextTable* table, int row, int column, style_t s) const
{
    if (!table)
        return QTextCursor();
    QTextCursor c = table->cellAt(row, column).firstCursorPosition();
    style(c, s);
    return c;
}

void Export_properties::outline(bool enter, int level)
{
    if (d->cursor.isNull())
        return;
    if (enter) {
        QTextFrameFormat f = d->frame;
        f.setLeftMargin(12.0 * qMax(level, 0));
        d->sections.append(d->cursor.insertFrame(f));
        return;
    }
    if (d->sections.isEmpty())
        return;
    QTextFrame* frame = d->sections.takeLast();
    d->cursor = frame->lastCursorPosition();
    d->cursor.movePosition(QTextCursor::NextBlock);
}

void Export_properties::set_default()
{
    QTextCharFormat normal;
    normal.setFontFamily(QStringLiteral("sans-serif"));
    normal.setFontPointSize(10);
    for (QTextCharFormat& f : d->chars)
        f = normal;
    d->chars[style_title].setFontPointSize(18);
    d->chars[style_title].setFontWeight(QFont::Bold);
    d->chars[style_heading].setFontPointSize(14);
    d->chars[style_heading].setFontWeight(QFont::Bold);
    d->chars[style_subheading].setFontPointSize(11);
    d->chars[style_subheading].setFontWeight(QFont::Bold);
    d->chars[style_label].setForeground(QColor(80, 80, 80));
    d->chars[style_note].setFontItalic(true);
    d->chars[style_note].setFontPointSize(9);
    d->table = QTextTableFormat();
    d->table.setBorder(0.5);
    d->table.setBorderStyle(QTextFrameFormat::BorderStyle_Solid);
    d->table.setCellPadding(3);
    d->table.setCellSpacing(0);
    d->frame = QTextFrameFormat();
    d->frame.setBorder(0);
}

} // namespace Task_data
} // namespace TC
