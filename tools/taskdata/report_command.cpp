// Implementation of `taskdata report`; see report_command.h.
#include "report_command.h"

#include "tool_support.h"

#include <taskdata/common/Export_properties.h>

#include <QBuffer>
#include <QDateTime>
#include <QFileInfo>
#include <QPageSize>
#include <QPdfWriter>
#include <QSaveFile>
#include <QTextDocument>

using namespace Taskdata_tool;
using namespace TC::Task_data::Elements::Base;
using TC::Task_data::Export_properties;

namespace {

void print_usage(QTextStream& s)
{
    s << "usage: taskdata report DIR OUT [--us]\n"
         "  DIR   a task data directory (or its TASKDATA.XML)\n"
         "  OUT   the report: .html (or .htm) for HTML, .pdf for PDF\n"
         "  --us  US customary units (acres, feet) instead of hectares and metres\n"
         "exit code: 0 written, 2 bad usage or DIR not loadable, 3 OUT could not be written\n";
}

} // namespace

int run_report_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
        print_usage(out);
        return exit_ok;
    }
    const Parsed_args pa = parse_args(args, {QStringLiteral("--us")}, {});
    if (!pa.error.isEmpty() || pa.positional.size() != 2) {
        err << "taskdata report: " << (pa.error.isEmpty() ? QStringLiteral("expected DIR and OUT") : pa.error) << '\n';
        print_usage(err);
        return exit_unusable;
    }
    const QString target = pa.positional.at(1);
    const QString suffix = QFileInfo(target).suffix().toLower();
    const bool pdf = suffix == QLatin1String("pdf");
    if (!pdf && suffix != QLatin1String("html") && suffix != QLatin1String("htm")) {
        err << "taskdata report: OUT must end in .html, .htm or .pdf, not " << target << '\n';
        return exit_unusable;
    }
    Loaded_dir d;
    if (!load_directory(pa.positional.at(0), d)) {
        err << "taskdata report: " << d.error << '\n';
        return exit_unusable;
    }

    QTextDocument doc;
    doc.setDocumentMargin(24);
    Export_properties props{QTextCursor(&doc)};
    props.us_imperial() = pa.flags.contains(QStringLiteral("--us"));
    props.cursor(Export_properties::style_title).insertText(QStringLiteral("Task data report"));
    props.cursor().insertBlock();
    props.cursor(Export_properties::style_note)
        .insertText(QStringLiteral("%1, %2").arg(d.dir, QDateTime::currentDateTime().toString(Qt::ISODate)));
    int shown = 0;
    const QSharedPointer<Element> root = d.root();
    for (const char* tag : {"CTR", "FRM", "PFD", "PDT", "DVC", "TSK"}) {
        Element_list* list = root ? root->find_list(QString::fromLatin1(tag)) : nullptr;
        if (!list)
            continue;
        for (const auto& e : list->elements()) {
            e->document_export(props);
            ++shown;
        }
    }

    QByteArray bytes;
    if (pdf) {
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        QPdfWriter writer(&buffer);
        writer.setPageSize(QPageSize(props.us_imperial() ? QPageSize::Letter : QPageSize::A4));
        writer.setTitle(QStringLiteral("Task data report"));
        doc.print(&writer);
    } else {
        bytes = doc.toHtml(QByteArrayLiteral("utf-8")).toUtf8();
    }
    QSaveFile file(target);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        err << "taskdata report: cannot write " << target << ": " << file.errorString() << '\n';
        return exit_write_failed;
    }
    out << "wrote " << target << " (" << (pdf ? "PDF" : "HTML") << ", " << shown << " element(s))\n";
    return exit_ok;
}
