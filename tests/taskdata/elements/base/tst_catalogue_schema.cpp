// The catalogue against the published schemas: every attribute of every kind, for format version
// 4 (V4-3) and 3 (V3-3), read with the smallest and the largest value its schema allows and
// written back for that version unchanged; a required attribute's default is a value the schema
// allows; and an attribute is written only for versions whose schema has it. The table of rows
// whose published limits the catalogue had to widen (KTD_LISTED_LIMITS) holds only rows that need it.
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QDomDocument>
#include <QFile>
#include <QtTest>

#include <cmath>
#include <limits>
#include <type_traits>

using namespace TC::Task_data::Attributes::Base;
using namespace TC::Task_data::Elements::Base;

namespace {

// What a schema says of one attribute.
struct Facets
{
    QString base;   // restriction base or declared type ("xs:unsignedByte", "xs:dateTime", ...)
    bool required = false;
    bool empty_allowed = false; // a union with the empty string
    QString min, max;
    QStringList enumeration;
    int length = -1, max_length = -1;
};
using Schema = QHash<QString, QHash<QString, Facets>>; // element -> attribute -> facets

QDomElement child(const QDomElement& e, const char* name)
{
    return e.firstChildElement(QString("xs:") + name);
}

void read_restriction(const QDomElement& r, Facets& f)
{
    f.base = r.attribute("base");
    for (QDomElement c = r.firstChildElement(); !c.isNull(); c = c.nextSiblingElement()) {
        const QString v = c.attribute("value");
        if (c.tagName() == "xs:minInclusive")
            f.min = v;
        else if (c.tagName() == "xs:maxInclusive")
            f.max = v;
        else if (c.tagName() == "xs:enumeration")
            f.enumeration << v;
        else if (c.tagName() == "xs:length")
            f.length = v.toInt();
        else if (c.tagName() == "xs:maxLength")
            f.max_length = v.toInt();
    }
}

bool load_schema(const QString& path, Schema& schema)
{
    QFile file(path);
    QDomDocument doc;
    if (!file.open(QIODevice::ReadOnly) || !doc.setContent(&file))
        return false;
    for (QDomElement e = doc.documentElement().firstChildElement("xs:element"); !e.isNull();
         e = e.nextSiblingElement("xs:element")) {
        auto& attributes = schema[e.attribute("name")];
        for (QDomElement a = child(child(e, "complexType"), "attribute"); !a.isNull();
             a = a.nextSiblingElement("xs:attribute")) {
            Facets f;
            f.required = a.attribute("use") == "required";
            f.base = a.attribute("type");
            QDomElement type = child(a, "simpleType");
            if (QDomElement u = child(type, "union"); !u.isNull()) {
                f.empty_allowed = u.attribute("memberTypes").contains("emptyString");
                type = child(u, "simpleType");
            }
            if (QDomElement r = child(type, "restriction"); !r.isNull())
                read_restriction(r, f);
            attributes.insert(a.attribute("name"), f);
        }
    }
    return true;
}

// The schemas of a major version: V4-3 (with its common part and the link list) or V3-3.
const Schema* schema_for(int version)
{
    static QHash<int, Schema> cache;
    if (!cache.contains(version)) {
        const QString xsd = Ktd_test::shared_dir() + "/isoxml/xsd/";
        const QStringList files = version == 3 ? QStringList{"ISO11783_TaskFile_V3-3.xsd"}
                                               : QStringList{"ISO11783_TaskFile_V4-3.xsd", "ISO11783_Common_V4-3.xsd",
                                                             "ISO11783_LinkListFile_V4-3.xsd"};
        Schema s;
        for (const QString& f : files)
            if (!load_schema(xsd + f, s))
                return nullptr;
        cache.insert(version, s);
    }
    return &cache[version];
}

// --- integer limits ---

struct Range
{
    qint64 min = 0;
    quint64 max = 0; // unsigned: NAME values reach 2^64 - 1
    QList<qint64> values; // an enumeration, when the schema has one
};

Range schema_range(const Facets& f)
{
    Range r;
    if (!f.enumeration.isEmpty()) {
        for (const QString& v : f.enumeration)
            r.values << v.toLongLong();
        std::sort(r.values.begin(), r.values.end());
        r.min = r.values.first();
        r.max = quint64(r.values.last());
        return r;
    }
    static const QHash<QString, quint64> unsigned_max{
        {"xs:unsignedByte", 255}, {"xs:unsignedShort", 65535}, {"xs:unsignedLong", ~0ull}};
    if (f.base == "xs:hexBinary")
        r.max = f.length >= 8 ? ~0ull : (1ull << (8 * f.length)) - 1;
    else if (unsigned_max.contains(f.base))
        r.max = unsigned_max.value(f.base);
    else
        r = Range{std::numeric_limits<qint64>::min(), quint64(std::numeric_limits<qint64>::max()), {}};
    if (!f.min.isEmpty())
        r.min = f.min.toLongLong();
    if (!f.max.isEmpty())
        r.max = f.max.toULongLong();
    return r;
}

bool allows(const Range& r, qint64 v)
{
    if (!r.values.isEmpty())
        return r.values.contains(v);
    return v >= r.min && (v < 0 || quint64(v) <= r.max);
}

// Published limits the catalogue widens, by spec.
struct Listed
{
    const Attribute::Spec* spec;
    qint64 min, max, def;
};
#define KTD_LISTED_ROW(Cls, member, mn, mx, d) {&Cls::member, qint64(mn), qint64(mx), qint64(d)},
#define KTD_LISTED_LENGTH(Cls, member, len) {&Cls::member, 0, qint64(len), 0},
const QVector<Listed> listed_limits = {KTD_LISTED_LIMITS(KTD_LISTED_ROW) KTD_LISTED_LENGTHS(KTD_LISTED_LENGTH)};
#undef KTD_LISTED_ROW
#undef KTD_LISTED_LENGTH

const Listed* listed_for(const Attribute::Spec* spec)
{
    for (const Listed& l : listed_limits)
        if (l.spec == spec)
            return &l;
    return nullptr;
}

QString read_and_write(const QSharedPointer<Element>& e, Attribute* a, const QString& text, int version)
{
    Ktd_test::Capture_fd quiet(2);
    a->set_by_xml_value(e, text);
    QString out;
    return a->xml_value(out, e.data(), version) ? out : QStringLiteral("<not written>");
}

// Problems of one integer attribute against its schema range.
template <class T>
bool integer_problems(Attribute* a, const QSharedPointer<Element>& e, const Range& r, const Facets& f, int version,
                      QStringList& problems)
{
    auto i = dynamic_cast<Integer<T>*>(a);
    if (!i)
        return false;
    const auto& spec = choose_variant(i->base_spec(), version);
    auto text = [&](qint64 v) {
        return std::is_signed<T>::value ? Number_text::format_integer(v, spec.base, spec.width)
                                        : Number_text::format_unsigned(quint64(v), spec.base, spec.width);
    };
    const qint64 smallest = r.min;
    const qint64 largest = qint64(std::min<quint64>(r.max, quint64(std::numeric_limits<T>::max())));
    if (quint64(std::numeric_limits<T>::max()) < r.max && !std::is_same<T, quint64>::value)
        problems << QString("kind too narrow for %1").arg(r.max);
    for (qint64 v : {smallest, largest}) {
        const QString got = read_and_write(e, a, text(v), version);
        if (got != text(v))
            problems << QString("%1 comes back as %2").arg(text(v), got);
    }
    if (f.required) {
        // Missing from a file, a required attribute is still written, with a value the schema allows.
        auto fresh = Catalogue::create(e->get_tag(), e->man());
        QString missing;
        bool ok = false;
        fresh->_attribute(unsigned(e->attribute_index(a->xml_name())))->xml_value(missing, fresh.data(), version);
        const qint64 v = std::is_signed<T>::value ? Number_text::parse_integer(missing, spec.base, &ok)
                                                  : qint64(Number_text::parse_unsigned(missing, spec.base, &ok));
        if (!ok || !allows(r, v))
            problems << QString("written as %1 when missing").arg(missing);
    }
    const Listed* l = listed_for(&spec);
    if (l && l->min <= smallest && l->max >= largest && (!f.required || allows(r, l->def)))
        problems << "listed limits need no widening";
    return true;
}

} // namespace

