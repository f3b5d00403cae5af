// Implementation of `taskdata check`; see check_command.h for what is found and why.
#include "check_command.h"

#include "change_summary.h"
#include "tool_support.h"

#if defined(KTD_HAVE_TIMELOG_COMMAND) && __has_include("timelog_command.h")
#include "timelog_command.h"
#define KTD_CHECK_TIME_LOGS 1
#endif

#include <taskdata/common/Symlink_policy.h>

#include <platform/iso/Time_source.h>
#include <taskdata/common/Task_data_files.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QUuid>
#include <QXmlStreamReader>

#include <type_traits>

using namespace Taskdata_tool;
using namespace TC::Task_data::Elements::Base;
using namespace TC::Task_data::Attributes::Base;
using TC::Task_data::Symlink_policy;

namespace {

using Problem = Check_problem;

void print_usage(QTextStream& s)
{
    s << "usage: taskdata check DIR [--json]\n"
         "  DIR     a task data directory (or its TASKDATA.XML)\n"
         "  --json  one JSON document instead of one line per problem\n"
         "exit code: 0 nothing found, 1 problems found, 2 bad usage or directory not loadable\n";
}

// "P" followed by a digit marks names outside the ISO vocabulary, which may appear anywhere.
bool is_proprietary(QStringView name)
{
    return name.size() > 1 && name.at(0) == QLatin1Char('P') && name.at(1).isDigit();
}

// --- value checks against the spec of the document's version ---

struct Value_verdict
{
    QString code; // empty when the text is acceptable
    QString detail;
};

template <class T>
QString integer_text(T v, int base, int width)
{
    if constexpr (std::is_signed<T>::value)
        return Number_text::format_integer(qint64(v), base, width);
    else
        return Number_text::format_unsigned(quint64(v), base, width);
}

// True when `a` is an integer of type T (and the verdict was made).
template <class T>
bool check_integer(Attribute* a, QStringView text, int version, Value_verdict& out)
{
    auto i = dynamic_cast<Integer<T>*>(a);
    if (!i)
        return false;
    const typename Integer<T>::Spec& s = choose_variant(i->base_spec(), version);
    bool ok = false;
    bool in_range = false;
    if constexpr (std::is_unsigned<T>::value) {
        const quint64 v = Number_text::parse_unsigned(text, s.base, &ok);
        in_range = v >= quint64(s.min) && v <= quint64(s.max);
    } else {
        const qint64 v = Number_text::parse_integer(text, s.base, &ok);
        in_range = v >= qint64(s.min) && v <= qint64(s.max);
    }
    if (!ok) {
        out = {QStringLiteral("not_a_number"),
               s.base == 16 ? QStringLiteral("is no hexadecimal number") : QStringLiteral("is no integer")};
    } else if (s.base == 16 && s.width > 0 && text.size() != s.width) {
        out = {QStringLiteral("bad_format"), QStringLiteral("must have %1 hexadecimal digits").arg(s.width)};
    } else if (!in_range) {
        out = {QStringLiteral("out_of_range"), QStringLiteral("is outside %1..%2 for format version %3")
                                                   .arg(integer_text(s.min, s.base, s.width),
                                                        integer_text(s.max, s.base, s.width))
                                                   .arg(version)};
    }
    return true;
}

Value_verdict check_float(Float* f, QStringView text, int version)
{
    const Float::Spec& s = choose_variant(f->base_spec(), version);
    double v = 0;
    if (!Float::parse(text, v))
        return {QStringLiteral("not_a_number"), QStringLiteral("is no number")};
    if (!(v >= s.min && v <= s.max))
        return {QStringLiteral("out_of_range"), QStringLiteral("is outside %1..%2 for format version %3")
                                                    .arg(QString::number(s.min, 'g', 12), QString::number(s.max, 'g', 12))
                                                    .arg(version)};
    return {};
}

// Identifier text "TSK12" or "TSK-12": the kind's code and a 32-bit number.
bool parse_identifier(QStringView text, int& n)
{
    bool ok = false;
    if (text.size() <= 3)
        return false;
    const qint64 v = Number_text::parse_integer(text.mid(3), 10, &ok);
    if (!ok || v < std::numeric_limits<qint32>::min() || v > std::numeric_limits<qint32>::max())
        return false;
    n = int(v);
    return true;
}

// --- the text scan ---

class Text_scan
{
public:
    Text_scan(const Loaded_dir& d, int version, QVector<Problem>& problems)
        : m_dir(d.dir), m_version(version), m_problems(problems)
    {
        m_scratch = Element_man::create();
    }

