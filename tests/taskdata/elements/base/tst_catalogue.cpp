// Every element kind reads and writes itself. The samples are made from the catalogue itself:
// one row per kind, every attribute at the edge of its range, unknown attributes, an
// extended parameter, another maker's element and one child per list, read twice, written for
// format versions 4 and 3, with and without proprietary content. Also: every corpus file parses
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

struct Sample_attribute
{
    QString name;
    QString text;
    int version;
    bool proprietary;
    QString v3_text; // what format version 3 writes
    bool v3_left_out = false; // out of version 3's range with no default it allows
};

template <class T>
bool integer_sample(Attribute* a, Sample_attribute& s)
{
    auto i = dynamic_cast<Integer<T>*>(a);
    if (!i)
        return false;
    const auto& spec = i->base_spec();
    auto text = [&](T v, const typename Integer<T>::Spec& sp) {
        return std::is_signed<T>::value ? Number_text::format_integer(qint64(v), sp.base, sp.width)
                                        : Number_text::format_unsigned(quint64(v), sp.base, sp.width);
    };
    s.text = text(spec.max, spec);
    const auto& v3 = choose_variant(spec, 3);
    const bool outside = spec.max > v3.max || spec.max < v3.min;
    s.v3_text = text(outside ? v3.def : spec.max, v3);
    s.v3_left_out = outside && !v3.required && (v3.def > v3.max || v3.def < v3.min);
    return true;
}

// The sample text of one attribute, derived from its spec.
Sample_attribute sample_for(Attribute* a)
{
    const Attribute::Spec& spec = a->base_spec();
    Sample_attribute s{spec.xml_name(), QString(), spec.version, spec.is_proprietary(), QString()};
    if (integer_sample<qint8>(a, s) || integer_sample<quint8>(a, s) || integer_sample<qint16>(a, s) ||
        integer_sample<quint16>(a, s) || integer_sample<qint32>(a, s) || integer_sample<quint32>(a, s) ||
        integer_sample<quint64>(a, s))
        return s;
    if (auto f = dynamic_cast<Float*>(a)) {
        s.text = s.v3_text = Float::format(f->base_spec().min);
    } else if (auto str = dynamic_cast<String*>(a)) {
        const auto& sp = str->base_spec();
        s.text = QString(int(qMin<quint32>(sp.max_length, 300)), QLatin1Char('w'));
        s.v3_text = s.text.left(int(choose_variant(sp, 3).max_length));
    } else if (dynamic_cast<Datetime*>(a)) {
        s.text = QStringLiteral("2023-04-14T10:51:44.3655163+02:00");
        s.v3_text = QStringLiteral("2023-04-14T10:51:44");
    } else if (auto id = dynamic_cast<UniqueID*>(a)) {
        s.text = s.v3_text = QString::fromLatin1(id->base_spec().prefix) + Number_text::format_integer(7, 10, id->base_spec().width);
    } else if (auto link = dynamic_cast<LinkedID*>(a)) {
        const char* tag = link->base_spec().target_tag;
        s.text = s.v3_text = QString::fromLatin1(tag[0] ? tag : "CTR") + QStringLiteral("9");
    }
    return s;
}

struct Parsed
{
    QMap<QString, QString> attributes;
    QStringList children;
    QMap<QString, QString> parameters;
};

// The attributes of the written element, its children's tags and its extended parameters.
Parsed parse_output(const QByteArray& xml)
{
    Parsed p;
    QXmlStreamReader r(xml);
    r.readNextStartElement();
    for (const auto& a : r.attributes())
        p.attributes.insert(a.name().toString(), a.value().toString());
    while (r.readNextStartElement()) {
        if (r.name() == QLatin1String("P231_ExtendedPar"))
            p.parameters.insert(r.attributes().value("P231_key").toString(), r.attributes().value("P231_value").toString());
        else
            p.children.append(r.name().toString());
        r.skipCurrentElement();
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
    return r.readNextStartElement() && e->load_xml(e, r, xi);
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
    while (r.readNextStartElement()) {
        const QString tag = r.name().toString();
        bool known = false;
        for (unsigned i = 0; kind && i < kind->num_lists; ++i)
            known |= tag == QLatin1String(kind->list_tags[i]);
        if (known) {
            counts[tag]++;
            count_xml(r, Catalogue::find(tag), counts);
        } else {
            r.skipCurrentElement();
        }
    }
}

} // namespace

