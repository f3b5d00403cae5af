// XML_interface on small directories made by the test: how a load fails and what it reports,
// letter case of file names, external and individually saved files, the GUID list, new
// documents, saves that fail or need no write, copies of referenced files, file tracking and
// the life cycle of a run seen from another thread.
#include <taskdata/common/File_lookup.h>
#include <taskdata/common/Task_data_files.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QXmlStreamWriter>
#include <QtTest>

#include <atomic>

using namespace TC::Task_data;
using namespace TC::Task_data::Attributes::Base;
using namespace TC::Task_data::Elements::Base;

using Ktd_test::read_file;
using Ktd_test::task_data;
using Ktd_test::write_files;
using Files = QMap<QString, QByteArray>;
using Man = QSharedPointer<Element_man>;

namespace {

const QByteArray head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
const QByteArray doe = "<CTR A=\"CTR1\" B=\"Doe\"/>\n";

QSharedPointer<Task_data> root_of(const Man& man) { return man->root().dynamicCast<Task_data>(); }

// The designators of the elements of `tag` below and with `e`, in document order.
QStringList designators(Element* e, const QString& tag = "CTR")
{
    QStringList out = e->get_tag() == tag ? QStringList{e->get_designator()} : QStringList();
    for (unsigned l = 0; l < e->_num_element_lists(); ++l)
        for (const auto& c : e->_element_list(l)->elements())
            out += designators(c.data(), tag);
    return out;
}
QStringList designators(const Man& man, const QString& tag = "CTR") { return designators(man->root().data(), tag); }

// A load or save with the library's diagnostic lines captured.
struct Run
{
    bool ok = false;
    QString err;
};

template <class F>
Run run(F&& f)
{
    Run r;
    Ktd_test::Capture_fd out(1), err(2);
    r.ok = f();
    r.err = err.text();
    return r;
}
Run load(XML_interface& xi, const Man& man) { return run([&] { return xi.load(man); }); }
Run save(XML_interface& xi, const Man& man) { return run([&] { return xi.save(man); }); }

// The line and column of a failure text "Error "..." at FILE:LINE:COLUMN:OFFSET" about the file
// `bad_file` of `dir`; 0 and 0 when the text is not of that form.
QPair<int, int> error_place(const XML_interface& xi, const QString& dir, const QString& bad_file)
{
    const QRegularExpression form(QString("^Error \"[^\"]+\" at %1:(\\d+):(\\d+):(\\d+)$")
                                      .arg(QRegularExpression::escape(QDir(dir).filePath(bad_file))));
    const QRegularExpressionMatch m = form.match(xi.fail_text());
    if (!m.hasMatch() || m.captured(3).toInt() <= 0)
        return qMakePair(0, 0);
    return qMakePair(m.captured(1).toInt(), m.captured(2).toInt());
}

bool set_modified(const QString& path, const QDateTime& when)
{
    QFile f(path);
    return f.open(QIODevice::ReadWrite) && f.setFileTime(when, QFileDevice::FileModificationTime);
}

struct Failing_files final : File_interface
{
    bool write(const QString&, const QByteArray&, QString* error) override
    {
        *error = "medium removed";
        return false;
    }
};

} // namespace

class Tst_xml_interface : public QObject
{
    Q_OBJECT

private slots:
    void load_failures_data();
    void load_failures();
    void error_locations_data();
    void error_locations();
    void huge_inputs_data();
    void huge_inputs();
    void main_file_name_data();
    void main_file_name();
    void external_files();
    void individual_files_data();
    void individual_files();
    void guid_list_data();
    void guid_list();
    void new_document_data();
    void new_document();
    void root_header_data();
    void root_header();
    void failed_save_keeps_previous_files_data();
    void failed_save_keeps_previous_files();
    void referenced_files_renamed_data();
    void referenced_files_renamed();
    void optimised_save_data();
    void optimised_save();
    void used_and_unused_files();
    void start_document_into_a_string();
    void attached_file_failure();
    void wait_for_complete_blocks_until_run_ends();
    void cancel();
};

void Tst_xml_interface::load_failures_data()
{
    QTest::addColumn<Files>("files"); // none: no directory
    QTest::addColumn<QString>("expected"); // %1 = the directory
    QTest::addColumn<QString>("diagnostic");
    const QByteArray valid = task_data(doe);
    QTest::newRow("missing directory") << Files() << "Path '%1' does not exist" << "Path '%1' does not exist\n";
    QTest::newRow("no main file") << Files{{"LINKLIST.XML", "<ISO11783LinkList/>"}}
                                  << "Could not find file: TASKDATA.XML in %1" << "Could not find file TASKDATA.XML in %1\n";
    QTest::newRow("empty main file") << Files{{"TASKDATA.XML", ""}} << "Could not find start tag" << "";
    QTest::newRow("other root") << Files{{"TASKDATA.XML", head + "<ISO11783LinkList VersionMajor=\"4\"/>"}}
                                << "Not a valid TASKDATA.XML" << "";
    QTest::newRow("no major version") << Files{{"TASKDATA.XML", head + "<ISO11783_TaskData VersionMinor=\"3\"/>"}}
                                      << "No Version Major tag" << "";
    QTest::newRow("unreadable major version") << Files{{"TASKDATA.XML", task_data("", "four")}} << "Bad Version Major tag" << "";
    QTest::newRow("GUID list of another kind")
        << Files{{"TASKDATA.XML", valid}, {"GUIDLIST.XML", head + "<ISO11783_TaskData VersionMajor=\"4\"/>"}}
        << "Not a valid GUIDLIST.XML" << "";
    QTest::newRow("link list of another kind") << Files{{"TASKDATA.XML", valid}, {"LINKLIST.XML", head + "<ISO11783_GuidList/>"}}
                                               << "Not a valid LINKLIST.XML" << "";
}

