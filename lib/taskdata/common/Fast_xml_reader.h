// Fast_xml_reader: a pull parser over UTF-8 bytes for loading task data, with the small part of
// QXmlStreamReader's interface the element readers use, plus Qt_xml_source, which gives a
// QXmlStreamReader that same interface, so that the reading logic exists once for both.
//
// The fast reader accepts only what it is sure QXmlStreamReader reads the same way: UTF-8 (or
// no declared encoding), no DOCTYPE, no namespace prefixes or declarations. Anything else, and
// every well-formedness error, ends it in the error state with a short reason; callers then
// read the same bytes again with QXmlStreamReader, which gives the exact error text.
// Ownership: the reader owns its mapped file or a shared copy of the byte array; the views it
// returns stay valid until the next readNext()/skipCurrentElement().
// Threads: one reader per thread; no shared state.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringView>
#include <QVector>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <cstring>
#include <memory>
#include <vector>

namespace TC {
namespace Task_data {

class XML_interface;

// Where a file that failed the fast reader's prescan goes wrong, for the faults whose position
// QXmlStreamReader reports badly: it decodes ahead in blocks, so an encoding error is placed at
// the start of a block, and extra content after the root at the end of that content.
struct Xml_error_hint
{
    enum Kind { none, encoding, after_root, too_many_attributes };
    Kind kind = none;
    qint64 line = 0, column = 0, offset = 0; // 1-based line and column; offset in characters
    QString reason;                          // the fast reader's words
};

class KTD_EXPORT Fast_xml_reader
{
public:
    using TokenType = QXmlStreamReader::TokenType;

    Fast_xml_reader();
    explicit Fast_xml_reader(const QByteArray& data);
    ~Fast_xml_reader();
    Fast_xml_reader(const Fast_xml_reader&) = delete;
    Fast_xml_reader& operator=(const Fast_xml_reader&) = delete;

    // Maps the file (or reads it when it cannot be mapped); false when it cannot be opened.
    bool open_file(const QString& path);
    void set_data(const QByteArray& data);

    // Whether the whole input, read from the start, is well-formed and within the fast subset.
    // Callers decide with it, before touching any tree, which reader reads a file: a tree read
    // by the fast reader then ends exactly as one read by QXmlStreamReader.
    bool prescan() const;
    // After a failed prescan(): where it failed, for the faults Xml_error_hint names.
    const Xml_error_hint& prescan_hint() const { return m_hint; }
    // QXmlStreamReader compares every attribute of a start tag with every other one: a start
    // tag with more than this many would take it minutes or hours.
    static constexpr int max_attributes_for_fallback = 4096;

    TokenType readNext();
    TokenType tokenType() const { return m_token; }
    bool atEnd() const { return m_error || m_token == QXmlStreamReader::EndDocument; }
    bool hasError() const { return m_error; }
    // The input ended before a root element was complete (an empty file among them).
    bool premature_end() const { return m_error && std::strcmp(m_error_reason, "premature end of document") == 0; }
    // Why the reader stopped: for diagnostics only, the user sees QXmlStreamReader's text.
    QString errorString() const { return m_error_text; }
    void skipCurrentElement();

    QStringView name() const { return view(m_name_off, m_name_len); }
    int attribute_count() const { return m_attrs.size(); }
    QStringView attribute_name(int i) const { return view(m_attrs[i].name_off, m_attrs[i].name_len); }
    QStringView attribute_value(int i) const { return view(m_attrs[i].value_off, m_attrs[i].value_len); }
    // The value of the named attribute; `found` tells an absent one from an empty one.
    QStringView attribute_value(QLatin1String name, bool* found = nullptr) const;
    // The namespace prefix of an attribute ("xsi" of xsi:noNamespaceSchemaLocation); empty for
    // the plain names every element but the root has.
    QString attribute_prefix(int i) const
    {
        const Attr& a = m_attrs[i];
        return a.prefix_raw_off < 0 ? QString()
                                    : QString::fromLatin1(reinterpret_cast<const char*>(m_begin) + a.prefix_raw_off,
                                                          a.prefix_raw_len);
    }
    // The namespace declarations of the current start tag (xmlns:xsi="..."), prefix and URI.
    int namespace_count() const { return m_token == QXmlStreamReader::StartElement ? m_ns.size() : 0; }
    QString namespace_prefix(int i) const { return view(m_ns[i].name_off, m_ns[i].name_len).toString(); }
    QString namespace_uri(int i) const { return view(m_ns[i].value_off, m_ns[i].value_len).toString(); }
    // Characters, comment text or processing instruction data.
    QStringView text() const { return view(m_text_off, m_text_len); }
    QStringView processing_instruction_target() const { return view(m_name_off, m_name_len); }
    bool is_cdata() const { return m_cdata; }
    bool is_whitespace() const { return m_whitespace; }

