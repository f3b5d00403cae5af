// The `taskdata` tool as users run it: the built executable through QProcess, on the bundled
// example, on the real corpus sets and on small directories written here that each carry one
// fault. What matters is what an operator relies on: exit codes, that check names the element and
// the fault, that convert writes a complete directory with nothing worse than its input, that
// version 3 output carries nothing of version 4, and that generate writes valid, repeatable data.
#include <taskdata/elements/base/Catalogue.h>

#include "test_support.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

#include <sys/stat.h>
#include <sys/sysmacros.h>

using namespace TC::Task_data::Elements::Base;

namespace {

struct Run_result
{
    int code = -1;
    QString out;
    QString err;
};

QString tool_path() { return qEnvironmentVariable("KTD_BINARY_DIR") + QStringLiteral("/tools/taskdata/taskdata"); }

Run_result run_tool(const QStringList& args, int timeout_ms = 300000, const QString& stdout_file = QString())
{
    QProcess p;
    if (!stdout_file.isEmpty())
        p.setStandardOutputFile(stdout_file, QIODevice::Append);
    p.start(tool_path(), args);
    Run_result r;
    if (!p.waitForFinished(timeout_ms)) {
        p.kill();
        p.waitForFinished();
        r.err = QStringLiteral("timed out");
        return r;
    }
    r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

QJsonObject run_json(const QStringList& args, int* code = nullptr)
{
    const Run_result r = run_tool(args);
    if (code)
        *code = r.code;
    return QJsonDocument::fromJson(r.out.toUtf8()).object();
}

QString example_dir() { return Ktd_test::source_dir() + QStringLiteral("/examples/taskdata"); }

// The problems of a check run, keyed by element and attribute: what an output may not add.
// Line numbers and wording differ between input and output and are left out.
QSet<QString> problem_keys(const QJsonObject& check)
{
    QSet<QString> keys;
    for (const QJsonValue& v : check.value(QStringLiteral("problems")).toArray()) {
        const QJsonObject p = v.toObject();
        keys.insert(p.value(QStringLiteral("element")).toString() + QLatin1Char('|') +
                    p.value(QStringLiteral("attribute")).toString());
    }
    return keys;
}

QString problems_text(const QJsonObject& check)
{
    QStringList lines;
    for (const QJsonValue& v : check.value(QStringLiteral("problems")).toArray()) {
        const QJsonObject p = v.toObject();
        lines << p.value(QStringLiteral("code")).toString() + QStringLiteral(" ") +
                     p.value(QStringLiteral("element")).toString() + QStringLiteral(" ") +
                     p.value(QStringLiteral("message")).toString();
    }
    return lines.join(QLatin1Char('\n'));
}

bool write_file(const QString& path, const QByteArray& data)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(data) == data.size();
}

QByteArray read_file(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

QString find_ci(const QString& dir, const QString& name)
{
    for (const QString& e : QDir(dir).entryList(QDir::Files))
        if (e.compare(name, Qt::CaseInsensitive) == 0)
            return QDir(dir).filePath(e);
    return QString();
}

// Names of everything in a version 3 document that only version 4 has: element kinds in lists
// of version 4 and attributes whose first version is 4.
QStringList newer_than_3(const QString& file)
{
    QStringList found;
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly))
        return {QStringLiteral("cannot open ") + file};
    QXmlStreamReader r(&f);
    QVector<const Kind_info*> stack;
    while (!r.atEnd()) {
        const auto t = r.readNext();
        if (t == QXmlStreamReader::EndElement) {
            stack.removeLast();
            continue;
        }
        if (t != QXmlStreamReader::StartElement)
            continue;
        const QString tag = r.name().toString();
        const Kind_info* k = Catalogue::find(tag);
        if (!stack.isEmpty() && stack.last()) {
            const Kind_info* parent = stack.last();
            for (unsigned i = 0; i < parent->num_lists; ++i)
                if (tag == QLatin1String(parent->list_tags[i]) && parent->list_versions[i] > 3)
                    found << tag + QStringLiteral(" in ") + QString::fromLatin1(parent->tag);
        }
        if (k) {
            for (const QXmlStreamAttribute& a : r.attributes()) {
                for (unsigned i = 0; i < k->num_attributes; ++i)
                    if (a.name() == k->attribute_specs[i]->xml_name() && k->attribute_specs[i]->version > 3)
                        found << tag + QLatin1Char('@') + a.name().toString();
            }
        }
        stack.append(k);
    }
    if (r.hasError())
        found << r.errorString();
    return found;
}

// Validates with xmllint against a schema of the reference data; empty when valid.
QString schema_errors(const QString& xsd, const QString& file)
{
    QProcess p;
    p.start(QStringLiteral("xmllint"), {QStringLiteral("--noout"), QStringLiteral("--schema"), xsd, file});
    if (!p.waitForFinished(300000))
        return QStringLiteral("xmllint timed out");
    if (p.exitCode() == 0)
        return QString();
    return QString::fromUtf8(p.readAllStandardError()).left(2000);
}

const char* const xml_head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

QByteArray document(int version, const QByteArray& body)
{
    return QByteArray(xml_head) + "<ISO11783_TaskData VersionMajor=\"" + QByteArray::number(version) +
           "\" VersionMinor=\"3\" ManagementSoftwareManufacturer=\"T\" ManagementSoftwareVersion=\"1\" DataTransferOrigin=\"1\">\n" + body +
           "</ISO11783_TaskData>\n";
}

} // namespace

class Tst_taskdata_tool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void usage_data();
    void usage();
    void info_data();
    void info();
    void check_corpus_data();
    void check_corpus();
    void check_faults_data();
    void check_faults();
    void convert_data();
    void convert();
    void convert_summary_data();
    void convert_summary();
    void file_name_of_other_width_data();
    void file_name_of_other_width();
    void version_3_data();
    void version_3();
    void generate_data();
    void generate();
    void generate_repeatable();
    void output_targets_data();
    void output_targets();
    void hostile_directories_data();
    void hostile_directories();
    void trace_and_progress_data();
    void trace_and_progress();
};

void Tst_taskdata_tool::initTestCase()
{
    if (!QFileInfo::exists(tool_path()))
        QSKIP("taskdata tool not built (KTD_BUILD_TOOLS=OFF): nothing to run");
}