void Tst_xml_interface::load_failures()
{
    QFETCH(Files, files);
    QFETCH(QString, expected);
    QFETCH(QString, diagnostic);
    QTemporaryDir tmp;
    const QString dir = QDir(tmp.path()).filePath("set");
    QVERIFY(files.isEmpty() || write_files(dir, files));
    auto man = Element_man::create();
    XML_interface xi(dir + "/");
    const Run r = load(xi, man);
    QVERIFY(!r.ok);
    QVERIFY(!xi.ok());
    auto fill = [&](const QString& text) { return text.contains("%1") ? text.arg(dir) : text; };
    QCOMPARE(xi.fail_text(), fill(expected));
    QVERIFY2(r.err.contains(fill(diagnostic)), qPrintable(r.err));
    QVERIFY2(r.err.contains(QRegularExpression("XML_LOAD_NEW \\d+ms ok=0 file=")), qPrintable(r.err));
}

void Tst_xml_interface::error_locations_data()
{
    QTest::addColumn<Files>("files");
    QTest::addColumn<QString>("bad_file");
    QTest::addColumn<int>("line");
    QTest::addColumn<int>("column");                 // 0: any
    QTest::addColumn<QStringList>("customers_kept"); // read before the fault; empty: not looked at
    const QByteArray xfr = "<XFR A=\"CTR00001\" B=\"1\"/>\n";
    const QByteArray roe = "<CTR A=\"CTR2\" B=\"Roe\"/>\n";
    // What was read before the fault is kept, in whichever file it stands.
    const QByteArray broken = "<CTR A=\"CTR3\" B=\"a<b\"/>\n";
    QTest::newRow("main file, read up to the fault") << Files{{"TASKDATA.XML", task_data(doe + roe + broken)}}
                                                     << "TASKDATA.XML" << 5 << 0 << QStringList{"Doe", "Roe"};
    QTest::newRow("external file, read up to the fault")
        << Files{{"TASKDATA.XML", task_data(doe + xfr)}, {"CTR00001.XML", "<XFC>\n" + roe + broken + "</XFC>\n"}}
        << "CTR00001.XML" << 3 << 0 << QStringList{"Doe", "Roe"};
    QTest::newRow("individual file, read up to the fault")
        << Files{{"TASKDATA.XML", task_data(doe + "<P231_UID_XFR TAG=\"CTR\" ID=\"3\"/>\n")}, {"CTR_3.XML", head + broken}}
        << "CTR_3.XML" << 2 << 0 << QStringList{"Doe"};
    // QXmlStreamReader decodes ahead in blocks and places these at the start of one.
    QTest::newRow("invalid UTF-8 in the main file") << Files{{"TASKDATA.XML", task_data(doe + "<CTR A=\"CTR2\" B=\"R\xFFoe\"/>\n")}}
                                                    << "TASKDATA.XML" << 4 << 19 << QStringList();
    QTest::newRow("cut UTF-8 sequence in an external file")
        << Files{{"TASKDATA.XML", task_data(xfr)}, {"CTR00001.XML", "<XFC>\n<CTR A=\"CTR1\"\n B=\"x\xC3\"/></XFC>\n"}}
        << "CTR00001.XML" << 3 << 6 << QStringList();
    // What follows the root element may be comments and white space, nothing else.
    QTest::newRow("element after the root") << Files{{"TASKDATA.XML", task_data(doe) + "<!-- c -->\n  <CTR/>\n"}}
                                            << "TASKDATA.XML" << 6 << 3 << QStringList();
    QTest::newRow("text after the root") << Files{{"TASKDATA.XML", task_data(doe) + "\njunk"}} << "TASKDATA.XML" << 6
                                         << 1 << QStringList();
    QTest::newRow("element after the root of an external file")
        << Files{{"TASKDATA.XML", task_data(xfr)}, {"CTR00001.XML", "<XFC>" + doe + "</XFC>\n<XFC/>\n"}}
        << "CTR00001.XML" << 3 << 1 << QStringList();
}

void Tst_xml_interface::error_locations()
{
    QFETCH(Files, files);
    QFETCH(QString, bad_file);
    QFETCH(int, line);
    QFETCH(int, column);
    QFETCH(QStringList, customers_kept);
    QTemporaryDir tmp;
    QVERIFY(write_files(tmp.path(), files));
    auto man = Element_man::create();
    XML_interface xi(tmp.path());
    QVERIFY(!load(xi, man).ok);
    // The message names the file, the line, the column and the character offset.
    const QPair<int, int> place = error_place(xi, tmp.path(), bad_file);
    QVERIFY2(place.first == line && place.second > 0 && (column == 0 || place.second == column),
             qPrintable(xi.fail_text()));
    if (customers_kept.isEmpty())
        return;
    QCOMPARE(root_of(man)->mngt_sw_manufacturer.get_string(), QString("Test"));
    QStringList kept = designators(man);
    kept.removeAll(QString()); // the broken element itself may have been begun
    QCOMPARE(kept, customers_kept);
}

