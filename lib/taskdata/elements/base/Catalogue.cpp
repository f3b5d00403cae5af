#include "Catalogue.h"

#include "Element_man.h"

#include <QCoreApplication>
#include <QHash>

#include <cstring>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

// Kind codes recorded per attribute so that identifier and designator are found by kind.
#define KTD_SPECPTR_K(Kind, m, ...) &m##_spec,
#define KTD_SPECPTR_M(m, ...) &m##_spec,
#define KTD_SPECPTR_I2(Kind, m, x, v, r, k1, mn1, mx1, d1, k2, ...) &m##_spec_v##k2,
#define KTD_SPECPTR_I3(Kind, m, x, v, r, k1, mn1, mx1, d1, k2, mn2, mx2, d2, k3, ...) &m##_spec_v##k3,
#define KTD_SPECPTR_S2(m, x, v, r, k1, len1, k2, len2) &m##_spec_v##k2,
#define KTD_UIDFLAG_NO(...) false,
#define KTD_UIDFLAG_YES(...) true,
#define KTD_MEMBERNAME_K(Kind, m, ...) #m,
#define KTD_MEMBERNAME_M(m, ...) #m,
#define KTD_LISTTAG(T, m, tag, v, ...) tag,
#define KTD_LISTVERSION(T, m, tag, v, ...) v,
#define KTD_LISTMAX(T, m, tag, v, singular, max) max,
#define KTD_CASE_K(Kind, m, ...)                                                               \
    case idx_##m:                                                                              \
        return &m;
#define KTD_CASE_M(m, ...)                                                                     \
    case idx_##m:                                                                              \
        return &m;
#define KTD_LCASE(T, m, tag, v, ...)                                                           \
    case lidx_##m:                                                                             \
        return &m;
#define KTD_LPTR(T, m, tag, v, ...)                                                            \
    if (list == &m)                                                                            \
        return int(lidx_##m);

// Links leave the manager's bookkeeping with their element; kinds without links do nothing.
#define KTD_FORGET_L(m, ...) forget_link(&m);
#define KTD_RELEASE_LINKS(Cls)                                                                 \
    KTD_##Cls(KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, \
              KTD_FORGET_L, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING)

#define KTD_ROWS_ATTR(Cls, K, M, I2, I3, S2)                                                   \
    KTD_##Cls(K, K, M, M, M, M, M, M, I2, I3, S2, KTD_NOTHING)
#define KTD_ROWS_LIST(Cls, C)                                                                  \
    KTD_##Cls(KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, \
              KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, C)

