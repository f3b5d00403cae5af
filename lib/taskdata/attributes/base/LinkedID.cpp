#include "LinkedID.h"

#include "Integer.h"
#include "UniqueID.h"

#include <taskdata/elements/base/Element.h>
#include <taskdata/elements/base/Element_man.h>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

QSharedPointer<Element> LinkedID::_target() const { return m_target.toStrongRef(); }

QSharedPointer<Element> LinkedID::_get_target() const { return m_target.toStrongRef(); }

int LinkedID::get_val() const
{
    const QSharedPointer<Element> t = m_target.toStrongRef();
    return t ? t->get_id() : 0;
}

QString LinkedID::get_tag() const
{
    const QSharedPointer<Element> t = m_target.toStrongRef();
    if (t)
        return t->get_tag();
    return QString::fromLatin1(base_spec().target_tag);
}

bool LinkedID::accepts(Element* candidate) const
{
    if (!candidate)
        return false;
    const char* tag = base_spec().target_tag;
    return !tag[0] || candidate->get_tag() == QLatin1String(tag);
}

QString LinkedID::target_text(Element* target) const
{
    // The target's own identifier text, so that a link reads as the identifier it names
    // ("PFD0007" stays "PFD0007").
    const QString id = target->get_id_string();
    if (!id.isEmpty())
        return id;
    const Spec& s = base_spec();
    return target->get_tag() + Number_text::format_integer(target->get_id(), s.base, s.width);
}

QString LinkedID::get_as_string() const
{
    const QSharedPointer<Element> t = m_target.toStrongRef();
    return t ? target_text(t.data()) : QString();
}

bool LinkedID::update_target_from_id(bool& changed, const QSharedPointer<Element>& owner, const QString& tag, int id)
{
    changed = false;
    QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>();
    if (id == 0) {
        if (!m_target.isNull()) {
            m_target.clear();
            changed = true;
        }
        if (man)
            man->forget_link(this);
        return true;
    }
    return look_up(changed, owner, tag, id);
}

bool LinkedID::look_up(bool& changed, const QSharedPointer<Element>& owner, const QString& tag, int id)
{
    changed = false;
    QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>();
    QSharedPointer<Element> t = man ? man->lookup(tag, id) : QSharedPointer<Element>();
    if (t && accepts(t.data())) {
        if (m_target != t) {
            m_target = t;
            changed = true;
        }
        man->resolve_link(this, tag, id);
        set_flag_noevent(flag_valid, true);
        return true;
    }
    if (!m_target.isNull()) {
        m_target.clear();
        changed = true;
    }
    if (man)
        man->unresolve_link(this, owner, tag, id);
    return false;
}

bool LinkedID::set_val(const QSharedPointer<Element>& owner, const QString& tag, int id, bool notify)
{
    bool changed = false;
    const bool ok = update_target_from_id(changed, owner, tag, id);
    changed |= set_flag_noevent(flag_valid, ok);
    changed |= set_flag_noevent(flag_empty, false);
    if (changed && notify)
        notify_updated(owner);
    return ok;
}

bool LinkedID::set_target(const QSharedPointer<Element>& owner, const QSharedPointer<Element>& target, bool notify)
{
    if (target && !accepts(target.data()))
        return false;
    bool changed = m_target != target;
    m_target = target;
    if (QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>()) {
        if (target)
            man->resolve_link(this, target->get_tag(), target->get_id());
        else
            man->forget_link(this);
    }
    changed |= set_flag_noevent(flag_valid, !target.isNull());
    changed |= set_flag_noevent(flag_empty, false);
    if (changed && notify)
        notify_updated(owner);
    return true;
}

void LinkedID::complete_pending(const QSharedPointer<Element>& owner, const QSharedPointer<Element>& target,
                                const QString&, int)
{
    if (!target || !accepts(target.data()))
        return;
    bool changed = m_target != target;
    m_target = target;
    changed |= set_flag_noevent(flag_valid, true);
    if (changed)
        notify_updated(owner);
}

bool LinkedID::loop_test(Element* candidate) const
{
    if (!candidate)
        return false;
    const QSharedPointer<Element> current = m_target.toStrongRef();
    for (Element* e = candidate->parent_element(); e; e = e->parent_element()) {
        if (e == candidate || e == current.data())
            return true;
    }
    return false;
}

QString LinkedID::extra_description() const
{
    const QSharedPointer<Element> t = m_target.toStrongRef();
    return t ? t->get_designator() : QString();
}

void LinkedID::set_to_default(const QSharedPointer<Element>& owner, Element_man&, bool notify)
{
    bool changed = false;
    update_target_from_id(changed, owner, QString::fromLatin1(base_spec().target_tag), 0);
    if (changed && notify)
        notify_updated(owner);
}