void Tst_xml_interface::huge_inputs_data()
{
    // Smaller under the sanitizers, which are slow; a cost quadratic in the count would still
    // not end within the test's timeout.
    const int scale = Ktd_test::sanitized ? 5 : 1;
    QTest::addColumn<int>("attributes");
    QTest::addColumn<int>("depth");
    QTest::newRow("a million attributes on one element") << 1000000 / scale << 0;
    QTest::newRow("100,000 nested elements of another maker") << 0 << 100000 / scale;
}

void Tst_xml_interface::huge_inputs()
{
    QFETCH(int, attributes);
    QFETCH(int, depth);
    QTemporaryDir tmp;
    QByteArray customer = "<CTR A=\"CTR1\" B=\"Doe\"";
    customer.reserve(attributes * 20 + depth * 15 + 100);
    for (int i = 0; i < attributes; ++i)
        customer += " P1_" + QByteArray::number(i) + "=\"" + QByteArray::number(i) + '"';
    customer += '>' + QByteArray("<P1_x>").repeated(depth) + QByteArray("</P1_x>").repeated(depth) + "</CTR>\n";
    const QByteArray input = task_data(customer);
    QVERIFY(write_files(tmp.filePath("in"), {{"TASKDATA.XML", input}}));
    auto man = Element_man::create();
    XML_interface xi(tmp.filePath("in"));
    QVERIFY(load(xi, man).ok);
    const QSharedPointer<Element> c = root_of(man)->customers.at(0);
    QCOMPARE(c->extra_attributes().size(), attributes);
    QCOMPARE(c->foreign_children().size(), depth > 0 ? 1 : 0);
    xi.set_output_dir(tmp.filePath("out"));
    QVERIFY(save(xi, man).ok);
    // Written back whole, and in about the space it took: indentation does not grow with depth.
    const QByteArray output = read_file(tmp.filePath("out/TASKDATA.XML"));
    QVERIFY2(output.size() < input.size() + 4096, qPrintable(QString::number(output.size())));
    QCOMPARE(output.count("<P1_x"), depth);
    QVERIFY(output.contains(" P1_" + QByteArray::number(attributes - 1) + "=\"") || attributes == 0);
}

// The main file is found whatever the letter case of its name; of two, the newer is read. A
// save in place writes the file read, the timing lines count the objects and name that file.
void Tst_xml_interface::main_file_name_data()
{
    QTest::addColumn<QString>("newer");
    QTest::addColumn<QString>("older"); // empty: none
    QTest::addColumn<QString>("diagnostic"); // before the timing line; %1 = the directory
    QTest::addColumn<QString>("warning");
    const QString two = "Too many files found - sending last modified\n";
    const QString chosen = "found 2 entries for TASKDATA.XML in %1: choosing ";
    QTest::newRow("upper case") << "TASKDATA.XML" << "" << "" << "";
    QTest::newRow("mixed case") << "TaskData.xml" << "" << "Only found file TASKDATA.XML using entrylist: %1/TaskData.xml\n" << "";
    QTest::newRow("mixed case newer") << "TaskData.xml" << "TASKDATA.XML" << two << chosen + "TaskData.xml";
    QTest::newRow("upper case newer") << "TASKDATA.XML" << "TaskData.xml" << two << chosen + "TASKDATA.XML";
}

void Tst_xml_interface::main_file_name()
{
    QFETCH(QString, newer);
    QFETCH(QString, older);
    QFETCH(QString, diagnostic);
    QFETCH(QString, warning);
    QTemporaryDir tmp;
    const QString dir = tmp.path();
    QVERIFY(write_files(dir, {{newer, task_data("<CTR A=\"CTR1\" B=\"new\"/>\n")}}));
    if (!older.isEmpty()) {
        QVERIFY(write_files(dir, {{older, task_data("<CTR A=\"CTR1\" B=\"old\"/>\n")}}));
        const QDateTime now = QDateTime::currentDateTimeUtc();
        QVERIFY(set_modified(QDir(dir).filePath(newer), now.addSecs(-60)));
        QVERIFY(set_modified(QDir(dir).filePath(older), now.addSecs(-3600)));
    }
    auto man = Element_man::create();
    XML_interface xi(dir);
    const QString main = QRegularExpression::escape(QDir(dir).filePath(newer));
    const Run loaded = load(xi, man);
    QVERIFY2(loaded.ok && QRegularExpression("^" + QRegularExpression::escape(QString(diagnostic).replace("%1", dir)) +
                                             "XML_LOAD_NEW \\d+ms ok=1 file=" + main + "\n$")
                              .match(loaded.err)
                              .hasMatch(),
             qPrintable(loaded.err));
    QCOMPARE(designators(man), QStringList{"new"});
    QCOMPARE(xi.warnings(), warning.isEmpty() ? QStringList() : QStringList{QString(warning).replace("%1", dir)});
    QVERIFY(xi.used_files().contains(newer));
    // The root and one customer; no twin of another letter case.
    const Run saved = save(xi, man);
    QVERIFY2(QRegularExpression("XML_SAVE_OLD \\d+ms ok=1 objs=2/2 file=" + main + "\n$").match(saved.err).hasMatch(),
             qPrintable(saved.err));
    QVERIFY(xi.is_complete());
    QStringList names{newer, older};
    names.removeAll(QString());
    names.sort();
    QCOMPARE(QDir(dir).entryList(QDir::Files).filter("taskdata", Qt::CaseInsensitive), names);
}

