// Implementation of `taskdata info`; see info_command.h.
#include "info_command.h"

#include "tool_support.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QMap>

using namespace Taskdata_tool;
using namespace TC::Task_data::Elements::Base;

namespace {

void print_usage(QTextStream& s)
{
    s << "usage: taskdata info DIR [--json]\n"
         "  DIR     a task data directory (or its TASKDATA.XML)\n"
         "  --json  one JSON document instead of text\n"
         "exit code: 0 printed, 2 bad usage or directory not loadable\n";
}

struct Task_row
{
    QString id;
    QString designator;
    int status;
};

QJsonArray to_json(const QStringList& list)
{
    QJsonArray a;
    for (const QString& s : list)
        a.append(s);
    return a;
}

QString or_dash(const QString& s) { return s.isEmpty() ? QStringLiteral("-") : s; }

} // namespace

int run_info_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
        print_usage(out);
        return exit_ok;
    }
    const Parsed_args p = parse_args(args, {QStringLiteral("--json")}, {});
    if (!p.error.isEmpty() || p.positional.size() != 1) {
        err << "taskdata info: " << (p.error.isEmpty() ? QStringLiteral("expected one directory") : p.error) << '\n';
        print_usage(err);
        return exit_unusable;
    }
    const bool json = p.flags.contains(QStringLiteral("--json"));

    Loaded_dir d;
    if (!load_directory(p.positional.first(), d)) {
        err << "taskdata info: " << d.error << '\n';
        return exit_unusable;
    }
    const QSharedPointer<Task_data> root = d.root().dynamicCast<Task_data>();

    // Counted by tag, listed in catalogue order.
    QHash<QString, int> counts;
    QVector<Task_row> tasks;
    walk_all(d, [&](const QSharedPointer<Element>& e) {
        ++counts[e->get_tag()];
        if (auto t = e.dynamicCast<Task>())
            tasks.append({element_name(t.data()), t->designator.get_string(), int(t->status.get_val())});
    });

    QString major = d.header.version_major;
    QString minor = d.header.version_minor;
    if (major.isEmpty())
        major = QString::number(d.version());
    const QString version = minor.isEmpty() ? major : major + QLatin1Char('.') + minor;

    QStringList used = d.xi->used_files().values();
    used.sort(Qt::CaseInsensitive);
    QStringList unused = d.xi->track_unused_files();
    unused.sort(Qt::CaseInsensitive);
    const QStringList warnings = d.xi->warnings();

    const QString mngt_name = root ? root->mngt_sw_manufacturer.get_string() : QString();
    const QString mngt_version = root ? root->mngt_sw_ver.get_string() : QString();
    const QString tc_name = root ? root->tskcnt_sw_manufacturer.get_string() : QString();
    const QString tc_version = root ? root->tskcnt_sw_ver.get_string() : QString();

    if (json) {
        QJsonObject o;
        o.insert(QStringLiteral("directory"), d.dir);
        o.insert(QStringLiteral("main_file"), QFileInfo(d.main_file).fileName());
        o.insert(QStringLiteral("format_version"), version);
        o.insert(QStringLiteral("management_software"),
                 QJsonObject{{QStringLiteral("manufacturer"), mngt_name}, {QStringLiteral("version"), mngt_version}});
        o.insert(QStringLiteral("task_controller"),
                 QJsonObject{{QStringLiteral("manufacturer"), tc_name}, {QStringLiteral("version"), tc_version}});
        QJsonObject c;
        for (const Kind_info* k : Catalogue::kinds()) {
            const int n = counts.value(QString::fromLatin1(k->tag));
            if (n > 0)
                c.insert(QString::fromLatin1(k->tag), n);
        }
        o.insert(QStringLiteral("counts"), c);
        QJsonArray t;
        for (const Task_row& r : tasks)
            t.append(QJsonObject{{QStringLiteral("id"), r.id},
                                 {QStringLiteral("designator"), r.designator},
                                 {QStringLiteral("status"), r.status},
                                 {QStringLiteral("status_name"), task_status_name(r.status)}});
        o.insert(QStringLiteral("tasks"), t);
        o.insert(QStringLiteral("files_used"), to_json(used));
        o.insert(QStringLiteral("files_unused"), to_json(unused));
        o.insert(QStringLiteral("warnings"), to_json(warnings));
        print_json(out, o);
        return exit_ok;
    }

    out << "directory:           " << d.dir << '\n';
    out << "format version:      " << version << '\n';
    out << "management software: " << or_dash(QStringList{mngt_name, mngt_version}.join(QLatin1Char(' ')).trimmed())
        << '\n';
    out << "task controller:     " << or_dash(QStringList{tc_name, tc_version}.join(QLatin1Char(' ')).trimmed())
        << '\n';
    out << "elements:\n";
    for (const Kind_info* k : Catalogue::kinds()) {
        const int n = counts.value(QString::fromLatin1(k->tag));
        if (n > 0)
            out << "  " << QString::fromLatin1(k->tag).leftJustified(18) << ' '
                << QString::fromLatin1(k->display_name).leftJustified(30) << ' ' << n << '\n';
    }
    out << "tasks: " << tasks.size() << '\n';
    for (const Task_row& r : tasks) {
        const QString name = task_status_name(r.status);
        out << "  " << r.id.leftJustified(10) << ' ' << ('"' + r.designator + '"').leftJustified(34) << ' '
            << r.status << ' ' << (name.isEmpty() ? QStringLiteral("(unknown status)") : name) << '\n';
    }
    out << "files used:   " << (used.isEmpty() ? QStringLiteral("-") : used.join(QStringLiteral(", "))) << '\n';
    out << "files unused: " << (unused.isEmpty() ? QStringLiteral("-") : unused.join(QStringLiteral(", "))) << '\n';
    out << "warnings: " << warnings.size() << '\n';
    for (const QString& w : warnings)
        out << "  " << w << '\n';
    return exit_ok;
}
