// Implementation of `taskdata timelog`; see timelog_command.h.
#include "timelog_command.h"

#include "tool_support.h"

#include <taskdata/common/DDI_strings.h>
#include <taskdata/common/DDI_table.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>
#include <taskdata/elements/enhanced/Log_helper.h>

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <cmath>
#include <limits>

using TC::Task_data::DDI_strings;
using TC::Task_data::DDI_table;
using TC::Task_data::XML_interface;
using TC::Task_data::Elements::Enhanced::Log_helper;
namespace Base = TC::Task_data::Elements::Base;

namespace {

enum Exit : int { exit_ok = 0, exit_undecodable = 1, exit_usage = 2 };

void print_usage(QTextStream& s)
{
    s << "usage: taskdata timelog DIR [--tlg NAME] [--csv FILE]\n"
         "  DIR         task data directory (or its main file)\n"
         "  --tlg NAME  only the time log NAME (e.g. TLG00001)\n"
         "  --csv FILE  write the records of the (one) selected time log as CSV (\"-\": standard\n"
         "              output; a device or FIFO is written to, never replaced)\n"
         "Describes every time log of every task: the fields each record carries, each logged\n"
         "value (DDI, designator, device element), record count, first and last time and the\n"
         "bounding box of the positions.\n"
         "exit code: 0 decoded, 1 a time log cannot be decoded, 2 bad usage or DIR not loadable\n";
}

QString hex4(unsigned v)
{
    return QStringLiteral("0x") + QString::number(v, 16).toUpper().rightJustified(4, QLatin1Char('0'));
}

QString iso_time(const Log_helper::Record& r)
{
    return r.date_time().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzz"));
}

// "DET-1 \"Boom\"" for the device element a header value belongs to.
QString device_element_text(const QSharedPointer<Base::Time>& header, int i, const Log_helper::Value& v)
{
    QString text = QStringLiteral("DET") + QString::number(v.device_element);
    auto det = header->data_log_values.typed_at(i)->device_element.get_target();
    if (!det)
        return text + QStringLiteral(" (not in the document)");
    text += QStringLiteral(" \"") + det->designator.get_string() + QLatin1Char('"');
    if (auto dvc = dynamic_cast<Base::Device*>(det->parent_element()))
        text += QStringLiteral(" of ") + dvc->id.get_as_string() + QStringLiteral(" \"") +
                dvc->designator.get_string() + QLatin1Char('"');
    return text;
}

QString value_text(const Log_helper::Value& v)
{
    QString text = QStringLiteral("DDI %1 (%2) \"%3\"").arg(v.ddi).arg(hex4(v.ddi)).arg(DDI_strings::str(v.ddi));
    if (v.ddi == Log_helper::ddi_pgn)
        text += QStringLiteral(", PGN %1 bits %2..%3").arg(v.pgn).arg(v.start_bit).arg(v.stop_bit);
    const DDI_table::Entry* e = DDI_table::find(v.ddi);
    if (e && e->resolution != 0) {
        const bool unit = !e->unit_symbol.isEmpty() && e->unit_symbol != QLatin1String("n.a.") &&
                          e->unit_symbol != QLatin1String("not defined");
        if (unit)
            text += QStringLiteral(", %1 %2 per count").arg(QString::number(e->resolution, 'g', 12), e->unit_symbol);
        else if (e->resolution != 1)
            text += QStringLiteral(", scale %1").arg(QString::number(e->resolution, 'g', 12));
    }
    return text;
}

QString layout_text(const Log_helper& h)
{
    QStringList fields;
    if (h.time_in_record())
        fields << QStringLiteral("time and date");
    for (unsigned i = 0; i < Log_helper::num_pos_fields; ++i)
        if (h.pos_mask() & (1u << i))
            fields << Log_helper::Record::get_pos_name(i);
    fields << QStringLiteral("a value count, then that many (DLV number, value) pairs");
    return fields.join(QStringLiteral(", "));
}

// A CSV field, quoted when it holds a separator, quote or line end.
QString csv_field(const QString& s)
{
    if (!s.contains(QLatin1Char(',')) && !s.contains(QLatin1Char('"')) && !s.contains(QLatin1Char('\n')) &&
        !s.contains(QLatin1Char('\r')))
        return s;
    QString q = s;
    q.replace(QLatin1Char('"'), QStringLiteral("\"\""));
    return QLatin1Char('"') + q + QLatin1Char('"');
}

QString pos_text(const Log_helper::Record& r, unsigned field)
{
    switch (field) {
    case Log_helper::pos_north:
        return QString::number(r.north, 'f', 7);
    case Log_helper::pos_east:
        return QString::number(r.east, 'f', 7);
    case Log_helper::pos_up:
        return QString::number(r.up, 'f', 3);
    case Log_helper::pos_pdop:
        return QString::number(double(r.pdop), 'f', 1);
    case Log_helper::pos_hdop:
        return QString::number(double(r.hdop), 'f', 1);
    default:
        return r.get_pos_field(field).toString();
    }
}

QString physical_text(const Log_helper::Value& v, qint32 raw)
{
    // Raw counts are exact integers: only a real scale turns them into decimals.
    if (v.resolution == 1)
        return QString::number(raw);
    return QString::number(v.decode(raw), 'g', 12);
}

// The DDI designator; "DDI n" for one the dictionary does not know (proprietary DDIs).
QString value_name(const Log_helper::Value& v)
{
    if (!DDI_table::find(v.ddi))
        return QStringLiteral("DDI %1").arg(v.ddi);
    return DDI_strings::str(v.ddi);
}

// Column names for the values: the value's name, made unique by the device element and then by
// the DLV number when one device element logs the same DDI twice.
QStringList value_columns(const QVector<Log_helper::Value>& values)
{
    QStringList names;
    QHash<QString, int> uses;
    for (const auto& v : values)
        ++uses[value_name(v)];
    QHash<QString, int> uses2;
    for (const auto& v : values) {
        QString n = value_name(v);
        if (uses.value(n) > 1)
            n += QStringLiteral(" (DET%1)").arg(v.device_element);
        names << n;
        ++uses2[n];
    }
    for (int i = 0; i < names.size(); ++i)
        if (uses2.value(names[i]) > 1)
            names[i] += QStringLiteral(" #%1").arg(i);
    return names;
}

// The words of a refused time log, shared with `taskdata check`.
QString unreadable_text(unsigned decoded) { return QStringLiteral("record %1 is unreadable").arg(decoded); }
QString trailing_text(qint64 bytes) { return QStringLiteral("%1 bytes after the last whole record").arg(bytes); }
QString unknown_dlvs_text(const QStringList& unknown)
{
    return QStringLiteral("DLV numbers %1 not in the header").arg(unknown.join(QStringLiteral(", ")));
}

QStringList unknown_dlvs(Log_helper& h)
{
    QStringList unknown;
    for (quint8 number : h.dlvs_seen())
        if (number >= h.values().size())
            unknown << QString::number(number);
    return unknown;
}

bool write_csv(Log_helper& h, const QString& path, QFile& standard_output, QTextStream& err)
{
    Taskdata_tool::Output_file f(path, standard_output);
    if (!f.open()) {
        err << "taskdata timelog: cannot write " << path << ": " << f.error() << '\n';
        return false;
    }
    Taskdata_tool::Progress progress(QStringLiteral("timelog"));
    QTextStream s(f.device());
    s.setCodec("UTF-8");
    QStringList head{QStringLiteral("record")};
    if (h.time_in_record() || h.header_time_valid())
        head << QStringLiteral("time");
    for (unsigned i = 0; i < Log_helper::num_pos_fields; ++i)
        if (h.pos_mask() & (1u << i))
            head << Log_helper::Record::get_pos_name(i);
    const QVector<Log_helper::Value>& values = h.values();
    for (const QString& n : value_columns(values))
        head << n;
    for (QString& c : head)
        c = csv_field(c);
    s << head.join(QLatin1Char(',')) << '\n';

    const unsigned n = h.get_num_records();
    Log_helper::Record r;
    QStringList row;
    for (unsigned i = 0; i < n; ++i) {
        if (!h.get_record(r, i))
            break;
        if ((i & 4095) == 0)
            progress.update(i, n);
        row.clear();
        row << QString::number(i);
        if (h.time_in_record() || h.header_time_valid())
            row << iso_time(r);
        for (unsigned p = 0; p < Log_helper::num_pos_fields; ++p)
            if (h.pos_mask() & (1u << p))
                row << pos_text(r, p);
        // A value the record does not carry stays empty: records log changes, nothing is invented.
        for (int v = 0; v < values.size(); ++v)
            row << (v < 256 && r.has_dlv(quint8(v)) ? physical_text(values[v], r.dlv(quint8(v))) : QString());
        s << row.join(QLatin1Char(',')) << '\n';
    }
    s.flush();
    if (!f.commit()) {
        err << "taskdata timelog: cannot write " << path << ": " << f.error() << '\n';
        return false;
    }
    return true;
}

struct Selected
{
    QSharedPointer<Base::Task> task;
    QSharedPointer<Base::Time_log> tlg;
};

// Describes one time log; false when it cannot be decoded.
bool describe(const Selected& sel, QTextStream& out, QTextStream& err)
{
    const QString name = sel.tlg->filename.get_as_string();
    out << "Time log " << name << " of " << sel.task->id.get_as_string();
    if (!sel.task->designator.get_string().isEmpty())
        out << " \"" << sel.task->designator.get_string() << '"';
    out << '\n';

    Log_helper h;
    // The decoder reports an unusable log on standard output; the reason goes to err here.
    out.flush();
    if (!h.init(sel.tlg)) {
        out << "  cannot be decoded: " << h.fail_text() << '\n';
        err << "taskdata timelog: " << name << ": " << h.fail_text() << '\n';
        return false;
    }
    out << "  binary: " << QDir::toNativeSeparators(h.binary_path()) << ", " << h.binary_size() << " bytes\n";
    out << "  each record carries: " << layout_text(h) << '\n';
    out << "  record length: " << h.fixed_length() << " bytes + 5 per value\n";
    if (!h.time_in_record())
        out << (h.header_time_valid() ? "  time: every record at the header's time\n" : "  time: none\n");
    const QSharedPointer<Base::Time> header = h.header();
    const QVector<Log_helper::Value>& values = h.values();
    for (int i = 0; i < values.size(); ++i)
        out << "  DLV " << i << ": " << value_text(values[i]) << ", device element "
            << device_element_text(header, i, values[i]) << '\n';

    const unsigned n = h.get_num_records();
    out << "  records: " << n << '\n';
    bool ok = true;
    Log_helper::Record r;
    Log_helper::Record first;
    double min_n = std::numeric_limits<double>::max(), max_n = -min_n;
    double min_e = min_n, max_e = max_n;
    unsigned placed = 0;
    unsigned decoded = 0;
    const bool has_pos = (h.pos_mask() & 3u) == 3u;
    for (unsigned i = 0; i < n; ++i) {
        if (!h.get_record(r, i)) {
            ok = false;
            break;
        }
        ++decoded;
        if (i == 0)
            first = r;
        // 0/0 is where a receiver without a fix puts a record, not a place on the field.
        if (has_pos && !(r.north == 0 && r.east == 0)) {
            ++placed;
            min_n = qMin(min_n, r.north);
            max_n = qMax(max_n, r.north);
            min_e = qMin(min_e, r.east);
            max_e = qMax(max_e, r.east);
        }
    }
    if (n > 0 && (h.time_in_record() || h.header_time_valid()))
        out << "  first: " << iso_time(first) << "\n  last:  " << iso_time(r) << '\n';
    if (placed > 0)
        out << "  bounding box: north " << QString::number(min_n, 'f', 7) << " .. " << QString::number(max_n, 'f', 7)
            << ", east " << QString::number(min_e, 'f', 7) << " .. " << QString::number(max_e, 'f', 7) << " ("
            << placed << " records with a position)\n";
    if (!ok) {
        out << "  cannot be decoded: record " << decoded << " of " << n << " is unreadable\n";
        err << "taskdata timelog: " << name << ": " << unreadable_text(decoded) << '\n';
    }
    if (h.trailing_bytes() != 0) {
        ok = false;
        out << "  cannot be decoded: " << h.trailing_bytes() << " bytes after the last whole record\n";
        err << "taskdata timelog: " << name << ": " << trailing_text(h.trailing_bytes()) << '\n';
    }
    const QStringList unknown = unknown_dlvs(h);
    if (!unknown.isEmpty()) {
        ok = false;
        out << "  cannot be decoded: values of DLV numbers the header does not list: " << unknown.join(", ") << '\n';
        err << "taskdata timelog: " << name << ": " << unknown_dlvs_text(unknown) << '\n';
    }
    return ok;
}

} // namespace

