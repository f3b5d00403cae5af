// The `taskdata` tool as users run it: the built executable through QProcess, on the bundled
// example, on the real corpus sets and on small directories written here that each carry one
// fault. What matters is what only the tool does: arguments and exit codes, what check finds and
// how it says so, that convert is no worse than its input and says what it changed, and that
// generate writes valid, repeatable data. The library's own rules are its tests' business.
#include "test_support.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

struct Run_result
{
    int code = -1;
    QString out;
    QString err;
};

QString tool_path() { return qEnvironmentVariable("KTD_BINARY_DIR") + QStringLiteral("/tools/taskdata/taskdata"); }

// `terminal`: run by script(1), which gives the tool a terminal and copies what it shows (both
// streams) to standard output.
Run_result run_tool(QStringList args, const QString& stdout_file = QString(), bool terminal = false)
{
    QProcess p;
    if (!stdout_file.isEmpty())
        p.setStandardOutputFile(stdout_file, QIODevice::Append);
    if (terminal) {
        for (QString& a : args)
            a = '\'' + a + '\'';
        args = QStringList{"-qec", tool_path() + ' ' + args.join(' '), "/dev/null"};
    }
    p.start(terminal ? QStringLiteral("script") : tool_path(), args);
    Run_result r;
    if (!p.waitForFinished(300000)) {
        r.err = QStringLiteral("timed out");
        return r;
    }
    r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

QJsonObject run_json(const QStringList& args, int* code)
{
    const Run_result r = run_tool(args);
    *code = r.code;
    return QJsonDocument::fromJson(r.out.toUtf8()).object();
}

QString example_dir() { return Ktd_test::source_dir() + QStringLiteral("/examples/taskdata"); }

// The problems of a check run as "code element attribute".
QStringList problems(const QJsonObject& check)
{
    QStringList out;
    for (const QJsonValue& v : check.value(QStringLiteral("problems")).toArray()) {
        const QJsonObject p = v.toObject();
        out << p.value("code").toString() + ' ' + p.value("element").toString() + ' ' + p.value("attribute").toString();
    }
    return out;
}

// What failure messages show of a check run.
QString shown(const QJsonObject& check) { return QString::fromUtf8(QJsonDocument(check).toJson()).left(4000); }

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

const char* const xml_head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

QByteArray document(int version, const QByteArray& body)
{
    return QByteArray(xml_head) + "<ISO11783_TaskData VersionMajor=\"" + QByteArray::number(version) +
           "\" VersionMinor=\"3\" ManagementSoftwareManufacturer=\"T\" ManagementSoftwareVersion=\"1\" DataTransferOrigin=\"1\">\n" + body +
           "</ISO11783_TaskData>\n";
}

// A time log header the library reads: one time with four bytes of date.
const QByteArray tlg_header = QByteArray(xml_head) + "<TIM A=\"\" D=\"4\"/>\n";

} // namespace

// `file` validates against the named schema of the reference data (skips without it or xmllint).
#define KTD_VERIFY_SCHEMA(xsd, file)                                                                    \
    do {                                                                                                \
        const QString shared_ = Ktd_test::shared_dir();                                                 \
        if (shared_.isEmpty() || Ktd_test::xmllint().isEmpty())                                         \
            QSKIP("schema validation needs the reference data and xmllint");                            \
        const QString errors_ = Ktd_test::validate(shared_ + "/isoxml/xsd/" + (xsd), file);             \
        QVERIFY2(errors_.isEmpty(), qPrintable(errors_.left(2000)));                                    \
    } while (0)

class Tst_taskdata_tool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void command_lines_data();
    void command_lines();
    void info_data();
    void info();
    void check_data();
    void check();
    void convert_data();
    void convert();
    void convert_summary_data();
    void convert_summary();
    void file_name_of_other_width_data();
    void file_name_of_other_width();
    void generate_data();
    void generate();
    void generate_repeatable();
};

void Tst_taskdata_tool::initTestCase()
{
    if (!QFileInfo::exists(tool_path()))
        QSKIP("taskdata tool not built (KTD_BUILD_TOOLS=OFF): nothing to run");
}