void Tst_taskdata_tool::usage_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("stdout_has");
    QTest::addColumn<QString>("stderr_has");
    QTest::newRow("--help") << QStringList{"--help"} << 0 << "exit codes" << "";
    QTest::newRow("help") << QStringList{"help"} << 0 << "convert DIR OUTDIR" << "";
    QTest::newRow("help check") << QStringList{"help", "check"} << 0 << "usage: taskdata check" << "";
    QTest::newRow("no command") << QStringList{} << 2 << "" << "usage: taskdata";
    QTest::newRow("unknown command") << QStringList{"frobnicate"} << 2 << "" << "unknown command";
    QTest::newRow("info without dir") << QStringList{"info"} << 2 << "" << "usage: taskdata info";
    QTest::newRow("info unknown option") << QStringList{"info", ".", "--yaml"} << 2 << "" << "--yaml";
    QTest::newRow("check missing dir") << QStringList{"check", "/nonexistent/taskdata"} << 2 << "" << "";
    QTest::newRow("convert version 2") << QStringList{"convert", ".", "/tmp/x", "--format-version", "2"} << 2 << ""
                                       << "3 or 4";
    QTest::newRow("convert one dir") << QStringList{"convert", "."} << 2 << "" << "OUTDIR";
    QTest::newRow("assumed version 5") << QStringList{"info", ".", "--assume-version", "5"} << 2 << ""
                                       << "--assume-version must be 3 or 4";
    QTest::newRow("assumed version without value") << QStringList{"check", ".", "--assume-version"} << 2 << ""
                                                   << "needs a value";
    QTest::newRow("assumed version, no loading") << QStringList{"generate", "/tmp/x", "--assume-version", "4"} << 2
                                                 << "" << "--assume-version";
    QTest::newRow("help lists assumed version") << QStringList{"help", "fields"} << 0 << "--assume-version N" << "";
    QTest::newRow("generate 3 points") << QStringList{"generate", "/tmp/x", "--points", "3"} << 2 << "" << "--points";
    QTest::newRow("generate bad seed") << QStringList{"generate", "/tmp/x", "--seed", "-1"} << 2 << "" << "--seed";
    QTest::newRow("ddi dispatched") << QStringList{"ddi", "1"} << 0 << "DDI 1" << "";
    QTest::newRow("timelog dispatched") << QStringList{"timelog", "--help"} << 0 << "usage: taskdata timelog" << "";
}

void Tst_taskdata_tool::usage()
{
    QFETCH(QStringList, args);
    QFETCH(int, code);
    QFETCH(QString, stdout_has);
    QFETCH(QString, stderr_has);
    const Run_result r = run_tool(args);
    QVERIFY2(r.code == code, qPrintable(QStringLiteral("exit %1\n%2%3").arg(r.code).arg(r.out, r.err)));
    QVERIFY2(r.out.contains(stdout_has), qPrintable(r.out));
    QVERIFY2(r.err.contains(stderr_has), qPrintable(r.err));
}

void Tst_taskdata_tool::info_data()
{
    QTest::addColumn<QString>("dir");
    QTest::addColumn<QString>("version");
    QTest::addColumn<QVariantMap>("counts");  // kinds that must have exactly these counts
    QTest::addColumn<QStringList>("tasks");   // the first tasks, "id status_name"; all of them when TSK is not counted
    QTest::addColumn<QStringList>("used");    // files used (at least)
    QTest::addColumn<QStringList>("unused");  // files unused (exactly)

    QTest::newRow("example") << example_dir() << "4.3"
                             << QVariantMap{{"CTR", 2}, {"FRM", 1}, {"PFD", 1}, {"PNT", 8}, {"DET", 5}, {"DPD", 4},
                                            {"DPT", 8}, {"DVP", 2}, {"WKR", 1}, {"PDT", 1}, {"TSK", 1}, {"TZN", 1},
                                            {"PDV", 1}, {"ISO11783_TaskData", 1}}
                             << QStringList{"TSK1 Planned"} << QStringList{"TASKDATA.XML"} << QStringList{};
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return;
    QTest::newRow("external files") << corpus + "/v4-external-files" << "4.3"
                                    << QVariantMap{{"CTR", 3}, {"FRM", 2}, {"TSK", 3}, {"PNT", 4}, {"DPD", 4}}
                                    << QStringList{"TSK1 Planned", "TSK2 Planned", "TSK3 Planned"}
                                    << QStringList{"TASKDATA.XML", "CTR00001.XML", "FRM00001.XML"} << QStringList{};
    QTest::newRow("mixed case time log") << corpus + "/v4-mixed-case-timelog" << "4.1"
                                         << QVariantMap{{"TLG", 1}, {"TSK", 1}}
                                         << QStringList{"TSK-4 Completed"} << QStringList{"TaskData.xml"}
                                         << QStringList{};
    QTest::newRow("v3 grid") << corpus + "/v3-grid-type2" << "3.3" << QVariantMap{{"GRD", 1}, {"TSK", 1}}
                             << QStringList{"TSK1 Planned"} << QStringList{"TASKDATA.XML", "GRD00001.BIN"}
                             << QStringList{};
    QTest::newRow("unused info.md") << corpus + "/v3-guidance" << "3.3" << QVariantMap{{"TSK", 0}} << QStringList{}
                                    << QStringList{"TASKDATA.XML"} << QStringList{"info.md"};
    QTest::newRow("21 time logs") << corpus + "/v4-timelogs-21" << "4.1" << QVariantMap{{"TLG", 21}, {"TSK", 19}}
                                  << QStringList{"TSK1 Completed", "TSK2 Completed", "TSK3 Completed"} << QStringList{"TASKDATA.XML", "TLG00026.bin", "TLG00026.xml"}
                                  << QStringList{};
}