    void run(const QString& main_file)
    {
        m_queue.append(document(QFileInfo(main_file).fileName(), QStringLiteral("ISO11783_TaskData")));
        for (int i = 0; i < m_queue.size(); ++i) {
            const Queued q = m_queue.at(i);
            if (i == 0) {
                scan_file(main_file, q);
                // The link list belongs to the document but is not referenced from it.
                const QString ll = find_in_dir(m_dir, QStringLiteral("LINKLIST.XML"));
                if (!ll.isEmpty())
                    m_queue.append(document(QFileInfo(ll).fileName(), QStringLiteral("ISO11783LinkList")));
                continue;
            }
            const QString path = find_in_dir(m_dir, q.name);
            if (path.isEmpty()) {
                if (q.individual)
                    add(QStringLiteral("missing_file"),
                        q.parent_path.isEmpty() ? QStringLiteral("ISO11783_TaskData") : q.parent_path, QString(),
                        q.ref_file, q.ref_line, QStringLiteral("individually saved element file %1 not found").arg(q.name));
                else if (!q.ref_element.isEmpty())
                    add(QStringLiteral("missing_file"), q.ref_element, QStringLiteral("A"), q.ref_file, q.ref_line,
                        QStringLiteral("external file %1 not found").arg(q.name));
                continue;
            }
            if (m_seen.contains(QFileInfo(path).fileName().toUpper()))
                continue;
            scan_file(path, q);
        }
    }

private:
    struct Queued
    {
        QString name;
        QString root_tag;
        QString parent_path;
        bool individual = false;
        QString ref_file;
        int ref_line = 0;
        QString ref_element; // the XFR naming an external file
    };
    // A file whose root is a document root (main file, external file, link list).
    static Queued document(const QString& name, const QString& root_tag)
    {
        Queued q;
        q.name = name;
        q.root_tag = root_tag;
        return q;
    }
    struct Frame
    {
        const Kind_info* kind = nullptr;
        Element* proto = nullptr;
        QString tag;
        QString path; // "" for a document root
        QHash<QString, int> counts;
    };
    // How problems name the element of a frame.
    static QString where(const Frame& f) { return f.path.isEmpty() ? f.tag : f.path; }
    struct Id_place
    {
        QString file;
        int line;
    };

    void add(const QString& code, const QString& element, const QString& attribute, const QString& file, int line,
             const QString& message, bool identifier = false)
    {
        m_problems.append({code, element, attribute, file, line, message, change_of(code, identifier, m_version)});
    }

    Element* prototype(const Kind_info* k)
    {
        const QString tag = QString::fromLatin1(k->tag);
        auto it = m_protos.find(tag);
        if (it == m_protos.end())
            it = m_protos.insert(tag, Catalogue::create(tag, m_scratch));
        return it->data();
    }

