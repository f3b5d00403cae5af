// The fast XML reader against QXmlStreamReader: the same tokens, names, attribute values and
// captured foreign text for everything the fast reader accepts; refusal (and then exactly the
// QXmlStreamReader error of a load) for everything malformed or outside its subset; and the same
// tree from every XML file of the corpus.
#include <taskdata/common/Fast_xml_reader.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_list.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QDirIterator>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>
#include <QtTest>

using namespace TC::Task_data;
using namespace TC::Task_data::Attributes::Base;
using namespace TC::Task_data::Elements::Base;

namespace {

// One line per token; adjacent plain text is joined (QXmlStreamReader may split it at
// references), white space outside the root is dropped (neither reader has to report it).
template <class R>
QStringList token_stream(R& r, QString* captured, bool* error)
{
    QStringList out;
    QXmlStreamWriter w(captured);
    int depth = 0;
    QString text;
    auto flush = [&] {
        if (!text.isEmpty())
            out << QStringLiteral("T:") + text;
        text.clear();
    };
    while (!r.atEnd()) {
        const QXmlStreamReader::TokenType t = r.readNext();
        if (t == QXmlStreamReader::Characters) {
            if (depth > 0)
                r.write_current_token(w);
            continue; // text is compared through the captured XML, which escapes it identically
        }
        flush();
        switch (t) {
        case QXmlStreamReader::StartElement: {
            ++depth;
            QString line = QStringLiteral("S:") + r.name().toString();
            for (int i = 0; i < r.attribute_count(); ++i)
                line += QStringLiteral(" [%1]=[%2]").arg(r.attribute_name(i).toString(), r.attribute_value(i).toString());
            out << line;
            r.write_current_token(w);
            break;
        }
        case QXmlStreamReader::EndElement:
            --depth;
            out << QStringLiteral("E:") + r.name().toString();
            r.write_current_token(w);
            break;
        case QXmlStreamReader::Comment:
        case QXmlStreamReader::ProcessingInstruction:
            if (depth > 0)
                r.write_current_token(w);
            break;
        default:
            break;
        }
    }
    flush();
    *error = r.hasError();
    return out;
}

struct Both
{
    QStringList fast, qt;
    QString fast_xml, qt_xml;
    bool fast_error = false, qt_error = false;
    QString fast_reason, qt_reason;
};

Both read_both(const QByteArray& bytes)
{
    Both b;
    Fast_xml_reader f(bytes);
    b.fast = token_stream(f, &b.fast_xml, &b.fast_error);
    b.fast_reason = f.errorString();
    QXmlStreamReader q(bytes);
    Qt_xml_source qs(q);
    b.qt = token_stream(qs, &b.qt_xml, &b.qt_error);
    b.qt_reason = q.errorString();
    return b;
}

// Everything a reader put into an element and its subtree, as text.
void dump(Element* e, QStringList& out, const QString& indent = QString())
{
    QString line = indent + e->get_tag();
    for (unsigned i = 0; i < e->_num_iso_attributes(); ++i) {
        Attribute* a = e->_attribute(i);
        QString v;
        a->xml_value(v, e, 4);
        line += QStringLiteral(" %1=%2/%3").arg(a->xml_name(), QString::number(a->flags()), v);
    }
    for (Attribute* a : e->extra_attributes()) {
        QString v;
        a->xml_value(v, e, 4);
        line += QStringLiteral(" +%1=%2").arg(a->xml_name(), v);
    }
    out << line;
    const auto& params = e->extended_parameters();
    for (auto it = params.constBegin(); it != params.constEnd(); ++it)
        out << indent + QStringLiteral("  param %1=%2").arg(it.key(), it.value().toString());
    for (const QString& f : e->foreign_children())
        out << indent + QStringLiteral("  foreign ") + f;
    for (unsigned l = 0; l < e->_num_element_lists(); ++l)
        for (const auto& c : e->_element_list(l)->elements())
            dump(c.data(), out, indent + QStringLiteral("  "));
}

// The file read into a fresh element of its root's kind, through reader R.
template <class R>
QStringList load_tree(const QString& path, const QString& tag, R& r, bool* ok)
{
    const QSharedPointer<Element_man> man = Element_man::create();
    man->set_task_data_dir(QFileInfo(path).absolutePath());
    XML_interface xi(QFileInfo(path).absolutePath());
    const QSharedPointer<Element> e = Catalogue::create(tag, man);
    QStringList out;
    if (!e) {
        *ok = false;
        return out;
    }
    while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
    }
    *ok = e->load_xml_from(e, r, xi) && xi.ok();
    dump(e.data(), out);
    return out;
}

} // namespace

