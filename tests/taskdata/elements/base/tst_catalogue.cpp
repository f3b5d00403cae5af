// Every element kind reads and writes itself. The samples are made from the catalogue itself:
// one row per kind, every attribute at the edge of its range (or empty), an unknown attribute,
// an extended parameter and one child per list, written for format versions 4 and 3, with and
// without proprietary content. Also: reading twice keeps identity, and every corpus set parses
// into a tree whose counts per kind match its XML.
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QBuffer>
#include <QDirIterator>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>
#include <QtTest>

using namespace TC::Task_data;
using namespace TC::Task_data::Attributes::Base;
using namespace TC::Task_data::Elements::Base;

namespace {

const char* const date_text = "2023-04-14T10:51:44.3655163+02:00";

struct Sample_attribute
{
    QString name;
    QString text;
    int version;
    bool proprietary;
    QString v3_text; // what format version 3 writes
    bool link;
    bool v3_left_out = false; // out of version 3's range with no default it allows
};

template <class T>
bool integer_sample(Attribute* a, bool empty, Sample_attribute& s)
{
    auto i = dynamic_cast<Integer<T>*>(a);
    if (!i)
        return false;
    const auto& spec = i->base_spec();
    auto text = [&](T v, const typename Integer<T>::Spec& sp) {
        return std::is_signed<T>::value ? Number_text::format_integer(qint64(v), sp.base, sp.width)
                                        : Number_text::format_unsigned(quint64(v), sp.base, sp.width);
    };
    if (empty) {
        s.text = s.v3_text = QString();
        return true;
    }
    s.text = text(spec.max, spec);
    const auto& v3 = choose_variant(spec, 3);
    const bool outside = spec.max > v3.max || spec.max < v3.min;
    s.v3_text = text(outside ? v3.def : spec.max, v3);
    s.v3_left_out = outside && !v3.required && (v3.def > v3.max || v3.def < v3.min);
    return true;
}

// The sample text of one attribute, derived from its spec.
Sample_attribute sample_for(Attribute* a, bool empty)
{
    const Attribute::Spec& spec = a->base_spec();
    Sample_attribute s{spec.xml_name(), QString(), spec.version, spec.is_proprietary(), QString(), false};
    if (integer_sample<qint8>(a, empty, s) || integer_sample<quint8>(a, empty, s) ||
        integer_sample<qint16>(a, empty, s) || integer_sample<quint16>(a, empty, s) ||
        integer_sample<qint32>(a, empty, s) || integer_sample<quint32>(a, empty, s) ||
        integer_sample<quint64>(a, empty, s))
        return s;
    if (auto f = dynamic_cast<Float*>(a)) {
        s.text = s.v3_text = empty ? QString() : Float::format(f->base_spec().min);
    } else if (auto str = dynamic_cast<String*>(a)) {
        const auto& sp = str->base_spec();
        const int len = int(qMin<quint32>(sp.max_length, 300));
        s.text = empty ? QString() : QString(len, QLatin1Char('w'));
        s.v3_text = s.text.left(int(choose_variant(sp, 3).max_length));
    } else if (dynamic_cast<Datetime*>(a)) {
        s.text = empty ? QString() : QString::fromLatin1(date_text);
        s.v3_text = empty ? QString() : QStringLiteral("2023-04-14T10:51:44");
    } else if (auto id = dynamic_cast<UniqueID*>(a)) {
        const auto& sp = id->base_spec();
        s.text = s.v3_text = empty ? QString() : QString::fromLatin1(sp.prefix) + Number_text::format_integer(7, 10, sp.width);
    } else if (auto link = dynamic_cast<LinkedID*>(a)) {
        const char* tag = link->base_spec().target_tag;
        s.text = s.v3_text = empty ? QString() : QString::fromLatin1(tag[0] ? tag : "CTR") + QStringLiteral("9");
        s.link = true;
    }
    return s;
}

struct Parsed
{
    QMap<QString, QString> attributes;
    QStringList children;
    QMap<QString, QString> parameters;
};

Parsed parse_output(const QByteArray& xml)
{
    Parsed p;
    QXmlStreamReader r(xml);
    int depth = 0;
    while (!r.atEnd()) {
        const auto t = r.readNext();
        if (t == QXmlStreamReader::StartElement) {
            ++depth;
            if (depth == 1) {
                for (const auto& a : r.attributes())
                    p.attributes.insert(a.name().toString(), a.value().toString());
            } else if (depth == 2) {
                if (r.name() == QLatin1String("P231_ExtendedPar"))
                    p.parameters.insert(r.attributes().value("P231_key").toString(),
                                        r.attributes().value("P231_value").toString());
                else
                    p.children.append(r.name().toString());
            }
        } else if (t == QXmlStreamReader::EndElement) {
            --depth;
        }
    }
    return p;
}

QByteArray write_element(const QSharedPointer<Element>& e, int version, bool keep)
{
    XML_interface xi;
    xi.set_format_version(version);
    xi.set_keep_proprietary(keep);
    QByteArray out;
    QBuffer b(&out);
    b.open(QIODevice::WriteOnly);
    QXmlStreamWriter w(&b);
    e->save_xml(e, w, xi);
    return out;
}

bool read_into(const QSharedPointer<Element>& e, const QByteArray& xml, XML_interface& xi)
{
    QXmlStreamReader r(xml);
    while (!r.atEnd())
        if (r.readNext() == QXmlStreamReader::StartElement)
            return e->load_xml(e, r, xi);
    return false;
}

void count_tree(const Element* e, QMap<QString, int>& counts)
{
    Element* me = const_cast<Element*>(e);
    for (unsigned l = 0; l < me->_num_element_lists(); ++l)
        for (const auto& c : me->_element_list(l)->elements()) {
            counts[c->get_tag()]++;
            count_tree(c.data(), counts);
        }
}

// Counts the elements a schema-following reader meets: a tag counts where its parent kind has a
// child list of it.
void count_xml(QXmlStreamReader& r, const Kind_info* kind, QMap<QString, int>& counts)
{
    while (!r.atEnd()) {
        const auto t = r.readNext();
        if (t == QXmlStreamReader::EndElement)
            return;
        if (t != QXmlStreamReader::StartElement)
            continue;
        const QString tag = r.name().toString();
        bool known = false;
        for (unsigned i = 0; kind && i < kind->num_lists; ++i)
            known |= tag == QLatin1String(kind->list_tags[i]);
        if (!known) {
            r.skipCurrentElement();
            continue;
        }
        counts[tag]++;
        count_xml(r, Catalogue::find(tag), counts);
    }
}

} // namespace