    void scan_file(const QString& path, const Queued& q)
    {
        const QString file = QFileInfo(path).fileName();
        m_seen.insert(file.toUpper());
        QFile f(path);
        if (!f.open(QIODevice::ReadOnly)) {
            add(QStringLiteral("unreadable_file"), QString(), QString(), file, 0,
                QStringLiteral("cannot be opened: %1").arg(f.errorString()));
            return;
        }
        QXmlStreamReader r(&f);
        QVector<Frame> stack;
        while (!r.atEnd()) {
            const QXmlStreamReader::TokenType t = r.readNext();
            if (t == QXmlStreamReader::EndElement) {
                if (!stack.isEmpty())
                    stack.removeLast();
                continue;
            }
            if (t != QXmlStreamReader::StartElement)
                continue;
            const QString tag = r.name().toString();
            const int line = int(r.lineNumber());
            Frame frame;
            if (stack.isEmpty()) {
                frame.kind = Catalogue::find(tag);
                frame.tag = tag;
                if (tag != q.root_tag || !frame.kind) {
                    add(QStringLiteral("unreadable_file"), QString(), QString(), file, line,
                        QStringLiteral("root element %1 where %2 was expected").arg(tag, q.root_tag));
                    return;
                }
                frame.proto = prototype(frame.kind);
                if (q.individual) {
                    // The root of an individual file is the element itself, a child of the referrer.
                    Frame referrer;
                    referrer.path = q.parent_path;
                    frame.path = child_path(referrer, frame, r, tag);
                } else {
                    frame.path = q.parent_path;
                }
                check_attributes(r, frame, tag, file, line);
                stack.append(frame);
                continue;
            }
            Frame& parent = stack.last();
            const Kind_info* pk = parent.kind;
            int list = -1;
            for (unsigned i = 0; i < pk->num_lists; ++i)
                if (tag == QLatin1String(pk->list_tags[i]))
                    list = int(i);
            if (list < 0) {
                if (tag == QLatin1String("P231_UID_XFR") || tag == QLatin1String("P231_GUID_XFR"))
                    queue_individual(r, parent, file, line);
                else if (!is_proprietary(tag))
                    add(QStringLiteral("unknown_element"), where(parent), QString(), file, line,
                        Catalogue::find(tag)
                            ? QStringLiteral("%1 cannot be a child here; the library does not read it").arg(tag)
                            : QStringLiteral("unknown element %1; the library does not read it").arg(tag));
                r.skipCurrentElement();
                continue;
            }
            frame.kind = Catalogue::find(tag);
            frame.tag = tag;
            frame.proto = prototype(frame.kind);
            frame.path = child_path(parent, frame, r, tag);
            if (pk->list_versions[list] > m_version) {
                // Left out whole on writing: its attributes and children need no report of their own.
                add(QStringLiteral("newer_element"), frame.path, QString(), file, line,
                    QStringLiteral("%1 exists only from format version %2 on and is left out when written as version %3")
                        .arg(tag)
                        .arg(pk->list_versions[list])
                        .arg(m_version));
                r.skipCurrentElement();
                continue;
            }
            check_attributes(r, frame, tag, file, line);
            if (tag == QLatin1String("XFR")) {
                const QString a = r.attributes().value(QLatin1String("A")).toString();
                if (!a.isEmpty()) {
                    Queued x = document(a + QStringLiteral(".XML"), QStringLiteral("XFC"));
                    x.ref_element = frame.path;
                    x.ref_file = file;
                    x.ref_line = line;
                    m_queue.append(x);
                }
            }
            stack.append(frame);
        }
        if (r.hasError())
            add(QStringLiteral("unreadable_file"), QString(), QString(), file, int(r.lineNumber()),
                QStringLiteral("XML error \"%1\" at line %2, column %3")
                    .arg(r.errorString())
                    .arg(r.lineNumber())
                    .arg(r.columnNumber()));
    }

    QString child_path(Frame& parent, const Frame& child, QXmlStreamReader& r, const QString& tag)
    {
        QString name;
        if (child.kind->id_index >= 0) {
            const QString id_name = child.kind->attribute_specs[child.kind->id_index]->xml_name();
            name = r.attributes().value(id_name).toString();
        }
        const int index = ++parent.counts[tag];
        if (name.isEmpty())
            name = QStringLiteral("%1[%2]").arg(tag).arg(index);
        return parent.path.isEmpty() ? name : parent.path + QLatin1Char('/') + name;
    }