void Tst_taskdata_tool::info()
{
    QFETCH(QString, dir);
    QFETCH(QString, version);
    QFETCH(QVariantMap, counts);
    QFETCH(QStringList, tasks);
    QFETCH(QStringList, used);
    QFETCH(QStringList, unused);

    int code = -1;
    const QJsonObject o = run_json({"info", dir, "--json"}, &code);
    QCOMPARE(code, 0);
    QCOMPARE(o.value("format_version").toString(), version);
    const QJsonObject c = o.value("counts").toObject();
    for (auto it = counts.constBegin(); it != counts.constEnd(); ++it) {
        // Kinds with no element are left out, not listed as 0.
        if (it.value().toInt() == 0)
            QVERIFY2(!c.contains(it.key()), qPrintable(it.key()));
        else
            QCOMPARE(c.value(it.key()).toInt(), it.value().toInt());
    }
    for (auto it = c.constBegin(); it != c.constEnd(); ++it)
        QVERIFY2(it.value().toInt() > 0 && Catalogue::find(it.key()), qPrintable(it.key()));
    QStringList got;
    for (const QJsonValue& v : o.value("tasks").toArray())
        got << v.toObject().value("id").toString() + ' ' + v.toObject().value("status_name").toString();
    QCOMPARE(got.mid(0, tasks.size()), tasks);
    QCOMPARE(got.size(), counts.contains("TSK") ? counts.value("TSK").toInt() : tasks.size());
    QStringList files_used;
    for (const QJsonValue& v : o.value("files_used").toArray())
        files_used << v.toString();
    for (const QString& f : used)
        QVERIFY2(files_used.contains(f, Qt::CaseInsensitive), qPrintable(f + " not in " + files_used.join(',')));
    QStringList files_unused;
    for (const QJsonValue& v : o.value("files_unused").toArray())
        files_unused << v.toString();
    QCOMPARE(files_unused, unused);

    // The text form says the same.
    const Run_result text = run_tool({"info", dir});
    QCOMPARE(text.code, 0);
    QVERIFY(text.out.contains("format version:      " + version));
    for (const QString& t : tasks)
        QVERIFY2(text.out.contains(t.section(' ', 0, 0)) && text.out.contains(t.section(' ', 1)), qPrintable(text.out));
}

void Tst_taskdata_tool::check_corpus_data()
{
    QTest::addColumn<QString>("dir");
    QTest::addColumn<int>("code");
    QTest::addColumn<QStringList>("expected"); // "code element" pairs that must be reported
    QTest::newRow("example clean") << example_dir() << 0 << QStringList{};
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return;
    QTest::newRow("duplicate ids") << corpus + "/bad-duplicate-ids" << 1
                                   << QStringList{"duplicate_identifier CTP-1", "duplicate_identifier WKR1"};
    QTest::newRow("grid without binary") << corpus + "/bad-grid-without-binary" << 1
                                         << QStringList{"missing_file TSK1/GRD[1]"};
    QTest::newRow("invalid xml") << corpus + "/bad-invalid-xml" << 2 << QStringList{"not_loadable "};
}

void Tst_taskdata_tool::check_corpus()
{
    QFETCH(QString, dir);
    QFETCH(int, code);
    QFETCH(QStringList, expected);
    int got_code = -1;
    const QJsonObject o = run_json({"check", dir, "--json"}, &got_code);
    QVERIFY2(got_code == code, qPrintable(QString::number(got_code) + '\n' + problems_text(o)));
    QStringList got;
    for (const QJsonValue& v : o.value("problems").toArray())
        got << v.toObject().value("code").toString() + ' ' + v.toObject().value("element").toString();
    for (const QString& e : expected)
        QVERIFY2(got.contains(e), qPrintable(e + " not in:\n" + problems_text(o)));
    if (code == 0)
        QVERIFY2(got.isEmpty(), qPrintable(problems_text(o)));

    // The text form: one line per problem, naming the element.
    const Run_result text = run_tool({"check", dir});
    QCOMPARE(text.code, code);
    for (const QString& e : expected)
        QVERIFY2(text.out.contains(e.section(' ', 1)), qPrintable(text.out));
    if (code == 1)
        QCOMPARE(text.out.count('\n'), got.size() + 1 + o.value("changes").toArray().size());
}