bool LinkedID::_set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text)
{
    mark_read(text);
    const Spec& s = base_spec();
    bool ok = false;
    int id = 0;
    if (text.size() > 3) {
        const qint64 v = Number_text::parse_integer(text.mid(3), s.base, &ok);
        if (ok && (v < s.min || v > s.max))
            ok = false;
        id = ok ? int(v) : 0;
    }
    if (ok) {
        // Read from a file, number 0 names an element like any other number.
        bool changed = false;
        look_up(changed, owner, text.left(3).toString(), id);
    }
    set_flag_noevent(flag_valid, ok);
    notify_updated(owner);
    return ok;
}

bool LinkedID::_xml_value(QString& out, Element* owner, int) const
{
    const QSharedPointer<Element> t = m_target.toStrongRef();
    if (!t) {
        // A reference whose target never came is written back as read, so nothing is lost;
        // an empty reference is not written at all.
        if (owner && (m_flags & flag_present) && !(m_flags & flag_empty)) {
            if (QSharedPointer<Element_man> man = owner->man()) {
                QString tag;
                int id = 0;
                if (man->pending_link(this, tag, id)) {
                    const Spec& s = base_spec();
                    out = tag + Number_text::format_integer(id, s.base, s.width);
                    return true;
                }
            }
        }
        return false;
    }
    if (m_flags & flag_empty) {
        out.clear();
        return true;
    }
    out = target_text(t.data());
    return true;
}

int LinkedID::compare(Element* a, Element* b, bool ascending) const
{
    auto pa = static_cast<const LinkedID*>(peer_in(a));
    auto pb = static_cast<const LinkedID*>(peer_in(b));
    if (!pa || !pb)
        return 0;
    const int r = QString::compare(pa->extra_description(), pb->extra_description());
    return ascending ? r : -r;
}

void LinkedID::hash(Element*, Hash_arg& h) const
{
    h.add_string(get_as_string());
    h.add_value(m_flags);
}

bool LinkedID::set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify)
{
    auto other = dynamic_cast<const LinkedID*>(source);
    if (!other)
        return false;
    bool changed = false;
    const QSharedPointer<Element> t = other->m_target.toStrongRef();
    if (m_target != t) {
        set_target(owner, t, false);
        changed = true;
    }
    changed |= set_flags_noevent(other->m_flags);
    if (changed && notify)
        notify_updated(owner);
    return changed;
}

bool LinkedID::copy_link(const QSharedPointer<Element>& owner, const LinkedID& source,
                         const QSharedPointer<Element_man>& source_man, const QMap<QUuid, QUuid>& guid_map, bool notify)
{
    const QSharedPointer<Element_man> man = owner ? owner->man() : QSharedPointer<Element_man>();
    if (!man)
        return false;
    auto by_guid = [&man](const QUuid& guid) {
        QString prefix;
        int n = 0;
        return !guid.isNull() && man->lookup_uid_for_guid(guid, prefix, n) ? man->lookup(prefix, n)
                                                                           : QSharedPointer<Element>();
    };
    const QSharedPointer<Element> t = source.m_target.toStrongRef();
    QString tag;
    int id = 0;
    bool named = false; // the source names a number (0 can be one)
    QSharedPointer<Element> target;
    if (t) {
        // The target's number is atomic and its GUID is read from the registry: neither needs the
        // target's lock.
        tag = t->get_tag();
        const Attributes::Base::UniqueID* own = t->id_attribute();
        const Attributes::Base::UniqueID::Number number = own ? own->number() : Attributes::Base::UniqueID::Number();
        id = number.value;
        named = number.set;
        QUuid guid;
        if (source_man)
            source_man->lookup_guid(tag, id, guid);
        if (guid_map.contains(guid))
            target = by_guid(guid_map.value(guid));
        else if (source_man == man)
            target = t;
        else
            target = by_guid(guid);
    } else {
        named = source_man && source_man->pending_link(&source, tag, id);
    }
    bool changed;
    if (target && accepts(target.data())) {
        changed = m_target != target;
        set_target(owner, target, false);
    } else if (named) {
        look_up(changed, owner, tag, id);
    } else {
        update_target_from_id(changed, owner, QString::fromLatin1(base_spec().target_tag), 0);
    }
    changed |= set_flags_noevent(source.m_flags);
    if (changed && notify)
        notify_updated(owner);
    return changed;
}

bool LinkedID::_to_xml(Element* owner, QDomElement& dom, const QString& name) const
{
    return dom_write(owner, dom, name);
}

bool LinkedID::_from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name)
{
    return dom_read(owner, dom, name);
}

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
