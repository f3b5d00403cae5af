// Element::document_export and the kind-specific parts of a report (document_export_extra):
// customers, farms, fields with their measured boundary, products, devices, tasks and the
// totals of their time logs. Lives here, above the element base, because a time log's totals
// come from decoding it (Log_helper).
#include "Log_helper.h"

#include <taskdata/common/Export_properties.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_geometry.h>

#include <QLocale>
#include <QTextTable>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

namespace {

// Kinds a report shows, and under which parents.
bool reported(const Element& e)
{
    static const char* const tags[] = {"CTR", "FRM", "PFD", "PDT", "DVC", "TSK", "TLG"};
    for (const char* t : tags)
        if (e.is_kind(t))
            return true;
    return false;
}

int depth(const Element& e)
{
    int n = 0;
    for (const Element* p = e.parent_element(); p && p->parent_element(); p = p->parent_element())
        ++n;
    return n;
}

QString caption(const Element& e, unsigned i)
{
    QString c = e.get_tr_attribute_name(int(i));
    c.replace(QLatin1Char('_'), QLatin1Char(' '));
    if (!c.isEmpty())
        c[0] = c[0].toUpper();
    return c;
}

QString value_text(Attributes::Base::Attribute* a)
{
    if (auto link = dynamic_cast<Attributes::Base::LinkedID*>(a)) {
        const QSharedPointer<Element> t = link->target();
        if (t && !t->get_designator().isEmpty())
            return QStringLiteral("%1 (%2)").arg(t->get_designator(), link->get_as_string());
        return link->get_as_string();
    }
    return a->to_string();
}

void rows(Export_properties& props, const QVector<QPair<QString, QString>>& values)
{
    if (values.isEmpty())
        return;
    QTextCursor& c = props.cursor();
    QTextTable* table = c.insertTable(values.size(), 2, props.table_format());
    for (int r = 0; r < values.size(); ++r) {
        props.cell(table, r, 0, Export_properties::style_label).insertText(values[r].first);
        props.cell(table, r, 1, Export_properties::style_value).insertText(values[r].second);
    }
    c = table->lastCursorPosition();
    c.movePosition(QTextCursor::NextBlock);
}

QString number(double v, int decimals) { return QLocale::c().toString(v, 'f', decimals); }

} // namespace

void Element::document_export(Export_properties& props)
{
    QTextCursor& c = props.cursor();
    if (c.isNull())
        return;
    const int level = depth(*this);
    c.insertBlock();
    props.cursor(level == 0 ? Export_properties::style_heading : Export_properties::style_subheading)
        .insertText(QStringLiteral("%1 %2").arg(get_tr_name(1), get_designator()).trimmed());
    const QString id = get_id_string();
    if (!id.isEmpty())
        props.cursor(Export_properties::style_note).insertText(QStringLiteral("  ") + id);
    c.insertBlock();
    props.set_style(Export_properties::style_normal);

    QVector<QPair<QString, QString>> values;
    const int designator = kind().designator_index;
    for (unsigned i = 0; i < _num_iso_attributes(); ++i) {
        Attributes::Base::Attribute* a = _attribute(i);
        if (int(i) == designator || int(i) == kind().id_index || a->base_spec().is_proprietary())
            continue;
        const bool set = a->flags() & (Attributes::Base::Attribute::flag_present | Attributes::Base::Attribute::flag_valid);
        const QString text = set ? value_text(a) : QString();
        if (text.isEmpty() && props.exclude_empty())
            continue;
        values.append({caption(*this, i), text});
    }
    rows(props, values);
    document_export_extra(props);

    for (unsigned l = 0; l < _num_element_lists(); ++l)
        for (const auto& child : _element_list(l)->elements())
            if (reported(*child)) {
                props.outline(true, level + 1);
                child->document_export(props);
                props.outline(false, level + 1);
            }
}

void Element::document_export_extra(Export_properties& props)
{
    QVector<QPair<QString, QString>> values;
    if (is_kind("PFD")) {
        const auto f = Element_geometry::field_figures(static_cast<const Partfield&>(*this));
        if (f.boundaries.isEmpty()) {
            values.append({QObject::tr("Boundary"), QObject::tr("none")});
        } else {
            values.append({QObject::tr("Measured area"),
                           QStringLiteral("%1 %2").arg(number(props.area(f.area_m2), 2), props.area_unit())});
            values.append({QObject::tr("Perimeter"),
                           QStringLiteral("%1 %2").arg(number(props.length(f.perimeter_m), 0), props.length_unit())});
        }
    } else if (is_kind("TLG")) {
        Enhanced::Log_helper log(get_sp().staticCast<Time_log>());
        if (!log.ok()) {
            values.append({QObject::tr("Time log"), log.fail_text()});
        } else {
            const unsigned n = log.get_num_records();
            values.append({QObject::tr("Records"), QString::number(n)});
            if (n > 0) {
                const QDateTime first = log.record(0) ? log.record(0)->date_time() : QDateTime();
                const QDateTime last = log.record(n - 1) ? log.record(n - 1)->date_time() : QDateTime();
                values.append({QObject::tr("First record"), first.toString(Qt::ISODate)});
                values.append({QObject::tr("Last record"), last.toString(Qt::ISODate)});
                if (first.isValid() && last.isValid())
                    values.append({QObject::tr("Duration"),
                                   QStringLiteral("%1 min").arg(number(first.msecsTo(last) / 60000.0, 1))});
            }
            values.append({QObject::tr("Logged values"), QString::number(log.values().size())});
        }
    }
    rows(props, values);
}

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
