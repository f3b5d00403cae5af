#include "Datetime.h"

#include <taskdata/elements/base/Element.h>

#include <QDomElement>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

bool Datetime::set_qdt(const QSharedPointer<Element>& owner, const QDateTime& dt, bool valid)
{
    Iso::Isoxml_date d;
    d.value = dt;
    d.fraction_digits = dt.time().msec() ? 3 : 0;
    if (dt.timeSpec() == Qt::UTC)
        d.zone_form = 1;
    else if (dt.timeSpec() == Qt::OffsetFromUTC) {
        d.zone_form = 2;
        d.offset_seconds = dt.offsetFromUtc();
    }
    bool changed = !(d == m_value);
    m_value = d;
    changed |= set_flag_noevent(flag_valid, valid && dt.isValid());
    changed |= set_flag_noevent(flag_empty, false);
    if (changed)
        notify_updated(owner);
    return changed;
}

bool Datetime::set_string(const QSharedPointer<Element>& owner, const QString& text, bool valid)
{
    Iso::Isoxml_date d;
    const bool ok = Iso::Time_source::parse_isoxml_date(text, d);
    bool changed = !(d == m_value);
    m_value = d;
    changed |= set_flag_noevent(flag_valid, valid && ok);
    changed |= set_flag_noevent(flag_empty, text.isEmpty());
    if (changed)
        notify_updated(owner);
    return changed;
}

bool Datetime::_set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text)
{
    Iso::Isoxml_date d;
    Iso::Time_source::parse_isoxml_date(text, d);
    // Validity also depends on the value held before this read; kept so on purpose.
    const bool was_valid = m_value.value.isValid();
    bool changed = !(d == m_value);
    m_value = d;
    changed |= set_flag_noevent(flag_valid, was_valid && valid());
    changed |= mark_read(text);
    if (changed)
        notify_updated(owner);
    return true;
}

bool Datetime::_xml_value(QString& out, Element*, int version) const
{
    if (m_flags & flag_empty) {
        out.clear();
        return true;
    }
    out = Iso::Time_source::format_isoxml_date(m_value, version);
    return true;
}

int Datetime::compare(Element* a, Element* b, bool ascending) const
{
    auto pa = static_cast<const Datetime*>(peer_in(a));
    auto pb = static_cast<const Datetime*>(peer_in(b));
    if (!pa || !pb)
        return 0;
    const int r = pa->m_value.value < pb->m_value.value ? -1 : (pb->m_value.value < pa->m_value.value ? 1 : 0);
    return ascending ? r : -r;
}

void Datetime::hash(Element*, Hash_arg& h) const
{
    h.add_value(m_value.value.toMSecsSinceEpoch());
    h.add_value(m_value.sub_ms);
    h.add_value(m_flags);
}

bool Datetime::set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify)
{
    auto other = dynamic_cast<const Datetime*>(source);
    if (!other)
        return false;
    bool changed = !(m_value == other->m_value);
    m_value = other->m_value;
    changed |= set_flags_noevent(other->m_flags);
    if (changed && notify)
        notify_updated(owner);
    return changed;
}

bool Datetime::_to_xml(Element* owner, QDomElement& dom, const QString& name) const
{
    return dom_write(owner, dom, name);
}

bool Datetime::_from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name)
{
    return dom_read(owner, dom, name);
}

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