    // --- the interface the templated element readers use ---
    Fast_xml_reader& native() { return *this; }
    void write_current_token(QXmlStreamWriter& w) const;
    // Reached only for input that did not pass prescan().
    void fail(XML_interface& xi, const QString& path) const;

private:
    struct Attr
    {
        int name_off, name_len, value_off, value_len;
        int raw_off, raw_len; // the name's bytes, for the duplicate test
        // A prefixed name (root only): the prefix's bytes; the local part's bytes.
        int prefix_raw_off, prefix_raw_len, local_raw_off, local_raw_len;
    };
    QStringView view(int off, int len) const
    {
        return QStringView(m_buf.data() + off, len);
    }
    TokenType error(const char* why);
    QStringView namespace_of(const Attr& a) const;
    bool start_document();
    TokenType read_markup();
    TokenType read_start_tag();
    TokenType read_end_tag();
    TokenType read_text();
    bool scan_name(const uchar*& p, int& off, int& len);
    bool read_attribute_value(const uchar*& p, uchar quote);
    bool read_reference(const uchar*& p);
    bool append_utf8(const uchar*& p);
    bool skip_ws(const uchar*& p) const;
    void append_char(char32_t c);

    QFile m_file;
    QByteArray m_data;
    const uchar* m_begin = nullptr;
    const uchar* m_pos = nullptr;
    const uchar* m_end = nullptr;

    TokenType m_token = QXmlStreamReader::NoToken;
    bool m_error = false;
    bool m_pending_end = false;
    bool m_root_seen = false;
    bool m_cdata = false;
    bool m_whitespace = false;
    bool m_pi_data = false;
    QString m_error_text;
    const char* m_error_reason = "";
    int m_max_attributes = 0;
    mutable Xml_error_hint m_hint;
    // Set by a prescan() that passed: the checks it made need not be made again.
    mutable bool m_prescanned = false;
    Xml_error_hint hint_at(Xml_error_hint::Kind kind, const uchar* at, const QString& reason) const;

    // Decoded names, values and text of the current token; views index into it.
    std::vector<QChar> m_buf;
    int m_len = 0;
    int m_name_off = 0, m_name_len = 0;
    int m_text_off = 0, m_text_len = 0;
    QVector<Attr> m_attrs;
    // Namespace declarations of the root's start tag (name: the prefix, value: the URI). The
    // element readers never see them, as with QXmlStreamReader.
    QVector<Attr> m_ns;
    // Open elements: offset and length of the start tag's name bytes.
    QVector<QPair<int, int>> m_stack;
};

// QXmlStreamReader with the interface of Fast_xml_reader. Wraps a reader positioned anywhere;
// the attributes of the current start tag are copied once, when first asked for.
class KTD_EXPORT Qt_xml_source
{
public:
    using TokenType = QXmlStreamReader::TokenType;
    explicit Qt_xml_source(QXmlStreamReader& r) : m_r(r) {}

