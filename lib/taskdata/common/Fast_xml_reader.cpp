#include "Fast_xml_reader.h"

#include "XML_interface.h"

#include <QCoreApplication>
#include <QSet>

#include <cstring>
#include <string_view>
#include <unordered_set>

namespace TC {
namespace Task_data {

namespace {

inline bool is_ws(uchar c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; }

// ASCII name characters; ':' is left out on purpose: a prefix means namespaces, which
// QXmlStreamReader resolves (and rejects when undeclared), so such files take its path.
inline bool is_name_start_ascii(uchar c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z' ? true : c == '_'; }
inline bool is_name_ascii(uchar c)
{
    return is_name_start_ascii(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

// Non-ASCII name characters: only letters every XML 1.0 edition has as name characters
// (Latin-1, Greek, the CJK unified ideographs). Other ones are left to QXmlStreamReader, whose
// tables are narrower than the current edition's (a fuzzed name with U+1F600 showed it).
bool is_name_start_cp(char32_t c)
{
    return (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0xFF) || c == 0x386 ||
           (c >= 0x388 && c <= 0x38A) || c == 0x38C || (c >= 0x38E && c <= 0x3A1) || (c >= 0x3A3 && c <= 0x3CE) ||
           (c >= 0x4E00 && c <= 0x9FA5);
}

bool is_name_cp(char32_t c) { return is_name_start_cp(c) || c == 0xB7; }

bool is_xml_char(char32_t c)
{
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
           (c >= 0x10000 && c <= 0x10FFFF);
}

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool decode_utf8(const uchar*& p, const uchar* end, char32_t& cp)
{
    const uchar c = *p;
    int n;
    char32_t min;
    if (c < 0x80) {
        cp = c;
        ++p;
        return true;
    } else if ((c & 0xE0) == 0xC0) {
        n = 1;
        cp = c & 0x1F;
        min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        n = 2;
        cp = c & 0x0F;
        min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        n = 3;
        cp = c & 0x07;
        min = 0x10000;
    } else {
        return false;
    }
    if (end - p <= n)
        return false;
    for (int i = 1; i <= n; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return false;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return false;
    p += n + 1;
    return true;
}

const uchar* first_invalid_utf8(const uchar* p, const uchar* end)
{
    while (p < end) {
        if (*p < 0x80) {
            ++p;
            continue;
        }
        char32_t cp;
        const uchar* q = p;
        if (!decode_utf8(q, end, cp))
            return p;
        p = q;
    }
    return nullptr;
}

bool starts(const uchar* p, const uchar* end, const char* s)
{
    const size_t n = std::strlen(s);
    return size_t(end - p) >= n && std::memcmp(p, s, n) == 0;
}

} // namespace

Fast_xml_reader::Fast_xml_reader() { m_buf.resize(256); }

Fast_xml_reader::Fast_xml_reader(const QByteArray& data) : Fast_xml_reader() { set_data(data); }

Fast_xml_reader::~Fast_xml_reader() = default;

void Fast_xml_reader::set_data(const QByteArray& data)
{
    m_data = data;
    m_begin = reinterpret_cast<const uchar*>(m_data.constData());
    m_pos = m_begin;
    m_end = m_begin + m_data.size();
}

bool Fast_xml_reader::open_file(const QString& path)
{
    m_file.setFileName(path);
    if (!m_file.open(QIODevice::ReadOnly))
        return false;
    const qint64 size = m_file.size();
    if (size > 0 && size < qint64(INT_MAX)) {
        if (uchar* map = m_file.map(0, size)) {
            m_begin = map;
            m_pos = map;
            m_end = map + size;
            return true;
        }
    }
    // Empty files and files that cannot be mapped (pipes, special file systems) are read whole.
    set_data(m_file.readAll());
    return true;
}

QXmlStreamReader::TokenType Fast_xml_reader::error(const char* why)
{
    m_max_attributes = qMax(m_max_attributes, m_attrs.size() + m_ns.size());
    if (!m_error) {
        m_error = true;
        m_error_reason = why;
        m_error_text = QStringLiteral("%1 at byte %2").arg(QLatin1String(why)).arg(qint64(m_pos - m_begin));
    }
    m_attrs.clear();
    m_ns.clear();
    return m_token = QXmlStreamReader::Invalid;
}

void Fast_xml_reader::append_char(char32_t c)
{
    if (size_t(m_len) + 2 > m_buf.size())
        m_buf.resize(m_buf.size() * 2);
    if (c < 0x10000) {
        m_buf[size_t(m_len++)] = QChar(char16_t(c));
    } else {
        m_buf[size_t(m_len++)] = QChar(QChar::highSurrogate(c));
        m_buf[size_t(m_len++)] = QChar(QChar::lowSurrogate(c));
    }
}

bool Fast_xml_reader::append_utf8(const uchar*& p)
{
    char32_t cp;
    if (!decode_utf8(p, m_end, cp) || !is_xml_char(cp))
        return false;
    append_char(cp);
    return true;
}

bool Fast_xml_reader::skip_ws(const uchar*& p) const
{
    const uchar* s = p;
    while (p < m_end && is_ws(*p))
        ++p;
    return p != s;
}

bool Fast_xml_reader::scan_name(const uchar*& p, int& off, int& len)
{
    off = m_len;
    bool first = true;
    while (p < m_end) {
        const uchar c = *p;
        if (c < 0x80) {
            if (!(first ? is_name_start_ascii(c) : is_name_ascii(c)))
                break;
            append_char(c);
            ++p;
        } else {
            const uchar* q = p;
            char32_t cp;
            if (!decode_utf8(q, m_end, cp))
                return false;
            if (!(first ? is_name_start_cp(cp) : is_name_cp(cp)))
                return false;
            append_char(cp);
            p = q;
        }
        first = false;
    }
    len = m_len - off;
    return !first;
}

bool Fast_xml_reader::read_reference(const uchar*& p)
{
    // At '&'.
    const uchar* q = p + 1;
    const uchar* semi = q;
    while (semi < m_end && semi - q < 12 && *semi != ';')
        ++semi;
    if (semi >= m_end || *semi != ';')
        return false;
    const int n = int(semi - q);
    char32_t c = 0;
    if (n >= 2 && q[0] == '#') {
        const bool hex = q[1] == 'x';
        const uchar* d = q + (hex ? 2 : 1);
        if (d == semi)
            return false;
        for (; d < semi; ++d) {
            int v;
            if (*d >= '0' && *d <= '9')
                v = *d - '0';
            else if (hex && (*d | 0x20) >= 'a' && (*d | 0x20) <= 'f')
                v = (*d | 0x20) - 'a' + 10;
            else
                return false;
            c = c * (hex ? 16 : 10) + char32_t(v);
            if (c > 0x10FFFF)
                return false;
        }
        if (!is_xml_char(c))
            return false;
    } else if (n == 2 && q[0] == 'l' && q[1] == 't') {
        c = '<';
    } else if (n == 2 && q[0] == 'g' && q[1] == 't') {
        c = '>';
    } else if (n == 3 && std::memcmp(q, "amp", 3) == 0) {
        c = '&';
    } else if (n == 4 && std::memcmp(q, "apos", 4) == 0) {
        c = '\'';
    } else if (n == 4 && std::memcmp(q, "quot", 4) == 0) {
        c = '"';
    } else {
        return false;
    }
    append_char(c);
    p = semi + 1;
    return true;
}

bool Fast_xml_reader::read_attribute_value(const uchar*& p, uchar quote)
{
    // Room for a typical value up front; longer ones grow the buffer in the loop below.
    if (m_buf.size() < size_t(m_len) + 4096)
        m_buf.resize(size_t(m_len) * 2 + 4096);
    for (;;) {
        // Plain ASCII runs are widened straight into the buffer.
        QChar* out = m_buf.data() + m_len;
        QChar* const out_end = m_buf.data() + m_buf.size() - 2;
        while (p < m_end && out < out_end) {
            const uchar c = *p;
            if (c < 0x20 || c >= 0x7F || c == '&' || c == '<' || c == quote)
                break;
            *out++ = QChar(char16_t(c));
            ++p;
        }
        m_len = int(out - m_buf.data());
        if (p >= m_end)
            return false;
        const uchar c = *p;
        if (c == quote) {
            ++p;
            return true;
        }
        if (out >= out_end) {
            m_buf.resize(m_buf.size() * 2);
            continue;
        }
        if (c == '<')
            return false;
        if (c == '&') {
            if (!read_reference(p))
                return false;
        } else if (c == '\t' || c == '\n') {
            append_char(' ');
            ++p;
        } else if (c == '\r') {
            // A line end (CR LF, or CR alone) becomes one space.
            append_char(' ');
            ++p;
            if (p < m_end && *p == '\n')
                ++p;
        } else if (c < 0x20) {
            return false;
        } else if (c == 0x7F) {
            append_char(c);
            ++p;
        } else if (!append_utf8(p)) {
            return false;
        }
    }
}

bool Fast_xml_reader::start_document()
{
    if (m_end - m_pos >= 3 && m_pos[0] == 0xEF && m_pos[1] == 0xBB && m_pos[2] == 0xBF)
        m_pos += 3;
    if (!starts(m_pos, m_end, "<?xml") || m_end - m_pos < 6 || !is_ws(m_pos[5]))
        return true;
    const uchar* p = m_pos + 5;
    bool seen_version = false, seen_encoding = false, seen_standalone = false;
    for (;;) {
        const bool ws = skip_ws(p);
        if (starts(p, m_end, "?>")) {
            m_pos = p + 2;
            return seen_version;
        }
        if (!ws)
            return false;
        const uchar* n = p;
        while (p < m_end && (*p | 0x20) >= 'a' && (*p | 0x20) <= 'z')
            ++p;
        const QByteArray key(reinterpret_cast<const char*>(n), int(p - n));
        skip_ws(p);
        if (p >= m_end || *p != '=')
            return false;
        ++p;
        skip_ws(p);
        if (p >= m_end || (*p != '"' && *p != '\''))
            return false;
        const uchar q = *p++;
        const uchar* v = p;
        while (p < m_end && *p != q && *p != '<' && *p != '>')
            ++p;
        if (p >= m_end || *p != q)
            return false;
        const QByteArray value(reinterpret_cast<const char*>(v), int(p - v));
        ++p;
        // The pseudo-attributes come in this order, each at most once.
        if (key == "version" && !seen_version && !seen_encoding && !seen_standalone) {
            if (value != "1.0")
                return false;
            seen_version = true;
        } else if (key == "encoding" && seen_version && !seen_encoding && !seen_standalone) {
            if (value.toLower() != "utf-8")
                return false;
            seen_encoding = true;
        } else if (key == "standalone" && seen_version && !seen_standalone) {
            if (value != "yes" && value != "no")
                return false;
            seen_standalone = true;
        } else {
            return false;
        }
    }
}

QXmlStreamReader::TokenType Fast_xml_reader::readNext()
{
    if (m_error)
        return QXmlStreamReader::Invalid;
    if (m_token == QXmlStreamReader::NoToken) {
        if (!m_begin)
            return error("no data");
        if (!start_document())
            return error("unsupported or malformed XML declaration or encoding");
        m_attrs.clear();
        m_len = 0;
        return m_token = QXmlStreamReader::StartDocument;
    }
    if (m_token == QXmlStreamReader::EndDocument)
        return m_token;
    m_attrs.clear();
    m_ns.clear();
    if (m_pending_end) {
        // An empty-element tag: its end keeps the name just read.
        m_pending_end = false;
        m_stack.removeLast();
        return m_token = QXmlStreamReader::EndElement;
    }
    m_len = 0;
    m_cdata = false;
    m_whitespace = false;
    for (;;) {
        if (m_pos >= m_end) {
            if (!m_root_seen || !m_stack.isEmpty())
                return error("premature end of document");
            return m_token = QXmlStreamReader::EndDocument;
        }
        if (*m_pos == '<')
            return read_markup();
        if (m_stack.isEmpty()) {
            // Outside the root only white space; it is not reported.
            if (!skip_ws(m_pos))
                return error("content outside the root element");
            continue;
        }
        return read_text();
    }
}

QXmlStreamReader::TokenType Fast_xml_reader::read_markup()
{
    const uchar* p = m_pos + 1;
    if (p >= m_end)
        return error("premature end of document");
    if (*p == '/')
        return read_end_tag();
    if (*p == '?') {
        ++p;
        if (!scan_name(p, m_name_off, m_name_len))
            return error("bad processing instruction target");
        const QStringView target = name();
        if (target.size() == 3 && target.compare(QLatin1String("xml"), Qt::CaseInsensitive) == 0)
            return error("XML declaration not at the start");
        const bool ws = skip_ws(p);
        m_text_off = m_len;
        for (;;) {
            if (p >= m_end)
                return error("unterminated processing instruction");
            if (*p == '?' && p + 1 < m_end && p[1] == '>')
                break;
            if (!ws)
                return error("bad processing instruction");
            if (*p == '\r') {
                // Line ends are normalised everywhere, not only in text.
                append_char('\n');
                ++p;
                if (p < m_end && *p == '\n')
                    ++p;
            } else if (*p < 0x80) {
                if (*p < 0x20 && !is_ws(*p))
                    return error("bad character");
                append_char(*p++);
            } else if (!append_utf8(p)) {
                return error("bad UTF-8");
            }
        }
        m_text_len = m_len - m_text_off;
        m_pi_data = ws;
        m_pos = p + 2;
        return m_token = QXmlStreamReader::ProcessingInstruction;
    }
    if (*p == '!') {
        if (starts(p, m_end, "!--")) {
            p += 3;
            m_text_off = m_len;
            for (;;) {
                if (p + 1 >= m_end)
                    return error("unterminated comment");
                if (*p == '-' && p[1] == '-') {
                    if (p + 2 < m_end && p[2] == '>')
                        break;
                    return error("'--' in a comment");
                }
                if (*p == '\r') {
                    append_char('\n');
                    ++p;
                    if (p < m_end && *p == '\n')
                        ++p;
                } else if (*p < 0x80) {
                    if (*p < 0x20 && !is_ws(*p))
                        return error("bad character");
                    append_char(*p++);
                } else if (!append_utf8(p)) {
                    return error("bad UTF-8");
                }
            }
            m_text_len = m_len - m_text_off;
            m_pos = p + 3;
            return m_token = QXmlStreamReader::Comment;
        }
        if (starts(p, m_end, "![CDATA[")) {
            if (m_stack.isEmpty())
                return error("CDATA outside the root element");
            p += 8;
            m_text_off = m_len;
            for (;;) {
                if (p + 2 >= m_end)
                    return error("unterminated CDATA section");
                if (*p == ']' && p[1] == ']' && p[2] == '>')
                    break;
                if (*p == '\r') {
                    append_char('\n');
                    ++p;
                    if (p < m_end && *p == '\n')
                        ++p;
                } else if (*p < 0x80) {
                    if (*p < 0x20 && !is_ws(*p))
                        return error("bad character");
                    append_char(*p++);
                } else if (!append_utf8(p)) {
                    return error("bad UTF-8");
                }
            }
            m_text_len = m_len - m_text_off;
            m_pos = p + 3;
            m_cdata = true;
            return m_token = QXmlStreamReader::Characters;
        }
        return error("DOCTYPE or unknown markup");
    }
    return read_start_tag();
}

QStringView Fast_xml_reader::namespace_of(const Attr& a) const
{
    for (const Attr& n : m_ns)
        if (n.local_raw_len == a.prefix_raw_len &&
            std::memcmp(m_begin + n.local_raw_off, m_begin + a.prefix_raw_off, size_t(a.prefix_raw_len)) == 0)
            return view(n.value_off, n.value_len);
    return QStringView();
}

QXmlStreamReader::TokenType Fast_xml_reader::read_start_tag()
{
    const bool root = m_stack.isEmpty();
    if (root && m_root_seen)
        return error("second root element");
    const uchar* p = m_pos + 1;
    const int raw_off = int(p - m_begin);
    if (!scan_name(p, m_name_off, m_name_len))
        return error("bad element name");
    const int raw_len = int(p - m_begin) - raw_off;
    std::unordered_set<std::string_view> names;
    for (;;) {
        const bool ws = skip_ws(p);
        if (p >= m_end)
            return error("premature end of document");
        if (*p == '>') {
            ++p;
            break;
        }
        if (*p == '/') {
            if (p + 1 >= m_end || p[1] != '>')
                return error("bad empty-element tag");
            p += 2;
            m_pending_end = true;
            break;
        }
        if (!ws)
            return error("attributes must be separated by white space");
        Attr a;
        a.raw_off = int(p - m_begin);
        a.prefix_raw_off = -1;
        a.prefix_raw_len = 0;
        if (!scan_name(p, a.name_off, a.name_len))
            return error("bad attribute name");
        a.raw_len = int(p - m_begin) - a.raw_off;
        a.local_raw_off = a.raw_off;
        a.local_raw_len = a.raw_len;
        if (p < m_end && *p == ':') {
            // Prefixed attributes and namespace declarations only on the root, where they are
            // common (xmlns:xsi); QXmlStreamReader then reports the local name, as here.
            if (!root)
                return error("namespace prefix below the root");
            a.prefix_raw_off = a.raw_off;
            a.prefix_raw_len = a.raw_len;
            ++p;
            a.local_raw_off = int(p - m_begin);
            if (!scan_name(p, a.name_off, a.name_len))
                return error("bad attribute name");
            a.local_raw_len = int(p - m_begin) - a.local_raw_off;
            a.raw_len = int(p - m_begin) - a.raw_off;
        }
        const bool declaration = a.prefix_raw_len == 5 && std::memcmp(m_begin + a.raw_off, "xmlns", 5) == 0;
        if (a.prefix_raw_off < 0 && a.raw_len == 5 && std::memcmp(m_begin + a.raw_off, "xmlns", 5) == 0)
            return error("default namespace declaration");
        // Compared pairwise while few, by hash beyond: one start tag may carry a million.
        const std::string_view raw(reinterpret_cast<const char*>(m_begin + a.raw_off), size_t(a.raw_len));
        if (m_prescanned) {
        } else if (m_attrs.size() + m_ns.size() < 16) {
            for (const Attr& b : m_attrs)
                if (b.raw_len == a.raw_len && std::memcmp(m_begin + a.raw_off, m_begin + b.raw_off, size_t(a.raw_len)) == 0)
                    return error("duplicate attribute");
            for (const Attr& b : m_ns)
                if (b.raw_len == a.raw_len && std::memcmp(m_begin + a.raw_off, m_begin + b.raw_off, size_t(a.raw_len)) == 0)
                    return error("duplicate attribute");
        } else {
            if (names.empty())
                for (const QVector<Attr>* list : {&m_attrs, &m_ns})
                    for (const Attr& b : *list)
                        names.insert(std::string_view(reinterpret_cast<const char*>(m_begin + b.raw_off), size_t(b.raw_len)));
            if (!names.insert(raw).second)
                return error("duplicate attribute");
        }
        skip_ws(p);
        if (p >= m_end || *p != '=')
            return error("expected '='");
        ++p;
        skip_ws(p);
        if (p >= m_end || (*p != '"' && *p != '\''))
            return error("expected a quoted value");
        const uchar quote = *p++;
        a.value_off = m_len;
        if (!read_attribute_value(p, quote))
            return error("bad attribute value");
        a.value_len = m_len - a.value_off;
        if (declaration) {
            if (a.value_len == 0 || (a.local_raw_len >= 3 && (m_begin[a.local_raw_off] | 0x20) == 'x' &&
                                     (m_begin[a.local_raw_off + 1] | 0x20) == 'm' &&
                                     (m_begin[a.local_raw_off + 2] | 0x20) == 'l'))
                return error("reserved or empty namespace declaration");
            m_ns.append(a);
        } else {
            m_attrs.append(a);
        }
    }
    bool prefixed = false;
    for (int i = 0; i < m_attrs.size(); ++i) {
        const Attr& a = m_attrs[i];
        if (a.prefix_raw_off < 0)
            continue;
        prefixed = true;
        if (namespace_of(a).isNull())
            return error("undeclared namespace prefix");
    }
    if (prefixed) {
        // The same local name twice is left to QXmlStreamReader, which compares namespaces.
        QSet<QStringView> local;
        for (int i = 0; i < m_attrs.size(); ++i)
            if (local.contains(attribute_name(i)))
                return error("local name twice");
            else
                local.insert(attribute_name(i));
    }
    m_max_attributes = qMax(m_max_attributes, m_attrs.size() + m_ns.size());
    m_pos = p;
    m_root_seen = true;
    m_stack.append(qMakePair(raw_off, raw_len));
    return m_token = QXmlStreamReader::StartElement;
}

QXmlStreamReader::TokenType Fast_xml_reader::read_end_tag()
{
    const uchar* p = m_pos + 2;
    const int raw_off = int(p - m_begin);
    if (!scan_name(p, m_name_off, m_name_len))
        return error("bad end tag");
    const int raw_len = int(p - m_begin) - raw_off;
    skip_ws(p);
    if (p >= m_end || *p != '>')
        return error("bad end tag");
    if (m_stack.isEmpty())
        return error("end tag without start tag");
    const QPair<int, int> open = m_stack.last();
    if (open.second != raw_len || std::memcmp(m_begin + open.first, m_begin + raw_off, size_t(raw_len)) != 0)
        return error("mismatched end tag");
    m_stack.removeLast();
    m_pos = p + 1;
    return m_token = QXmlStreamReader::EndElement;
}

QXmlStreamReader::TokenType Fast_xml_reader::read_text()
{
    const uchar* p = m_pos;
    m_text_off = m_len;
    bool ws = true;
    while (p < m_end && *p != '<') {
        const uchar c = *p;
        if (c == '\r') {
            append_char('\n');
            ++p;
            if (p < m_end && *p == '\n')
                ++p;
            continue;
        }
        if (!is_ws(c))
            ws = false;
        if (c == '&') {
            if (!read_reference(p))
                return error("bad entity or character reference");
        } else if (c < 0x80) {
            if (c < 0x20 && !is_ws(c))
                return error("bad character");
            if (c == '>' && p - m_pos >= 2 && p[-1] == ']' && p[-2] == ']')
                return error("']]>' in text");
            append_char(c);
            ++p;
        } else if (!append_utf8(p)) {
            return error("bad UTF-8");
        }
    }
    m_text_len = m_len - m_text_off;
    m_whitespace = ws;
    m_pos = p;
    return m_token = QXmlStreamReader::Characters;
}

void Fast_xml_reader::skipCurrentElement()
{
    int depth = 1;
    while (depth && readNext() != QXmlStreamReader::Invalid) {
        if (m_token == QXmlStreamReader::EndElement)
            --depth;
        else if (m_token == QXmlStreamReader::StartElement)
            ++depth;
    }
}

QStringView Fast_xml_reader::attribute_value(QLatin1String name, bool* found) const
{
    for (int i = 0; i < m_attrs.size(); ++i) {
        if (attribute_name(i) == name) {
            if (found)
                *found = true;
            return attribute_value(i);
        }
    }
    if (found)
        *found = false;
    return QStringView();
}

void Fast_xml_reader::write_current_token(QXmlStreamWriter& w) const
{
    switch (m_token) {
    case QXmlStreamReader::StartElement:
        w.writeStartElement(name().toString());
        for (const Attr& n : m_ns)
            w.writeNamespace(view(n.value_off, n.value_len).toString(), view(n.name_off, n.name_len).toString());
        for (int i = 0; i < m_attrs.size(); ++i) {
            if (m_attrs[i].prefix_raw_off >= 0)
                w.writeAttribute(namespace_of(m_attrs[i]).toString(), attribute_name(i).toString(),
                                 attribute_value(i).toString());
            else
                w.writeAttribute(attribute_name(i).toString(), attribute_value(i).toString());
        }
        break;
    case QXmlStreamReader::EndElement:
        w.writeEndElement();
        break;
    case QXmlStreamReader::Characters:
        if (m_cdata)
            w.writeCDATA(text().toString());
        else
            w.writeCharacters(text().toString());
        break;
    case QXmlStreamReader::Comment:
        w.writeComment(text().toString());
        break;
    case QXmlStreamReader::ProcessingInstruction:
        // A target without white space after it has null data in QXmlStreamReader, and the
        // writer then writes no space.
        w.writeProcessingInstruction(processing_instruction_target().toString(),
                                     m_pi_data ? text().toString() : QString());
        break;
    default:
        break;
    }
}

void Fast_xml_reader::fail(XML_interface& xi, const QString& path) const
{
    xi.set_fail(QCoreApplication::translate("XML_interface", "Error \"%1\" in %2").arg(m_error_text, path));
}

Xml_error_hint Fast_xml_reader::hint_at(Xml_error_hint::Kind kind, const uchar* at, const QString& reason) const
{
    Xml_error_hint h;
    h.kind = kind;
    h.reason = reason;
    h.line = 1;
    const uchar* line_start = m_begin;
    for (const uchar* p = m_begin; p < at; ++p) {
        if ((*p & 0xC0) != 0x80)
            ++h.offset;
        if (*p == '\n') {
            ++h.line;
            line_start = p + 1;
        }
    }
    // Counted as QXmlStreamReader counts: the offending character is included.
    ++h.offset;
    h.column = 1;
    for (const uchar* p = line_start; p < at; ++p)
        if ((*p & 0xC0) != 0x80)
            ++h.column;
    return h;
}

bool Fast_xml_reader::prescan() const
{
    Fast_xml_reader probe;
    probe.m_begin = m_begin;
    probe.m_pos = m_begin;
    probe.m_end = m_end;
    while (!probe.atEnd())
        probe.readNext();
    m_hint = Xml_error_hint();
    if (!probe.hasError()) {
        m_prescanned = m_pos == m_begin && m_token == QXmlStreamReader::NoToken;
        return true;
    }
    if (probe.m_max_attributes > max_attributes_for_fallback)
        m_hint = hint_at(Xml_error_hint::too_many_attributes, probe.m_pos, QLatin1String(probe.m_error_reason));
    else if (const uchar* bad = first_invalid_utf8(m_begin, m_end))
        m_hint = hint_at(Xml_error_hint::encoding, bad, QStringLiteral("bad UTF-8"));
    else if (probe.m_root_seen && probe.m_stack.isEmpty())
        m_hint = hint_at(Xml_error_hint::after_root, probe.m_pos, QLatin1String(probe.m_error_reason));
    return false;
}

void fail_with_hint(XML_interface& xi, const QString& path, const Xml_error_hint& hint)
{
    xi.set_fail_at(path, hint.reason, hint.line, hint.column, hint.offset);
}

void Qt_xml_source::fail(XML_interface& xi, const QString& path) const
{
    const QString error = m_r.errorString();
    const bool placed =
        (m_hint.kind == Xml_error_hint::encoding &&
         error == QCoreApplication::translate("QXmlStream", "Encountered incorrectly encoded content.")) ||
        (m_hint.kind == Xml_error_hint::after_root &&
         error == QCoreApplication::translate("QXmlStream", "Extra content at end of document."));
    if (placed)
        xi.set_fail_at(path, error, m_hint.line, m_hint.column, m_hint.offset);
    else
        xi.set_fail(path, m_r);
}

} // namespace Task_data
} // namespace TC
