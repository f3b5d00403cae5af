#include "String.h"

#include <taskdata/elements/base/Element.h>

#include <QDomElement>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

int String::cut_position(const QString& text, quint32 max_length)
{
    // UTF-16 units never number fewer than characters: a text that short needs no counting.
    if (quint32(text.size()) <= max_length)
        return text.size();
    int i = 0;
    for (quint32 n = 0; n < max_length && i < text.size(); ++n)
        i += text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate() ? 2 : 1;
    return i;
}

bool String::_set_string(const QString& text, bool valid)
{
    const int keep = cut_position(text, base_spec().max_length);
    bool changed;
    if (keep < text.size()) {
        const QString cut = text.left(keep);
        changed = cut != m_text;
        m_text = cut;
    } else {
        changed = text != m_text;
        m_text = text;
    }
    changed |= set_flag_noevent(flag_valid, valid);
    return changed;
}

bool String::set_string(const QSharedPointer<Element>& owner, const QString& text, bool valid)
{
    if (!set_string_noevent(text, valid))
        return false;
    notify_updated(owner);
    return true;
}

bool String::_set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text)
{
    bool changed = mark_read(text);
    changed |= _set_string(text.toString(), true);
    if (changed)
        notify_updated(owner);
    return true;
}

bool String::_xml_value(QString& out, Element*, int version) const
{
    if (m_flags & flag_empty) {
        out.clear();
        return true;
    }
    const Spec& s = choose_variant(base_spec(), version);
    out = s.uppercase ? m_text.toUpper() : m_text;
    out.truncate(cut_position(out, s.max_length));
    return true;
}

int String::compare(Element* a, Element* b, bool ascending) const
{
    auto pa = static_cast<const String*>(peer_in(a));
    auto pb = static_cast<const String*>(peer_in(b));
    if (!pa || !pb)
        return 0;
    const int r = QString::localeAwareCompare(pa->m_text, pb->m_text);
    return ascending ? r : -r;
}

void String::hash(Element*, Hash_arg& h) const
{
    h.add_string(m_text);
    h.add_value(m_flags);
}

bool String::set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify)
{
    auto other = dynamic_cast<const String*>(source);
    if (!other)
        return false;
    bool changed = m_text != other->m_text;
    m_text = other->m_text;
    changed |= set_flags_noevent(other->m_flags);
    if (changed && notify)
        notify_updated(owner);
    return changed;
}

bool String::_to_xml(Element* owner, QDomElement& dom, const QString& name) const
{
    return dom_write(owner, dom, name);
}

bool String::_from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name)
{
    return dom_read(owner, dom, name);
}

Extra_string::Extra_string(const QString& xml_name)
    : m_name(xml_name.toUtf8()), m_spec(m_name.constData(), 0, false, 0xFFFFFFFFu)
{
}

Attribute* Extra_string::create_new(Element*, Element_man&) const
{
    return new Extra_string(QString::fromUtf8(m_name));
}

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