class Tst_fast_xml_reader : public QObject
{
    Q_OBJECT
private slots:
    void accepted_like_qt_data();
    void accepted_like_qt();
    void refused_data();
    void refused();
    void load_falls_back_data();
    void load_falls_back();
    void corpus_files_data();
    void corpus_files();
};

void Tst_fast_xml_reader::accepted_like_qt_data()
{
    QTest::addColumn<QByteArray>("xml");
    QTest::newRow("entities") << QByteArray("<a v=\"&lt;&gt;&amp;&apos;&quot;\">x &amp; y &lt;z&gt;</a>");
    QTest::newRow("character references") << QByteArray("<a v=\"&#65;&#x42;&#x20AC;&#128512;&#x1F600;\">&#9;&#xA;&#x10FFFF;</a>");
    QTest::newRow("reference to tab stays a tab") << QByteArray("<a v=\"a&#9;b&#10;c&#13;d\"/>");
    QTest::newRow("literal tab, LF, CR LF, CR in value") << QByteArray("<a v=\"a\tb\nc\r\nd\re\r\"/>");
    QTest::newRow("CR LF in text") << QByteArray("<a>x\r\ny\rz<b/>\r\n</a>");
    QTest::newRow("single quotes") << QByteArray("<a v='say \"hi\"' w=\"it's\"/>");
    QTest::newRow("white space around =") << QByteArray("<a v \t=\n 'x'  w= \"y\" \n/>");
    QTest::newRow("end tag with white space") << QByteArray("<a><b></b \n></a >");
    QTest::newRow("comments and PIs between elements")
        << QByteArray("<!-- before --><?pi data?><a><!-- in - side --><?target  some data ?><b/><?t?></a><!-- after --><?p?>");
    QTest::newRow("CDATA in a foreign element")
        << QByteArray("<TSK><P094_X a=\"1\"><![CDATA[<not> &amp; markup]]>tail<![CDATA[x]]></P094_X></TSK>");
    QTest::newRow("UTF-8 names and values")
        << QByteArray("<Übung größe=\"Äpfel 😀 €\" 名前=\"値\"><Ωmega/>ö</Übung>");
    QTest::newRow("BOM and declaration")
        << QByteArray("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\" standalone='yes'?>\n<a/>\n");
    QTest::newRow("'>' and ']]' in value and text") << QByteArray("<a v=\"a>b]]>\">x ]] y > z</a>");
    QTest::newRow("names with - . _ digits") << QByteArray("<_a-b.c1 x_-.9=\"1\"/>");
    QTest::newRow("namespace declarations on the root")
        << QByteArray("<a xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" b=\"1\" "
                      "xsi:noNamespaceSchemaLocation=\"x.xsd\"><c d=\"2\"/></a>");
    QTest::newRow("prefix used before its declaration")
        << QByteArray("<a p:x=\"1\" xmlns:p=\"urn:p\"/>");
    QTest::newRow("CR LF in comment and PI") << QByteArray("<a><!-- x\r\ny\rz --><?p d\r\n\re?></a>");
    QTest::newRow("PI with white space only") << QByteArray("<a><?t ?><?u\t?></a>");
}

void Tst_fast_xml_reader::accepted_like_qt()
{
    QFETCH(QByteArray, xml);
    const Both b = read_both(xml);
    QVERIFY2(!b.qt_error, qPrintable(b.qt_reason));
    QVERIFY2(!b.fast_error, qPrintable(b.fast_reason));
    QCOMPARE(b.fast, b.qt);
    QCOMPARE(b.fast_xml, b.qt_xml);
}

