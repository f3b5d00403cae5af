// Implementation of `taskdata ddi`; see ddi_command.h.
#include "ddi_command.h"

#include <QRegularExpression>

#include <taskdata/common/DDI_strings.h>
#include <taskdata/common/DDI_table.h>

using TC::Task_data::DDI_strings;
using TC::Task_data::DDI_table;

namespace {

constexpr unsigned proprietary_first = 57344;
constexpr unsigned proprietary_last = 65534;

void print_usage(QTextStream& s)
{
    s << "usage: taskdata ddi NUMBER|NAME\n"
         "  NUMBER  a DDI, decimal or hexadecimal with 0x (0..65535)\n"
         "  NAME    text contained in designators, case-insensitive\n"
         "exit code: 0 found, 1 nothing matched, 2 bad usage\n";
}

QString hex4(unsigned ddi)
{
    return QStringLiteral("0x") + QString::number(ddi, 16).toUpper().rightJustified(4, QLatin1Char('0'));
}

void print_entry(QTextStream& out, const DDI_table::Entry& e)
{
    // Designators may end in a space; the quotes make that visible.
    out << "DDI " << e.ddi << " (" << hex4(e.ddi) << "): \"" << DDI_strings::str(e.ddi) << "\"\n";
    out << "  unit:       " << (e.unit_symbol.isEmpty() ? QStringLiteral("-") : e.unit_symbol);
    if (!e.unit_description.isEmpty())
        out << " (" << e.unit_description << ')';
    out << '\n';
    out << "  resolution: " << QString::number(e.resolution, 'g', 12) << '\n';
    // The published text is shown, as some bounds are hexadecimal or already scaled.
    out << "  range:      ";
    if (e.range_min_text.isEmpty() && e.range_max_text.isEmpty())
        out << "not published";
    else
        out << e.range_min_text << " .. " << e.range_max_text;
    out << '\n';
}

// Tells a name to search for apart from a number that cannot be a DDI (bad usage).
enum class Number_kind { not_a_number, valid, invalid };

Number_kind parse_ddi(const QString& arg, unsigned* ddi)
{
    static const QRegularExpression decimal(QStringLiteral("^[0-9]+$"));
    static const QRegularExpression hex(QStringLiteral("^0[xX]([0-9a-fA-F]*)$"));
    bool ok = false;
    qulonglong value = 0;
    if (decimal.match(arg).hasMatch()) {
        value = arg.toULongLong(&ok, 10);
    } else {
        // "0x" promises a number: a malformed one is a usage error, not a designator search.
        if (!arg.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
            return Number_kind::not_a_number;
        const QRegularExpressionMatch m = hex.match(arg);
        if (!m.hasMatch() || m.capturedLength(1) == 0)
            return Number_kind::invalid;
        value = m.captured(1).toULongLong(&ok, 16);
    }
    if (!ok || value > 0xFFFF)
        return Number_kind::invalid;
    *ddi = static_cast<unsigned>(value);
    return Number_kind::valid;
}

} // namespace

int run_ddi_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.isEmpty()) {
        print_usage(err);
        return 2;
    }
    if (args.size() == 1 && (args.first() == QLatin1String("-h") || args.first() == QLatin1String("--help"))) {
        print_usage(out);
        return 0;
    }
    if (args.first().startsWith(QLatin1Char('-'))) {
        err << "taskdata ddi: unknown option " << args.first() << '\n';
        print_usage(err);
        return 2;
    }

    unsigned ddi = 0;
    const Number_kind kind = args.size() == 1 ? parse_ddi(args.first(), &ddi) : Number_kind::not_a_number;
    if (kind == Number_kind::invalid) {
        err << "taskdata ddi: " << args.first() << " is not a DDI (0..65535)\n";
        return 2;
    }
    if (kind == Number_kind::valid) {
        const DDI_table::Entry* e = DDI_table::find(static_cast<unsigned short>(ddi));
        if (!e) {
            err << "DDI " << ddi << " (" << hex4(ddi) << ") is not in the data dictionary";
            if (ddi > proprietary_first && ddi <= proprietary_last)
                err << " (proprietary range " << proprietary_first << ".." << proprietary_last << ')';
            err << '\n';
            return 1;
        }
        print_entry(out, *e);
        return 0;
    }

    const QString needle = args.join(QLatin1Char(' '));
    if (needle.trimmed().isEmpty()) {
        print_usage(err);
        return 2;
    }
    int found = 0;
    for (const DDI_table::Entry& e : DDI_table::entries()) {
        if (!DDI_strings::str(e.ddi).contains(needle, Qt::CaseInsensitive))
            continue;
        if (found++ > 0)
            out << '\n';
        print_entry(out, e);
    }
    if (found == 0) {
        err << "no DDI designator contains \"" << needle << "\"\n";
        return 1;
    }
    return 0;
}
