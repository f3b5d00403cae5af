// `taskdata`: the command-line face of the library for integrators and operators. Dispatches to
// one function per subcommand; each writes its results on stdout and its complaints on stderr,
// and the library's own diagnostics, wherever it prints them, end up on stderr too.
#include "assume_version.h"
#include "check_command.h"
#include "convert_command.h"
#include "ddi_command.h"
#include "fields_command.h"
#include "generate_command.h"
#include "info_command.h"
#include "report_command.h"
#include "shape_info_command.h"
#include "tool_support.h"

#if defined(KTD_HAVE_TIMELOG_COMMAND) && __has_include("timelog_command.h")
#include "timelog_command.h"
#define KTD_TIMELOG_AVAILABLE 1
#endif

#include <taskdata/common/Symlink_policy.h>

#include <platform/util/Trace_print.h>

#include <QCoreApplication>
#include <QGuiApplication>
#include <QFile>
#include <QTextStream>

#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

namespace {

void print_help(QTextStream& s)
{
    s << "usage: taskdata COMMAND [ARGS]\n"
         "\n"
         "Reads, checks, converts and generates ISO 11783-10 task data directories\n"
         "(TASKDATA.XML with its linked XML and binary files).\n"
         "\n"
         "commands:\n"
         "  info DIR [--json]          format version, software, element counts, tasks, files, warnings\n"
         "  check DIR [--json]         what to fix before sending DIR to a machine, one line per problem\n"
         "  convert DIR OUTDIR [--format-version 3|4] [--no-proprietary] [--strict]\n"
         "                             write DIR again as a complete directory OUTDIR, and list\n"
         "                             what had to be left out or changed\n"
         "  generate OUTDIR [--fields N] [--points K] [--tasks T] [--seed S]\n"
         "                             write a synthetic, valid version 4 directory of a chosen size\n"
         "  ddi NUMBER|NAME            look a data dictionary entry up\n"
         "  timelog DIR [--tlg NAME] [--csv FILE]\n"
         "                             describe the time logs, write one as CSV\n"
         "  fields DIR [--json]        per field: customer, farm, boundary area and perimeter, bounding box\n"
         "  report DIR OUT [--us]      a report of DIR as HTML or PDF (by OUT's extension)\n"
         "  shape-info FILE.shp [--json]\n"
         "                             shape type and count, bounding box, numeric attribute ranges\n"
         "  help [COMMAND]             this text, or the usage of one command\n"
         "\n"
         "DIR is a task data directory or its main file; file names are found regardless of case.\n"
         "info, check, convert, timelog, fields and report also take --assume-version N: a main\n"
         "file without VersionMajor is read as format version N (3 or 4) instead of being refused.\n"
         "\n"
         "options of every command:\n"
         "  --verbose          also print the library's trace lines (load and save timings, file lookups)\n"
         "  --follow-symlinks  follow files of DIR that are symbolic links (by default they are\n"
         "                     reported and left out: a link could reach any file you can read)\n"
         "\n"
         "exit codes:\n"
         "  0  done; check found nothing\n"
         "  1  check found problems; convert --strict would change something (nothing written);\n"
         "     ddi matched nothing; timelog could not decode a time log\n"
         "  2  bad usage, or the input directory cannot be loaded (timelog: also the CSV file\n"
         "     cannot be written)\n"
         "  3  the output could not be written: the output directory (convert, generate), the\n"
         "     report (report), or standard output of any command\n"
         "Warnings and errors are printed on standard error; --verbose and KTD_DEBUG add more.\n"
         "A progress line is shown on standard error while convert, generate and timelog --csv\n"
         "work, when standard error is a terminal.\n";
}

int run_command(const QString& command, const QStringList& rest, QTextStream& out, QTextStream& err);

// The options every loading command shares are taken here, before the command parses the rest.
int run(const QString& command, QStringList rest, QTextStream& out, QTextStream& err)
{
    if (!Taskdata_tool::command_loads(command))
        return run_command(command, rest, out, err);
    QString error;
    if (!Taskdata_tool::take_assume_version(rest, error)) {
        err << "taskdata " << command << ": " << error << '\n';
        return Taskdata_tool::exit_unusable;
    }
    const int code = run_command(command, rest, out, err);
    if (rest.contains(QLatin1String("--help")) || rest.contains(QLatin1String("-h")))
        out << Taskdata_tool::assume_version_usage();
    return code;
}

int run_command(const QString& command, const QStringList& rest, QTextStream& out, QTextStream& err)
{
    if (command == QLatin1String("info"))
        return run_info_command(rest, out, err);
    if (command == QLatin1String("check"))
        return run_check_command(rest, out, err);
    if (command == QLatin1String("convert"))
        return run_convert_command(rest, out, err);
    if (command == QLatin1String("generate"))
        return run_generate_command(rest, out, err);
    if (command == QLatin1String("ddi"))
        return run_ddi_command(rest, out, err);
    if (command == QLatin1String("fields"))
        return run_fields_command(rest, out, err);
    if (command == QLatin1String("report"))
        return run_report_command(rest, out, err);
    if (command == QLatin1String("shape-info"))
        return run_shape_info_command(rest, out, err);
    if (command == QLatin1String("timelog")) {
#ifdef KTD_TIMELOG_AVAILABLE
        return run_timelog_command(rest, out, err);
#else
        err << "taskdata timelog: not built into this version\n";
        return Taskdata_tool::exit_unusable;
#endif
    }
    err << "taskdata: unknown command " << command << '\n';
    print_help(err);
    return Taskdata_tool::exit_unusable;
}

} // namespace