class Tst_catalogue : public QObject
{
    Q_OBJECT
private slots:
    void catalogue_is_complete();
    void round_trip_data();
    void round_trip();
    void read_twice_keeps_identity();
    void foreign_children_kept_data();
    void foreign_children_kept();
    void corpus_counts_data();
    void corpus_counts();
};

void Tst_catalogue::catalogue_is_complete()
{
    QCOMPARE(Catalogue::kinds().size(), 57);
    QSet<QString> tags;
    for (const Kind_info* k : Catalogue::kinds()) {
        QVERIFY2(!tags.contains(k->tag), k->tag);
        tags.insert(k->tag);
        auto e = Catalogue::create(k->tag, QWeakPointer<Element_man>());
        QVERIFY(e);
        QCOMPARE(e->get_tag(), QString::fromLatin1(k->tag));
        QCOMPARE(e->_num_iso_attributes(), k->num_attributes);
        for (unsigned i = 0; i < k->num_attributes; ++i)
            QCOMPARE(&e->_attribute(i)->base_spec(), k->attribute_specs[i]);
        for (unsigned i = 0; i < k->num_lists; ++i) {
            QVERIFY(Catalogue::find(k->list_tags[i]));
            QCOMPARE(e->_element_list(i)->tag(), QString::fromLatin1(k->list_tags[i]));
            QCOMPARE(e->_element_list_index(e->_element_list(i)), int(i));
        }
    }
    // A generated class is bound to its own kind (names and limits: tst_catalogue_schema).
    QCOMPARE(&Task::static_kind(), Catalogue::find("TSK"));
}