// One fault per row, in a directory made here: the rules that are easy to get wrong. Each row
// lists exactly the problems expected as "code element attribute" (empty list: a clean directory).
void Tst_taskdata_tool::check_faults_data()
{
    QTest::addColumn<QByteArray>("xml");
    QTest::addColumn<QVariantMap>("files"); // further files of the directory: name -> size
    QTest::addColumn<QStringList>("expected");

    const QByteArray ctr = "<CTR A=\"CTR1\" B=\"Meyer\"/>\n";
    auto pfd = [](const QByteArray& inner) {
        return "<PFD A=\"PFD1\" C=\"F\" D=\"1\">" + inner + "</PFD>\n";
    };
    QTest::newRow("clean") << document(4, ctr) << QVariantMap{} << QStringList{};
    QTest::newRow("latitude above 90") << document(4, pfd("<PLN A=\"1\"><LSG A=\"1\"><PNT A=\"2\" C=\"90.5\" D=\"8\"/>"
                                                          "</LSG></PLN>"))
                                       << QVariantMap{} << QStringList{"out_of_range PFD1/PLN[1]/LSG[1]/PNT[1] C"};
    QTest::newRow("latitude at 90") << document(4, pfd("<PLN A=\"1\"><LSG A=\"1\"><PNT A=\"2\" C=\"90\" D=\"-180\"/>"
                                                       "</LSG></PLN>"))
                                    << QVariantMap{} << QStringList{};
    // 300 does not fit the byte the value lives in: narrowed before clamping it would read as 44.
    QTest::newRow("byte value 300") << document(4, "<TSK A=\"TSK1\" G=\"1\" H=\"300\"/>\n") << QVariantMap{}
                                    << QStringList{"out_of_range TSK1 H"};
    QTest::newRow("status 5 in version 3") << document(3, "<TSK A=\"TSK1\" G=\"5\"/>\n") << QVariantMap{}
                                           << QStringList{"out_of_range TSK1 G"};
    QTest::newRow("status 5 in version 4") << document(4, "<TSK A=\"TSK1\" G=\"5\"/>\n") << QVariantMap{}
                                           << QStringList{};
    QTest::newRow("negative unsigned") << document(4, "<PFD A=\"PFD1\" C=\"F\" D=\"-1\"/>\n") << QVariantMap{}
                                       << QStringList{"not_a_number PFD1 D"};
    QTest::newRow("not a number") << document(4, "<PFD A=\"PFD1\" C=\"F\" D=\"12ha\"/>\n") << QVariantMap{}
                                  << QStringList{"not_a_number PFD1 D"};
    QTest::newRow("empty number") << document(4, "<PFD A=\"PFD1\" C=\"F\" D=\"\"/>\n") << QVariantMap{}
                                  << QStringList{"not_a_number PFD1 D"};
    QTest::newRow("DDI of 3 digits") << document(4, "<TSK A=\"TSK1\" G=\"1\"><TZN A=\"1\"><PDV A=\"001\" B=\"5\"/>"
                                                    "</TZN></TSK>\n")
                                     << QVariantMap{} << QStringList{"bad_format TSK1/TZN[1]/PDV[1] A"};
    QTest::newRow("designator too long") << document(4, "<CTR A=\"CTR1\" B=\"" + QByteArray(33, 'x') + "\"/>\n")
                                         << QVariantMap{} << QStringList{"too_long CTR1 B"};
    QTest::newRow("designator of 32") << document(4, "<CTR A=\"CTR1\" B=\"" + QByteArray(32, 'x') + "\"/>\n")
                                      << QVariantMap{} << QStringList{};
    QTest::newRow("bad date") << document(4, "<TSK A=\"TSK1\" G=\"1\"><TIM A=\"2024-02-30T10:00:00\" D=\"1\"/></TSK>\n")
                              << QVariantMap{} << QStringList{"invalid_date TSK1/TIM[1] A"};
    QTest::newRow("required missing") << document(4, "<TSK A=\"TSK1\"/>\n") << QVariantMap{}
                                      << QStringList{"missing_attribute TSK1 G"};
    QTest::newRow("v4 attribute in v3") << document(3, "<PDT A=\"PDT1\" B=\"P\" F=\"1\"/>\n") << QVariantMap{}
                                        << QStringList{"newer_attribute PDT1 F"};
    // Reported once: its attributes and children go with it.
    QTest::newRow("v4 element in v3") << document(3, pfd("<GGP A=\"GGP1\"><GPN A=\"GPN1\" C=\"1\"/></GGP>"))
                                      << QVariantMap{} << QStringList{"newer_element PFD1/GGP1 "};
    QTest::newRow("duplicate identifier") << document(4, ctr + ctr) << QVariantMap{}
                                          << QStringList{"duplicate_identifier CTR1 A"};
    QTest::newRow("same number other sign") << document(4, ctr + "<CTR A=\"CTR-1\" B=\"Terminal\"/>\n")
                                            << QVariantMap{} << QStringList{};
    QTest::newRow("identifier of other kind") << document(4, "<CTR A=\"FRM1\" B=\"M\"/>\n") << QVariantMap{}
                                              << QStringList{"malformed_identifier FRM1 A"};
    // The library reads the number whatever the code: FRM1 in a CTR takes CTR1 away from the next.
    QTest::newRow("other kind's code takes the number")
        << document(4, "<CTR A=\"FRM1\" B=\"M\"/>\n" + ctr) << QVariantMap{}
        << QStringList{"malformed_identifier FRM1 A", "duplicate_identifier CTR1 A"};
    QTest::newRow("unresolved reference") << document(4, "<TSK A=\"TSK1\" C=\"CTR9\" G=\"1\"/>\n") << QVariantMap{}
                                          << QStringList{"unresolved_reference TSK1 C"};
    QTest::newRow("forward reference") << document(4, "<FRM A=\"FRM1\" B=\"F\" I=\"CTR1\"/>\n" + ctr)
                                       << QVariantMap{} << QStringList{};
    QTest::newRow("reference to wrong kind")
        << document(4, ctr + "<FRM A=\"FRM1\" B=\"F\"/>\n<TSK A=\"TSK1\" C=\"FRM1\" G=\"1\"/>\n") << QVariantMap{}
        << QStringList{"malformed_reference TSK1 C"};
    QTest::newRow("unknown attribute") << document(4, "<CTR A=\"CTR1\" B=\"M\" Z=\"1\"/>\n") << QVariantMap{}
                                       << QStringList{"unknown_attribute CTR1 Z"};
    QTest::newRow("proprietary attribute") << document(4, "<CTR A=\"CTR1\" B=\"M\" P094_X=\"1\"/>\n")
                                           << QVariantMap{} << QStringList{};
    QTest::newRow("unknown element") << document(4, "<CTR A=\"CTR1\" B=\"M\"><XYZ/></CTR>\n") << QVariantMap{}
                                     << QStringList{"unknown_element CTR1 "};
    const QByteArray grid = "<TSK A=\"TSK1\" G=\"1\"><TZN A=\"1\"><PDV A=\"0001\" B=\"5\"/><PDV A=\"0006\" B=\"5\"/>"
                            "</TZN><GRD A=\"52\" B=\"8\" C=\"0.0001\" D=\"0.0001\" E=\"3\" F=\"2\" G=\"GRD00001\" I=\"2\" "
                            "J=\"1\"/></TSK>\n";
    QTest::newRow("grid type 2 complete") << document(4, grid) << QVariantMap{{"GRD00001.BIN", 48}} << QStringList{};
    QTest::newRow("grid type 2 short") << document(4, grid) << QVariantMap{{"GRD00001.BIN", 44}}
                                       << QStringList{"file_size TSK1/GRD[1] G"};
    QTest::newRow("grid lower-case file") << document(4, grid) << QVariantMap{{"grd00001.bin", 48}} << QStringList{};
    QTest::newRow("grid without file") << document(4, grid) << QVariantMap{}
                                       << QStringList{"missing_file TSK1/GRD[1] G"};
    const QByteArray tlg = "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG00001\" C=\"1\"/></TSK>\n";
    // The header gives records of 7 bytes (time, date, value count); timelog refuses the rest.
    QTest::newRow("time log complete") << document(4, tlg) << QVariantMap{{"TLG00001.BIN", 14}, {"TLG00001.XML", 0}}
                                       << QStringList{};
    QTest::newRow("time log cut mid-record") << document(4, tlg)
                                             << QVariantMap{{"TLG00001.BIN", 10}, {"TLG00001.XML", 0}}
                                             << QStringList{"time_log TSK1/TLG00001 A"};
    QTest::newRow("time log header and binary empty")
        << document(4, tlg) << QVariantMap{{"TLG00001.BIN", 0}, {"TLG00001.XML", -1}}
        << QStringList{"time_log TSK1/TLG00001 A"};
    QTest::newRow("time log header missing") << document(4, tlg) << QVariantMap{{"TLG00001.BIN", 14}}
                                             << QStringList{"missing_file TSK1/TLG00001 A"};
    QTest::newRow("time log length differs")
        << document(4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG00001\" B=\"15\" C=\"1\"/></TSK>\n")
        << QVariantMap{{"TLG00001.BIN", 14}, {"TLG00001.XML", 0}} << QStringList{"file_size TSK1/TLG00001 A"};
    // The files are found under the name given; written, the name becomes TLG00001.
    QTest::newRow("time log name short")
        << document(4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG1\" C=\"1\"/></TSK>\n")
        << QVariantMap{{"TLG1.BIN", 14}, {"TLG1.XML", 0}} << QStringList{"bad_format TSK1/TLG1 A"};
    QTest::newRow("time log files missing")
        << document(4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG0001\" C=\"1\"/></TSK>\n") << QVariantMap{}
        << QStringList{"bad_format TSK1/TLG0001 A", "missing_file TSK1/TLG00001 A", "missing_file TSK1/TLG00001 A"};
    QTest::newRow("point file missing") << document(4, pfd("<PNT A=\"2\" C=\"\" D=\"\" J=\"PNT00001\"/>"))
                                        << QVariantMap{} << QStringList{"missing_file PFD1/PNT[1] J"};
    QTest::newRow("point file of whole records") << document(4, pfd("<PNT A=\"2\" C=\"\" D=\"\" J=\"PNT00001\"/>"))
                                                 << QVariantMap{{"PNT00001.BIN", 48}} << QStringList{};
    QTest::newRow("point file cut") << document(4, pfd("<PNT A=\"2\" C=\"\" D=\"\" J=\"PNT00001\"/>"))
                                    << QVariantMap{{"PNT00001.BIN", 40}} << QStringList{"file_size PFD1/PNT[1] J"};
    QTest::newRow("external file missing") << document(4, "<XFR A=\"CTR00001\" B=\"1\"/>\n") << QVariantMap{}
                                           << QStringList{"missing_file XFR[1] A"};
}

