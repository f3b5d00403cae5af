// libFuzzer harness for Fast_xml_reader: arbitrary bytes go into it and into QXmlStreamReader.
// Whenever the fast reader reads the whole input without error, QXmlStreamReader must too, and
// both must give the same start and end tags, names, attribute names and values, text, and the
// same XML when every token is written back; anything else aborts. Single-threaded.
#include <taskdata/common/Fast_xml_reader.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

using TC::Task_data::Fast_xml_reader;
using TC::Task_data::Qt_xml_source;

namespace {

// Adjacent text is joined and white space outside the root dropped: QXmlStreamReader may split
// text at references and need not report white space there.
template <class R>
QStringList tokens(R& r, QString* xml)
{
    QStringList out;
    QXmlStreamWriter w(xml);
    int depth = 0;
    QString text;
    while (!r.atEnd()) {
        const QXmlStreamReader::TokenType t = r.readNext();
        if (t == QXmlStreamReader::Characters) {
            if (depth > 0)
                r.write_current_token(w);
            continue;
        }
        switch (t) {
        case QXmlStreamReader::StartElement: {
            ++depth;
            QString line = QStringLiteral("S:") + r.name().toString();
            for (int i = 0; i < r.attribute_count(); ++i)
                line += QStringLiteral(" [") + r.attribute_name(i).toString() + QStringLiteral("]=[") +
                        r.attribute_value(i).toString() + QStringLiteral("]");
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
    return out;
}

[[noreturn]] void differ(const char* what, const QByteArray& input, const QString& a, const QString& b)
{
    std::fprintf(stderr, "fast reader and QXmlStreamReader differ (%s) on\n%s\nfast: %s\nqt:   %s\n", what,
                 input.toPercentEncoding("<>/=\"' ").constData(), qPrintable(a), qPrintable(b));
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), int(size));
    Fast_xml_reader fast(input);
    if (!fast.prescan())
        return 0;
    QString fast_xml, qt_xml;
    const QStringList f = tokens(fast, &fast_xml);
    if (fast.hasError())
        differ("prescan passed, reading failed", input, fast.errorString(), QString());
    QXmlStreamReader q(input);
    Qt_xml_source qs(q);
    const QStringList s = tokens(qs, &qt_xml);
    if (q.hasError())
        differ("accepted by the fast reader only", input, f.join(QLatin1Char('\n')), q.errorString());
    if (f != s)
        differ("tokens", input, f.join(QLatin1Char('\n')), s.join(QLatin1Char('\n')));
    if (fast_xml != qt_xml)
        differ("written XML", input, fast_xml, qt_xml);
    return 0;
}