void Tst_xml_interface::external_files()
{
    QTemporaryDir tmp;
    const QString source = QDir(tmp.path()).filePath("in");
    QVERIFY(write_files(source, {{"TASKDATA.XML", task_data("<CTR A=\"CTR9\" B=\"inline\"/>\n<TSK A=\"TSK1\" B=\"job\" C=\"CTR2\"/>\n"
                                                            "<XFR A=\"CTR00001\" B=\"1\"/>\n<XFR A=\"FRM00001\" B=\"1\"/>\n")},
                                 {"ctr00001.xml", "<XFC>\n" + doe + "<CTR A=\"CTR2\" B=\"Roe\"/>\n</XFC>\n"},
                                 {"FRM00001.XML", "<XFC><FRM A=\"FRM1\" B=\"home\"/></XFC>"}}));
    auto man = Element_man::create();
    XML_interface xi(source);
    QVERIFY(load(xi, man).ok);
    auto root = root_of(man);
    QCOMPARE(designators(man), (QStringList{"inline", "Doe", "Roe"}));
    QCOMPARE(designators(man, "FRM"), QStringList{"home"});
    QVERIFY(xi.used_files().contains("ctr00001.xml"));
    // The task's reference reaches a customer of the external file.
    QCOMPARE(root->tasks.typed_at(0)->find_attribute(u"C")->to_string(), QString("CTR2"));
    QCOMPARE(man->pending_link_count(), 0);

    // A second load of the same directory updates the same elements in place.
    const QSharedPointer<Element> first = root->customers.at(1);
    QVERIFY(load(xi, man).ok);
    QCOMPARE(root->customers.count(), 3);
    QCOMPARE(root->customers.at(1), first);

    // Saved elsewhere, external elements go back to their own files, once, under the names they
    // were read under.
    const QString target = QDir(tmp.path()).filePath("out");
    xi.set_output_dir(target);
    QVERIFY(save(xi, man).ok);
    const QByteArray main = read_file(QDir(target).filePath("TASKDATA.XML"));
    QVERIFY(main.contains("CTR9") && !main.contains("\"CTR1\"") && main.contains("<XFR A=\"CTR00001\" B=\"1\"/>"));
    const QByteArray external = read_file(QDir(target).filePath("ctr00001.xml"));
    QVERIFY2(external.contains("<XFC>") && external.contains("\"CTR1\"") && external.contains("\"CTR2\"") &&
                 !external.contains("CTR9"), external.constData());

    // Without its reference an external element is written into the main file, not lost.
    root->external_files.take(0);
    QVERIFY(save(xi, man).ok);
    auto again = Element_man::create();
    XML_interface back(target);
    QVERIFY(load(back, again).ok);
    QCOMPARE(designators(again), (QStringList{"inline", "Doe", "Roe"}));
    QCOMPARE(designators(again, "FRM"), QStringList{"home"});
    QVERIFY(read_file(QDir(target).filePath("TASKDATA.XML")).contains("\"CTR1\""));
}

void Tst_xml_interface::individual_files_data()
{
    QTest::addColumn<QByteArray>("children");
    QTest::addColumn<QString>("tag");
    QTest::addColumn<QStringList>("files");
    // Number 0 is an identifier like any other.
    QTest::newRow("top-level tasks") << QByteArray("<TSK A=\"TSK1\" B=\"one\"/>\n<TSK A=\"TSK0\" B=\"zero\"/>\n"
                                                   "<TSK A=\"TSK2\" B=\"two\"/>\n")
                                     << "TSK" << QStringList{"TSK_1.XML", "TSK_0.XML", "TSK_2.XML"};
    QTest::newRow("device elements") << QByteArray("<DVC A=\"DVC1\" B=\"d\" D=\"A00A800825600000\" F=\"31\" G=\"FF000000006E65\">\n"
                                                   "<DET A=\"DET0\" B=\"zero\" C=\"1\" E=\"0\" F=\"0\"/>\n"
                                                   "<DET A=\"DET1\" B=\"one\" C=\"1\" E=\"1\" F=\"0\"/>\n</DVC>\n")
                                     << "DET" << QStringList{"DET_0.XML", "DET_1.XML"};
    // An element without a number stays in its parent's file, between its referenced siblings.
    QTest::newRow("polygons") << QByteArray("<PFD A=\"PFD1\" C=\"f\" D=\"1\"><PLN A=\"1\" B=\"one\" E=\"PLN1\"/>"
                                            "<PLN A=\"1\" B=\"none\"/><PLN A=\"1\" B=\"two\" E=\"PLN2\"/></PFD>\n")
                              << "PLN" << QStringList{"PLN_1.XML", "PLN_2.XML"};
}

void Tst_xml_interface::individual_files()
{
    QFETCH(QByteArray, children);
    QFETCH(QString, tag);
    QFETCH(QStringList, files);
    QTemporaryDir tmp;
    QVERIFY(write_files(tmp.path(), {{"TASKDATA.XML", task_data(children)}}));
    auto man = Element_man::create();
    XML_interface xi(tmp.path());
    QVERIFY(load(xi, man).ok);
    xi.set_individual_save(tag, true);
    QVERIFY(save(xi, man).ok);
    for (const QString& f : files)
        QVERIFY2(QFileInfo::exists(QDir(tmp.path()).filePath(f)) && xi.used_files().contains(f), qPrintable(f));
    const QByteArray main = read_file(QDir(tmp.path()).filePath("TASKDATA.XML"));
    QCOMPARE(main.count("<P231_UID_XFR TAG=\"" + tag.toLatin1() + "\""), files.size());
    auto again = Element_man::create();
    XML_interface back(tmp.path());
    QVERIFY(load(back, again).ok);
    QCOMPARE(designators(again, tag), designators(man, tag));
}