void Tst_taskdata_tool::check_faults()
{
    QFETCH(QByteArray, xml);
    QFETCH(QVariantMap, files);
    QFETCH(QStringList, expected);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(write_file(dir.filePath("TASKDATA.XML"), xml));
    for (auto it = files.constBegin(); it != files.constEnd(); ++it) {
        // Time log headers are read as such: give them a minimal valid one (-1: an empty file).
        const QByteArray data = !it.key().endsWith(".XML") ? QByteArray(it.value().toInt(), '\0')
                                : it.value().toInt() < 0   ? QByteArray()
                                                           : QByteArray(xml_head) + "<TIM A=\"\" D=\"4\"/>\n";
        QVERIFY(write_file(dir.filePath(it.key()), data));
    }
    int code = -1;
    const QJsonObject o = run_json({"check", dir.path(), "--json"}, &code);
    QStringList got;
    for (const QJsonValue& v : o.value("problems").toArray()) {
        const QJsonObject p = v.toObject();
        got << p.value("code").toString() + ' ' + p.value("element").toString() + ' ' + p.value("attribute").toString();
        QVERIFY(!p.value("message").toString().isEmpty());
    }
    got.sort();
    expected.sort();
    QVERIFY2(got == expected, qPrintable("got:\n" + got.join('\n') + "\n--\n" + problems_text(o)));
    QCOMPARE(code, expected.isEmpty() ? 0 : 1);
}

void Tst_taskdata_tool::convert_data()
{
    QTest::addColumn<QString>("dir");
    QTest::newRow("example") << example_dir();
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return;
    for (const QString& set : QDir(corpus).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        if (set != QLatin1String("bad-invalid-xml"))
            QTest::newRow(qPrintable(set)) << corpus + '/' + set;
    }
}

// Written again at its own version, a directory is no worse than before (the corpus round trip
// checks that it is complete and holds the same tree).
void Tst_taskdata_tool::convert()
{
    QFETCH(QString, dir);
    QTemporaryDir out;
    QVERIFY(out.isValid());
    const Run_result r = run_tool({"convert", dir, out.path()});
    QVERIFY2(r.code == 0, qPrintable(r.out + r.err));

    int in_code = -1;
    int out_code = -1;
    const QJsonObject in_check = run_json({"check", dir, "--json"}, &in_code);
    const QJsonObject out_check = run_json({"check", out.path(), "--json"}, &out_code);
    QVERIFY(in_code == 0 || in_code == 1);
    QVERIFY2(out_code == 0 || out_code == 1, qPrintable(problems_text(out_check)));
    const QSet<QString> added = problem_keys(out_check) - problem_keys(in_check);
    QVERIFY2(added.isEmpty(), qPrintable(QStringList(added.values()).join('\n') + "\n--- output:\n" +
                                         problems_text(out_check) + "\n--- input:\n" + problems_text(in_check)));
}

// One kind of change per row: convert ends with one line per kind (count and first place),
// check lists the same, and --strict writes nothing when there is any.
void Tst_taskdata_tool::convert_summary_data()
{
    QTest::addColumn<QByteArray>("xml");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QStringList>("lines");
    const QByteArray ctr = "<CTR A=\"CTR1\" B=\"Meyer\"/>\n";
    QTest::newRow("nothing changes") << document(4, ctr) << QStringList{} << QStringList{};
    QTest::newRow("text cut") << document(4, "<CTR A=\"CTR1\" B=\"" + QByteArray(33, 'x') + "\"/>\n") << QStringList{}
                              << QStringList{"texts cut: 1 (first: TASKDATA.XML:3 CTR1 B)"};
    // A time log without its type is written with the only type there is.
    QTest::newRow("required missing") << document(4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG00001\"/></TSK>\n")
                                      << QStringList{}
                                      << QStringList{"values replaced by defaults or limits: 1 (first: TASKDATA.XML:3 TSK1/TLG00001 C)"};
    QTest::newRow("duplicates") << document(4, ctr + ctr + ctr) << QStringList{}
                                << QStringList{"identifiers rewritten: 2 (first: TASKDATA.XML:4 CTR1 A)"};
    QTest::newRow("version 4 content in version 3")
        << document(4, "<PDT A=\"PDT1\" B=\"P\" F=\"1\"/>\n<PGP A=\"PGP1\" B=\"G\" C=\"2\"/>\n")
        << QStringList{"--format-version", "3"}
        << QStringList{"attributes and elements newer than format version 3, left out: 2 (first: TASKDATA.XML:3 PDT1 F)"};
    QTest::newRow("point type version 3 lacks")
        << document(4, "<PFD A=\"PFD1\" C=\"F\" D=\"1\"><PNT A=\"10\" C=\"1\" D=\"2\"/></PFD>\n")
        << QStringList{"--format-version", "3"}
        << QStringList{"values replaced by defaults or limits: 1 (first: TASKDATA.XML:3 PFD1/PNT[1] A)"};
    QTest::newRow("version 3 claimed, version 4 content")
        << document(3, "<PFD A=\"PFD1\" C=\"F\" D=\"1\"><PNT A=\"10\" C=\"1\" D=\"2\"/></PFD>\n") << QStringList{}
        << QStringList{"format version 3 written as 4, for content of version 4: 1 (first: TASKDATA.XML VersionMajor)"};
    QTest::newRow("unknown attribute kept") << document(4, "<CTR A=\"CTR1\" B=\"M\" Z=\"1\"/>\n") << QStringList{}
                                            << QStringList{};
    QTest::newRow("unknown attribute, plain ISO") << document(4, "<CTR A=\"CTR1\" B=\"M\" Z=\"1\"/>\n")
                                                  << QStringList{"--no-proprietary"}
                                                  << QStringList{"unknown attributes left out: 1 (first: TASKDATA.XML:3 CTR1 Z)"};
}

