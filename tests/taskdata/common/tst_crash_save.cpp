// A save killed at any moment leaves a complete main file. The test binary runs itself as a
// child (KTD_CRASH_CHILD_DIR set) that saves a large document into one directory over and over;
// the parent kills it with SIGKILL at random moments and each time loads what is on disk.
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <cstdio>
#include <cstdlib>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;

namespace {

// Fewer under the sanitizers (their runs set these variables, for the child too), whose saves
// are several times slower: the kills still land in every phase of a save.
const int points =
    qEnvironmentVariableIsSet("ASAN_OPTIONS") || qEnvironmentVariableIsSet("TSAN_OPTIONS") ? 2000 : 20000;
const char* const child_variable = "KTD_CRASH_CHILD_DIR";

QSharedPointer<Element_man> build_document()
{
    auto man = Element_man::create();
    auto root = XML_interface::create_document(man, 4);
    for (int i = 0; i < 3; ++i) {
        auto customer = root->customers.create();
        customer->designator.set_string(customer, QString("Customer %1").arg(i));
    }
    auto field = root->partfields.create();
    field->designator.set_string(field, "Field");
    auto polygon = field->polygons.create();
    polygon->type.set_val(polygon, 1);
    auto line = polygon->line_strings.create();
    line->type.set_val(line, 1);
    for (int i = 0; i < points; ++i) {
        // Without defaults: a point of a field boundary needs no identifier of its own.
        auto p = QSharedPointer<Elements::Base::Point>::create(man.toWeakRef());
        line->points.add(p, -1, false);
        p->type.set_val(p, 2);
        p->north.set_val(p, 52.0 + i * 1e-6);
        p->east.set_val(p, 9.0 + i * 1e-6);
    }
    return man;
}

// The child: saves for ever, a little different each time, until it is killed.
[[noreturn]] void save_until_killed(const QString& dir)
{
    auto man = build_document();
    auto field = man->root().staticCast<Task_data>()->partfields.typed_at(0);
    XML_interface xi(dir);
    for (quint64 run = 0;; ++run) {
        field->designator.set_string(field, QString("Field, save %1").arg(run));
        if (!xi.save(man)) {
            fprintf(stderr, "save failed: %s\n", qPrintable(xi.fail_text()));
            std::exit(3);
        }
        if (run == 0) {
            printf("ready\n");
            fflush(stdout);
        }
    }
}

int count_points(Element* e)
{
    int n = e->get_tag() == QLatin1String("PNT") ? 1 : 0;
    for (unsigned l = 0; l < e->_num_element_lists(); ++l)
        for (const auto& c : e->_element_list(l)->elements())
            n += count_points(c.data());
    return n;
}

} // namespace

class Tst_crash_save : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void killed_while_saving();
};

void Tst_crash_save::initTestCase()
{
    const QString dir = qEnvironmentVariable(child_variable);
    if (!dir.isEmpty())
        save_until_killed(dir);
}

void Tst_crash_save::killed_while_saving()
{
    QTemporaryDir tmp;
    QVERIFY(tmp.isValid());
    QElapsedTimer total;
    total.start();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(child_variable, tmp.path());
    const QString main = QDir(tmp.path()).filePath("TASKDATA.XML");
    // The main file's temporary: ".TASKDATA.XML.<random>.ktdtmp".
    auto temporary_exists = [&] {
        return !QDir(tmp.path()).entryList({".TASKDATA.XML.*.ktdtmp"}, QDir::Files | QDir::Hidden).isEmpty();
    };

    int save_ms = 0;
    int kills = 0;
    int interrupted_writes = 0; // kills that left a temporary file behind: mid-write
    while (kills < 50) {
        QProcess child;
        child.setProcessEnvironment(env);
        // The timing line arrives on the diagnostic stream, the child's own "ready" on stdout.
        child.setProcessChannelMode(QProcess::MergedChannels);
        child.start(QCoreApplication::applicationFilePath(), QStringList());
        QVERIFY(child.waitForStarted(10000));
        QByteArray out;
        QElapsedTimer first_save;
        first_save.start();
        while (!out.contains("ready\n")) {
            QVERIFY2(child.state() == QProcess::Running || child.bytesAvailable() > 0,
                     out.constData());
            child.waitForReadyRead(100);
            out += child.readAllStandardOutput();
            // Per child: fifty children under a sanitizer on a busy machine take minutes in all.
            QVERIFY2(first_save.elapsed() < 60000, "the child never finished its first save");
        }
        if (save_ms == 0) {
            const QRegularExpressionMatch m = QRegularExpression("XML_SAVE_OLD (\\d+)ms ok=1").match(QString::fromUtf8(out));
            QVERIFY(m.hasMatch());
            save_ms = qMax(1, m.captured(1).toInt());
        }
        if (kills % 2 == 0) {
            // Anywhere within the next two saves: serialising, writing, syncing or renaming.
            QThread::usleep(QRandomGenerator::global()->bounded(quint32(2 * save_ms * 1000)));
        } else {
            // Once the temporary file is there, at a random moment of writing or syncing it.
            QElapsedTimer wait;
            wait.start();
            while (!temporary_exists() && wait.elapsed() < 4 * save_ms)
                QThread::usleep(100);
            QThread::usleep(QRandomGenerator::global()->bounded(2000u));
        }
        child.kill(); // SIGKILL
        QVERIFY(child.waitForFinished(10000));
        ++kills;
        if (temporary_exists())
            ++interrupted_writes;

        auto man = Element_man::create();
        XML_interface xi(tmp.path());
        bool ok;
        {
            Ktd_test::Capture_fd quiet(1);
            ok = xi.load(man);
        }
        QVERIFY2(ok, qPrintable(QString("after kill %1: %2").arg(kills).arg(xi.fail_text())));
        QCOMPARE(count_points(man->root().data()), points);
        QVERIFY(man->root().staticCast<Task_data>()->partfields.typed_at(0)->designator.get_string().startsWith(
            "Field, save "));
    }
    qInfo("%d kills, %d of them during a write; one save takes about %d ms; %lld ms in all", kills,
          interrupted_writes, save_ms, total.elapsed());
    QVERIFY(kills >= 50);
    QVERIFY2(interrupted_writes > 0, "no kill landed during a write: the test proved nothing");
    QVERIFY(QFileInfo::exists(main));
}

QTEST_MAIN(Tst_crash_save)
#include "tst_crash_save.moc"
