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

QString UniqueID::format(qint32 value, int width) const
{
    const Spec& s = base_spec();
    return QString::fromLatin1(s.prefix) + Number_text::format_integer(value, s.base, width);
}

QString UniqueID::get_as_string() const
{
    // One reading: a reader without the lock gets number and digits of the same identifier.
    const Number id = number();
    if (!id.set)
        return QString();
    const Spec& s = base_spec();
    // A file name has exactly the width its format gives it; other identifiers keep the
    // leading zeros they were read with (the digits read, after a minus sign).
    return format(id.value, s.width > 0 ? s.width : id.digits + (id.value < 0 && id.digits ? 1 : 0));
}

QString UniqueID::read_text() const
{
    const Spec& s = base_spec();
    const Number id = number();
    if (!id.set || s.width == 0 || id.digits == 0 || id.digits == s.width)
        return QString();
    return format(id.value, id.digits + (id.value < 0 ? 1 : 0));
}

bool UniqueID::_set_val(const QSharedPointer<Element>& owner, int n, bool lookup, bool valid, bool& changed,
                        bool clear)
{
    changed = false;
    const Number old = number();
    if (clear ? !old.set : old.set && n == old.value)
        return true;
    const Spec& s = base_spec();
    if (!clear && (n < s.min || n > s.max))
        return false;
    QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>();
    if (!man)
        return false;
    const QString prefix = QString::fromLatin1(s.prefix);
    QUuid guid = m_guid;
    if (guid.isNull() && !clear) {
        if (lookup)
            man->lookup_guid(prefix, n, guid);
        if (guid.isNull())
            guid = QUuid::createUuid();
    }
    // Checking the number and entering it is one step in the manager: two threads can never
    // both find a number free and both take it. An element erased a moment ago and not yet let
    // go of by the erase only checks, and its old number goes now.
    if (!clear && owner->registrable()) {
        if (!man->claim_uid(prefix, n, owner, guid, old.value))
            return false;
    } else {
        if (!clear && !man->check_uid_free(prefix, n))
            return false;
        if (old.set)
            man->release_uid(prefix, old.value, owner.data());
    }
    m_guid = guid;
    m_renumbered = false;
    store(clear ? 0 : n, !clear);
    changed = true;
    set_flag_noevent(flag_valid, valid);
    if (!clear)
        owner->set_id(owner, old.value, n, prefix);
    notify_updated(owner);
    return true;
}

bool UniqueID::take_fresh(const QSharedPointer<Element>& owner, Element_man& man, bool positive, bool valid)
{
    const QString prefix = QString::fromLatin1(base_spec().prefix);
    const Number old = number();
    if (m_guid.isNull())
        m_guid = QUuid::createUuid();
    // Chosen and entered in one step; an element outside the tree reserves nothing.
    const int n = owner->registrable() ? man.allocate_uid(prefix, positive, owner, m_guid)
                                       : man.get_free_uid(prefix, positive);
    if (n == 0)
        return false;
    if (old.set && old.value != n)
        man.release_uid(prefix, old.value, owner.data());
    m_renumbered = false;
    store(n, true);
    set_flag_noevent(flag_valid, valid);
    owner->set_id(owner, old.value, n, prefix);
    notify_updated(owner);
    return true;
}

bool UniqueID::set_val(const QSharedPointer<Element>& owner, int n, bool lookup_guid)
{
    bool changed = false;
    if (!_set_val(owner, n, lookup_guid, true, changed, n == 0))
        return false;
    // A value given by the application is written as that value, even after an empty read.
    const bool valid_changed = set_flag_noevent(flag_valid, true);
    const bool flags = set_flag_noevent(flag_empty, false) || valid_changed;
    if (flags && !changed)
        notify_updated(owner);
    return true;
}

void UniqueID::sync_registration(const QSharedPointer<Element>& owner)
{
    const Number id = number();
    QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>();
    if (!id.set || !man)
        return;
    const QString prefix = QString::fromLatin1(base_spec().prefix);
    if (!owner->registrable()) {
        man->release_uid(prefix, id.value, owner.data());
        return;
    }
    if (m_guid.isNull())
        m_guid = QUuid::createUuid();
    if (man->claim_uid(prefix, id.value, owner, m_guid)) {
        man->register_element(prefix, id.value, owner);
        return;
    }
    // Taken while this element was out of the tree: it comes back under a new number of the
    // terminal's own (negative), and links follow it since they hold the element, not the number.
    if (take_fresh(owner, *man, false, valid()))
        fprintf(stderr, "Identifier %s is in use: the element added again becomes %s\n",
                qPrintable(format(id.value, 0)), qPrintable(get_as_string()));
}