void Tst_catalogue::round_trip_data()
{
    QTest::addColumn<QString>("tag");
    QTest::addColumn<bool>("empty");
    for (const Kind_info* k : Catalogue::kinds()) {
        QTest::addRow("%s edges", k->tag) << QString::fromLatin1(k->tag) << false;
        QTest::addRow("%s empty", k->tag) << QString::fromLatin1(k->tag) << true;
    }
}

void Tst_catalogue::round_trip()
{
    QFETCH(QString, tag);
    QFETCH(bool, empty);
    auto man = Element_man::create();
    auto element = Catalogue::create(tag, man);
    const Kind_info& kind = element->kind();

    QVector<Sample_attribute> samples;
    QByteArray xml = "<" + tag.toLatin1();
    for (unsigned i = 0; i < kind.num_attributes; ++i) {
        samples.append(sample_for(element->_attribute(i), empty));
        xml += " " + samples.last().name.toLatin1() + "=\"" + samples.last().text.toHtmlEscaped().toLatin1() + "\"";
    }
    xml += R"( P999_other="kept" ZZ="also kept">)";
    // An extended parameter needs both its key and its value.
    xml += R"(<P231_ExtendedPar P231_key="colour" P231_value="red"/><P231_ExtendedPar P231_key="a"/>)"
           R"(<P231_ExtendedPar P231_value="b"/>)";
    for (unsigned i = 0; i < kind.num_lists; ++i)
        xml += "<" + QByteArray(kind.list_tags[i]) + "/>";
    xml += "<P123_Unknown><PNT/></P123_Unknown></" + tag.toLatin1() + ">";

    XML_interface xi;
    QVERIFY(read_into(element, xml, xi));
    QVERIFY(xi.ok());

    for (int version : {4, 3}) {
        for (bool keep : {true, false}) {
            const QByteArray out = write_element(element, version, keep);
            const Parsed p = parse_output(out);
            const QString where = QStringLiteral("v%1 keep=%2: ").arg(version).arg(keep) + QString::fromUtf8(out);
            QMap<QString, QString> expected;
            for (const Sample_attribute& s : samples) {
                if (s.version > version || (!keep && s.proprietary))
                    continue;
                if (s.link && s.text.isEmpty())
                    continue; // an empty reference is not written at all
                if (version < 4 && s.v3_left_out)
                    continue;
                expected.insert(s.name, version >= 4 ? s.text : s.v3_text);
            }
            if (keep) {
                expected.insert("P999_other", "kept");
                expected.insert("ZZ", "also kept");
            }
            QCOMPARE(p.attributes, expected);
            QStringList children;
            for (unsigned i = 0; i < kind.num_lists; ++i)
                if (kind.list_versions[i] <= version)
                    children.append(QString::fromLatin1(kind.list_tags[i]));
            if (keep)
                children.append("P123_Unknown"); // another maker's element is kept, not read
            QVERIFY2(p.children == children, qPrintable(where));
            const QMap<QString, QString> parameters{{"colour", "red"}};
            QCOMPARE(p.parameters, keep ? parameters : decltype(parameters)());
        }
    }
}

void Tst_catalogue::read_twice_keeps_identity()
{
    const QByteArray one = R"(<ISO11783_TaskData VersionMajor="4" VersionMinor="3">)"
                           R"(<CTR A="CTR1" B="Meyer"/><PFD A="PFD1" C="North" D="10" E="CTR1">)"
                           R"(<PLN A="1"><LSG A="1"><PNT A="2" C="52.1" D="7.1"/><PNT A="2" C="52.2" D="7.2"/></LSG></PLN>)"
                           R"(</PFD></ISO11783_TaskData>)";
    QByteArray two = one;
    two.replace(R"(<PNT A="2" C="52.2" D="7.2"/>)", R"(<PNT A="2" C="52.2" D="7.2"/><PNT A="2" C="52.3" D="7.3"/>)");
    auto man = Element_man::create();
    auto root = QSharedPointer<Task_data>::create(man);
    XML_interface xi;
    QVERIFY(read_into(root, one, xi));
    auto field = root->partfields.typed_at(0);
    auto line = field->polygons.typed_at(0)->line_strings.typed_at(0);
    auto first_point = line->points.typed_at(0);
    QCOMPARE(line->points.count(), 2);
    QVERIFY(read_into(root, one, xi));
    QCOMPARE(root->customers.count(), 1);
    QCOMPARE(root->partfields.typed_at(0), field);
    QCOMPARE(line->points.count(), 2);
    QCOMPARE(line->points.typed_at(0), first_point);
    QVERIFY(field->customer.target() == root->customers.at(0));
    QVERIFY(read_into(root, two, xi));
    QCOMPARE(line->points.count(), 3);
    QCOMPARE(line->points.typed_at(0), first_point);
    QCOMPARE(line->points.typed_at(2)->north.get_val(), 52.3);
}

