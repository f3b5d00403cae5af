#include "UniqueID.h"

#include "Integer.h"

#include <taskdata/elements/base/Element.h>
#include <taskdata/elements/base/Element_man.h>

#include <cstdio>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

QString UniqueID::construct_uid_string(const QString& prefix, int number)
{
    return prefix + QString::number(number);
}

bool UniqueID::deconstruct_uid_string(QString& prefix, int& number, const QString& text)
{
    QString rest = text;
    QString digits;
    while (!rest.isEmpty()) {
        const QChar c = rest.at(rest.size() - 1);
        if (!c.isDigit() && c != QLatin1Char('-'))
            break;
        digits.prepend(c);
        rest.chop(1);
        // The minus sign ends the number.
        if (c == QLatin1Char('-') && digits.size() > 1)
            break;
    }
    if (digits.isEmpty()) {
        fprintf(stderr, "Error deconstructing A %s\n", text.toUtf8().constData());
        return false;
    }
    bool ok = false;
    const int n = digits.toInt(&ok, 10);
    if (!ok) {
        fprintf(stderr, "Error deconstructing B %s\n", text.toUtf8().constData());
        return false;
    }
    prefix = rest;
    number = n;
    return true;
}

QString UniqueID::format(int width) const
{
    const Spec& s = base_spec();
    return QString::fromLatin1(s.prefix) + Number_text::format_integer(m_value, s.base, width);
}

QString UniqueID::get_as_string() const
{
    if (!m_set)
        return QString();
    const Spec& s = base_spec();
    // A file name has exactly the width its format gives it; other identifiers keep the
    // leading zeros they were read with (the digits read, after a minus sign).
    return format(s.width > 0 ? s.width : m_digits + (m_value < 0 && m_digits ? 1 : 0));
}

QString UniqueID::read_text() const
{
    const Spec& s = base_spec();
    if (!m_set || s.width == 0 || m_digits == 0 || m_digits == s.width)
        return QString();
    return format(m_digits + (m_value < 0 ? 1 : 0));
}

bool UniqueID::_set_val(const QSharedPointer<Element>& owner, int n, bool lookup, bool valid, bool& changed,
                        bool clear)
{
    changed = false;
    if (clear ? !m_set : m_set && n == m_value)
        return true;
    const Spec& s = base_spec();
    if (!clear && (n < s.min || n > s.max))
        return false;
    QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>();
    if (!man)
        return false;
    const QString prefix = QString::fromLatin1(s.prefix);
    if (!clear && !man->check_uid_free(prefix, n))
        return false;
    if (m_guid.isNull() && !clear) {
        if (lookup)
            man->lookup_guid(prefix, n, m_guid);
        if (m_guid.isNull()) {
            m_guid = QUuid::createUuid();
            man->register_guid(prefix, n, m_guid);
        }
    }
    const int old = m_value;
    if (m_set)
        man->deregister_uid(prefix, old);
    changed = true;
    m_renumbered = false;
    m_digits = 0;
    set_flag_noevent(flag_valid, valid);
    if (clear) {
        m_set = false;
        m_value = 0;
        notify_updated(owner);
        return true;
    }
    man->register_uid(prefix, n);
    m_value = n;
    m_set = true;
    owner->set_id(owner, old, n, prefix);
    notify_updated(owner);
    man->register_guid(prefix, n, m_guid);
    return true;
}

bool UniqueID::set_val(const QSharedPointer<Element>& owner, int n, bool lookup_guid)
{
    bool changed = false;
    const bool ok = _set_val(owner, n, lookup_guid, true, changed, n == 0);
    if (ok && !changed && set_flag_noevent(flag_valid, true))
        notify_updated(owner);
    return ok;
}

