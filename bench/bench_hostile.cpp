// Hostile shapes of input: one element with very many attributes, and very deeply nested
// elements of another maker. Prints the library's load and save against a bare
// QXmlStreamReader scan of the same file (target: within 3x), and against a bare scan of the
// same bytes by the library's own tokenizer where QXmlStreamReader cannot serve as a
// baseline: it compares every attribute of a start tag with every other one, so its own time
// grows with the square of their number (shown for growing counts).
// Usage: bench_hostile [--reps N]
#include <taskdata/common/Fast_xml_reader.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Element_man.h>

#include <platform/util/Trace_print.h>

#include "bench_util.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QXmlStreamReader>

using namespace TC::Task_data;
using namespace Ktd_bench;

namespace {

QByteArray document(int attributes, int depth)
{
    QByteArray d = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ISO11783_TaskData VersionMajor=\"4\" VersionMinor=\"3\" "
                   "ManagementSoftwareManufacturer=\"B\" ManagementSoftwareVersion=\"1\" DataTransferOrigin=\"1\">\n"
                   "<CTR A=\"CTR1\" B=\"Doe\"";
    for (int i = 0; i < attributes; ++i)
        d += " P1_" + QByteArray::number(i) + "=\"" + QByteArray::number(i) + '"';
    d += '>' + QByteArray("<P1_x>").repeated(depth) + QByteArray("</P1_x>").repeated(depth);
    return d + "</CTR>\n</ISO11783_TaskData>\n";
}

double qt_scan(const QString& path)
{
    QFile f(path);
    f.open(QIODevice::ReadOnly);
    const double t = now_s();
    QXmlStreamReader r(&f);
    qint64 n = 0;
    while (!r.atEnd()) {
        r.readNext();
        n += r.attributes().size();
    }
    keep(n);
    return now_s() - t;
}

double fast_scan(const QString& path)
{
    const double t = now_s();
    Fast_xml_reader r;
    r.open_file(path);
    qint64 n = 0;
    while (!r.atEnd()) {
        r.readNext();
        n += r.attribute_count();
    }
    keep(n);
    return now_s() - t;
}

struct Library_times
{
    double load = 1e30, save = 1e30;
};

Library_times library(const QString& dir, int reps)
{
    Library_times best;
    for (int i = 0; i < reps; ++i) {
        auto man = TC::Task_data::Elements::Base::Element_man::create();
        XML_interface xi(dir);
        double t = now_s();
        xi.load(man);
        best.load = std::min(best.load, now_s() - t);
        xi.set_output_dir(dir + QStringLiteral(".out"));
        t = now_s();
        xi.save(man);
        best.save = std::min(best.save, now_s() - t);
    }
    return best;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int reps = 3;
    const QStringList args = app.arguments();
    if (args.indexOf("--reps") > 0)
        reps = qMax(1, args.value(args.indexOf("--reps") + 1).toInt());
    Trace_print::set_enabled(false);
    QTemporaryDir tmp;

    struct Case
    {
        const char* name;
        int attributes, depth;
        bool qt; // whether a QXmlStreamReader scan ends in reasonable time
    };
    const Case cases[] = {
        {"10,000 attributes on one element", 10000, 0, true},
        {"40,000 attributes on one element", 40000, 0, true},
        {"1,000,000 attributes on one element", 1000000, 0, false},
        {"100,000 nested elements of another maker", 0, 100000, true},
    };
    Table table({"input", "MB", "load s", "save s", "bare scan s", "load / bare scan", "baseline"});
    for (const Case& c : cases) {
        const QString dir = tmp.filePath(QString::fromLatin1(c.name).replace(' ', '_').replace(',', ""));
        QDir().mkpath(dir);
        const QString path = QDir(dir).filePath("TASKDATA.XML");
        QFile f(path);
        f.open(QIODevice::WriteOnly);
        f.write(document(c.attributes, c.depth));
        f.close();
        const Library_times lib = library(dir, reps);
        double scan = 1e30;
        for (int i = 0; i < reps; ++i)
            scan = std::min(scan, c.qt ? qt_scan(path) : fast_scan(path));
        table.add({c.name, fmt("%.1f", f.size() / 1e6), fmt("%.3f", lib.load), fmt("%.3f", lib.save), fmt("%.3f", scan),
                   fmt("%.2f", lib.load / scan), c.qt ? "QXmlStreamReader" : "own tokenizer (Qt: quadratic)"});
    }
    table.print();
    return 0;
}