    void queue_individual(QXmlStreamReader& r, const Frame& parent, const QString& file, int line)
    {
        const QXmlStreamAttributes a = r.attributes();
        const QString tag = a.value(QLatin1String("TAG")).toString();
        QString name;
        if (r.name() == QLatin1String("P231_GUID_XFR")) {
            const QUuid guid(a.value(QLatin1String("GUID")).toString());
            if (!guid.isNull())
                name = QStringLiteral("%1_%2.XML").arg(tag, guid.toString(QUuid::WithoutBraces));
        } else {
            bool ok = false;
            const int id = a.value(QLatin1String("ID")).toInt(&ok);
            if (ok && id != 0)
                name = QStringLiteral("%1_%2.XML").arg(tag).arg(id);
        }
        if (tag.isEmpty() || name.isEmpty()) {
            add(QStringLiteral("malformed_reference"), where(parent), QString(), file, line,
                QStringLiteral("%1 names no element file").arg(r.name().toString()));
            return;
        }
        Queued q{name, tag, parent.path, true, file, line, QString()};
        m_queue.append(q);
    }

    void check_attributes(QXmlStreamReader& r, const Frame& f, const QString& tag, const QString& file, int line)
    {
        const QXmlStreamAttributes attrs = r.attributes();
        Element* proto = f.proto;
        const bool root = is_document_root(tag);
        // Points whose coordinates live in a binary file may leave their attributes empty.
        const bool binary_point = tag == QLatin1String("PNT") && !attrs.value(QLatin1String("J")).isEmpty();
        for (const QXmlStreamAttribute& at : attrs) {
            if (!at.prefix().isEmpty())
                continue; // xsi:noNamespaceSchemaLocation and the like
            const QString name = at.name().toString();
            const QStringView text(at.value());
            Attribute* a = proto->find_attribute(QStringView(name));
            if (!a) {
                if (!is_proprietary(name))
                    add(QStringLiteral("unknown_attribute"), where(f), name, file, line,
                        QStringLiteral("attribute %1=\"%2\" is not part of %3").arg(name, text.toString(), tag));
                continue;
            }
            const Attribute::Spec& spec = a->base_spec();
            if (spec.version > m_version && !spec.is_proprietary())
                add(QStringLiteral("newer_attribute"), where(f), name, file, line,
                    QStringLiteral("attribute %1 exists only from format version %2 on and is left out when written "
                                   "as version %3")
                        .arg(name)
                        .arg(spec.version)
                        .arg(m_version));
            if (root && (name == QLatin1String("VersionMajor") || name == QLatin1String("VersionMinor"))) {
                if (name == QLatin1String("VersionMajor") && text != QLatin1String("3") && text != QLatin1String("4"))
                    add(QStringLiteral("unsupported_version"), where(f), name, file, line,
                        QStringLiteral("VersionMajor=\"%1\" is no supported format version (3 or 4)").arg(text.toString()));
                // A minor version belongs to its major version; written in the same one, it must
                // be one the version has.
                if (name == QLatin1String("VersionMinor") &&
                    attrs.value(QLatin1String("VersionMajor")) == QString::number(m_version))
                    check_value(a, name, text, f, file, line, false);
                continue;
            }
            check_value(a, name, text, f, file, line, binary_point);
        }
        for (unsigned i = 0; i < f.kind->num_attributes; ++i) {
            const Attribute::Spec* s = f.kind->attribute_specs[i];
            if (s->required && s->version <= m_version && !attrs.hasAttribute(s->xml_name()))
                add(QStringLiteral("missing_attribute"), where(f), s->xml_name(), file, line,
                    QStringLiteral("required attribute %1 is missing").arg(s->xml_name()), int(i) == f.kind->id_index);
        }
    }