// What a command line does, with the data of a small fixture: "%tl" is a directory with one time
// log of two records, "%tmp/in" one with a grid, "other" the same plus a file of the user's,
// "older" the same plus a stale grid, "linked" one whose grid is a symbolic link; "%tmp/fifo" is a
// FIFO without reader, "%tmp/device" a character device. An argument ">FILE" sends standard output
// there; a first argument "%tty" runs the tool on a terminal. `files`: "+path" must be a file
// there, "-path" must not exist.
void Tst_taskdata_tool::command_lines_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("out_has");
    QTest::addColumn<QString>("err_has");
    QTest::addColumn<QString>("err_lacks");
    QTest::addColumn<QStringList>("files");
    auto row = [](const char* name, const QStringList& args, int code, const char* out_has, const char* err_has,
                  const char* err_lacks = "", const QStringList& files = {}) {
        QTest::newRow(name) << args << code << QString(out_has) << QString(err_has) << QString(err_lacks) << files;
    };
    row("--help", {"--help"}, 0, "exit codes", "");
    row("help check", {"help", "check"}, 0, "usage: taskdata check", "");
    row("no command", {}, 2, "", "usage: taskdata");
    row("unknown command", {"frobnicate"}, 2, "", "unknown command");
    row("info without dir", {"info"}, 2, "", "usage: taskdata info");
    row("info unknown option", {"info", ".", "--yaml"}, 2, "", "--yaml");
    row("check missing dir", {"check", "/nonexistent/taskdata"}, 2, "/nonexistent/taskdata does not exist", "");
    row("convert version 2", {"convert", ".", "%tmp/x", "--format-version", "2"}, 2, "", "3 or 4");
    row("assumed version 5", {"info", ".", "--assume-version", "5"}, 2, "", "--assume-version must be 3 or 4");
    row("assumed version without value", {"check", ".", "--assume-version"}, 2, "", "needs a value");
    row("assumed version, no loading", {"generate", "%tmp/x", "--assume-version", "4"}, 2, "", "--assume-version");
    row("generate 3 points", {"generate", "%tmp/x", "--points", "3"}, 2, "", "--points");
    row("generate bad seed", {"generate", "%tmp/x", "--seed", "-1"}, 2, "", "--seed");
    row("ddi dispatched", {"ddi", "1"}, 0, "DDI 1", "");

    row("results onto a full device", {"info", "%example", ">/dev/full"}, 3, "", "cannot write the output");
    row("CSV onto a full device", {"timelog", "%tl", "--csv", "/dev/full"}, 2, "", "cannot write /dev/full");
    row("CSV onto a character device", {"timelog", "%tl", "--csv", "%tmp/device"}, 0, "wrote 2 records", "");
    row("CSV onto a FIFO without reader", {"timelog", "%tl", "--csv", "%tmp/fifo"}, 2, "", "cannot write");
    row("CSV onto standard output", {"timelog", "%tl", "--csv", "-"}, 0, "record,time\n0,", "wrote 2 records");

    row("convert into a directory holding other files", {"convert", "%tmp/in", "%tmp/other"}, 3, "",
        "would be lost: notes.txt", "", {"+other/notes.txt", "+other/TASKDATA.XML", "-other/GRD00001.BIN"});
    row("convert into an older set replaces all of it", {"convert", "%tmp/in", "%tmp/older"}, 0, "wrote", "", "",
        {"+older/GRD00001.BIN", "-older/GRD00009.BIN"});
    row("check reports a linked file", {"check", "%tmp/linked"}, 1, "GRD00001.BIN is a symbolic link: not followed", "");
    row("convert --follow-symlinks copies it", {"convert", "--follow-symlinks", "%tmp/linked", "%tmp/out"}, 0,
        "1 referenced file(s) copied", "", "", {"+out/GRD00001.BIN"});
    row("info reads the main file given by name", {"info", "%tmp/in/OTHER.XML"}, 0, "PFD ", "");

    row("quiet by default", {"info", "%example"}, 0, "", "", "XML_LOAD_NEW");
    row("trace lines with --verbose", {"info", "--verbose", "%example"}, 0, "", "XML_LOAD_NEW");
    const QStringList generate{"generate", "%tmp/gen", "--fields", "4", "--points", "2000"};
    row("progress on a terminal", QStringList{"%tty"} + generate, 0, "\rgenerate: ", "");
    row("no progress elsewhere", generate, 0, "", "", "\r");
}