void Tst_xml_interface::guid_list_data()
{
    QTest::addColumn<bool>("keep_proprietary");
    QTest::newRow("kept") << true;
    QTest::newRow("plain ISO output") << false;
}

void Tst_xml_interface::guid_list()
{
    QFETCH(bool, keep_proprietary);
    QTemporaryDir tmp;
    const QUuid known("{0f3e1c52-9d4b-4d7a-8f7e-1a2b3c4d5e6f}");
    QVERIFY(write_files(tmp.path(), {{"TASKDATA.XML", task_data(doe + "<CTR A=\"CTR-5\" B=\"Roe\"/>\n")},
                                     {"GUIDLIST.XML", head + "<ISO11783_GuidList>\n<GUID ID=\"CTR-5\" GUID=\"" +
                                                          known.toString().toLatin1() + "\"/>\n</ISO11783_GuidList>\n"}}));
    auto man = Element_man::create();
    XML_interface xi(tmp.path(), true, keep_proprietary);
    QVERIFY(load(xi, man).ok);
    QCOMPARE(root_of(man)->customers.at(1)->get_guid(), known);
    const QUuid made = root_of(man)->customers.at(0)->get_guid();
    QVERIFY(!made.isNull());

    const QString target = QDir(tmp.path()).filePath("out");
    xi.set_output_dir(target);
    QVERIFY(save(xi, man).ok);
    const QString list = QDir(target).filePath("GUIDLIST.XML");
    QCOMPARE(QFileInfo::exists(list), keep_proprietary);
    if (!keep_proprietary)
        return;
    QVERIFY(read_file(list).contains("<GUID ID=\"CTR1\" GUID=\"" + made.toString().toLatin1() + "\"/>"));
    auto again = Element_man::create();
    XML_interface back(target);
    QVERIFY(load(back, again).ok);
    QCOMPARE(root_of(again)->customers.at(0)->get_guid(), made);
    QCOMPARE(root_of(again)->customers.at(1)->get_guid(), known);
}

void Tst_xml_interface::new_document_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<QByteArray>("minor"); // the one the catalogue gives the major version
    QTest::newRow("version 4") << 4 << QByteArray("2");
    QTest::newRow("version 3") << 3 << QByteArray("3");
}