void Tst_taskdata_tool::convert_summary()
{
    QFETCH(QByteArray, xml);
    QFETCH(QStringList, options);
    QFETCH(QStringList, lines);
    QTemporaryDir dir;
    QVERIFY(write_file(dir.filePath("TASKDATA.XML"), xml));
    for (bool strict : {true, false}) {
        const QString out = dir.filePath(strict ? "strict" : "out");
        const Run_result r = run_tool(QStringList{"convert", dir.path(), out} + options +
                                      (strict ? QStringList{"--strict"} : QStringList{}));
        const bool refused = strict && !lines.isEmpty();
        QVERIFY2(r.code == (refused ? 1 : 0), qPrintable(r.out + r.err));
        QCOMPARE(QFileInfo::exists(out + "/TASKDATA.XML"), !refused);
        QStringList got = (refused ? r.err : r.out).split('\n', Qt::SkipEmptyParts);
        got.removeFirst(); // "wrote ..." or "nothing written (--strict):"
        for (QString& l : got)
            l = l.trimmed();
        got = got.filter(QRegularExpression("^[a-z].*\\(first: "));
        QCOMPARE(got, lines);
    }
    if (options.isEmpty()) {
        const Run_result check = run_tool({"check", dir.path()});
        for (const QString& l : lines)
            QVERIFY2(check.out.contains(l + '\n'), qPrintable(check.out));
    }
}

// A time log named with another width is found under that name, decoded, and written as
// TLG00004 with its files.
void Tst_taskdata_tool::file_name_of_other_width_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("4 digits") << "TLG0004";
    QTest::newRow("1 digit, lower-case files") << "tlg4";
    QTest::newRow("6 digits") << "TLG000004";
}

void Tst_taskdata_tool::file_name_of_other_width()
{
    QFETCH(QString, name);
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        QSKIP("reference corpus not found");
    const QString set = corpus + "/v4-mixed-case-timelog";
    QTemporaryDir dir;
    QByteArray main = read_file(set + "/TaskData.xml");
    QVERIFY(main.contains("A=\"TLG00004\""));
    main.replace("A=\"TLG00004\"", "A=\"" + name.toUpper().toLatin1() + "\"");
    QVERIFY(write_file(dir.filePath("TASKDATA.XML"), main));
    const QByteArray binary = read_file(set + "/TLG00004.bin");
    QVERIFY(write_file(dir.filePath(name + ".bin"), binary));
    QVERIFY(write_file(dir.filePath(name + ".xml"), read_file(set + "/TLG00004.xml")));

    const Run_result decoded = run_tool({"timelog", dir.path()});
    QVERIFY2(decoded.code == 0 && decoded.out.contains("records: 7017"), qPrintable(decoded.out + decoded.err));
    QTemporaryDir out;
    const Run_result converted = run_tool({"convert", dir.path(), out.path()});
    QVERIFY2(converted.code == 0, qPrintable(converted.err));
    QVERIFY2(converted.out.contains("identifiers rewritten: 1"), qPrintable(converted.out));
    QVERIFY(read_file(out.filePath("TASKDATA.XML")).contains("<TLG A=\"TLG00004\""));
    QCOMPARE(read_file(find_ci(out.path(), "TLG00004.BIN")), binary);
    QVERIFY(!find_ci(out.path(), "TLG00004.XML").isEmpty());
    QCOMPARE(QDir(out.path()).entryList(QDir::Files).size(), 3);
    const Run_result again = run_tool({"timelog", out.path()});
    QVERIFY2(again.code == 0 && again.out.contains("records: 7017"), qPrintable(again.out + again.err));
}

void Tst_taskdata_tool::version_3_data()
{
    QTest::addColumn<QString>("dir");
    QTest::addColumn<bool>("validate"); // data of our own: must pass the V3-3 schema
    QTest::newRow("example") << example_dir() << true;
    QTest::newRow("generated") << QString() << true;
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return;
    for (const char* set : {"v4-task-full", "v4-guidance", "v4-binary-points", "v4-terminal-export-linklist",
                            "v4-vector-prescription", "v4-grid-type1"})
        QTest::newRow(set) << corpus + '/' + set << false;
}

void Tst_taskdata_tool::version_3()
{
    QFETCH(QString, dir);
    QFETCH(bool, validate);
    QTemporaryDir generated;
    if (dir.isEmpty()) {
        QCOMPARE(run_tool({"generate", generated.path(), "--fields", "3", "--points", "12", "--tasks", "4"}).code, 0);
        dir = generated.path();
    }
    QTemporaryDir out;
    const Run_result r = run_tool({"convert", dir, out.path(), "--format-version", "3", "--no-proprietary"});
    QVERIFY2(r.code == 0, qPrintable(r.out + r.err));
    const QString main = find_ci(out.path(), "TASKDATA.XML");
    QVERIFY(!main.isEmpty());
    const QByteArray xml = read_file(main);
    QVERIFY2(xml.contains("VersionMajor=\"3\""), xml.left(300).constData());
    QVERIFY2(!xml.contains("VersionMajor=\"4\""), xml.left(300).constData());
    const QStringList newer = newer_than_3(main);
    QVERIFY2(newer.isEmpty(), qPrintable(newer.join('\n')));
    QVERIFY2(!xml.contains(" P"), "proprietary content written with --no-proprietary");

    int code = -1;
    const QJsonObject check = run_json({"check", out.path(), "--json"}, &code);
    QVERIFY2(code == 0 || code == 1, qPrintable(problems_text(check)));
    if (!validate)
        return;
    QVERIFY2(code == 0, qPrintable(problems_text(check)));
    const QString shared = Ktd_test::shared_dir();
    if (shared.isEmpty() || QStandardPaths::findExecutable("xmllint").isEmpty())
        QSKIP("schema validation needs the reference data and xmllint");
    const QString errors = schema_errors(shared + "/isoxml/xsd/ISO11783_TaskFile_V3-3.xsd", main);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
}