    void check_value(Attribute* a, const QString& name, QStringView text, const Frame& f, const QString& file, int line,
                     bool binary_point)
    {
        const QString shown = QStringLiteral("%1=\"%2\"").arg(name, text.toString());
        const bool identifier = dynamic_cast<UniqueID*>(a) != nullptr;
        auto report = [&](const QString& code, const QString& detail) {
            add(code, where(f), name, file, line, shown + QLatin1Char(' ') + detail, identifier);
        };
        if (auto id = dynamic_cast<UniqueID*>(a)) {
            const UniqueID::Spec& s = id->base_spec();
            int n = 0;
            const bool number_ok = parse_identifier(text, n);
            if (!text.startsWith(QLatin1String(s.prefix)) || !number_ok) {
                report(QStringLiteral("malformed_identifier"),
                       QStringLiteral("is no identifier of the form %1n or %1-n").arg(QLatin1String(s.prefix)));
                // The library takes the number whatever the code before it, so it still counts below.
                if (!number_ok)
                    return;
            } else {
                const QString canonical = QString::fromLatin1(s.prefix) + Number_text::format_integer(n, s.base, s.width);
                if (s.width > 0 && canonical != text)
                    report(QStringLiteral("bad_format"),
                           QStringLiteral("is written as %1 (and its files named so)").arg(canonical));
            }
            const QString key = QString::fromLatin1(s.prefix) + QString::number(n);
            const auto it = m_ids.constFind(key);
            if (it != m_ids.constEnd()) {
                report(QStringLiteral("duplicate_identifier"),
                       QStringLiteral("duplicates identifier %1 of the element at %2:%3; the library gives this "
                                      "element a new number")
                           .arg(key, it->file)
                           .arg(it->line));
                return;
            }
            m_ids.insert(key, {file, line});
            return;
        }
        if (auto link = dynamic_cast<LinkedID*>(a)) {
            const char* target = link->base_spec().target_tag;
            int n = 0;
            const bool tag_ok = target[0] ? text.startsWith(QLatin1String(target))
                                           : (text.size() > 3 && Catalogue::find(text.left(3).toString()) &&
                                              Catalogue::find(text.left(3).toString())->id_index >= 0);
            if (!parse_identifier(text, n))
                report(QStringLiteral("unreadable_reference"),
                       QStringLiteral("is no reference to an element; it is left out when written"));
            else if (!tag_ok)
                report(QStringLiteral("malformed_reference"),
                       target[0] ? QStringLiteral("is no reference of the form %1n or %1-n").arg(QLatin1String(target))
                                 : QStringLiteral("is no reference to an element"));
            return;
        }
        if (text.isEmpty() && binary_point)
            return;
        Value_verdict v;
        if (auto s = dynamic_cast<String*>(a)) {
            // File names the library writes as the format names them ("GRD1" -> "GRD00001").
            const QString tag = f.tag;
            if ((tag == QLatin1String("GRD") && name == QLatin1String("G")) ||
                (tag == QLatin1String("PNT") && name == QLatin1String("J")) ||
                (tag == QLatin1String("XFR") && name == QLatin1String("A"))) {
                const QString written = TC::Task_data::Task_data_files::format_file_name(
                    text.toString(), tag == QLatin1String("XFR") ? QString() : tag);
                if (!written.isEmpty() && written != text)
                    add(QStringLiteral("file_name"), where(f), name, file, line,
                        shown + QStringLiteral(" is written as %1 (and its file named so)").arg(written));
            }
            const quint32 max = choose_variant(s->base_spec(), m_version).max_length;
            const QString whole = text.toString();
            if (String::cut_position(whole, max) < whole.size())
                report(QStringLiteral("too_long"),
                       QStringLiteral("has %1 characters; %2 are allowed and the rest is cut")
                           .arg(whole.toUcs4().size())
                           .arg(max));
            return;
        }
        if (dynamic_cast<Datetime*>(a)) {
            Iso::Isoxml_date d;
            if (!Iso::Time_source::parse_isoxml_date(text, d))
                report(QStringLiteral("invalid_date"), QStringLiteral("is no date-time"));
            return;
        }
        if (text.isEmpty()) {
            report(QStringLiteral("not_a_number"), QStringLiteral("is empty"));
            return;
        }
        if (auto fl = dynamic_cast<Float*>(a)) {
            v = check_float(fl, text, m_version);
        } else {
            check_integer<qint8>(a, text, m_version, v) || check_integer<quint8>(a, text, m_version, v) ||
                check_integer<qint16>(a, text, m_version, v) || check_integer<quint16>(a, text, m_version, v) ||
                check_integer<qint32>(a, text, m_version, v) || check_integer<quint32>(a, text, m_version, v) ||
                check_integer<quint64>(a, text, m_version, v);
        }
        if (!v.code.isEmpty())
            report(v.code, v.detail);
    }

