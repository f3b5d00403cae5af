// What a save guarantees, tried the hard way: saves in child processes (this executable run
// again with KTD_SAVE_CHILD set) that hit a full disk (RLIMIT_FSIZE), are killed at random
// moments (50 times per case), or run two at a time into one directory; links planted in and
// around the directories. Every case ends with the old set or the new one, whole, and nothing
// written outside the directories.
#include <taskdata/common/Save_transaction.h>
#include <taskdata/common/Symlink_policy.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <unistd.h>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;
using Ktd_test::read_file;

namespace {

using Snapshot = QMap<QString, QByteArray>;
const char* const child_variable = "KTD_SAVE_CHILD";

// A set of a main file, an external file with `external` customers and a grid of `grid` bytes
// (none of either for 0), `marker` in each of them; `customers` pad the main file.
bool make_set(const QString& dir, const QByteArray& marker, int customers = 1, int external = 1, int grid = 4096)
{
    QByteArray main, xfc;
    if (external)
        main += "<XFR A=\"CTR00001\" B=\"1\"/>\n";
    if (grid)
        main += "<TSK A=\"TSK1\" B=\"" + marker + "\" G=\"1\"><GRD A=\"52\" B=\"8\" C=\"0.1\" D=\"0.1\" E=\"" +
                QByteArray::number(grid) + "\" F=\"1\" G=\"GRD00001\" I=\"1\"/></TSK>\n";
    for (int i = 0; i < customers; ++i)
        main += "<CTR A=\"CTR" + QByteArray::number(100 + i) + "\" B=\"" + marker + "\"/>\n";
    for (int i = 0; i < external; ++i)
        xfc += "<CTR A=\"CTR" + QByteArray::number(1 + i) + "\" B=\"" + marker + "\"/>\n";
    QMap<QString, QByteArray> files{{"TASKDATA.XML", Ktd_test::task_data(main)}};
    if (external)
        files.insert("CTR00001.XML", "<XFC>\n" + xfc + "</XFC>\n");
    if (grid)
        files.insert("GRD00001.BIN", marker.repeated(grid / marker.size() + 1).left(grid));
    return Ktd_test::write_files(dir, files);
}

// The files of a directory by name, without the lock file that saves keep (and without their
// temporaries unless `temporaries`).
Snapshot snapshot(const QString& dir, bool temporaries = true)
{
    Snapshot s;
    for (const QString& name : QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
        if (temporaries ? name != Save_transaction::lock_file_name() : !Save_transaction::is_own_file(name)) {
            const QFileInfo fi(QDir(dir).filePath(name));
            s.insert(name, fi.isSymLink() ? "<link>" : fi.isDir() ? QByteArray("<dir>") : read_file(fi.filePath()));
        }
    return s;
}

// Loads `source`, marks every customer and task as `mark` when given, and saves into `out`.
bool save_set(const QString& source, const QString& out, const QString& mark = QString())
{
    auto man = Element_man::create();
    XML_interface xi(source);
    if (!xi.load(man))
        return false;
    if (!mark.isEmpty())
        for (const char* tag : {"CTR", "TSK"})
            for (const auto& e : man->root()->find_list(QString::fromLatin1(tag))->elements())
                e->find_attribute(u"B")->set_by_xml_value(e, mark);
    xi.set_keep_proprietary(false); // no GUID list: the same tree gives the same bytes
    xi.set_output_dir(out);
    if (!xi.save(man)) {
        fprintf(stderr, "save failed: %s\n", qPrintable(xi.fail_text()));
        return false;
    }
    return true;
}

// Ends the child at once: no exit handlers (the test framework's, a leak checker's) may change
// the exit code the parent reads.
[[noreturn]] void end_child(int code)
{
    fflush(stdout);
    fflush(stderr);
    ::_exit(code);
}

// The child: "limit:BYTES", "loop", "times:N"; sources in KTD_SOURCES and marks for the data in
// KTD_MARKS (':' between them, each list used in turn), the output in KTD_OUT.
[[noreturn]] void child(const QString& mode)
{
    const QStringList sources = qEnvironmentVariable("KTD_SOURCES").split(':');
    const QStringList marks = qEnvironmentVariable("KTD_MARKS").split(':');
    const QString out = qEnvironmentVariable("KTD_OUT");
    if (mode.startsWith("limit:")) {
        // A full disk as a process sees it: writes past the limit fail with EFBIG.
        const rlimit limit{rlim_t(mode.mid(6).toLongLong()), rlim_t(mode.mid(6).toLongLong())};
        std::signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
        end_child(save_set(sources.first(), out, marks.first()) ? 0 : 3);
    }
    const int times = mode == "loop" ? INT_MAX : mode.mid(6).toInt();
    for (int run = 0; run < times; ++run) {
        if (!save_set(sources.at(run % sources.size()), out, marks.at(run % marks.size())))
            end_child(3);
        if (run == 0) {
            printf("ready\n");
            fflush(stdout);
        }
    }
    end_child(0);
}

QProcess* start_child(const QString& mode, const QStringList& sources, const QString& out, const QStringList& marks = {})
{
    auto p = new QProcess;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(child_variable, mode);
    env.insert("KTD_SOURCES", sources.join(':'));
    env.insert("KTD_MARKS", marks.join(':'));
    env.insert("KTD_OUT", out);
    env.insert("KTD_TRACE", "0");
    p->setProcessEnvironment(env);
    p->start(QCoreApplication::applicationFilePath(), QStringList());
    return p;
}

} // namespace

class Tst_save_guarantees : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void full_disk_leaves_old_set_data();
    void full_disk_leaves_old_set();
    void killed_save_leaves_old_or_new_set_data();
    void killed_save_leaves_old_or_new_set();
    void concurrent_saves_end_with_one_set_data();
    void concurrent_saves_end_with_one_set();
    void links_change_nothing_outside_data();
    void links_change_nothing_outside();
};

