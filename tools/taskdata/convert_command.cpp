// Implementation of `taskdata convert`; see convert_command.h.
#include "convert_command.h"

#include "tool_support.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace Taskdata_tool;
using namespace TC::Task_data::Elements::Base;

namespace {

void print_usage(QTextStream& s)
{
    s << "usage: taskdata convert DIR OUTDIR [--format-version 3|4] [--no-proprietary]\n"
         "  DIR                 a task data directory (or its TASKDATA.XML)\n"
         "  OUTDIR              where the converted directory is written (created when missing)\n"
         "  --format-version N  write format version 3 or 4 (default: the version of DIR);\n"
         "                      what version 3 lacks is left out\n"
         "  --no-proprietary    leave out proprietary attributes, elements and unknown attributes\n"
         "exit code: 0 written, 2 bad usage or DIR not loadable, 3 OUTDIR could not be written\n";
}

// Files that the elements written for `version` refer to, by the name the XML gives them.
QStringList referenced_files(const Loaded_dir& d, int version)
{
    QStringList names;
    walk_all(d, [&](const QSharedPointer<Element>& e) {
        if (auto g = e.dynamicCast<Grid>()) {
            if (!g->filename.get_string().isEmpty())
                names << g->filename.get_string() + QStringLiteral(".BIN");
        } else if (auto t = e.dynamicCast<Time_log>()) {
            if (t->filename.get_val() != 0)
                names << t->filename.get_as_string() + QStringLiteral(".BIN")
                      << t->filename.get_as_string() + QStringLiteral(".XML");
        } else if (auto p = e.dynamicCast<Point>()) {
            if (version >= p->filename.base_spec().version && !p->filename.get_string().isEmpty())
                names << p->filename.get_string() + QStringLiteral(".BIN");
        } else if (auto a = e.dynamicCast<Attached_file>()) {
            if (version >= a->filename.base_spec().version && !a->filename.get_string().isEmpty())
                names << a->filename.get_string();
        }
    });
    names.removeDuplicates();
    return names;
}

} // namespace

int run_convert_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
        print_usage(out);
        return exit_ok;
    }
    const Parsed_args pa = parse_args(args, {QStringLiteral("--no-proprietary")}, {QStringLiteral("--format-version")});
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
    if (version == 0)
        version = d.version();

    const QString outdir = QDir(pa.positional.at(1)).absolutePath();
    if (!QDir().mkpath(outdir)) {
        err << "taskdata convert: cannot create " << outdir << '\n';
        return exit_write_failed;
    }
    XML_interface& xi = *d.xi;
    xi.set_format_version(version);
    xi.set_keep_proprietary(!pa.flags.contains(QStringLiteral("--no-proprietary")));
    xi.set_output_dir(outdir);
    if (!xi.save(d.man)) {
        err << "taskdata convert: " << xi.fail_text() << '\n';
        return exit_write_failed;
    }

    // The output must stand on its own: whatever the library did not carry over is copied.
    const bool same_dir = QFileInfo(outdir).canonicalFilePath() == QFileInfo(d.dir).canonicalFilePath();
    int copied = 0;
    for (const QString& name : referenced_files(d, version)) {
        if (same_dir || !find_in_dir(outdir, name).isEmpty())
            continue;
        const QString source = find_in_dir(d.dir, name);
        if (source.isEmpty())
            continue; // missing in the input already; `taskdata check` reports it
        if (!QFile::copy(source, QDir(outdir).filePath(name))) {
            err << "taskdata convert: cannot copy " << source << " to " << outdir << '\n';
            return exit_write_failed;
        }
        ++copied;
    }
    out << "wrote " << outdir << " (format version " << version << ')';
    if (copied > 0)
        out << ", " << copied << " referenced file(s) copied";
    out << '\n';
    return exit_ok;
}
