// Whole task data directories of the corpus: every set loads through XML_interface (the bad-*
// sets fail or warn with their messages) and goes through `taskdata convert`
// into a complete directory whose tree is the input's, less only what the version rule removes
// (which the convert summary counts), and a second convert gives the same bytes; written without
// proprietary content, every output is as schema-valid as its input or more.
#include <taskdata/common/File_lookup.h>
#include <taskdata/common/Task_data_files.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

#include <cmath>

using namespace TC::Task_data;
using namespace TC::Task_data::Attributes::Base;
using namespace TC::Task_data::Elements::Base;

namespace {

int count_tree(const Element* e)
{
    int n = 1;
    for (unsigned l = 0; l < e->_num_element_lists(); ++l)
        for (const auto& c : const_cast<Element*>(e)->_element_list(l)->elements())
            n += count_tree(c.data());
    return n;
}

bool has_list(const Kind_info* kind, const QString& tag)
{
    for (unsigned i = 0; i < kind->num_lists; ++i)
        if (tag == QLatin1String(kind->list_tags[i]))
            return true;
    return false;
}

// Elements below the reader's current start tag that stand where their parent kind has a list
// of their tag (anything else is no element of the tree: misplaced or proprietary).
int count_children(QXmlStreamReader& r, const Kind_info* kind)
{
    int n = 0;
    while (r.readNextStartElement()) {
        const QString tag = r.name().toString();
        if (has_list(kind, tag))
            n += 1 + count_children(r, Catalogue::find(tag));
        else
            r.skipCurrentElement();
    }
    return n;
}

// The elements of a main file (with its root) or of an external file (without its "XFC" root,
// whose children join the main file's root), read independently of the element layer.
int count_xml_elements(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    QXmlStreamReader r(&f);
    if (!r.readNextStartElement())
        return -1;
    const bool external = r.name() == QLatin1String("XFC");
    const int n = count_children(r, &Task_data::static_kind()) + (external ? 0 : 1);
    return r.hasError() ? -1 : n;
}

QString main_file(const QString& dir) { return File_lookup::find(dir, "TASKDATA.XML", true).path; }

struct Expectation
{
    bool ok;
    QStringList fragments; // in the failure text (failing sets) or among the warnings
};

// What the bad sets must report; every other set loads without failure.
QHash<QString, Expectation> expectations()
{
    return {
        {"bad-invalid-xml", {false, {"Error \"", "TASKDATA.xml:3:84:420"}}},
        {"bad-grid-without-binary", {true, {"Could not find file: GRD00001.BIN in"}}},
        {"bad-duplicate-ids",
         {true,
          {"CTP \"\" has an identifier that is malformed or already taken",
           "WKR \"Worker WKR1 (2)\" has an identifier that is malformed or already taken"}}},
    };
}

QStringList corpus_sets()
{
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return {};
    return QDir(corpus).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

// --- tree comparison ---

QString describe(const Element* e)
{
    QStringList path;
    for (const Element* p = e; p; p = p->parent_element()) {
        const QString id = p->get_id_string();
        path.prepend(id.isEmpty() ? p->get_tag() : id);
    }
    return path.join('/');
}

// Empty when equal, else the first difference.
QString compare_attribute(Element* ea, Attribute* a, Element* eb, Attribute* b, bool guids)
{
    auto ua = dynamic_cast<UniqueID*>(a);
    // An identifier renumbered on reading (a duplicate) reads back valid under its new number.
    const bool refused_id = ua && ua->renumbered();
    if (a->present() != b->present() || (a->valid() != b->valid() && !refused_id) ||
        a->empty_text() != b->empty_text())
        return QString("flags %1/%2").arg(a->flags()).arg(b->flags());
    if (auto fa = dynamic_cast<Float*>(a)) {
        const double x = fa->get_val(), y = static_cast<Float*>(b)->get_val();
        if (std::abs(x - y) > 1e-12 * std::max(1.0, std::abs(x)))
            return QString("value %1 / %2").arg(x, 0, 'g', 17).arg(y, 0, 'g', 17);
        return QString();
    }
    if (auto da = dynamic_cast<Datetime*>(a)) {
        if (da->get_qdt() != static_cast<Datetime*>(b)->get_qdt())
            return QString("instant %1 / %2")
                .arg(da->get_qdt().toString(Qt::ISODateWithMs), static_cast<Datetime*>(b)->get_qdt().toString(Qt::ISODateWithMs));
        return QString();
    }
    if (ua && guids) {
        if (ua->get_guid() != static_cast<UniqueID*>(b)->get_guid())
            return QString("GUID %1 / %2").arg(ua->get_guid().toString(), static_cast<UniqueID*>(b)->get_guid().toString());
    }
    QString ta, tb;
    const bool wa = a->xml_value(ta, ea, 4), wb = b->xml_value(tb, eb, 4);
    if (wa != wb || ta != tb)
        return QString("text \"%1\" / \"%2\"").arg(ta, tb);
    return QString();
}

// Empty when b is a written as `version` and read back, else the first difference. `removed`
// counts what the version rule leaves out: attributes, and elements of lists newer than it.
// `versions_differ`: the root's version attributes are the version's own.
// `guids`: identifiers keep their GUIDs (the input came with a GUID list).
QString compare_trees(Element* a, Element* b, int version, bool versions_differ, bool guids, int& removed)
{
    if (a->get_tag() != b->get_tag())
        return describe(a) + ": tag " + b->get_tag();
    for (unsigned i = 0; i < a->_num_iso_attributes(); ++i) {
        Attribute* x = a->_attribute(i);
        if (x->base_spec().version > version) {
            removed += x->present() ? 1 : 0;
            if (b->_attribute(i)->present())
                return describe(a) + " @" + x->xml_name() + ": written for a version without it";
            continue;
        }
        if (versions_differ && dynamic_cast<Task_data*>(a) &&
            (i == Task_data::idx_ver_major || i == Task_data::idx_ver_minor))
            continue;
        const QString d = compare_attribute(a, x, b, b->_attribute(i), guids);
        if (!d.isEmpty())
            return describe(a) + " @" + x->xml_name() + ": " + d;
    }
    const QVector<Attribute*> xa = a->extra_attributes(), xb = b->extra_attributes();
    if (xa.size() != xb.size())
        return describe(a) + QString(": %1 / %2 extra attributes").arg(xa.size()).arg(xb.size());
    for (Attribute* x : xa) {
        Attribute* y = b->extra_attribute(x->xml_name());
        if (!y)
            return describe(a) + ": extra attribute lost";
        if (x->to_string() != y->to_string())
            return describe(a) + ": extra attribute " + x->to_string() + " / " + y->to_string();
    }
    if (a->extended_parameters() != b->extended_parameters())
        return describe(a) + ": extended parameters differ";
    for (unsigned l = 0; l < a->_num_element_lists(); ++l) {
        Element_list* la = a->_element_list(l);
        Element_list* lb = b->_element_list(l);
        if (la->version() > version) {
            removed += la->count();
            if (lb->count())
                return describe(a) + ": " + la->tag() + " written for a version without it";
            continue;
        }
        if (la->count() != lb->count())
            return describe(a) + QString(": %1 %2 / %3").arg(la->tag()).arg(la->count()).arg(lb->count());
        for (int i = 0; i < la->count(); ++i) {
            const QString d = compare_trees(la->at(i).data(), lb->at(i).data(), version, versions_differ, guids, removed);
            if (!d.isEmpty())
                return d;
        }
    }
    return QString();
}

// --- the tool ---

QString tool_path() { return qEnvironmentVariable("KTD_BINARY_DIR") + "/tools/taskdata/taskdata"; }

struct Converted
{
    int code = -1;
    QString out;
};

Converted convert(const QString& source, const QString& target, const QStringList& options = {})
{
    QProcess p;
    p.start(tool_path(), QStringList{"convert", source, target} + options);
    Converted c;
    if (p.waitForFinished(300000) && p.exitStatus() == QProcess::NormalExit)
        c.code = p.exitCode();
    c.out = QString::fromUtf8(p.readAllStandardOutput());
    return c;
}

// Every file of a directory by name, with its bytes.
QMap<QString, QByteArray> directory_bytes(const QString& dir)
{
    QMap<QString, QByteArray> files;
    for (const QString& name : QDir(dir).entryList(QDir::Files | QDir::Hidden, QDir::Name))
        files.insert(name, Ktd_test::read_file(QDir(dir).filePath(name)));
    return files;
}

// --- schemas ---

// The complaints of xmllint's text without file and line: "Element 'DVC', attribute 'G': ...".
QSet<QString> complaints(const QString& text)
{
    QSet<QString> out;
    for (const QString& line : text.split('\n', Qt::SkipEmptyParts)) {
        const int at = line.indexOf("Schemas validity error : ");
        out.insert(at < 0 ? line.section(' ', 1) : line.mid(at + 25));
    }
    return out;
}

} // namespace

class Tst_corpus_roundtrip : public QObject
{
    Q_OBJECT

private slots:
    void load_and_round_trip_data();
    void load_and_round_trip();
    void schema_valid_output_data();
    void schema_valid_output();
};

void Tst_corpus_roundtrip::load_and_round_trip_data()
{
    QTest::addColumn<QString>("set");
    QTest::addColumn<bool>("expect_ok");
    QTest::addColumn<QStringList>("fragments");
    const auto exp = expectations();
    for (const QString& set : corpus_sets()) {
        const Expectation e = exp.value(set, {true, {}});
        QTest::newRow(qPrintable(set)) << set << e.ok << e.fragments;
    }
}

void Tst_corpus_roundtrip::load_and_round_trip()
{
    KTD_REQUIRE_CORPUS(corpus);
    QFETCH(QString, set);
    QFETCH(bool, expect_ok);
    QFETCH(QStringList, fragments);
    const QString source = QDir(corpus).filePath(set);
    auto first = Element_man::create();
    XML_interface in(source);
    QCOMPARE(Ktd_test::quietly([&] { return in.load(first); }), expect_ok);
    const QString reported = expect_ok ? in.warnings().join('\n') : in.fail_text();
    for (const QString& f : fragments)
        QVERIFY2(reported.contains(f), qPrintable("missing \"" + f + "\" in: " + reported));
    if (!expect_ok)
        return;
    QCOMPARE(in.warnings().filter("Could not open").size(), 0);

    // Every element of the main file and of its external files is in the tree, once.
    int expected = count_xml_elements(main_file(source));
    for (const auto& f : Task_data_files::referenced_files(first->root()))
        if (f.tag == "XFR")
            expected += count_xml_elements(File_lookup::find(source, f.name, true).path);
    QCOMPARE(count_tree(first->root().data()), expected);

    if (!QFileInfo::exists(tool_path()))
        QSKIP("taskdata tool not built (KTD_BUILD_TOOLS=OFF)");
    QTemporaryDir out;
    const QString target = QDir(out.path()).filePath("copy");
    const Converted converted = convert(source, target);
    QVERIFY2(converted.code == 0, qPrintable(converted.out));

    // The same input gives the same bytes.
    const QString again = QDir(out.path()).filePath("again");
    QCOMPARE(convert(source, again).code, 0);
    QVERIFY2(directory_bytes(again) == directory_bytes(target), "a second convert wrote other bytes");

    auto second = Element_man::create();
    XML_interface back(target);
    QVERIFY2(Ktd_test::quietly([&] { return back.load(second); }), qPrintable(back.fail_text()));
    // The same tree, values and links, less what the version rule removes, which the summary
    // counts.
    int removed = 0;
    const int version = back.format_version();
    const bool guids = !File_lookup::find(source, "GUIDLIST.XML", true).path.isEmpty();
    const QString difference = compare_trees(first->root().data(), second->root().data(), version,
                                             version != in.format_version(), guids, removed);
    QVERIFY2(difference.isEmpty(), qPrintable(difference));
    const QRegularExpression newer(QString("newer than format version %1, left out: (\\d+)").arg(version));
    const QRegularExpressionMatch m = newer.match(converted.out);
    QCOMPARE(m.hasMatch() ? m.captured(1).toInt() : 0, removed);
    QCOMPARE(bool(first->link_list()) && version >= 4, bool(second->link_list()));
    if (second->link_list()) {
        const QString d =
            compare_trees(first->link_list().data(), second->link_list().data(), version, false, guids, removed);
        QVERIFY2(d.isEmpty(), qPrintable(d));
    }

    // The output directory is complete: every file an element refers to is there (binary
    // files byte for byte), and it holds nothing that the tree does not use.
    for (const auto& f : Task_data_files::referenced_files(first->root())) {
        const QString original = Task_data_files::find(source, f);
        if (original.isEmpty())
            continue; // missing in the source already (reported while loading)
        const QString copy = File_lookup::find(target, f.name, true).path;
        QVERIFY2(!copy.isEmpty(), qPrintable(f.name + " not in the output directory"));
        if (f.tag == "XFR" || (first->link_list() && f.name.compare("LINKLIST.XML", Qt::CaseInsensitive) == 0))
            continue; // written anew from the tree
        QVERIFY2(Ktd_test::read_file(original) == Ktd_test::read_file(copy), qPrintable(f.name + " differs"));
    }
    QCOMPARE(back.track_unused_files(), QStringList());
    QCOMPARE(back.warnings().filter("Could not find").size(), in.warnings().filter("Could not find").size());
}

void Tst_corpus_roundtrip::schema_valid_output_data()
{
    QTest::addColumn<QString>("set");
    for (const QString& set : corpus_sets())
        if (expectations().value(set, {true, {}}).ok)
            QTest::newRow(qPrintable(set)) << set;
}

// Without proprietary content every output validates against the schema of its version, but for
// complaints its input has too (a device label of the wrong form is the device's, not ours to
// change).
void Tst_corpus_roundtrip::schema_valid_output()
{
    KTD_REQUIRE_CORPUS(corpus);
    KTD_REQUIRE_SHARED(shared);
    QFETCH(QString, set);
    if (Ktd_test::xmllint().isEmpty())
        QSKIP("xmllint not installed (Debian package libxml2-utils)");
    if (!QFileInfo::exists(tool_path()))
        QSKIP("taskdata tool not built (KTD_BUILD_TOOLS=OFF)");
    QTemporaryDir tmp;
    const QString schemas = QDir(tmp.path()).filePath("xsd");
    QVERIFY(Ktd_test::copy_schemas(QDir(shared).filePath("isoxml/xsd"), schemas));
    const QString source = QDir(corpus).filePath(set);
    const QString target = QDir(tmp.path()).filePath("out");
    QCOMPARE(convert(source, target, {"--no-proprietary"}).code, 0);
    QVERIFY(!QFileInfo::exists(QDir(target).filePath("GUIDLIST.XML")));

    auto man = Element_man::create();
    XML_interface out(target);
    QVERIFY(Ktd_test::quietly([&] { return out.load(man); }));
    const bool v4 = out.format_version() >= 4;
    const auto schema = [&](const char* v4_name, const char* v3_name) {
        return QDir(schemas).filePath(v4 ? v4_name : v3_name);
    };
    QVector<QPair<QString, QString>> files{
        {main_file(target), schema("ISO11783_TaskFile_V4-3.xsd", "ISO11783_TaskFile_V3-3.xsd")}};
    for (const auto& f : Task_data_files::referenced_files(man->root()))
        if (f.tag == "XFR")
            files.append({File_lookup::find(target, f.name, true).path,
                          schema("ISO11783_ExternalFile_V4-3.xsd", "ISO11783_ExternalFile_V3-0.xsd")});
    if (man->link_list())
        files.append({File_lookup::find(target, "LINKLIST.XML", true).path,
                      QDir(schemas).filePath("ISO11783_LinkListFile_V4-3.xsd")});
    for (const auto& f : files) {
        const QString original = File_lookup::find(source, QFileInfo(f.first).fileName(), true).path;
        const QSet<QString> allowed = complaints(Ktd_test::validate(f.second, original));
        for (const QString& c : complaints(Ktd_test::validate(f.second, f.first)))
            QVERIFY2(allowed.contains(c), qPrintable(QFileInfo(f.first).fileName() + ": " + c));
    }
}

QTEST_MAIN(Tst_corpus_roundtrip)
#include "tst_corpus_roundtrip.moc"