void Tst_xml_interface::new_document()
{
    QFETCH(int, version);
    QFETCH(QByteArray, minor);
    QTemporaryDir tmp;
    const QString dir = QDir(tmp.path()).filePath("new/deeper");
    auto man = Element_man::create();
    auto customer = XML_interface::create_document(man, version)->customers.create();
    QVERIFY(customer->designator.set_string(customer, "Doe"));
    XML_interface xi(dir);
    QVERIFY2(save(xi, man).ok, qPrintable(xi.fail_text()));
    const QByteArray main = read_file(QDir(dir).filePath("TASKDATA.XML"));
    QVERIFY(main.startsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"));
    QVERIFY(main.contains("VersionMajor=\"" + QByteArray::number(version) + "\" VersionMinor=\"" + minor + "\""));
    auto again = Element_man::create();
    XML_interface back(dir);
    QVERIFY(load(back, again).ok);
    QCOMPARE(back.format_version(), version);
    QCOMPARE(designators(again), QStringList{"Doe"});
}

void Tst_xml_interface::root_header_data()
{
    QTest::addColumn<QByteArray>("root");  // the root's attributes as read, '>' and its children
                                           // unless they are one customer
    QTest::addColumn<int>("assumed");      // version assumed for a root without VersionMajor
    QTest::addColumn<int>("version");      // version written; 0: the document's own
    QTest::addColumn<bool>("keep");        // proprietary content kept
    QTest::addColumn<QByteArrayList>("written"); // "warning: ..." among the save's warnings
    QTest::addColumn<QByteArrayList>("absent");
    const QByteArray rest = " ManagementSoftwareManufacturer=\"T\" ManagementSoftwareVersion=\"1\" DataTransferOrigin=\"1\"";
    // The document's own minor version stays in its major version; another major version gets
    // its own default.
    for (const char* minor : {"0", "3"})
        QTest::addRow("4.%s kept", minor) << "VersionMajor=\"4\" VersionMinor=\"" + QByteArray(minor) + "\"" + rest << 0
                                          << 0 << true
                                          << QByteArrayList{"VersionMajor=\"4\" VersionMinor=\"" + QByteArray(minor) + "\""}
                                          << QByteArrayList{};
    QTest::newRow("4.1 as 3") << "VersionMajor=\"4\" VersionMinor=\"1\"" + rest << 0 << 3 << true
                              << QByteArrayList{"VersionMajor=\"3\" VersionMinor=\"3\""} << QByteArrayList{};
    QTest::newRow("3.3 as 4") << "VersionMajor=\"3\" VersionMinor=\"3\"" + rest << 0 << 4 << true
                              << QByteArrayList{"VersionMajor=\"4\" VersionMinor=\"2\""} << QByteArrayList{};
    // The schema location comes back byte for byte, with its prefix; without proprietary content
    // only it and its declaration.
    const QByteArray located = "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
                               "VersionMajor=\"4\" VersionMinor=\"3\"" + rest +
                               " xsi:noNamespaceSchemaLocation=\"ISO11783_TaskFile_V4-3.xsd &amp; more\"";
    const QByteArray location = "xsi:noNamespaceSchemaLocation=\"ISO11783_TaskFile_V4-3.xsd &amp; more\"";
    const QByteArray instance = "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"";
    QTest::newRow("schema location kept") << located << 0 << 0 << true
                                          << QByteArrayList{location, instance, "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\""}
                                          << QByteArrayList{" noNamespaceSchemaLocation"};
    QTest::newRow("schema location, plain ISO") << located << 0 << 0 << false << QByteArrayList{location, instance}
                                                << QByteArrayList{"xmlns:xsd", " noNamespaceSchemaLocation"};
    QTest::newRow("no major version, 4 assumed") << "VersionMinor=\"3\"" + rest << 4 << 0 << true
                                                 << QByteArrayList{"VersionMajor=\"4\" VersionMinor=\"3\""}
                                                 << QByteArrayList{};
    QTest::newRow("no major version, 3 assumed") << "VersionMinor=\"3\"" + rest << 3 << 0 << true
                                                 << QByteArrayList{"VersionMajor=\"3\" VersionMinor=\"3\""}
                                                 << QByteArrayList{};
    // A version 3 document stays version 3 unless its content needs 4; asked for explicitly,
    // version 3 is written and the value it lacks replaced by the nearest its schema allows.
    auto v3_point = [&](const char* type) {
        return "VersionMajor=\"3\" VersionMinor=\"3\"" + rest + "><PFD A=\"PFD1\" C=\"f\" D=\"1\"><PLN A=\"1\"><LSG A=\"1\">"
               "<PNT A=\"" + type + "\" C=\"1.5\" D=\"2.5\"/></LSG></PLN></PFD>";
    };
    const QByteArray upgraded = "warning: written as version 4";
    QTest::newRow("version 3 content") << v3_point("2") << 0 << 0 << true
                                       << QByteArrayList{"VersionMajor=\"3\"", "<PNT A=\"2\""} << QByteArrayList{upgraded};
    QTest::newRow("version 4 point type") << v3_point("10") << 0 << 0 << true
                                          << QByteArrayList{"VersionMajor=\"4\"", "<PNT A=\"10\"", upgraded}
                                          << QByteArrayList{};
    QTest::newRow("version 3 asked for") << v3_point("10") << 0 << 3 << true
                                         << QByteArrayList{"VersionMajor=\"3\"", "<PNT A=\"1\""} << QByteArrayList{upgraded};
}

void Tst_xml_interface::root_header()
{
    QFETCH(QByteArray, root);
    QFETCH(int, assumed);
    QFETCH(int, version);
    QFETCH(bool, keep);
    QFETCH(QByteArrayList, written);
    QFETCH(QByteArrayList, absent);
    QTemporaryDir tmp;
    const QString source = QDir(tmp.path()).filePath("in");
    const QByteArray body = root.contains('>') ? root : root + "><CTR A=\"CTR1\" B=\"c\"/>";
    QVERIFY(write_files(source, {{"TASKDATA.XML", head + "<ISO11783_TaskData " + body + "</ISO11783_TaskData>\n"}}));
    auto man = Element_man::create();
    XML_interface in(source);
    in.set_assumed_version(assumed);
    QVERIFY2(load(in, man).ok, qPrintable(in.fail_text()));
    if (assumed)
        QVERIFY(!in.warnings().filter(QDir(source).filePath("TASKDATA.XML") + " has no VersionMajor").isEmpty());
    const QString target = QDir(tmp.path()).filePath("out");
    XML_interface out(target, true, keep);
    if (version)
        out.set_format_version(version);
    QVERIFY(save(out, man).ok);
    const QByteArray main = read_file(QDir(target).filePath("TASKDATA.XML"));
    const auto said = [&](const QByteArray& w) {
        return w.startsWith("warning: ") ? !out.warnings().filter(QString::fromUtf8(w.mid(9))).isEmpty() : main.contains(w);
    };
    for (const QByteArray& w : written)
        QVERIFY2(said(w), main.constData());
    for (const QByteArray& a : absent)
        QVERIFY2(!said(a), main.constData());
}

void Tst_xml_interface::failed_save_keeps_previous_files_data()
{
    QTest::addColumn<QString>("obstacle");
    // The external file is put in place before the main file: its failure stops the save
    // before the main file is touched, and the main file's failure undoes the external one.
    QTest::newRow("external file name taken by a directory") << "external is dir";
    QTest::newRow("main file name taken by a directory") << "main is dir";
    QTest::newRow("output directory is a file") << "output is file";
}

void Tst_xml_interface::failed_save_keeps_previous_files()
{
    QFETCH(QString, obstacle);
    QTemporaryDir tmp;
    const QString dir = QDir(tmp.path()).filePath("set");
    QVERIFY(write_files(dir, {{"TASKDATA.XML", task_data("<CTR A=\"CTR9\" B=\"inline\"/>\n<XFR A=\"CTR00001\" B=\"1\"/>\n")},
                              {"CTR00001.XML", "<XFC>" + doe + "</XFC>"}}));
    auto man = Element_man::create();
    XML_interface xi(dir);
    QVERIFY(load(xi, man).ok && save(xi, man).ok);
    auto root = root_of(man);
    root->customers.typed_at(0)->designator.set_string(root->customers.at(0), "changed");
    root->customers.typed_at(1)->designator.set_string(root->customers.at(1), "changed too");

    // What must survive the failing save untouched: every file that is still a file.
    QStringList kept{QDir(dir).filePath("TASKDATA.XML"), QDir(dir).filePath("CTR00001.XML")};
    const QString blocked = obstacle == "main is dir" ? kept.takeFirst() : kept.takeLast();
    if (obstacle == "output is file") {
        kept = QStringList{QDir(tmp.path()).filePath("plain_file")};
        QVERIFY(write_files(tmp.path(), {{"plain_file", "not a directory"}}));
        xi.set_output_dir(kept.first());
    } else {
        QVERIFY(QFile::remove(blocked));
        QVERIFY(QDir().mkdir(blocked));
    }
    QMap<QString, QByteArray> previous;
    for (const QString& f : kept)
        previous.insert(f, read_file(f));
    const QStringList entries_before = QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    const Run r = save(xi, man);
    QVERIFY(!r.ok && !xi.ok());
    QVERIFY(r.err.contains(" ok=0 objs="));
    for (const QString& f : kept)
        QCOMPARE(read_file(f), previous.value(f));
    // No temporary is left behind.
    QCOMPARE(QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), entries_before);
    QVERIFY(!xi.fail_text().isEmpty());
    if (obstacle != "output is file") {
        QVERIFY2(r.err.contains("Move ") && r.err.contains(" failed\n") && xi.fail_text().startsWith("Move "), qPrintable(r.err));
        QVERIFY(QFileInfo(blocked).isDir());
    }
}