bool UniqueID::copy_identity(const QSharedPointer<Element>& owner, const UniqueID& source,
                             const QMap<QUuid, QUuid>& guid_map, bool copy_ids, bool notify)
{
    const QUuid mapped = guid_map.value(source.m_guid);
    const QUuid guid = !mapped.isNull() ? mapped : copy_ids ? source.m_guid : QUuid();
    const Number theirs = source.number();
    const Number mine = number();
    bool notified = false;
    bool changed = false;
    if (copy_ids && (theirs.set != mine.set || theirs.value != mine.value)) {
        const QUuid keep = m_guid;
        // Entered in the registry together with the number.
        if (!guid.isNull())
            m_guid = guid;
        if (_set_val(owner, theirs.value, false, source.valid(), notified, !theirs.set)) {
            changed = true;
            if (theirs.set)
                store(theirs.value, true, theirs.digits); // the copy reads as the source does
        } else {
            m_guid = keep;
        }
    } else if (!guid.isNull() && guid != m_guid) {
        m_guid = guid;
        changed = true;
        QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>();
        if (man && mine.set && man->holds_uid(get_tag(), mine.value, owner.data()))
            man->register_guid(get_tag(), mine.value, m_guid);
    }
    const bool flags = set_flag_noevent(flag_present, source.present());
    changed |= flags;
    if (changed && notify && !notified)
        notify_updated(owner);
    return changed;
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
        if (!accepted && man && has_number() && m_renumbered) {
            // Read again, a duplicate keeps the number it was given the first time.
            accepted = renumbered = true;
        } else if (!accepted && man && !man->check_uid_free(QString::fromLatin1(s.prefix), n)) {
            // A duplicate: the first element keeps the identifier, this one gets a free number
            // of the same sign (never 0), and links to the identifier stay with the first.
            accepted = renumbered = changed = take_fresh(owner, *man, n >= 0, false);
        }
    } else {
        _set_val(owner, 0, false, false, changed, true);
    }
    if (accepted && !renumbered)
        store(n, true, quint8(digits));
    m_renumbered = renumbered;
    if (!changed)
        flags_changed |= set_flag_noevent(flag_valid, accepted && ok && !renumbered);
    else
        set_flag_noevent(flag_valid, accepted && ok && !renumbered);
    if (!changed && flags_changed)
        notify_updated(owner);
    const Number id = number();
    if (man && id.set)
        man->register_uid_for_guid(QString::fromLatin1(s.prefix), id.value, QUuid());
    return ok && accepted && !renumbered;
}

bool UniqueID::_xml_value(QString& out, Element* owner, int) const
{
    if (m_flags & flag_empty) {
        out.clear();
        return true;
    }
    const Number id = number();
    if (!id.set)
        return false;
    out = get_as_string();
    // Every identifier written gets its GUID into the GUID list written beside the document.
    if (owner) {
        if (QSharedPointer<Element_man> man = owner->man())
            man->register_guid(QString::fromLatin1(base_spec().prefix), id.value, m_guid);
    }
    return true;
}

void UniqueID::set_to_default(const QSharedPointer<Element>& owner, Element_man& man, bool)
{
    if (has_number() || !owner)
        return;
    take_fresh(owner, man, false, true);
}

int UniqueID::compare(Element* a, Element* b, bool ascending) const
{
    auto pa = static_cast<const UniqueID*>(peer_in(a));
    auto pb = static_cast<const UniqueID*>(peer_in(b));
    if (!pa || !pb)
        return 0;
    const int r = pa->get_val() < pb->get_val() ? -1 : (pa->get_val() > pb->get_val() ? 1 : 0);
    return ascending ? r : -r;
}

void UniqueID::hash(Element*, Hash_arg& h) const
{
    const Number id = number();
    h.add_value(id.value);
    h.add_value(id.set);
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