void Tst_taskdata_tool::command_lines()
{
    QFETCH(QStringList, args);
    QFETCH(int, code);
    QFETCH(QString, out_has);
    QFETCH(QString, err_has);
    QFETCH(QString, err_lacks);
    QFETCH(QStringList, files);
    QTemporaryDir tmp;
    const QString tl = tmp.filePath("tl");
    QVERIFY(QDir().mkpath(tl));
    const QByteArray tlg = "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG00001\" C=\"1\"/></TSK>\n";
    QVERIFY(write_file(tl + "/TASKDATA.XML", document(4, tlg)));
    QVERIFY(write_file(tl + "/TLG00001.XML", tlg_header));
    QVERIFY(write_file(tl + "/TLG00001.BIN", QByteArray(14, '\0')));
    const QByteArray grid = "<TSK A=\"TSK1\" G=\"1\"><GRD A=\"52\" B=\"8\" C=\"0.1\" D=\"0.1\" E=\"2\" F=\"2\" "
                            "G=\"GRD00001\" I=\"1\"/></TSK>\n";
    for (const QString d : {"in", "other", "older", "linked"})
        QVERIFY(QDir().mkpath(tmp.filePath(d)) && write_file(tmp.filePath(d + "/TASKDATA.XML"), document(4, grid)));
    QVERIFY(write_file(tmp.filePath("in/GRD00001.BIN"), "1234"));
    QVERIFY(write_file(tmp.filePath("in/OTHER.XML"), document(4, "<PFD A=\"PFD1\" C=\"f\" D=\"1\"/>\n")));
    QVERIFY(write_file(tmp.filePath("other/notes.txt"), "mine"));
    QVERIFY(write_file(tmp.filePath("older/GRD00009.BIN"), "stale"));
    QVERIFY(QFile::link(tmp.filePath("in/GRD00001.BIN"), tmp.filePath("linked/GRD00001.BIN")));
    const QByteArray fifo = QFile::encodeName(tmp.filePath("fifo")), device = QFile::encodeName(tmp.filePath("device"));
    QVERIFY(::mkfifo(fifo.constData(), 0666) == 0);
    // A character device of our own (the null device's numbers): a test that went wrong
    // replaces that one, never the machine's.
    if (args.contains("%tmp/device") && ::mknod(device.constData(), S_IFCHR | 0666, makedev(1, 3)) != 0)
        QSKIP("cannot make a device node here (not root, or a nodev file system)");

    QString stdout_file;
    for (QString& a : args) {
        a.replace("%tl", tl).replace("%tmp", tmp.path()).replace("%example", example_dir());
        if (a.startsWith('>'))
            stdout_file = a.mid(1);
    }
    args.removeAll('>' + stdout_file);
    const bool terminal = args.removeAll("%tty") > 0;
    if (terminal && QStandardPaths::findExecutable("script").isEmpty())
        QSKIP("script(1) is not installed");
    const Run_result r = run_tool(args, stdout_file, terminal);
    QVERIFY2(r.code == code, qPrintable(QStringLiteral("exit %1\n%2%3").arg(r.code).arg(r.out, r.err)));
    QVERIFY2(r.out.contains(out_has), qPrintable(r.out));
    QVERIFY2(r.err.contains(err_has), qPrintable(r.err));
    QVERIFY2(err_lacks.isEmpty() || !r.err.contains(err_lacks), qPrintable(r.err));
    for (const QString& f : files) {
        const QFileInfo fi(tmp.filePath(f.mid(1)));
        QVERIFY2(f.startsWith('+') ? fi.exists() && !fi.isSymLink() : !fi.exists(), qPrintable(f));
    }
    // Nothing in the way was replaced, and no temporary file is left.
    struct stat st;
    QVERIFY(::lstat(device.constData(), &st) != 0 || S_ISCHR(st.st_mode));
    QVERIFY(::lstat(fifo.constData(), &st) == 0 && S_ISFIFO(st.st_mode));
    QCOMPARE(QDir(tmp.path()).entryList(QDir::Files | QDir::Hidden).filter(".ktdtmp"), QStringList());
}