void Tst_save_guarantees::initTestCase()
{
    const QString mode = qEnvironmentVariable(child_variable);
    if (!mode.isEmpty())
        child(mode);
}

void Tst_save_guarantees::full_disk_leaves_old_set_data()
{
    QTest::addColumn<bool>("in_place");
    QTest::addColumn<int>("customers");
    QTest::addColumn<int>("external");
    QTest::addColumn<int>("grid");
    // Limit 64 KiB; the file named outgrows it. In place it is the last file staged: what was
    // staged before it goes too.
    QTest::newRow("in place: main file") << true << 3000 << 1 << 4096;
    QTest::newRow("into an older set: grid copy") << false << 1 << 1 << 200000;
    QTest::newRow("into an older set: main file") << false << 3000 << 1 << 4096;
}

void Tst_save_guarantees::full_disk_leaves_old_set()
{
    QFETCH(bool, in_place);
    QFETCH(int, customers);
    QFETCH(int, external);
    QFETCH(int, grid);
    QTemporaryDir tmp;
    const QString source = tmp.filePath("source"), out = tmp.filePath("out");
    QVERIFY(make_set(source, "new", customers, external, grid));
    if (in_place)
        QVERIFY(make_set(out, "old", customers, external, grid));
    else
        QVERIFY(make_set(tmp.filePath("old"), "old") && save_set(tmp.filePath("old"), out));
    const Snapshot before = snapshot(out);
    QScopedPointer<QProcess> p(start_child("limit:65536", {in_place ? out : source}, out, {"changed"}));
    QVERIFY(p->waitForFinished(120000));
    QCOMPARE(p->exitCode(), 3); // the save failed ...
    QVERIFY2(p->readAllStandardError().contains("File too large"), "not the limit");
    QCOMPARE(snapshot(out), before); // ... and left every old file, and nothing else
    QCOMPARE(QDir(tmp.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList({"old", "out", "source"}).mid(in_place ? 1 : 0));
}

void Tst_save_guarantees::killed_save_leaves_old_or_new_set_data()
{
    QTest::addColumn<bool>("in_place");
    // Into another directory: staged beside it, exchanged with the old set as a whole.
    QTest::newRow("converts into an older set") << false;
    // In place: a large main file alone, staged beside it and renamed over it.
    QTest::newRow("saves of a main file in place") << true;
}

void Tst_save_guarantees::killed_save_leaves_old_or_new_set()
{
    QFETCH(bool, in_place);
    const int scale = Ktd_test::sanitized ? 8 : 1; // the sanitizers are slow
    QTemporaryDir tmp;
    const QString a = tmp.filePath("a"), b = tmp.filePath("b"), out = tmp.filePath("out");
    if (in_place) {
        QVERIFY(make_set(out, "old", 20000 / scale, 0, 0));
    } else {
        QVERIFY(make_set(a, "set A", 2000 / scale, 2000 / scale, (1 << 20) / scale));
        QVERIFY(make_set(b, "set B", 1000 / scale, 3000 / scale, (1 << 19) / scale));
    }
    const QStringList sources = in_place ? QStringList{out} : QStringList{b, a};
    QVERIFY(save_set(sources.first(), out, "set B"));
    const Snapshot set_b = snapshot(out);
    QVERIFY(save_set(sources.last(), out, "set A"));
    const Snapshot set_a = snapshot(out);
    QVERIFY(set_a.size() == (in_place ? 1 : 3) && set_b.size() == set_a.size() && set_a != set_b);
    // Temporaries of a save (beside the files in place, beside the directory else).
    const auto temporaries = [&] {
        return QDir(in_place ? out : tmp.path()).entryList({".*.ktdtmp"}, QDir::AllEntries | QDir::Hidden).size();
    };

    int during_save = 0;
    for (int kills = 1; kills <= 50; ++kills) {
        // The child saves B and A into `out` in turn, for ever.
        QScopedPointer<QProcess> p(start_child("loop", sources, out, {"set B", "set A"}));
        QVERIFY(p->waitForStarted(10000));
        QByteArray said;
        QElapsedTimer first;
        first.start();
        while (!said.contains("ready\n")) {
            QVERIFY2(p->state() == QProcess::Running, p->readAllStandardError().constData());
            p->waitForReadyRead(50);
            said += p->readAllStandardOutput();
        }
        const qint64 save_ms = qMax<qint64>(2, first.elapsed() / 2);
        if (kills % 2) {
            // Anywhere within the next two saves: loading, writing, syncing or renaming.
            QThread::usleep(QRandomGenerator::global()->bounded(quint32(2 * save_ms * 1000)));
        } else {
            // Once a temporary is there, at a random moment of writing or syncing it.
            QElapsedTimer wait;
            wait.start();
            while (!temporaries() && wait.elapsed() < 4 * save_ms)
                QThread::usleep(100);
            QThread::usleep(QRandomGenerator::global()->bounded(2000u));
        }
        p->kill(); // SIGKILL
        QVERIFY(p->waitForFinished(10000));
        during_save += temporaries() ? 1 : 0;
        const Snapshot now = snapshot(out, false);
        QVERIFY2(now == set_a || now == set_b, qPrintable(QString("after kill %1: %2").arg(kills).arg(QStringList(now.keys()).join(' '))));
    }
    QVERIFY2(during_save > 0, "no kill landed during a save: the test proved nothing");
}

void Tst_save_guarantees::concurrent_saves_end_with_one_set_data()
{
    QTest::addColumn<bool>("in_place");
    QTest::newRow("two converts into one directory") << false;
    QTest::newRow("two saves of one directory in place") << true;
}

void Tst_save_guarantees::concurrent_saves_end_with_one_set()
{
    QFETCH(bool, in_place);
    QTemporaryDir tmp;
    const QString a = tmp.filePath("a"), b = tmp.filePath("b"), out = tmp.filePath("out");
    QVERIFY(make_set(a, "set A", 500, 500) && make_set(b, "set B", 400, 600));
    if (in_place)
        QVERIFY(make_set(out, "set O", 500, 500));
    const int times = 15;
    QScopedPointer<QProcess> first(start_child(QString("times:%1").arg(times), {in_place ? out : a}, out, {"first"}));
    QScopedPointer<QProcess> second(start_child(QString("times:%1").arg(times), {in_place ? out : b}, out, {"second"}));
    for (QProcess* p : {first.data(), second.data()}) {
        QVERIFY(p->waitForFinished(300000));
        QVERIFY2(p->exitCode() == 0, p->readAllStandardError().constData());
    }
    // One save's files, all of them: the mark of one child in every file of the data.
    const Snapshot end = snapshot(out);
    QCOMPARE(QStringList(end.keys()), (QStringList{"CTR00001.XML", "GRD00001.BIN", "TASKDATA.XML"}));
    const bool first_won = end.value("TASKDATA.XML").contains("\"first\"");
    for (const QString name : {"TASKDATA.XML", "CTR00001.XML"}) {
        QVERIFY(end.value(name).count(first_won ? "\"first\"" : "\"second\"") >= 400);
        QCOMPARE(end.value(name).count(first_won ? "\"second\"" : "\"first\""), 0);
    }
}

void Tst_save_guarantees::links_change_nothing_outside_data()
{
    QTest::addColumn<QString>("link");   // a link to the victim, planted in the set before the save
    QTest::addColumn<bool>("in_place");
    QTest::addColumn<bool>("follow");
    QTest::addColumn<bool>("saved");
    QTest::newRow("at the former temporary name") << "out/.TASKDATA.XML.tmp" << true << false << true;
    QTest::newRow("as the external file of a set saved in place") << "out/CTR00001.XML" << true << false << true;
    QTest::newRow("as the lock file") << "out/.taskdata.lock" << true << false << false;
    QTest::newRow("as a file of the older set") << "out/GRD00009.BIN" << false << false << false;
    QTest::newRow("grid of the input") << "source/GRD00001.BIN" << false << false << true;
    QTest::newRow("external file of the input") << "source/CTR00001.XML" << false << false << true;
    QTest::newRow("grid of the input, links allowed") << "source/GRD00001.BIN" << false << true << true;
}

void Tst_save_guarantees::links_change_nothing_outside()
{
    QFETCH(QString, link);
    QFETCH(bool, in_place);
    QFETCH(bool, follow);
    QFETCH(bool, saved);
    QTemporaryDir tmp;
    const QString source = tmp.filePath("source"), out = tmp.filePath("out"), victim = tmp.filePath("victim");
    const QByteArray secret = "<XFC><CTR A=\"CTR7\" B=\"secret\"/></XFC>";
    QVERIFY(Ktd_test::write_files(tmp.path(), {{"victim", secret}}));
    QFile::setPermissions(victim, QFile::ReadOwner | QFile::WriteOwner);
    QVERIFY(make_set(source, "source") && make_set(out, "old"));
    const QString planted = tmp.filePath(link);
    QFile::remove(planted);
    QVERIFY(QFile::link(victim, planted));
    Symlink_policy::set_followed(follow);
    const bool ok = Ktd_test::quietly([&] { return save_set(in_place ? out : source, out, "changed"); });
    Symlink_policy::set_followed(false);
    QCOMPARE(ok, saved);
    QCOMPARE(read_file(victim), secret);
    QVERIFY(QFileInfo(victim).isFile() && !QFileInfo(victim).isSymLink());
    // The secret reaches the output only when links are allowed, and then with its permissions.
    QByteArray everything;
    for (const QByteArray& data : snapshot(out))
        everything += data;
    QCOMPARE(everything.contains("secret"), follow);
    if (follow)
        QCOMPARE(QFileInfo(QDir(out).filePath("GRD00001.BIN")).permissions() &
                     (QFile::ReadGroup | QFile::ReadOther | QFile::WriteGroup | QFile::WriteOther),
                 QFile::Permissions());
}

QTEST_MAIN(Tst_save_guarantees)
#include "tst_save_guarantees.moc"
