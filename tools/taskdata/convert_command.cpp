// Implementation of `taskdata convert`; see convert_command.h.
#include "convert_command.h"

#include "change_summary.h"
#include "tool_support.h"

#include <QDir>

using namespace Taskdata_tool;
using namespace TC::Task_data::Elements::Base;

namespace {

void print_usage(QTextStream& s)
{
    s << "usage: taskdata convert DIR OUTDIR [--format-version 3|4] [--no-proprietary] [--strict]\n"
         "  DIR                 a task data directory (or its TASKDATA.XML)\n"
         "  OUTDIR              where the converted directory is written (created when missing);\n"
         "                      an OUTDIR holding a task data set is replaced as a whole, one\n"
         "                      holding anything else is refused\n"
         "  --format-version N  write format version 3 or 4 (default: the version of DIR, or 4\n"
         "                      when DIR holds content of version 4); what version 3 lacks is left out\n"
         "  --no-proprietary    leave out proprietary attributes, elements and unknown attributes\n"
         "  --strict            write nothing when anything would be left out or changed\n"
         "Ends with one line per kind of thing left out or changed, with a count and the first place.\n"
         "exit code: 0 written, 1 --strict and something would change (nothing written),\n"
         "2 bad usage or DIR not loadable, 3 OUTDIR could not be written\n";
}

} // namespace

int run_convert_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
        print_usage(out);
        return exit_ok;
    }
    const Parsed_args pa = parse_args(args, {QStringLiteral("--no-proprietary"), QStringLiteral("--strict")},
                                      {QStringLiteral("--format-version")});
    if (!pa.error.isEmpty() || pa.positional.size() != 2) {
        err << "taskdata convert: " << (pa.error.isEmpty() ? QStringLiteral("expected DIR and OUTDIR") : pa.error)
            << '\n';
        print_usage(err);
        return exit_unusable;
    }
    int version = 0;
    if (pa.values.contains(QStringLiteral("--format-version"))) {
        const QString v = pa.values.value(QStringLiteral("--format-version"));
        if (v != QLatin1String("3") && v != QLatin1String("4")) {
            err << "taskdata convert: --format-version must be 3 or 4, not " << v << '\n';
            return exit_unusable;
        }
        version = v.toInt();
    }

    Loaded_dir d;
    if (!load_directory(pa.positional.at(0), d)) {
        err << "taskdata convert: " << d.error << '\n';
        return exit_unusable;
    }
    XML_interface& xi = *d.xi;
    // Without a version asked for, the library writes the document's own (or 4 when it holds
    // content of version 4).
    if (version != 0)
        xi.set_format_version(version);
    xi.set_keep_proprietary(!pa.flags.contains(QStringLiteral("--no-proprietary")));
    // The same input gives the same output: no GUIDs made up on the way.
    xi.set_guid_list_as_read(true);
    const QVector<Change_line> changes = changes_for_writing(d);
    if (pa.flags.contains(QStringLiteral("--strict")) && !changes.isEmpty()) {
        err << "taskdata convert: nothing written (--strict):\n";
        for (const Change_line& c : changes)
            err << "  " << change_text(c) << '\n';
        return exit_problems;
    }

    const QString outdir = QDir(pa.positional.at(1)).absolutePath();
    xi.set_output_dir(outdir);
    // The files the data refers to are copied along by the save, so OUTDIR stands on its own.
    Progress progress(QStringLiteral("convert"));
    xi.set_progress_handler([&](int done, int total) { progress.update(done, total); });
    if (!xi.save(d.man)) {
        err << "taskdata convert: " << xi.fail_text() << '\n';
        return exit_write_failed;
    }
    const int copied = xi.copied_files();
    version = xi.format_version();
    out << "wrote " << outdir << " (format version " << version << ')';
    if (copied > 0)
        out << ", " << copied << " referenced file(s) copied";
    out << '\n';
    for (const Change_line& c : changes)
        out << change_text(c) << '\n';
    return exit_ok;
}