// A referenced file is found under the name its element gives and written under the format's
// name, element and file alike, unless another element uses that name already. (Copies of the
// files themselves are checked on the corpus.)
void Tst_xml_interface::referenced_files_renamed_data()
{
    QTest::addColumn<QByteArray>("children");
    QTest::addColumn<QStringList>("files");   // as they stand in the source directory
    QTest::addColumn<QStringList>("written"); // as they stand in the output
    auto grid = [](const QByteArray& name, const QByteArray& other = QByteArray()) {
        auto one = [](const QByteArray& n) {
            return "<GRD A=\"1\" B=\"2\" C=\"0.1\" D=\"0.1\" E=\"1\" F=\"1\" G=\"" + n + "\" I=\"2\"/>";
        };
        return "<TSK A=\"TSK1\" G=\"1\">" + one(name) + (other.isEmpty() ? QByteArray() : one(other)) + "</TSK>\n";
    };
    QTest::newRow("grid named short") << grid("GRD1") << QStringList{"GRD1.BIN"} << QStringList{"GRD00001.BIN"};
    QTest::newRow("point file in lower case")
        << QByteArray("<PFD A=\"PFD1\" C=\"f\" D=\"1\"><PLN A=\"1\"><LSG A=\"1\"><PNT A=\"2\" C=\"1\" D=\"2\" J=\"pnt3\" "
                      "K=\"9\"/></LSG></PLN></PFD>\n")
        << QStringList{"pnt3.bin"} << QStringList{"PNT00003.BIN"};
    QTest::newRow("name taken") << grid("GRD00001", "grd1") << QStringList{"GRD00001.BIN", "grd1.bin"}
                                << QStringList{"GRD00001.BIN", "grd1.bin"};
}

void Tst_xml_interface::referenced_files_renamed()
{
    QFETCH(QByteArray, children);
    QFETCH(QStringList, files);
    QFETCH(QStringList, written);
    QTemporaryDir tmp;
    const QString source = QDir(tmp.path()).filePath("in"), target = QDir(tmp.path()).filePath("out");
    Files all{{"TASKDATA.XML", task_data(children)}};
    for (int i = 0; i < files.size(); ++i)
        all.insert(files[i], QByteArray("binary\0content ", 15) + QByteArray::number(i));
    QVERIFY(write_files(source, all));
    auto man = Element_man::create();
    XML_interface xi(source);
    QVERIFY(load(xi, man).ok);
    QVERIFY2(xi.warnings().isEmpty(), qPrintable(xi.warnings().join('\n')));
    for (const QString& f : files)
        QVERIFY2(xi.used_files().contains(f), qPrintable(f));
    xi.set_output_dir(target);
    QVERIFY(save(xi, man).ok);
    const QByteArray main = read_file(QDir(target).filePath("TASKDATA.XML"));
    for (int i = 0; i < files.size(); ++i) {
        QCOMPARE(read_file(QDir(target).filePath(written[i])), all.value(files[i]));
        QVERIFY2(main.contains("=\"" + written[i].section('.', 0, 0).toLatin1() + '"'), main.constData());
    }
    QCOMPARE(QDir(target).entryList(QDir::Files).size(), written.size() + 2); // and the main file, the GUID list
}

void Tst_xml_interface::optimised_save_data()
{
    QTest::addColumn<bool>("optimised");
    QTest::addColumn<bool>("changed");
    QTest::addColumn<bool>("rewritten");
    QTest::newRow("plain, unchanged") << false << false << true;
    QTest::newRow("optimised, unchanged") << true << false << false;
    QTest::newRow("optimised, changed") << true << true << true;
}