void Tst_catalogue::foreign_children_kept_data()
{
    QTest::addColumn<bool>("keep");
    QTest::addColumn<int>("reads");
    QTest::addColumn<bool>("written");
    QTest::newRow("kept") << true << 1 << true;
    QTest::newRow("kept, read twice, not doubled") << true << 2 << true;
    QTest::newRow("not kept") << false << 1 << false;
}

void Tst_catalogue::foreign_children_kept()
{
    QFETCH(bool, keep);
    QFETCH(int, reads);
    QFETCH(bool, written);
    const QByteArray xml = R"(<BSN A="BSN1" B="b" C="52" D="7" E="0"><P094_Area A="12 &amp; more"><P094_Point X="1"/></P094_Area>)"
                           R"(<P231_Other/></BSN>)";
    auto man = Element_man::create();
    auto bsn = QSharedPointer<Base_station>::create(man);
    XML_interface xi;
    xi.set_keep_proprietary(keep);
    for (int i = 0; i < reads; ++i)
        QVERIFY(read_into(bsn, xml, xi));
    const QByteArray out = write_element(bsn, 4, true);
    QCOMPARE(out.count("<P094_Area"), written ? 1 : 0);
    QCOMPARE(out.contains(R"(<P094_Area A="12 &amp; more"><P094_Point X="1"/></P094_Area>)"), written);
    QVERIFY(!out.contains("P231_Other"));
    QVERIFY(!write_element(bsn, 4, false).contains("P094"));
}

void Tst_catalogue::corpus_counts_data()
{
    QTest::addColumn<QString>("file");
    const QString corpus = Ktd_test::corpus_dir();
    if (corpus.isEmpty())
        return;
    QDirIterator it(corpus, {"*.xml", "*.XML", "*.Xml"}, QDir::Files, QDirIterator::Subdirectories);
    QStringList files;
    while (it.hasNext())
        files.append(it.next());
    files.sort();
    for (const QString& f : files)
        QTest::newRow(qPrintable(QDir(corpus).relativeFilePath(f))) << f;
}

void Tst_catalogue::corpus_counts()
{
    KTD_REQUIRE_CORPUS(corpus);
    QFETCH(QString, file);
    QFile f(file);
    QVERIFY(f.open(QIODevice::ReadOnly));
    const QByteArray xml = f.readAll();
    QXmlStreamReader r(xml);
    QString root_tag;
    while (!r.atEnd())
        if (r.readNext() == QXmlStreamReader::StartElement) {
            root_tag = r.name().toString();
            break;
        }
    if (r.hasError() || root_tag.isEmpty())
        QSKIP("not a well-formed document (the failing-file sets are tested with the directory loader)");
    const Kind_info* kind = Catalogue::find(root_tag);
    if (!kind)
        QSKIP(qPrintable("root " + root_tag + " is no element kind"));
    QMap<QString, int> expected;
    count_xml(r, kind, expected);
    if (r.hasError())
        QSKIP("malformed document");

    auto man = Element_man::create();
    auto root = Catalogue::create(root_tag, man);
    XML_interface xi;
    Ktd_test::Capture_fd quiet(2);
    QVERIFY(read_into(root, xml, xi));
    QVERIFY(xi.ok());
    QMap<QString, int> counts;
    count_tree(root.data(), counts);
    QCOMPARE(counts, expected);
}

QTEST_MAIN(Tst_catalogue)
#include "tst_catalogue.moc"