void Tst_taskdata_tool::generate_data()
{
    QTest::addColumn<int>("fields");
    QTest::addColumn<int>("points");
    QTest::addColumn<int>("tasks");
    QTest::newRow("smallest") << 1 << 4 << 1;
    QTest::newRow("no fields") << 0 << 4 << 2;
    QTest::newRow("no tasks") << 2 << 5 << 0;
    QTest::newRow("more tasks than fields") << 3 << 40 << 7;
    QTest::newRow("several rows of fields") << 60 << 20 << 10;
}

void Tst_taskdata_tool::generate()
{
    QFETCH(int, fields);
    QFETCH(int, points);
    QFETCH(int, tasks);
    QTemporaryDir out;
    const Run_result r = run_tool({"generate", out.path(), "--fields", QString::number(fields), "--points",
                                   QString::number(points), "--tasks", QString::number(tasks), "--seed", "42"});
    QVERIFY2(r.code == 0, qPrintable(r.out + r.err));

    int code = -1;
    const QJsonObject check = run_json({"check", out.path(), "--json"}, &code);
    QVERIFY2(code == 0, qPrintable(problems_text(check)));

    const QJsonObject info = run_json({"info", out.path(), "--json"});
    const QJsonObject c = info.value("counts").toObject();
    // Exact counts from the options; at least one of each kind the data needs.
    const QList<QPair<const char*, int>> exact{{"PFD", fields}, {"PLN", fields}, {"PNT", fields * points},
                                               {"TSK", tasks},  {"TZN", tasks},  {"PDV", tasks},
                                               {"TIM", tasks},  {"DLT", tasks},  {"DVC", 1}};
    for (const auto& [kind, n] : exact)
        QVERIFY2(c.value(kind).toInt() == n, qPrintable(QString("%1: %2").arg(kind).arg(c.value(kind).toInt())));
    for (const auto& [kind, n] : QList<QPair<const char*, int>>{{"DET", 3}, {"CTR", 2}, {"FRM", 1}, {"PDT", 1}, {"WKR", 1}})
        QVERIFY2(c.value(kind).toInt() >= n, qPrintable(QString("%1: %2").arg(kind).arg(c.value(kind).toInt())));
    QCOMPARE(info.value("format_version").toString().left(2), QStringLiteral("4."));

    const QString main = find_ci(out.path(), "TASKDATA.XML");
    const QByteArray xml = read_file(main);
    QVERIFY2(!xml.contains(" P"), "proprietary content in generated data");
    const QString shared = Ktd_test::shared_dir();
    if (shared.isEmpty() || QStandardPaths::findExecutable("xmllint").isEmpty())
        QSKIP("schema validation needs the reference data and xmllint");
    const QString errors = schema_errors(shared + "/isoxml/xsd/ISO11783_TaskFile_V4-3.xsd", main);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
}

void Tst_taskdata_tool::generate_repeatable()
{
    QTemporaryDir a, b, c;
    const QStringList args{"--fields", "4", "--points", "30", "--tasks", "3"};
    QCOMPARE(run_tool(QStringList{"generate", a.path(), "--seed", "7"} + args).code, 0);
    QCOMPARE(run_tool(QStringList{"generate", b.path(), "--seed", "7"} + args).code, 0);
    QCOMPARE(run_tool(QStringList{"generate", c.path(), "--seed", "8"} + args).code, 0);
    const QStringList files = QDir(a.path()).entryList(QDir::Files, QDir::Name);
    QVERIFY(files.contains("TASKDATA.XML"));
    QCOMPARE(QDir(b.path()).entryList(QDir::Files, QDir::Name), files);
    for (const QString& f : files)
        QVERIFY2(read_file(a.filePath(f)) == read_file(b.filePath(f)), qPrintable(f + " differs for the same seed"));
    QVERIFY(read_file(a.filePath("TASKDATA.XML")) != read_file(c.filePath("TASKDATA.XML")));
}

// A directory with one time log of two records; "%tl" in arguments stands for it, "%tmp" for
// the test's temporary directory.
QStringList with_places(QStringList args, const QString& tmp)
{
    for (QString& a : args)
        a.replace("%tl", tmp + "/tl").replace("%tmp", tmp).replace("%example", example_dir());
    return args;
}

void make_time_log_dir(const QString& dir)
{
    QDir().mkpath(dir);
    QVERIFY(write_file(dir + "/TASKDATA.XML", document(4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG00001\" C=\"1\"/></TSK>\n")));
    QVERIFY(write_file(dir + "/TLG00001.XML", QByteArray(xml_head) + "<TIM A=\"\" D=\"4\"/>\n"));
    QVERIFY(write_file(dir + "/TLG00001.BIN", QByteArray(14, '\0')));
}

void Tst_taskdata_tool::output_targets_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("stdout_file");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("err_part");
    QTest::addColumn<QString>("out_part");
    QTest::newRow("results onto a full device") << QStringList{"info", "%example"} << "/dev/full" << 3
                                                << "cannot write the output" << "";
    QTest::newRow("CSV onto a full device") << QStringList{"timelog", "%tl", "--csv", "/dev/full"} << "" << 2
                                            << "cannot write /dev/full" << "";
    QTest::newRow("CSV onto a character device") << QStringList{"timelog", "%tl", "--csv", "%tmp/device"} << "" << 0
                                                 << "" << "wrote 2 records";
    QTest::newRow("CSV onto a FIFO without reader") << QStringList{"timelog", "%tl", "--csv", "%tmp/fifo"} << "" << 2
                                                    << "cannot write" << "";
    QTest::newRow("CSV onto standard output") << QStringList{"timelog", "%tl", "--csv", "-"} << "" << 0
                                              << "wrote 2 records" << "record,time\n0,";
}

void Tst_taskdata_tool::output_targets()
{
    QFETCH(QStringList, args);
    QFETCH(QString, stdout_file);
    QFETCH(int, code);
    QFETCH(QString, err_part);
    QFETCH(QString, out_part);
    QTemporaryDir tmp;
    make_time_log_dir(tmp.filePath("tl"));
    const QByteArray device = QFile::encodeName(tmp.filePath("device"));
    // A character device of our own (the null device's numbers): a test that went wrong
    // replaces that one, never the machine's.
    if (args.contains("%tmp/device") && ::mknod(device.constData(), S_IFCHR | 0666, makedev(1, 3)) != 0)
        QSKIP("cannot make a device node here (not root, or a nodev file system)");
    QVERIFY(::mkfifo(QFile::encodeName(tmp.filePath("fifo")).constData(), 0666) == 0);
    const Run_result r = run_tool(with_places(args, tmp.path()), 60000, stdout_file);
    QVERIFY2(r.code == code, qPrintable(QString("%1: %2").arg(r.code).arg(r.err)));
    QVERIFY2(r.err.contains(err_part), qPrintable(r.err));
    QVERIFY2(r.out.contains(out_part), qPrintable(r.out));
    struct stat st;
    QVERIFY(::lstat(device.constData(), &st) != 0 || S_ISCHR(st.st_mode));
    QVERIFY(::lstat(QFile::encodeName(tmp.filePath("fifo")).constData(), &st) == 0 && S_ISFIFO(st.st_mode));
    QCOMPARE(QDir(tmp.path()).entryList(QDir::Files | QDir::Hidden).filter(".ktdtmp"), QStringList());
}