    QString m_dir;
    int m_version;
    QVector<Problem>& m_problems;
    QSharedPointer<Element_man> m_scratch;
    QHash<QString, QSharedPointer<Element>> m_protos;
    QHash<QString, Id_place> m_ids;
    QVector<Queued> m_queue;
    QSet<QString> m_seen;
};

// --- checks on the loaded tree ---

qint64 file_size(const QString& path) { return QFileInfo(path).size(); }

// Expected sizes that do not fit in 64 bits: more than any file can hold.
constexpr qint64 size_overflow = -2;

// Whether the file can be read as it is: false (and reported) when it is missing, a symbolic
// link that is not followed, or not of the size the data gives it.
bool check_file(const Loaded_dir& d, QVector<Problem>& problems, const Element* e, const QString& attribute,
                const QString& name, const QString& what, qint64 length_attribute, qint64 expected_size,
                const QString& expected_why)
{
    const QString path = find_in_dir(d.dir, name);
    if (path.isEmpty()) {
        problems.append({QStringLiteral("missing_file"), element_path(e), attribute, QString(), 0,
                         QStringLiteral("%1 %2 not found").arg(what, name)});
        return false;
    }
    if (Symlink_policy::refuses(path)) {
        problems.append({QStringLiteral("symlink"), element_path(e), attribute, QString(), 0,
                         Symlink_policy::message(QFileInfo(path).fileName())});
        return false;
    }
    const qint64 size = file_size(path);
    const int before = problems.size();
    if (length_attribute >= 0 && length_attribute != size)
        problems.append({QStringLiteral("file_size"), element_path(e), attribute, QString(), 0,
                         QStringLiteral("%1 has %2 bytes but the element gives its length as %3")
                             .arg(QFileInfo(path).fileName())
                             .arg(size)
                             .arg(length_attribute)});
    if (expected_size >= 0 && expected_size != size)
        problems.append({QStringLiteral("file_size"), element_path(e), attribute, QString(), 0,
                         QStringLiteral("%1 has %2 bytes; %3 need %4")
                             .arg(QFileInfo(path).fileName())
                             .arg(size)
                             .arg(expected_why)
                             .arg(expected_size)});
    if (expected_size == size_overflow)
        problems.append({QStringLiteral("file_size"), element_path(e), attribute, QString(), 0,
                         QStringLiteral("%1 has %2 bytes; %3 need more than a file can hold")
                             .arg(QFileInfo(path).fileName())
                             .arg(size)
                             .arg(expected_why)});
    return problems.size() == before;
}

// a x b, or size_overflow when that does not fit.
qint64 product(qint64 a, qint64 b)
{
    qint64 out;
    return a < 0 || b < 0 || __builtin_mul_overflow(a, b, &out) ? size_overflow : out;
}

// The length attribute when the file gave one (-1 otherwise).
template <class A>
qint64 given_length(const A& a)
{
    return a.present() && !a.empty_text() ? qint64(a.get_val()) : -1;
}

void check_tree(const Loaded_dir& d, QVector<Problem>& problems)
{
    // A reference already reported as malformed is not reported again as unresolved.
    QSet<QString> reported;
    for (const Problem& p : problems)
        reported.insert(p.element + QLatin1Char('|') + p.attribute);
    for (const Element_man::Pending_entry& p : d.man->pending_links()) {
        const QSharedPointer<Element> owner = p.owner.toStrongRef();
        if (!owner)
            continue;
        QString attribute;
        for (unsigned i = 0; i < owner->_num_iso_attributes(); ++i) {
            auto link = dynamic_cast<LinkedID*>(owner->_attribute(i));
            QString tag;
            int n = 0;
            if (link && d.man->pending_link(link, tag, n) && tag == p.tag && n == p.n) {
                attribute = link->xml_name();
                break;
            }
        }
        const QString target = p.tag + QString::number(p.n);
        if (reported.contains(element_path(owner.data()) + QLatin1Char('|') + attribute))
            continue;
        problems.append({QStringLiteral("unresolved_reference"), element_path(owner.data()), attribute, QString(), 0,
                         QStringLiteral("%1refers to %2, which is not in the task data")
                             .arg(attribute.isEmpty() ? QString() : attribute + QStringLiteral("=\"") + target +
                                                                        QStringLiteral("\" "),
                                  target)});
    }

    walk_all(d, [&](const QSharedPointer<Element>& e) {
        if (auto g = e.dynamicCast<Grid>()) {
            const QString name = g->filename.get_string();
            if (name.isEmpty())
                return;
            // Sizes in 64 bits with overflow checked: two 32-bit dimensions may not fit even there.
            const qint64 cells = product(qint64(g->ncells_east.get_val()), qint64(g->ncells_north.get_val()));
            qint64 expected = -1;
            QString why;
            if (g->gridtype.get_val() == 1) {
                expected = cells;
                why = QStringLiteral("%1 x %2 cells of one zone code byte").arg(g->ncells_east.get_val()).arg(g->ncells_north.get_val());
            } else if (g->gridtype.get_val() == 2 && g->treatment_zone_code.present()) {
                // Type 2 cells carry one 32-bit value per process data variable of zone J.
                if (auto task = dynamic_cast<Task*>(g->parent_element())) {
                    for (int i = 0; i < task->treatment_zones.count(); ++i) {
                        auto z = task->treatment_zones.typed_at(i);
                        if (z->code.get_val() == g->treatment_zone_code.get_val()) {
                            const int n = z->process_data_variables.count();
                            expected = product(cells, product(4, n));
                            why = QStringLiteral("%1 x %2 cells of %3 values")
                                      .arg(g->ncells_east.get_val())
                                      .arg(g->ncells_north.get_val())
                                      .arg(n);
                            break;
                        }
                    }
                }
            }
            check_file(d, problems, g.data(), QStringLiteral("G"), name + QStringLiteral(".BIN"),
                       QStringLiteral("grid file"), given_length(g->filelength), expected, why);
        } else if (auto t = e.dynamicCast<Time_log>()) {
            if (!t->filename.has_number())
                return;
            // Under the name the data gives first, as the library looks the files up.
            QString base = t->filename.read_text();
            if (base.isEmpty() || find_in_dir(d.dir, base + QStringLiteral(".BIN")).isEmpty())
                base = t->filename.get_as_string();
            const bool binary = check_file(d, problems, t.data(), QStringLiteral("A"), base + QStringLiteral(".BIN"),
                                           QStringLiteral("time log data"), given_length(t->filelength), -1, QString());
            const bool header = check_file(d, problems, t.data(), QStringLiteral("A"), base + QStringLiteral(".XML"),
                                           QStringLiteral("time log header"), -1, -1, QString());
#ifdef KTD_CHECK_TIME_LOGS
            // Whatever `taskdata timelog` would refuse, in its words.
            if (binary && header)
                for (const QString& why : time_log_problems(t))
                    problems.append({QStringLiteral("time_log"), element_path(t.data()), QStringLiteral("A"), QString(), 0,
                                     QStringLiteral("time log %1 cannot be decoded: %2").arg(base, why)});
#endif
        } else if (auto p = e.dynamicCast<Point>()) {
            const QString name = p->filename.get_string();
            if (name.isEmpty())
                return;
            check_file(d, problems, p.data(), QStringLiteral("J"), name + QStringLiteral(".BIN"),
                       QStringLiteral("point file"), given_length(p->filelength), -1, QString());
            // Without a length to compare, a file must at least hold whole records.
            TC::Task_data::Point_list records;
            records.from_element(*p, d.dir);
            const QString path = find_in_dir(d.dir, name + QStringLiteral(".BIN"));
            const qint64 size = path.isEmpty() ? 0 : file_size(path);
            if (given_length(p->filelength) < 0 && records.binrecsz() > 0 && size % records.binrecsz() != 0)
                problems.append({QStringLiteral("file_size"), element_path(p.data()), QStringLiteral("J"), QString(), 0,
                                 QStringLiteral("%1 has %2 bytes, not a whole number of %3-byte point records")
                                     .arg(QFileInfo(path).fileName())
                                     .arg(size)
                                     .arg(records.binrecsz())});
        } else if (auto a = e.dynamicCast<Attached_file>()) {
            const QString name = a->filename.get_string();
            if (!name.isEmpty())
                check_file(d, problems, a.data(), QStringLiteral("A"), name, QStringLiteral("attached file"),
                           given_length(a->filelength), -1, QString());
        }
    });
}

} // namespace