class Tst_catalogue_schema : public QObject
{
    Q_OBJECT
private slots:
    void attribute_data();
    void attribute();
};

void Tst_catalogue_schema::attribute_data()
{
    QTest::addColumn<QString>("tag");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("version");
    for (const Kind_info* k : Catalogue::kinds())
        for (unsigned i = 0; i < k->num_attributes; ++i) {
            const Attribute::Spec* s = k->attribute_specs[i];
            if (s->is_proprietary())
                continue;
            for (int version : {3, 4})
                if (s->version <= version)
                    QTest::addRow("%s %s v%d", k->tag, s->name, version) << QString(k->tag) << int(i) << version;
        }
}

void Tst_catalogue_schema::attribute()
{
    KTD_REQUIRE_SHARED(shared);
    QFETCH(QString, tag);
    QFETCH(int, index);
    QFETCH(int, version);
    const Schema* schema = schema_for(version);
    QVERIFY(schema);
    if (!schema->contains(tag))
        QSKIP("the kind does not exist in this version");
    auto man = Element_man::create();
    auto e = Catalogue::create(tag, man);
    Attribute* a = e->_attribute(unsigned(index));
    const QString name = a->xml_name();
    const auto& attributes = schema->value(tag);
    QVERIFY2(attributes.contains(name), "written for a version whose schema does not have it");
    const Facets f = attributes.value(name);
    QStringList problems;
    if (f.base.endsWith("ID") || f.base.endsWith("IDREF") || f.base == "xs:dateTime")
        return; // identifiers, references and date-times have tests of their own
    if (auto s = dynamic_cast<String*>(a)) {
        const int allowed = (f.length > 0 ? f.length : f.max_length) * (f.base == "xs:hexBinary" ? 2 : 1);
        const auto& spec = choose_variant(s->base_spec(), version);
        const QString longest(allowed, QLatin1Char('0'));
        const QString got = read_and_write(e, a, longest, version);
        if (got != longest)
            problems << QString("a text of %1 characters comes back with %2").arg(allowed).arg(got.size());
        if (const Listed* l = listed_for(&spec); l && l->max >= allowed)
            problems << "listed length needs no widening";
    } else if (auto fl = dynamic_cast<Float*>(a)) {
        const auto& spec = choose_variant(fl->base_spec(), version);
        for (const QString& v : {f.min, f.max}) {
            if (v.isEmpty())
                continue;
            const QString text = Float::format(v.toDouble());
            const QString got = read_and_write(e, a, v, version);
            if (got != text)
                problems << QString("%1 comes back as %2").arg(v, got);
        }
        if (f.required && !(spec.def >= f.min.toDouble() && spec.def <= f.max.toDouble()))
            problems << QString("default %1 is outside the schema").arg(spec.def);
    } else {
        const Range r = schema_range(f);
        QVERIFY(integer_problems<qint8>(a, e, r, f, version, problems) ||
                integer_problems<quint8>(a, e, r, f, version, problems) ||
                integer_problems<qint16>(a, e, r, f, version, problems) ||
                integer_problems<quint16>(a, e, r, f, version, problems) ||
                integer_problems<qint32>(a, e, r, f, version, problems) ||
                integer_problems<quint32>(a, e, r, f, version, problems) ||
                integer_problems<quint64>(a, e, r, f, version, problems));
    }
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join("; ")));
}

QTEST_MAIN(Tst_catalogue_schema)
#include "tst_catalogue_schema.moc"