int main(int argc, char** argv)
{
    // A report lays out text, which needs the GUI module; no display is used (the minimal
    // platform with the system's fonts).
    const bool gui = argc > 1 && std::strcmp(argv[1], "report") == 0;
    if (gui && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "minimal:enable_fonts");
    std::unique_ptr<QCoreApplication> app_holder(gui ? new QGuiApplication(argc, argv) : new QCoreApplication(argc, argv));
    QCoreApplication& app = *app_holder;
    QCoreApplication::setApplicationName(QStringLiteral("taskdata"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KTD_TOOL_VERSION));
    // The library prints some diagnostics on standard output; results must stay parseable
    // (--json), so the tool keeps the real standard output for itself and sends everything
    // else written there to standard error.
    fflush(stdout);
    const int result_fd = ::dup(STDOUT_FILENO);
    QFile result_file;
    if (result_fd >= 0 && ::dup2(STDERR_FILENO, STDOUT_FILENO) >= 0)
        result_file.open(result_fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle);
    else
        result_file.open(stdout, QIODevice::WriteOnly);
    QTextStream out(&result_file);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");

    // Options every command takes; a "--" ends the options.
    QStringList args = app.arguments().mid(1);
    const int end_of_options = args.indexOf(QStringLiteral("--"));
    auto take_flag = [&](const QString& flag) {
        const int i = args.indexOf(flag);
        if (i < 0 || (end_of_options >= 0 && i > end_of_options))
            return false;
        args.removeAt(i);
        return true;
    };
    Trace_print::set_enabled(take_flag(QStringLiteral("--verbose")));
    TC::Task_data::Symlink_policy::set_followed(take_flag(QStringLiteral("--follow-symlinks")));
    int code = Taskdata_tool::exit_ok;
    if (args.isEmpty()) {
        print_help(err);
        code = Taskdata_tool::exit_unusable;
    } else if (args.first() == QLatin1String("--help") || args.first() == QLatin1String("-h") ||
               (args.first() == QLatin1String("help") && args.size() == 1)) {
        print_help(out);
    } else if (args.first() == QLatin1String("--version")) {
        out << "taskdata " << KTD_TOOL_VERSION << '\n';
    } else if (args.first() == QLatin1String("help")) {
        code = run(args.at(1), {QStringLiteral("--help")}, out, err);
    } else {
        code = run(args.first(), args.mid(1), out, err);
    }
    out.flush();
    // A full disk or a closed pipe behind standard output: the results are lost, say so.
    if (!result_file.flush() || result_file.error() != QFileDevice::NoError) {
        err << "taskdata: cannot write the output: " << result_file.errorString() << '\n';
        if (code == Taskdata_tool::exit_ok || code == Taskdata_tool::exit_problems)
            code = Taskdata_tool::exit_write_failed;
    }
    err.flush();
    return code;
}