QVector<Check_problem> Taskdata_tool::find_problems(const Loaded_dir& d, int version)
{
    QVector<Problem> problems;
    Text_scan scan(d, version, problems);
    scan.run(d.main_file);
    check_tree(d, problems);
    return problems;
}

namespace {

QString problem_line(const Problem& p)
{
    QString s;
    if (!p.file.isEmpty())
        s += p.line > 0 ? QStringLiteral("%1:%2: ").arg(p.file).arg(p.line) : p.file + QStringLiteral(": ");
    if (!p.element.isEmpty())
        s += p.element + QStringLiteral(": ");
    return s + p.message;
}

} // namespace

int run_check_command(const QStringList& args, QTextStream& out, QTextStream& err)
{
    if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
        print_usage(out);
        return exit_ok;
    }
    const Parsed_args pa = parse_args(args, {QStringLiteral("--json")}, {});
    if (!pa.error.isEmpty() || pa.positional.size() != 1) {
        err << "taskdata check: " << (pa.error.isEmpty() ? QStringLiteral("expected one directory") : pa.error) << '\n';
        print_usage(err);
        return exit_unusable;
    }
    const bool json = pa.flags.contains(QStringLiteral("--json"));

    Loaded_dir d;
    QVector<Problem> problems;
    const bool loaded = load_directory(pa.positional.first(), d);
    if (!loaded) {
        // The library's text names the file, line and column where reading stopped.
        problems.append({QStringLiteral("not_loadable"), QString(), QString(), QString(), 0, d.error});
    } else {
        problems = find_problems(d, d.version());
    }
    // What writing the directory again (taskdata convert) would change, the same list.
    const QVector<Change_line> changes = loaded ? changes_for_writing(d, &problems) : QVector<Change_line>();

    if (json) {
        QJsonObject o;
        o.insert(QStringLiteral("directory"), d.dir.isEmpty() ? pa.positional.first() : d.dir);
        o.insert(QStringLiteral("loadable"), loaded);
        if (!d.header.version_major.isEmpty())
            o.insert(QStringLiteral("format_version"),
                     d.header.version_minor.isEmpty() ? d.header.version_major
                                                      : d.header.version_major + QLatin1Char('.') + d.header.version_minor);
        o.insert(QStringLiteral("problem_count"), problems.size());
        QJsonArray list;
        for (const Problem& p : problems) {
            QJsonObject j{{QStringLiteral("code"), p.code}, {QStringLiteral("message"), p.message}};
            j.insert(QStringLiteral("element"), p.element);
            j.insert(QStringLiteral("attribute"), p.attribute);
            j.insert(QStringLiteral("file"), p.file);
            j.insert(QStringLiteral("line"), p.line);
            list.append(j);
        }
        o.insert(QStringLiteral("problems"), list);
        o.insert(QStringLiteral("changes"), changes_json(changes));
        print_json(out, o);
    } else {
        for (const Problem& p : problems)
            out << problem_line(p) << '\n';
        if (loaded)
            out << (problems.isEmpty() ? QStringLiteral("no problems found")
                                       : QStringLiteral("%1 problem(s) found").arg(problems.size()))
                << '\n';
        for (const Change_line& c : changes)
            out << change_text(c) << '\n';
    }
    if (!loaded)
        return exit_unusable;
    return problems.isEmpty() ? exit_ok : exit_problems;
}