#define KTD_DEFINE_METHODS(Cls, Tag, Singular, Plural)                                         \
    Cls::Cls(const QWeakPointer<Element_man>& man) : Element(man) {}                          \
    Cls::~Cls()                                                                                \
    {                                                                                          \
        KTD_RELEASE_LINKS(Cls)                                                                 \
        release_registration();                                                                \
    }                                                                                          \
    const char* Cls::xml_tag() { return Tag; }                                                 \
    const Kind_info& Cls::static_kind()                                                        \
    {                                                                                          \
        static const Attributes::Base::Attribute::Spec* const specs[] = {                      \
            KTD_ROWS_ATTR(Cls, KTD_SPECPTR_K, KTD_SPECPTR_M, KTD_SPECPTR_I2, KTD_SPECPTR_I3, KTD_SPECPTR_S2) nullptr}; \
        static const bool is_uid[] = {KTD_##Cls(KTD_UIDFLAG_NO, KTD_UIDFLAG_NO, KTD_UIDFLAG_NO, KTD_UIDFLAG_NO, \
                                                KTD_UIDFLAG_NO, KTD_UIDFLAG_NO, KTD_UIDFLAG_YES, KTD_UIDFLAG_NO, \
                                                KTD_UIDFLAG_NO, KTD_UIDFLAG_NO, KTD_UIDFLAG_NO, KTD_NOTHING) false}; \
        static const char* const members[] = {                                                 \
            KTD_ROWS_ATTR(Cls, KTD_MEMBERNAME_K, KTD_MEMBERNAME_M, KTD_MEMBERNAME_K, KTD_MEMBERNAME_K, \
                          KTD_MEMBERNAME_M) nullptr};                                          \
        static const char* const tags[] = {KTD_ROWS_LIST(Cls, KTD_LISTTAG) nullptr};           \
        static const int versions[] = {KTD_ROWS_LIST(Cls, KTD_LISTVERSION) 0};                 \
        static const int maxes[] = {KTD_ROWS_LIST(Cls, KTD_LISTMAX) 0};                        \
        static const Kind_info info = [] {                                                     \
            Kind_info k{Tag, #Cls, Singular, num_attributes, specs, num_lists, tags, versions, -1, -1, maxes, members}; \
            for (unsigned i = 0; i < num_attributes; ++i) {                                    \
                if (is_uid[i] && k.id_index < 0)                                               \
                    k.id_index = int(i);                                                       \
                if (std::strcmp(members[i], "designator") == 0)                               \
                    k.designator_index = int(i);                                               \
            }                                                                                  \
            return k;                                                                          \
        }();                                                                                   \
        return info;                                                                           \
    }                                                                                          \
    QSharedPointer<Element> Cls::create_new(const QSharedPointer<Element>&,                    \
                                            const QWeakPointer<Element_man>& man) const        \
    {                                                                                          \
        return QSharedPointer<Cls>::create(man);                                               \
    }                                                                                          \
    QString Cls::get_tag() const { return QStringLiteral(Tag); }                              \
    QString Cls::get_name(int count) const                                                     \
    {                                                                                          \
        return count == 1 ? QStringLiteral(Singular) : QStringLiteral(Plural);                \
    }                                                                                          \
    QString Cls::get_tr_name(int count) const                                                  \
    {                                                                                          \
        return count == 1 ? QCoreApplication::translate("Element", Singular)                  \
                          : QCoreApplication::translate("Element", Plural);                   \
    }                                                                                          \
    QString Cls::get_tr_attribute_name(int index) const                                        \
    {                                                                                          \
        static const char* const names[] = {                                                   \
            KTD_ROWS_ATTR(Cls, KTD_MEMBERNAME_K, KTD_MEMBERNAME_M, KTD_MEMBERNAME_K, KTD_MEMBERNAME_K, \
                          KTD_MEMBERNAME_M) nullptr};                                          \
        if (index < 0 || unsigned(index) >= num_attributes)                                    \
            return QString();                                                                  \
        return QCoreApplication::translate("Attribute", names[index]);                        \
    }                                                                                          \
    UI::Chooser_level* Cls::create_chooser_level(QWidget*) { return nullptr; }                \
    Attributes::Base::Attribute* Cls::_attribute(unsigned index)                              \
    {                                                                                          \
        switch (index) {                                                                       \
            KTD_ROWS_ATTR(Cls, KTD_CASE_K, KTD_CASE_M, KTD_CASE_K, KTD_CASE_K, KTD_CASE_M)     \
        default:                                                                               \
            return nullptr;                                                                    \
        }                                                                                      \
    }                                                                                          \
    Attributes::Base::Attribute* Cls::_iso_attribute(const QString& name) { return find_attribute(name); } \
    Element_list* Cls::_element_list(unsigned index)                                           \
    {                                                                                          \
        switch (index) {                                                                       \
            KTD_ROWS_LIST(Cls, KTD_LCASE)                                                      \
        default:                                                                               \
            return nullptr;                                                                    \
        }                                                                                      \
    }                                                                                          \
    Element_list* Cls::_element_list(const QString& tag) { return find_list(tag); }           \
    int Cls::_element_list_index(Element_list* list)                                           \
    {                                                                                          \
        KTD_ROWS_LIST(Cls, KTD_LPTR)                                                           \
        Q_UNUSED(list)                                                                         \
        return -1;                                                                             \
    }                                                                                          \
    void Cls::register_lookup(const QSharedPointer<Element>& self, int, int new_id, const QString& prefix) \
    {                                                                                          \
        if (QSharedPointer<Element_man> m = man())                                             \
            m->register_element(prefix, new_id, self);                                         \
    }

KTD_ELEMENT_KINDS(KTD_DEFINE_METHODS)

const QVector<const Kind_info*>& Catalogue::kinds()
{
#define KTD_KINDPTR(Cls, Tag, Singular, Plural) &Cls::static_kind(),
    static const QVector<const Kind_info*> all = {KTD_ELEMENT_KINDS(KTD_KINDPTR)};
#undef KTD_KINDPTR
    return all;
}

const Kind_info* Catalogue::find(const QString& tag)
{
    for (const Kind_info* k : kinds())
        if (tag == QLatin1String(k->tag))
            return k;
    return nullptr;
}

QSharedPointer<Element> Catalogue::create(const QString& tag, const QWeakPointer<Element_man>& man)
{
#define KTD_CREATE(Cls, Tag, Singular, Plural)                                                 \
    if (tag == QLatin1String(Tag))                                                             \
        return QSharedPointer<Cls>::create(man);
    KTD_ELEMENT_KINDS(KTD_CREATE)
#undef KTD_CREATE
    return QSharedPointer<Element>();
}

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