QStringList time_log_problems(const QSharedPointer<Base::Time_log>& tlg)
{
    Log_helper h;
    if (!h.init(tlg))
        return {h.fail_text()};
    QStringList problems;
    const unsigned n = h.get_num_records();
    Log_helper::Record r;
    for (unsigned i = 0; i < n; ++i) {
        if (!h.get_record(r, i)) {
            problems << unreadable_text(i);
            break;
        }
    }
    if (h.trailing_bytes() != 0)
        problems << trailing_text(h.trailing_bytes());
    const QStringList unknown = unknown_dlvs(h);
    if (!unknown.isEmpty())
        problems << unknown_dlvs_text(unknown);
    return problems;
}

int run_timelog_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    QString dir_arg, tlg_name, csv_path;
    bool have_tlg = false, have_csv = false;
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args[i];
        if (a == QLatin1String("-h") || a == QLatin1String("--help")) {
            print_usage(out);
            return exit_ok;
        }
        QString* target = nullptr;
        bool* flag = nullptr;
        QString value;
        bool inline_value = false;
        for (const auto& opt : {qMakePair(QStringLiteral("--tlg"), 0), qMakePair(QStringLiteral("--csv"), 1)}) {
            if (a == opt.first || a.startsWith(opt.first + QLatin1Char('='))) {
                target = opt.second == 0 ? &tlg_name : &csv_path;
                flag = opt.second == 0 ? &have_tlg : &have_csv;
                inline_value = a.size() > opt.first.size();
                if (inline_value)
                    value = a.mid(opt.first.size() + 1);
            }
        }
        if (target) {
            if (!inline_value) {
                if (i + 1 >= args.size()) {
                    err << "taskdata timelog: " << a << " needs a value\n";
                    print_usage(err);
                    return exit_usage;
                }
                value = args[++i];
            }
            if (*flag || value.isEmpty()) {
                err << "taskdata timelog: " << (*flag ? "repeated option " : "empty value for ") << a << '\n';
                return exit_usage;
            }
            *target = value;
            *flag = true;
            continue;
        }
        if (a.startsWith(QLatin1Char('-'))) {
            err << "taskdata timelog: unknown option " << a << '\n';
            print_usage(err);
            return exit_usage;
        }
        if (!dir_arg.isEmpty()) {
            err << "taskdata timelog: one directory only\n";
            print_usage(err);
            return exit_usage;
        }
        dir_arg = a;
    }
    if (dir_arg.isEmpty()) {
        print_usage(err);
        return exit_usage;
    }

    const QFileInfo fi(dir_arg);
    if (!fi.exists()) {
        err << "taskdata timelog: " << dir_arg << " does not exist\n";
        return exit_usage;
    }
    const QString dir = fi.isDir() ? fi.absoluteFilePath() : fi.absolutePath();
    auto man = Base::Element_man::create();
    man->set_task_data_dir(dir);
    XML_interface xi(fi.absoluteFilePath());
    if (!xi.load(man)) {
        err << "taskdata timelog: cannot load " << dir_arg << ": " << xi.fail_text() << '\n';
        return exit_usage;
    }
    auto root = man->root().dynamicCast<Base::Task_data>();
    if (!root) {
        err << "taskdata timelog: " << dir_arg << " holds no task data document\n";
        return exit_usage;
    }

    // "TLG00001", "tlg00001" and "TLG00001.xml" all name the same time log.
    QString wanted = tlg_name;
    if (wanted.endsWith(QLatin1String(".xml"), Qt::CaseInsensitive) ||
        wanted.endsWith(QLatin1String(".bin"), Qt::CaseInsensitive))
        wanted.chop(4);
    QVector<Selected> selected;
    for (int t = 0; t < root->tasks.count(); ++t) {
        auto task = root->tasks.typed_at(t);
        for (int i = 0; i < task->time_logs.count(); ++i) {
            auto tlg = task->time_logs.typed_at(i);
            if (!have_tlg || tlg->filename.get_as_string().compare(wanted, Qt::CaseInsensitive) == 0)
                selected.append({task, tlg});
        }
    }
    if (have_tlg && selected.isEmpty()) {
        err << "taskdata timelog: no task of " << dir_arg << " has the time log " << tlg_name << '\n';
        return exit_usage;
    }
    if (have_csv && selected.size() != 1) {
        err << "taskdata timelog: --csv writes one time log; " << selected.size()
            << " are selected (choose one with --tlg NAME)\n";
        return exit_usage;
    }
    if (selected.isEmpty()) {
        out << "no time logs in " << dir_arg << '\n';
        return exit_ok;
    }

    // With the CSV on standard output, the description goes to standard error.
    const bool csv_to_stdout = have_csv && csv_path == QLatin1String("-");
    QTextStream& text = csv_to_stdout ? err : out;
    int result = exit_ok;
    for (int i = 0; i < selected.size(); ++i) {
        if (i > 0)
            text << '\n';
        if (!describe(selected[i], text, err))
            result = exit_undecodable;
    }
    if (have_csv) {
        text.flush();
        out.flush();
        Log_helper h;
        if (!h.init(selected.first().tlg))
            return exit_undecodable;
        if (!write_csv(h, csv_path, *static_cast<QFile*>(out.device()), err))
            return exit_usage;
        text << "wrote " << h.get_num_records() << " records to " << csv_path << '\n';
    }
    return result;
}