void Tst_taskdata_tool::info_data()
{
    QTest::addColumn<QString>("dir");
    QTest::addColumn<QString>("version");
    QTest::addColumn<QVariantMap>("counts");  // kinds that must have exactly these counts
    QTest::addColumn<QStringList>("tasks");   // all tasks, "id status_name"
    QTest::addColumn<QStringList>("unused");  // files unused (exactly)
    QTest::newRow("example") << example_dir() << "4.3"
                             << QVariantMap{{"CTR", 2}, {"FRM", 1}, {"PFD", 1}, {"PNT", 8}, {"DET", 5}, {"DPD", 4},
                                            {"DPT", 8}, {"DVP", 2}, {"WKR", 1}, {"PDT", 1}, {"TSK", 1}, {"TZN", 1},
                                            {"PDV", 1}, {"ISO11783_TaskData", 1}}
                             << QStringList{"TSK1 Planned"} << QStringList{};
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return;
    QTest::newRow("unused info.md") << corpus + "/v3-guidance" << "3.3" << QVariantMap{{"PNT", 11}} << QStringList{}
                                    << QStringList{"info.md"};
}

void Tst_taskdata_tool::info()
{
    QFETCH(QString, dir);
    QFETCH(QString, version);
    QFETCH(QVariantMap, counts);
    QFETCH(QStringList, tasks);
    QFETCH(QStringList, unused);
    int code = -1;
    const QJsonObject o = run_json({"info", dir, "--json"}, &code);
    QCOMPARE(code, 0);
    QCOMPARE(o.value("format_version").toString(), version);
    const QJsonObject c = o.value("counts").toObject();
    for (auto it = counts.constBegin(); it != counts.constEnd(); ++it)
        QCOMPARE(c.value(it.key()).toInt(), it.value().toInt());
    // Kinds with no element are left out, not listed as 0.
    for (auto it = c.constBegin(); it != c.constEnd(); ++it)
        QVERIFY2(it.value().toInt() > 0, qPrintable(it.key()));
    QStringList got;
    for (const QJsonValue& v : o.value("tasks").toArray())
        got << v.toObject().value("id").toString() + ' ' + v.toObject().value("status_name").toString();
    QCOMPARE(got, tasks);
    QCOMPARE(o.value("files_unused").toVariant().toStringList(), unused);

    // The text form says the same.
    const Run_result text = run_tool({"info", dir});
    QCOMPARE(text.code, 0);
    QVERIFY(text.out.contains("format version:      " + version));
    QVERIFY(text.out.contains("files unused: " + (unused.isEmpty() ? QStringLiteral("-") : unused.join(", "))));
    for (const QString& t : tasks)
        QVERIFY2(text.out.contains(t.section(' ', 0, 0)) && text.out.contains(t.section(' ', 1)), qPrintable(text.out));
}