void Tst_fast_xml_reader::refused_data()
{
    QTest::addColumn<QByteArray>("xml");
    QTest::addColumn<bool>("qt_accepts"); // outside the fast subset but fine for QXmlStreamReader
    QTest::newRow("mismatched end tag") << QByteArray("<a><b></c></a>") << false;
    QTest::newRow("duplicate attribute") << QByteArray("<a x=\"1\" x=\"2\"/>") << false;
    QTest::newRow("'<' in attribute value") << QByteArray("<a x=\"<\"/>") << false;
    QTest::newRow("unknown entity") << QByteArray("<a x=\"&nbsp;\"/>") << false;
    QTest::newRow("entity without ;") << QByteArray("<a>&amp</a>") << false;
    QTest::newRow("bad character reference") << QByteArray("<a x=\"&#0;\"/>") << false;
    QTest::newRow("surrogate reference") << QByteArray("<a x=\"&#xD800;\"/>") << false;
    QTest::newRow("reference beyond Unicode") << QByteArray("<a x=\"&#x110000;\"/>") << false;
    QTest::newRow("truncated file") << QByteArray("<a><b x=\"1\"/><c") << false;
    QTest::newRow("no root") << QByteArray("<!-- only -->") << false;
    QTest::newRow("empty") << QByteArray() << false;
    QTest::newRow("garbage after root") << QByteArray("<a/>junk") << false;
    QTest::newRow("second root") << QByteArray("<a/><b/>") << false;
    QTest::newRow("attributes without white space") << QByteArray("<a x=\"1\"y=\"2\"/>") << false;
    QTest::newRow("unquoted value") << QByteArray("<a x=1/>") << false;
    QTest::newRow("invalid UTF-8") << QByteArray("<a x=\"\xC3\x28\"/>") << false;
    QTest::newRow("overlong UTF-8") << QByteArray("<a x=\"\xC0\xAF\"/>") << false;
    QTest::newRow("control character") << QByteArray("<a x=\"\x01\"/>") << false;
    QTest::newRow("'--' in comment") << QByteArray("<a><!-- a -- b --></a>") << false;
    QTest::newRow("']]>' in text") << QByteArray("<a>x]]>y</a>") << false;
    QTest::newRow("name starting with a digit") << QByteArray("<1a/>") << false;
    QTest::newRow("late XML declaration") << QByteArray("<a><?xml version=\"1.0\"?></a>") << false;
    QTest::newRow("other encoding") << QByteArray("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a x=\"\xE4\"/>") << true;
    QTest::newRow("DOCTYPE") << QByteArray("<!DOCTYPE a><a/>") << true;
    QTest::newRow("namespace prefix") << QByteArray("<a xmlns:p=\"urn:x\"><p:b/></a>") << true;
    QTest::newRow("non-BMP name character") << QByteArray("<x><\xF0\x9F\x98\x80" "FRM A=\"1\"/></x>") << false;
    QTest::newRow("undeclared prefix") << QByteArray("<a p:x=\"1\"/>") << false;
    QTest::newRow("prefixed attribute below the root") << QByteArray("<a xmlns:p=\"u\"><b p:x=\"1\"/></a>") << true;
    QTest::newRow("default namespace") << QByteArray("<a xmlns=\"urn:x\"/>") << true;
    QTest::newRow("UTF-16 BOM") << QByteArray("\xFF\xFE<\0a\0/\0>\0", 10) << true;
}

void Tst_fast_xml_reader::refused()
{
    QFETCH(QByteArray, xml);
    QFETCH(bool, qt_accepts);
    const Both b = read_both(xml);
    QVERIFY(b.fast_error);
    QCOMPARE(!b.qt_error, qt_accepts);
}

void Tst_fast_xml_reader::load_falls_back_data()
{
    QTest::addColumn<QByteArray>("xml");
    const QByteArray head("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ISO11783_TaskData VersionMajor=\"4\" VersionMinor=\"3\" "
                          "DataTransferOrigin=\"1\">\n");
    QTest::newRow("good") << head + "<TSK A=\"TSK1\" B=\"t&amp;1\" G=\"1\"/>\n</ISO11783_TaskData>\n";
    QTest::newRow("unclosed tag") << head + "<TSK A=\"TSK1\" G=\"1\">\n<TIM A=\"2020-01-01T00:00:00\" D=\"4\">\n</TSK>\n</ISO11783_TaskData>\n";
    QTest::newRow("truncated") << head + "<TSK A=\"TSK1\" G=\"1\"/>\n<TSK A=\"TSK2\" G";
    QTest::newRow("DOCTYPE") << "<!DOCTYPE ISO11783_TaskData>\n" + head.mid(head.indexOf('\n') + 1) +
                                    "<TSK A=\"TSK1\" G=\"1\"/></ISO11783_TaskData>";
    QTest::newRow("Latin-1") << QByteArray("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n") +
                                    head.mid(head.indexOf('\n') + 1) +
                                    "<TSK A=\"TSK1\" B=\"Gr\xFC\x6E\" G=\"1\"/></ISO11783_TaskData>";
}