class Tst_catalogue : public QObject
{
    Q_OBJECT
private slots:
    void round_trip_data();
    void round_trip();
    void corpus_counts_data();
    void corpus_counts();
};

void Tst_catalogue::round_trip_data()
{
    QTest::addColumn<int>("index");
    for (int i = 0; i < Catalogue::kinds().size(); ++i)
        QTest::newRow(Catalogue::kinds()[i]->tag) << i;
}

void Tst_catalogue::round_trip()
{
    QFETCH(int, index);
    const Kind_info& kind = *Catalogue::kinds()[index];
    const QString tag = QString::fromLatin1(kind.tag);
    QCOMPARE(Catalogue::find(tag), &kind); // no tag twice in the table
    auto man = Element_man::create();
    auto element = Catalogue::create(tag, man);
    QCOMPARE(&element->kind(), &kind);
    QCOMPARE(element->_num_iso_attributes(), kind.num_attributes);

    QVector<Sample_attribute> samples;
    QByteArray xml = "<" + tag.toLatin1();
    for (unsigned i = 0; i < kind.num_attributes; ++i) {
        QCOMPARE(&element->_attribute(i)->base_spec(), kind.attribute_specs[i]);
        samples.append(sample_for(element->_attribute(i)));
        xml += " " + samples.last().name.toLatin1() + "=\"" + samples.last().text.toHtmlEscaped().toLatin1() + "\"";
    }
    xml += R"( P999_other="kept" ZZ="also kept">)";
    // An extended parameter needs both its key and its value.
    xml += R"(<P231_ExtendedPar P231_key="colour" P231_value="red"/><P231_ExtendedPar P231_key="a"/>)"
           R"(<P231_ExtendedPar P231_value="b"/>)";
    for (unsigned i = 0; i < kind.num_lists; ++i)
        xml += "<" + QByteArray(kind.list_tags[i]) + "/>";
    // Another maker's element is kept as it stands, not read (the library's own prefix is not
    // another maker's).
    const QByteArray foreign = R"(<P094_Area A="12 &amp; more"><P094_Point X="1"/></P094_Area>)";
    xml += foreign + "<P231_Other/></" + tag.toLatin1() + ">";

    // Read twice: the second read finds what the first made and adds nothing.
    XML_interface xi;
    QVERIFY(read_into(element, xml, xi) && read_into(element, xml, xi));
    QVERIFY(xi.ok());

    for (int version : {4, 3}) {
        for (bool keep : {true, false}) {
            const QByteArray out = write_element(element, version, keep);
            const Parsed p = parse_output(out);
            QMap<QString, QString> expected;
            for (const Sample_attribute& s : samples) {
                if (s.version > version || (!keep && s.proprietary))
                    continue;
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
                children.append("P094_Area");
            QCOMPARE(p.children, children);
            QCOMPARE(out.count(foreign), keep ? 1 : 0);
            const QMap<QString, QString> parameters{{"colour", "red"}};
            QCOMPARE(p.parameters, keep ? parameters : decltype(parameters)());
        }
    }
    // Read without proprietary content, another maker's element is not kept to write.
    auto other = Element_man::create();
    auto plain = Catalogue::create(tag, other);
    XML_interface no_keep;
    no_keep.set_keep_proprietary(false);
    QVERIFY(read_into(plain, xml, no_keep));
    QVERIFY(!write_element(plain, 4, true).contains("P094_Area"));
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
    const QString root_tag = r.readNextStartElement() ? r.name().toString() : QString();
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