// One fault per row, in a directory made here (or a real set): the rules that are easy to get
// wrong. Each row lists exactly the problems expected as "code element attribute" (empty list:
// a clean directory). `files`: further files of the directory, name -> size (a time log header
// of any size is a valid one).
void Tst_taskdata_tool::check_data()
{
    QTest::addColumn<QString>("set"); // a directory to check instead of `xml`
    QTest::addColumn<QByteArray>("xml");
    QTest::addColumn<QVariantMap>("files");
    QTest::addColumn<QStringList>("expected");
    auto row = [](const char* name, int version, const QByteArray& body, const QStringList& expected,
                  const QVariantMap& files = {}) {
        QTest::newRow(name) << QString() << document(version, body) << files << expected;
    };
    const QByteArray ctr = "<CTR A=\"CTR1\" B=\"Meyer\"/>\n";
    auto pfd = [](const QByteArray& inner) { return "<PFD A=\"PFD1\" C=\"F\" D=\"1\">" + inner + "</PFD>\n"; };
    auto pnt = [&](const QByteArray& c) {
        return pfd("<PLN A=\"1\"><LSG A=\"1\"><PNT A=\"2\" C=\"" + c + "\" D=\"8\"/></LSG></PLN>");
    };
    row("clean", 4, ctr, {});
    row("latitude above 90", 4, pnt("90.5"), {"out_of_range PFD1/PLN[1]/LSG[1]/PNT[1] C"});
    row("latitude at 90", 4, pnt("90"), {});
    // 300 does not fit the byte the value lives in: narrowed before clamping it would read as 44.
    row("byte value 300", 4, "<TSK A=\"TSK1\" G=\"1\" H=\"300\"/>\n", {"out_of_range TSK1 H"});
    row("status 5 in version 3", 3, "<TSK A=\"TSK1\" G=\"5\"/>\n", {"out_of_range TSK1 G"});
    row("status 5 in version 4", 4, "<TSK A=\"TSK1\" G=\"5\"/>\n", {});
    row("negative unsigned", 4, "<PFD A=\"PFD1\" C=\"F\" D=\"-1\"/>\n", {"not_a_number PFD1 D"});
    row("empty number", 4, "<PFD A=\"PFD1\" C=\"F\" D=\"\"/>\n", {"not_a_number PFD1 D"});
    row("DDI of 3 digits", 4, "<TSK A=\"TSK1\" G=\"1\"><TZN A=\"1\"><PDV A=\"001\" B=\"5\"/></TZN></TSK>\n",
        {"bad_format TSK1/TZN[1]/PDV[1] A"});
    row("designator too long", 4, "<CTR A=\"CTR1\" B=\"" + QByteArray(33, 'x') + "\"/>\n", {"too_long CTR1 B"});
    row("designator of 32", 4, "<CTR A=\"CTR1\" B=\"" + QByteArray(32, 'x') + "\"/>\n", {});
    row("bad date", 4, "<TSK A=\"TSK1\" G=\"1\"><TIM A=\"2024-02-30T10:00:00\" D=\"1\"/></TSK>\n",
        {"invalid_date TSK1/TIM[1] A"});
    row("required missing", 4, "<TSK A=\"TSK1\"/>\n", {"missing_attribute TSK1 G"});
    row("v4 attribute in v3", 3, "<PDT A=\"PDT1\" B=\"P\" F=\"1\"/>\n", {"newer_attribute PDT1 F"});
    // Reported once: its attributes and children go with it.
    row("v4 element in v3", 3, pfd("<GGP A=\"GGP1\"><GPN A=\"GPN1\" C=\"1\"/></GGP>"), {"newer_element PFD1/GGP1 "});
    row("duplicate identifier", 4, ctr + ctr, {"duplicate_identifier CTR1 A"});
    row("same number other sign", 4, ctr + "<CTR A=\"CTR-1\" B=\"Terminal\"/>\n", {});
    // The library reads the number whatever the code: FRM1 in a CTR takes CTR1 away from the next.
    row("other kind's code takes the number", 4, "<CTR A=\"FRM1\" B=\"M\"/>\n" + ctr,
        {"malformed_identifier FRM1 A", "duplicate_identifier CTR1 A"});
    row("unresolved reference", 4, "<TSK A=\"TSK1\" C=\"CTR9\" G=\"1\"/>\n", {"unresolved_reference TSK1 C"});
    row("reference to wrong kind", 4, ctr + "<FRM A=\"FRM1\" B=\"F\"/>\n<TSK A=\"TSK1\" C=\"FRM1\" G=\"1\"/>\n",
        {"malformed_reference TSK1 C"});
    row("unknown attribute", 4, "<CTR A=\"CTR1\" B=\"M\" Z=\"1\"/>\n", {"unknown_attribute CTR1 Z"});
    row("proprietary attribute", 4, "<CTR A=\"CTR1\" B=\"M\" P094_X=\"1\"/>\n", {});
    row("unknown element", 4, "<CTR A=\"CTR1\" B=\"M\"><XYZ/></CTR>\n", {"unknown_element CTR1 "});
    // Type 2: 3 x 2 cells of one 32-bit value per process data variable of zone 1.
    const QByteArray grid = "<TSK A=\"TSK1\" G=\"1\"><TZN A=\"1\"><PDV A=\"0001\" B=\"5\"/><PDV A=\"0006\" B=\"5\"/>"
                            "</TZN><GRD A=\"52\" B=\"8\" C=\"0.0001\" D=\"0.0001\" E=\"3\" F=\"2\" G=\"GRD00001\" I=\"2\" "
                            "J=\"1\"/></TSK>\n";
    row("grid type 2 complete", 4, grid, {}, {{"GRD00001.BIN", 48}});
    row("grid type 2 short", 4, grid, {"file_size TSK1/GRD[1] G"}, {{"GRD00001.BIN", 44}});
    row("grid without file", 4, grid, {"missing_file TSK1/GRD[1] G"});
    // The header gives records of 7 bytes (time, date, value count); timelog refuses the rest.
    const QByteArray tlg = "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG00001\" C=\"1\"/></TSK>\n";
    row("time log complete", 4, tlg, {}, {{"TLG00001.BIN", 14}, {"TLG00001.XML", 0}});
    row("time log cut mid-record", 4, tlg, {"time_log TSK1/TLG00001 A"}, {{"TLG00001.BIN", 10}, {"TLG00001.XML", 0}});
    row("time log length differs", 4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG00001\" B=\"15\" C=\"1\"/></TSK>\n",
        {"file_size TSK1/TLG00001 A"}, {{"TLG00001.BIN", 14}, {"TLG00001.XML", 0}});
    // The files are found under the name given; written, the name becomes TLG00001.
    row("time log name short", 4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG1\" C=\"1\"/></TSK>\n", {"bad_format TSK1/TLG1 A"},
        {{"TLG1.BIN", 14}, {"TLG1.XML", 0}});
    row("time log files missing", 4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG0001\" C=\"1\"/></TSK>\n",
        {"bad_format TSK1/TLG0001 A", "missing_file TSK1/TLG00001 A", "missing_file TSK1/TLG00001 A"});
    const QByteArray binary_point = pfd("<PNT A=\"2\" C=\"\" D=\"\" J=\"PNT00001\"/>");
    row("point file of whole records", 4, binary_point, {}, {{"PNT00001.BIN", 48}});
    row("point file cut", 4, binary_point, {"file_size PFD1/PNT[1] J"}, {{"PNT00001.BIN", 40}});
    row("external file missing", 4, "<XFR A=\"CTR00001\" B=\"1\"/>\n", {"missing_file XFR[1] A"});

    QTest::newRow("example") << example_dir() << QByteArray() << QVariantMap{} << QStringList{};
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return;
    QTest::newRow("real duplicate ids") << corpus + "/bad-duplicate-ids" << QByteArray() << QVariantMap{}
                                        << QStringList{"duplicate_identifier CTP-1 A", "duplicate_identifier WKR1 A"};
    QTest::newRow("real invalid xml") << corpus + "/bad-invalid-xml" << QByteArray() << QVariantMap{}
                                      << QStringList{"not_loadable  "};
}