void Tst_taskdata_tool::hostile_directories_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("said");        // in standard output or error
    QTest::addColumn<QStringList>("present"); // relative to the temporary directory
    QTest::addColumn<QStringList>("absent");
    QTest::newRow("convert into a directory holding other files")
        << QStringList{"convert", "%tmp/in", "%tmp/other"} << 3 << "would be lost: notes.txt"
        << QStringList{"other/notes.txt", "other/TASKDATA.XML"} << QStringList{"other/GRD00001.BIN"};
    QTest::newRow("convert into an older set replaces all of it")
        << QStringList{"convert", "%tmp/in", "%tmp/older"} << 0 << "wrote" << QStringList{"older/GRD00001.BIN"}
        << QStringList{"older/GRD00009.BIN"};
    QTest::newRow("check reports a linked file") << QStringList{"check", "%tmp/linked"} << 1
                                                 << "GRD00001.BIN is a symbolic link: not followed" << QStringList{}
                                                 << QStringList{};
    QTest::newRow("convert leaves a linked file out")
        << QStringList{"convert", "%tmp/linked", "%tmp/out"} << 0 << "wrote" << QStringList{"out/TASKDATA.XML"}
        << QStringList{"out/GRD00001.BIN"};
    QTest::newRow("convert --follow-symlinks copies it")
        << QStringList{"convert", "--follow-symlinks", "%tmp/linked", "%tmp/out"} << 0 << "1 referenced file(s) copied"
        << QStringList{"out/GRD00001.BIN"} << QStringList{};
    QTest::newRow("info reads the main file given by name")
        << QStringList{"info", "%tmp/in/OTHER.XML"} << 0 << "PFD " << QStringList{} << QStringList{};
}

void Tst_taskdata_tool::hostile_directories()
{
    QFETCH(QStringList, args);
    QFETCH(int, code);
    QFETCH(QString, said);
    QFETCH(QStringList, present);
    QFETCH(QStringList, absent);
    QTemporaryDir tmp;
    const QByteArray grid = "<TSK A=\"TSK1\" G=\"1\"><GRD A=\"52\" B=\"8\" C=\"0.1\" D=\"0.1\" E=\"2\" F=\"2\" G=\"GRD00001\" "
                            "I=\"1\"/></TSK>\n";
    for (const QString d : {"in", "other", "older", "linked"}) {
        QDir().mkpath(tmp.filePath(d));
        QVERIFY(write_file(tmp.filePath(d + "/TASKDATA.XML"), document(4, grid)));
    }
    QVERIFY(write_file(tmp.filePath("in/GRD00001.BIN"), "1234"));
    QVERIFY(write_file(tmp.filePath("in/OTHER.XML"), document(4, "<PFD A=\"PFD1\" C=\"f\" D=\"1\"/>\n")));
    QVERIFY(write_file(tmp.filePath("other/notes.txt"), "mine"));
    QVERIFY(write_file(tmp.filePath("older/GRD00009.BIN"), "stale"));
    QVERIFY(QFile::link(tmp.filePath("in/GRD00001.BIN"), tmp.filePath("linked/GRD00001.BIN")));
    const Run_result r = run_tool(with_places(args, tmp.path()));
    QVERIFY2(r.code == code, qPrintable(QString("%1: %2").arg(r.code).arg(r.err)));
    QVERIFY2((r.out + r.err).contains(said), qPrintable(r.out + r.err));
    for (const QString& f : present)
        QVERIFY2(QFileInfo::exists(tmp.filePath(f)) && !QFileInfo(tmp.filePath(f)).isSymLink(), qPrintable(f));
    for (const QString& f : absent)
        QVERIFY2(!QFileInfo::exists(tmp.filePath(f)), qPrintable(f));
}

void Tst_taskdata_tool::trace_and_progress_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<bool>("terminal");
    QTest::addColumn<QString>("expected"); // on standard error
    QTest::addColumn<QString>("unexpected");
    QTest::newRow("quiet by default") << QStringList{"info", "%example"} << false << "" << "XML_LOAD_NEW";
    QTest::newRow("trace lines with --verbose") << QStringList{"info", "--verbose", "%example"} << false
                                                << "XML_LOAD_NEW" << "";
    QTest::newRow("progress on a terminal")
        << QStringList{"generate", "%tmp/gen", "--fields", "4", "--points", "2000"} << true << "\rgenerate: " << "";
    QTest::newRow("no progress elsewhere")
        << QStringList{"generate", "%tmp/gen", "--fields", "4", "--points", "2000"} << false << "" << "\r";
}

void Tst_taskdata_tool::trace_and_progress()
{
    QFETCH(QStringList, args);
    QFETCH(bool, terminal);
    QFETCH(QString, expected);
    QFETCH(QString, unexpected);
    QTemporaryDir tmp;
    args = with_places(args, tmp.path());
    Run_result r;
    if (terminal) {
        // script(1) gives the tool a terminal and copies what it shows.
        if (QStandardPaths::findExecutable("script").isEmpty())
            QSKIP("script(1) is not installed");
        QStringList quoted{tool_path()};
        for (const QString& a : args)
            quoted << '\'' + a + '\'';
        QProcess p;
        p.start("script", {"-qec", quoted.join(' '), "/dev/null"});
        QVERIFY(p.waitForFinished(120000));
        r.code = p.exitCode();
        r.err = QString::fromUtf8(p.readAllStandardOutput());
    } else {
        r = run_tool(args);
    }
    QCOMPARE(r.code, 0);
    QVERIFY2(r.err.contains(expected), qPrintable(r.err));
    QVERIFY2(unexpected.isEmpty() || !r.err.contains(unexpected), qPrintable(r.err));
}

QTEST_MAIN(Tst_taskdata_tool)
#include "tst_taskdata_tool.moc"