bool UniqueID::_set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text)
{
    bool flags_changed = mark_read(text);
    const Spec& s = base_spec();
    bool ok = false;
    int n = 0;
    int digits = 0;
    if (text.size() > 3) {
        const QStringView number = text.mid(3);
        const qint64 v = Number_text::parse_integer(number, s.base, &ok);
        if (ok && (v < s.min || v > s.max))
            ok = false;
        n = ok ? int(v) : 0;
        const bool sign = number.startsWith(QLatin1Char('-')) || number.startsWith(QLatin1Char('+'));
        digits = qMin(int(number.size()) - (sign ? 1 : 0), 255);
    }
    bool changed = false;
    bool accepted = false;
    bool renumbered = false;
    QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>();
    if (ok) {
        accepted = _set_val(owner, n, true, true, changed);
        if (!accepted && man && m_set && m_renumbered) {
            // Read again, a duplicate keeps the number it was given the first time.
            accepted = renumbered = true;
        } else if (!accepted && man && !man->check_uid_free(QString::fromLatin1(s.prefix), n)) {
            // A duplicate: the first element keeps the identifier, this one gets a free number
            // of the same sign (never 0), and links to the identifier stay with the first.
            const int fresh = man->get_free_uid(QString::fromLatin1(s.prefix), n >= 0);
            accepted = renumbered = fresh != 0 && _set_val(owner, fresh, false, false, changed);
        }
    } else {
        _set_val(owner, 0, false, false, changed, true);
    }
    if (accepted && !renumbered)
        m_digits = quint8(digits);
    m_renumbered = renumbered;
    if (!changed)
        flags_changed |= set_flag_noevent(flag_valid, accepted && ok && !renumbered);
    else
        set_flag_noevent(flag_valid, accepted && ok && !renumbered);
    if (!changed && flags_changed)
        notify_updated(owner);
    if (man && m_set)
        man->register_uid_for_guid(QString::fromLatin1(s.prefix), m_value, QUuid());
    return ok && accepted && !renumbered;
}

bool UniqueID::_xml_value(QString& out, Element* owner, int) const
{
    if (m_flags & flag_empty) {
        out.clear();
        return true;
    }
    if (!m_set)
        return false;
    out = get_as_string();
    // Every identifier written gets its GUID into the GUID list written beside the document.
    if (owner) {
        if (QSharedPointer<Element_man> man = owner->man())
            man->register_guid(QString::fromLatin1(base_spec().prefix), m_value, m_guid);
    }
    return true;
}

void UniqueID::set_to_default(const QSharedPointer<Element>& owner, Element_man& man, bool)
{
    if (m_set)
        return;
    const QString prefix = QString::fromLatin1(base_spec().prefix);
    const int n = man.get_free_uid(prefix, false);
    if (n == 0)
        return;
    m_guid = QUuid::createUuid();
    bool changed = false;
    _set_val(owner, n, false, true, changed);
    man.register_guid(prefix, n, m_guid);
}

int UniqueID::compare(Element* a, Element* b, bool ascending) const
{
    auto pa = static_cast<const UniqueID*>(peer_in(a));
    auto pb = static_cast<const UniqueID*>(peer_in(b));
    if (!pa || !pb)
        return 0;
    const int r = pa->m_value < pb->m_value ? -1 : (pa->m_value > pb->m_value ? 1 : 0);
    return ascending ? r : -r;
}

void UniqueID::hash(Element*, Hash_arg& h) const
{
    h.add_value(m_value);
    h.add_value(m_set);
    h.add_value(m_flags);
}

bool UniqueID::set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify)
{
    auto other = dynamic_cast<const UniqueID*>(source);
    if (!other)
        return false;
    // Copying an identifier into another element would make it a duplicate: only flags travel.
    const bool changed = set_flag_noevent(flag_present, other->present());
    if (changed && notify)
        notify_updated(owner);
    return changed;
}

bool UniqueID::_to_xml(Element* owner, QDomElement& dom, const QString& name) const
{
    return dom_write(owner, dom, name);
}

bool UniqueID::_from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name)
{
    return dom_read(owner, dom, name);
}

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