void Tst_taskdata_tool::check()
{
    QFETCH(QString, set);
    QFETCH(QByteArray, xml);
    QFETCH(QVariantMap, files);
    QFETCH(QStringList, expected);
    QTemporaryDir dir;
    if (set.isEmpty()) {
        set = dir.path();
        QVERIFY(write_file(dir.filePath("TASKDATA.XML"), xml));
        for (auto it = files.constBegin(); it != files.constEnd(); ++it)
            QVERIFY(write_file(dir.filePath(it.key()), it.key().endsWith(".XML") ? tlg_header
                                                                                  : QByteArray(it.value().toInt(), '\0')));
    }
    int code = -1;
    const QJsonObject o = run_json({"check", set, "--json"}, &code);
    QStringList got = problems(o);
    got.sort();
    expected.sort();
    QVERIFY2(got == expected, qPrintable(shown(o)));
    for (const QJsonValue& v : o.value("problems").toArray())
        QVERIFY(!v.toObject().value("message").toString().isEmpty());
    const int expected_code = expected.isEmpty() ? 0 : expected.first().startsWith("not_loadable") ? 2 : 1;
    QCOMPARE(code, expected_code);
    if (xml.isEmpty()) {
        // The text form: one line per problem naming the element, a count, and the changes.
        const Run_result text = run_tool({"check", set});
        QCOMPARE(text.code, expected_code);
        for (const QString& e : expected)
            QVERIFY2(code == 2 || text.out.contains(e.section(' ', 1, 1) + ": "), qPrintable(text.out));
        if (expected_code == 1)
            QCOMPARE(text.out.count('\n'), got.size() + 1 + o.value("changes").toArray().size());
    }
}

void Tst_taskdata_tool::convert_data()
{
    QTest::addColumn<QString>("dir");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("xsd"); // data of our own written as version 3: must pass its schema
    QTest::newRow("example") << example_dir() << QStringList{} << QString();
    QTest::newRow("example as version 3") << example_dir() << QStringList{"--format-version", "3", "--no-proprietary"}
                                          << "ISO11783_TaskFile_V3-3.xsd";
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return;
    for (const QString& set : QDir(corpus).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        if (set != QLatin1String("bad-invalid-xml"))
            QTest::newRow(qPrintable(set)) << corpus + '/' + set << QStringList{} << QString();
    }
}