    TokenType readNext()
    {
        m_have_attrs = false;
        return m_r.readNext();
    }
    TokenType tokenType() const { return m_r.tokenType(); }
    bool atEnd() const { return m_r.atEnd(); }
    bool hasError() const { return m_r.hasError(); }
    bool premature_end() const { return m_r.error() == QXmlStreamReader::PrematureEndOfDocumentError; }
    void skipCurrentElement()
    {
        m_have_attrs = false;
        m_r.skipCurrentElement();
    }
    QStringView name() const { return QStringView(m_r.name()); }
    int attribute_count() const { return attrs().size(); }
    QStringView attribute_name(int i) const { return QStringView(attrs()[i].name()); }
    QStringView attribute_value(int i) const { return QStringView(attrs()[i].value()); }
    QString attribute_prefix(int i) const { return attrs()[i].prefix().toString(); }
    int namespace_count() const { return m_r.namespaceDeclarations().size(); }
    QString namespace_prefix(int i) const { return m_r.namespaceDeclarations().at(i).prefix().toString(); }
    QString namespace_uri(int i) const { return m_r.namespaceDeclarations().at(i).namespaceUri().toString(); }
    QStringView attribute_value(QLatin1String name, bool* found = nullptr) const
    {
        for (const QXmlStreamAttribute& a : attrs())
            if (a.qualifiedName() == name) {
                if (found)
                    *found = true;
                return QStringView(a.value());
            }
        if (found)
            *found = false;
        return QStringView();
    }
    QXmlStreamReader& native() { return m_r; }
    void write_current_token(QXmlStreamWriter& w) const { w.writeCurrentToken(m_r); }
    // Fails `xi` with QXmlStreamReader's error text, placed where the hint says when the hint
    // is about that error.
    void fail(XML_interface& xi, const QString& path) const;
    void set_hint(const Xml_error_hint& hint) { m_hint = hint; }

private:
    const QXmlStreamAttributes& attrs() const
    {
        if (!m_have_attrs) {
            m_attrs = m_r.attributes();
            m_have_attrs = true;
        }
        return m_attrs;
    }
    QXmlStreamReader& m_r;
    mutable QXmlStreamAttributes m_attrs;
    mutable bool m_have_attrs = false;
    Xml_error_hint m_hint;
};

// A file opened for one of the two readers: the templated readers open individual and external
// files through this, so a fast load stays fast and a fallback load stays on QXmlStreamReader.
template <class R>
struct Xml_file;

template <>
struct Xml_file<Fast_xml_reader>
{
    Fast_xml_reader reader;
    bool open(const QString& path) { return reader.open_file(path); }
    Fast_xml_reader& source() { return reader; }
};

template <>
struct Xml_file<Qt_xml_source>
{
    QFile file;
    QXmlStreamReader reader;
    Qt_xml_source src{reader};
    bool open(const QString& path)
    {
        file.setFileName(path);
        if (!file.open(QIODevice::ReadOnly))
            return false;
        reader.setDevice(&file);
        return true;
    }
    Qt_xml_source& source() { return src; }
};

// Reads what follows the root element: comments, processing instructions and white space are
// all it may hold. False (and `xi` failed) for anything else and for any other error.
template <class R>
bool finish_document(R& r, XML_interface& xi, const QString& path)
{
    while (!r.atEnd())
        r.readNext();
    if (!r.hasError())
        return true;
    r.fail(xi, path);
    return false;
}

// Fails `xi` with the fast reader's own words for a file QXmlStreamReader is not given.
KTD_EXPORT void fail_with_hint(XML_interface& xi, const QString& path, const Xml_error_hint& hint);

// Opens the file and calls body(reader) with a Fast_xml_reader when the file passes prescan(),
// else with a Qt_xml_source, and returns its result, which is false too when anything but
// comments and white space follows the root element (`xi` failed then); `opened` false (and
// false returned) when the file cannot be opened.
template <class F>
bool read_xml_file(const QString& path, bool& opened, XML_interface& xi, F&& body)
{
    Xml_file<Fast_xml_reader> fast;
    opened = fast.open(path);
    if (!opened)
        return false;
    if (fast.reader.prescan())
        return body(fast.reader) && finish_document(fast.reader, xi, path);
    if (fast.reader.prescan_hint().kind == Xml_error_hint::too_many_attributes) {
        fail_with_hint(xi, path, fast.reader.prescan_hint());
        return false;
    }
    Xml_file<Qt_xml_source> slow;
    opened = slow.open(path);
    if (!opened)
        return false;
    slow.src.set_hint(fast.reader.prescan_hint());
    return body(slow.source()) && finish_document(slow.source(), xi, path);
}

} // namespace Task_data
} // namespace TC