// A load through XML_interface ends as QXmlStreamReader alone would: the same tree, and for a
// broken file its error text at its position.
void Tst_fast_xml_reader::load_falls_back()
{
    QFETCH(QByteArray, xml);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("TASKDATA.XML"));
    QFile out(path);
    QVERIFY(out.open(QIODevice::WriteOnly) && out.write(xml) == xml.size());
    out.close();

    QString expected_error;
    QStringList expected_tree;
    {
        // The reference: the main file through the QXmlStreamReader entry.
        QFile f(path);
        QVERIFY(f.open(QIODevice::ReadOnly));
        QXmlStreamReader r(&f);
        Qt_xml_source s(r);
        bool ok = false;
        expected_tree = load_tree(path, QStringLiteral("ISO11783_TaskData"), s, &ok);
        while (!r.atEnd()) // what follows the root is read too: content there is an error
            r.readNext();
        if (r.hasError())
            expected_error = QStringLiteral("Error \"%1\" at %2:%3:%4:%5")
                                 .arg(r.errorString(), path)
                                 .arg(r.lineNumber())
                                 .arg(r.columnNumber())
                                 .arg(r.characterOffset());
    }
    const QSharedPointer<Element_man> man = Element_man::create();
    XML_interface xi(dir.path());
    const bool ok = xi.load(man);
    QCOMPARE(xi.fail_text(), expected_error);
    QCOMPARE(ok, expected_error.isEmpty());
    QStringList tree;
    dump(man->root().data(), tree);
    QCOMPARE(tree, expected_tree);
}

void Tst_fast_xml_reader::corpus_files_data()
{
    KTD_REQUIRE_CORPUS(corpus);
    QTest::addColumn<QString>("path");
    QDirIterator it(corpus, {QStringLiteral("*.xml")}, QDir::Files, QDirIterator::Subdirectories);
    QStringList files;
    while (it.hasNext())
        files << it.next();
    files.sort();
    for (const QString& f : files)
        QTest::newRow(qPrintable(QDir(corpus).relativeFilePath(f))) << f;
}

// Every XML file of the corpus: the same tokens, and the same tree from either reader.
void Tst_fast_xml_reader::corpus_files()
{
    QFETCH(QString, path);
    QFile f(path);
    QVERIFY(f.open(QIODevice::ReadOnly));
    const QByteArray bytes = f.readAll();
    const Both b = read_both(bytes);
    if (b.qt_error) {
        QVERIFY2(b.fast_error, "the fast reader accepted what QXmlStreamReader refuses");
        return;
    }
    QVERIFY2(!b.fast_error, qPrintable(b.fast_reason));
    QCOMPARE(b.fast, b.qt);
    QCOMPARE(b.fast_xml, b.qt_xml);

    QXmlStreamReader probe(bytes);
    while (!probe.atEnd() && probe.readNext() != QXmlStreamReader::StartElement) {
    }
    const QString tag = probe.name().toString();
    if (!Catalogue::find(tag))
        return; // not an element of the tree (GUID list, time log schema ...): tokens suffice
    bool fast_ok = false, qt_ok = false;
    Fast_xml_reader fr;
    QVERIFY(fr.open_file(path));
    const QStringList fast_tree = load_tree(path, tag, fr, &fast_ok);
    QFile qf(path);
    QVERIFY(qf.open(QIODevice::ReadOnly));
    QXmlStreamReader qr(&qf);
    Qt_xml_source qs(qr);
    const QStringList qt_tree = load_tree(path, tag, qs, &qt_ok);
    QCOMPARE(fast_ok, qt_ok);
    QVERIFY(fast_tree.size() > 0);
    QCOMPARE(fast_tree, qt_tree);
}

QTEST_MAIN(Tst_fast_xml_reader)
#include "tst_fast_xml_reader.moc"