// Written again, a directory is no worse than before: the problems check finds in the output
// (by element and attribute; lines and wording differ) are among those of the input. That the
// output is complete and holds the same tree is the corpus round trip's to check.
void Tst_taskdata_tool::convert()
{
    QFETCH(QString, dir);
    QFETCH(QStringList, options);
    QFETCH(QString, xsd);
    QTemporaryDir out;
    const Run_result r = run_tool(QStringList{"convert", dir, out.path()} + options);
    QVERIFY2(r.code == 0, qPrintable(r.out + r.err));

    int in_code = -1, out_code = -1;
    const QJsonObject in_check = run_json({"check", dir, "--json"}, &in_code);
    const QJsonObject out_check = run_json({"check", out.path(), "--json"}, &out_code);
    QVERIFY(in_code == 0 || in_code == 1);
    QVERIFY2(out_code == 0 || out_code == 1, qPrintable(shown(out_check)));
    QSet<QString> added;
    for (const QString& p : problems(out_check))
        added.insert(p.section(' ', 1));
    for (const QString& p : problems(in_check))
        added.remove(p.section(' ', 1));
    QVERIFY2(added.isEmpty(), qPrintable(QStringList(added.values()).join('\n') + "\n--- output:\n" + shown(out_check)));
    if (!xsd.isEmpty())
        KTD_VERIFY_SCHEMA(xsd, out.filePath("TASKDATA.XML")); // which fixes the version
}

// One kind of change per row: convert ends with one line per kind (count and first place),
// check lists the same, and --strict writes nothing when there is any.
void Tst_taskdata_tool::convert_summary_data()
{
    QTest::addColumn<QByteArray>("xml");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QStringList>("lines");
    auto row = [](const char* name, int version, const QByteArray& body, const QStringList& options,
                  const QString& line) {
        QTest::newRow(name) << document(version, body) << options << (line.isEmpty() ? QStringList{} : QStringList{line});
    };
    const QStringList v3{"--format-version", "3"};
    const QByteArray v4_point = "<PFD A=\"PFD1\" C=\"F\" D=\"1\"><PNT A=\"10\" C=\"1\" D=\"2\"/></PFD>\n";
    row("nothing changes", 4, "<CTR A=\"CTR1\" B=\"Meyer\"/>\n", {}, "");
    row("text cut", 4, "<CTR A=\"CTR1\" B=\"" + QByteArray(33, 'x') + "\"/>\n", {},
        "texts cut: 1 (first: TASKDATA.XML:3 CTR1 B)");
    // A time log without its type is written with the only type there is.
    row("required missing", 4, "<TSK A=\"TSK1\" G=\"1\"><TLG A=\"TLG00001\"/></TSK>\n", {},
        "values replaced by defaults or limits: 1 (first: TASKDATA.XML:3 TSK1/TLG00001 C)");
    row("duplicates", 4, "<CTR A=\"CTR1\" B=\"M\"/>\n<CTR A=\"CTR1\" B=\"M\"/>\n<CTR A=\"CTR1\" B=\"M\"/>\n", {},
        "identifiers rewritten: 2 (first: TASKDATA.XML:4 CTR1 A)");
    row("version 4 content in version 3", 4, "<PDT A=\"PDT1\" B=\"P\" F=\"1\"/>\n<PGP A=\"PGP1\" B=\"G\" C=\"2\"/>\n", v3,
        "attributes and elements newer than format version 3, left out: 2 (first: TASKDATA.XML:3 PDT1 F)");
    row("point type version 3 lacks", 4, v4_point, v3,
        "values replaced by defaults or limits: 1 (first: TASKDATA.XML:3 PFD1/PNT[1] A)");
    row("version 3 claimed, version 4 content", 3, v4_point, {},
        "format version 3 written as 4, for content of version 4: 1 (first: TASKDATA.XML VersionMajor)");
    row("unknown attribute kept", 4, "<CTR A=\"CTR1\" B=\"M\" Z=\"1\"/>\n", {}, "");
    row("unknown attribute, plain ISO", 4, "<CTR A=\"CTR1\" B=\"M\" Z=\"1\"/>\n", {"--no-proprietary"},
        "unknown attributes left out: 1 (first: TASKDATA.XML:3 CTR1 Z)");
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
        QCOMPARE(got.filter(QRegularExpression("^[a-z].*\\(first: ")), lines);
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
    QTest::newRow("1 digit, lower-case files") << "tlg4";
    QTest::newRow("6 digits") << "TLG000004";
}