void Tst_xml_interface::optimised_save()
{
    QFETCH(bool, optimised);
    QFETCH(bool, changed);
    QFETCH(bool, rewritten);
    QTemporaryDir tmp;
    QVERIFY(write_files(tmp.path(), {{"TASKDATA.XML", task_data(doe)}}));
    auto man = Element_man::create();
    XML_interface xi(tmp.path());
    xi.set_optimised_save(optimised);
    QVERIFY(load(xi, man).ok && save(xi, man).ok);
    const QString main = QDir(tmp.path()).filePath("TASKDATA.XML");
    const QDateTime old_time = QDateTime::currentDateTimeUtc().addDays(-2);
    QVERIFY(set_modified(main, old_time));
    if (changed)
        root_of(man)->customers.typed_at(0)->designator.set_string(root_of(man)->customers.at(0), "Roe");
    QVERIFY(save(xi, man).ok);
    QCOMPARE(QFileInfo(main).lastModified().toUTC() != old_time, rewritten);
    QCOMPARE(read_file(main).contains("Roe"), changed);
    QVERIFY(xi.used_files().contains("TASKDATA.XML"));
}

void Tst_xml_interface::used_and_unused_files()
{
    QTemporaryDir tmp;
    QVERIFY(write_files(tmp.path(),
                        {{"TASKDATA.XML", task_data("<TSK A=\"TSK1\" G=\"1\"><GRD A=\"1\" B=\"2\" C=\"0.1\" D=\"0.1\" E=\"1\" F=\"1\" "
                                                    "G=\"GRD00001\" I=\"2\"/></TSK>\n<XFR A=\"CTR00001\" B=\"1\"/>\n")},
                         {"GRD00001.BIN", "1234"},
                         {"GRD00002.BIN", "old grid"},
                         {"CTR00001.XML", "<XFC>" + doe + "</XFC>"},
                         {"LINKLIST.XML", head + "<ISO11783LinkList VersionMajor=\"4\" VersionMinor=\"3\" "
                                                 "ManagementSoftwareManufacturer=\"x\" ManagementSoftwareVersion=\"1\" "
                                                 "DataTransferOrigin=\"1\"/>\n"},
                         {"notes.txt", "stray"}}));
    auto man = Element_man::create();
    XML_interface xi(tmp.path());
    QVERIFY(load(xi, man).ok);
    QVERIFY(man->link_list());
    const QStringList unused{"GRD00002.BIN", "notes.txt"};
    QCOMPARE(xi.track_unused_files(), unused);
    QCOMPARE(xi.unused_files(), unused);

    XML_interface fresh(tmp.path());
    QCOMPARE(fresh.track_used_files(man), (QStringList{"CTR00001.XML", "GRD00001.BIN", "LINKLIST.XML", "TASKDATA.XML"}));
    QCOMPARE(fresh.track_unused_files(), unused);

    XML_interface untracked(tmp.path(), true, true, false, false);
    QVERIFY(load(untracked, man).ok);
    QVERIFY(untracked.used_files().isEmpty());
    QCOMPARE(untracked.track_unused_files(), QStringList());
}

// A writer onto a device declares UTF-8 by itself (every save checks that); one onto a string
// gets the same declaration.
void Tst_xml_interface::start_document_into_a_string()
{
    QString text;
    QXmlStreamWriter w(&text);
    XML_interface().write_start_document(w);
    w.writeEmptyElement("X");
    w.writeEndDocument();
    QVERIFY2(text.startsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"), qPrintable(text));
}

void Tst_xml_interface::attached_file_failure()
{
    QTemporaryDir tmp;
    XML_interface xi(tmp.path());
    Failing_files medium;
    const Run r = run([&] { return xi.write_file(medium, "NOTES001.TXT", "x"); });
    QVERIFY(!r.ok && !xi.ok());
    QVERIFY(r.err.contains(QString("Could not save attached file NOTES001.TXT to %1\n").arg(tmp.path())));
    QVERIFY(xi.fail_text().contains("medium removed"));
    XML_interface good(tmp.path());
    QVERIFY(good.write_file("NOTES001.TXT", "x"));
    QCOMPARE(read_file(QDir(tmp.path()).filePath("NOTES001.TXT")), QByteArray("x"));
    QVERIFY(good.used_files().contains("NOTES001.TXT"));
}

void Tst_xml_interface::wait_for_complete_blocks_until_run_ends()
{
    XML_interface xi(QString(), true, true, true);
    QVERIFY(xi.wait_for_complete(0)); // nothing running
    xi.notify_start_in_use();
    QVERIFY(xi.in_use());
    std::atomic<bool> returned{false};
    std::atomic<bool> result{false};
    QScopedPointer<QThread> waiter(QThread::create([&] {
        result = xi.wait_for_complete();
        returned = true;
    }));
    waiter->start();
    QVERIFY(!xi.wait_for_complete(50));
    QVERIFY(!returned);
    xi.notify_complete(true);
    QVERIFY(waiter->wait(5000));
    QVERIFY(returned && result);
    QVERIFY(!xi.in_use());
    QVERIFY(xi.ok());
    // A run that ends badly fails the interface even when nothing said why.
    xi.notify_start_in_use();
    xi.notify_complete(false);
    QVERIFY(!xi.ok());
}

void Tst_xml_interface::cancel()
{
    QTemporaryDir tmp;
    QVERIFY(write_files(tmp.path(), {{"TASKDATA.XML", task_data(doe)}}));
    auto man = Element_man::create();
    XML_interface xi(tmp.path());
    xi.cancel();
    QVERIFY(!load(xi, man).ok);
    QCOMPARE(xi.fail_text(), QString("Cancelled"));
    QVERIFY(!xi.cancelled()); // the request ended with its run
    QVERIFY(load(xi, man).ok);
    xi.cancel();
    xi.cancel(false);
    QVERIFY(save(xi, man).ok);
}

QTEST_MAIN(Tst_xml_interface)
#include "tst_xml_interface.moc"