void Tst_taskdata_tool::file_name_of_other_width()
{
    QFETCH(QString, name);
    KTD_REQUIRE_CORPUS(corpus);
    const QString set = corpus + "/v4-mixed-case-timelog";
    QTemporaryDir dir;
    QByteArray main = read_file(set + "/TaskData.xml");
    QVERIFY(main.contains("A=\"TLG00004\""));
    main.replace("A=\"TLG00004\"", "A=\"" + name.toUpper().toLatin1() + "\"");
    QVERIFY(write_file(dir.filePath("TASKDATA.XML"), main));
    QVERIFY(write_file(dir.filePath(name + ".bin"), read_file(set + "/TLG00004.bin")) &&
            write_file(dir.filePath(name + ".xml"), read_file(set + "/TLG00004.xml")));

    const Run_result decoded = run_tool({"timelog", dir.path()});
    QVERIFY2(decoded.code == 0 && decoded.out.contains("records: 7017"), qPrintable(decoded.out + decoded.err));
    QTemporaryDir out;
    const Run_result converted = run_tool({"convert", dir.path(), out.path()});
    QVERIFY2(converted.code == 0 && converted.out.contains("identifiers rewritten: 1"),
             qPrintable(converted.out + converted.err));
    QVERIFY(read_file(out.filePath("TASKDATA.XML")).contains("<TLG A=\"TLG00004\""));
    QCOMPARE(QDir(out.path()).entryList(QDir::Files).size(), 3); // decoded below under the new name
    const Run_result again = run_tool({"timelog", out.path()});
    QVERIFY2(again.code == 0 && again.out.contains("records: 7017"), qPrintable(again.out + again.err));
}

void Tst_taskdata_tool::generate_data()
{
    QTest::addColumn<int>("fields");
    QTest::addColumn<int>("points");
    QTest::addColumn<int>("tasks");
    QTest::newRow("fewest points, no tasks") << 1 << 4 << 0;
    QTest::newRow("no fields") << 0 << 4 << 2;
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
    QVERIFY2(code == 0, qPrintable(shown(check)));
    const QJsonObject info = run_json({"info", out.path(), "--json"}, &code);
    const QJsonObject c = info.value("counts").toObject();
    // Exact counts from the options.
    const QList<QPair<const char*, int>> exact{{"PFD", fields}, {"PLN", fields}, {"PNT", fields * points},
                                               {"TSK", tasks},  {"TZN", tasks},  {"PDV", tasks},
                                               {"TIM", tasks},  {"DLT", tasks},  {"DVC", 1}};
    for (const auto& [kind, n] : exact)
        QVERIFY2(c.value(kind).toInt() == n, qPrintable(QString("%1: %2").arg(kind).arg(c.value(kind).toInt())));
    // The schema fixes the version and allows no proprietary content.
    KTD_VERIFY_SCHEMA("ISO11783_TaskFile_V4-3.xsd", out.filePath("TASKDATA.XML"));
}

// The same seed gives the same bytes, another seed other data.
void Tst_taskdata_tool::generate_repeatable()
{
    QTemporaryDir tmp;
    auto generated = [&](const QString& name, const QString& seed) {
        const QString dir = tmp.filePath(name);
        QByteArray all; // names and bytes of every file
        if (run_tool({"generate", dir, "--seed", seed, "--fields", "4", "--points", "30", "--tasks", "3"}).code == 0)
            for (const QString& f : QDir(dir).entryList(QDir::Files, QDir::Name))
                all += f.toUtf8() + '\n' + read_file(dir + '/' + f);
        return all;
    };
    const QByteArray a = generated("a", "7");
    QVERIFY(a.contains("TASKDATA.XML\n<?xml"));
    QVERIFY(generated("b", "7") == a);
    QVERIFY(generated("c", "8") != a);
}

QTEST_MAIN(Tst_taskdata_tool)
#include "tst_taskdata_tool.moc"
