#include "Float.h"

#include <taskdata/elements/base/Element.h>

#include <QDomElement>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

QString Float::format(double v)
{
    char buf[400];
    const int n = snprintf(buf, sizeof buf, "%.14f", v);
    return QString::fromLatin1(buf, qBound(0, n, int(sizeof buf) - 1));
}

bool Float::parse(QStringView text, double& out)
{
    // Files hold short plain decimals: convert them without allocating, correctly rounded.
    const int n = text.size();
    if (n > 0 && n < 64) {
        char buf[64];
        bool ascii = true;
        for (int i = 0; i < n; ++i) {
            const ushort c = text[i].unicode();
            if (c >= 0x80) {
                ascii = false;
                break;
            }
            buf[i] = char(c);
        }
        if (ascii) {
            const char* first = buf;
            if (buf[0] == '+' && n > 1 && buf[1] != '-')
                ++first;
            double v = 0;
            auto r = std::from_chars(first, buf + n, v, std::chars_format::general);
            if (r.ec == std::errc() && r.ptr == buf + n) {
                // "inf" and "nan" are no numbers of the format.
                if (!std::isfinite(v))
                    return false;
                out = v;
                return true;
            }
        }
    }
    bool ok = false;
    const double v = text.toString().toDouble(&ok);
    if (!ok || !std::isfinite(v))
        return false;
    out = v;
    return true;
}

bool Float::_set_val(double value, bool valid)
{
    const Spec& s = base_spec();
    if (value > s.max)
        value = s.max;
    else if (value < s.min)
        value = s.min;
    // Bitwise comparison so that -0.0 and NaN changes count.
    bool changed = std::memcmp(&value, &m_value, sizeof value) != 0;
    m_value = value;
    changed |= set_flag_noevent(flag_valid, valid);
    return changed;
}

bool Float::set_val(const QSharedPointer<Element>& owner, double value, bool valid)
{
    if (!set_val_noevent(value, valid))
        return false;
    notify_updated(owner);
    return true;
}

bool Float::_set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text)
{
    bool changed = mark_read(text);
    if (text.isEmpty()) {
        if (changed)
            notify_updated(owner);
        return false;
    }
    double v = 0;
    const bool ok = parse(text, v);
    // A text that is no finite number stands for nothing: the default, valid flag cleared, silently.
    changed |= _set_val(ok ? v : base_spec().def, ok);
    if (changed)
        notify_updated(owner);
    return ok;
}

bool Float::_xml_value(QString& out, Element*, int version) const
{
    if (m_flags & flag_empty) {
        out.clear();
        return true;
    }
    const Spec& s = choose_variant(base_spec(), version);
    // A required attribute never read nor set is written with its default.
    double v = m_flags & (flag_present | flag_valid) ? m_value : s.def;
    if (!(v >= s.min && v <= s.max))
        v = s.def;
    out = format(v);
    return true;
}

QString Float::_to_string() const { return format(m_value); }

int Float::compare(Element* a, Element* b, bool ascending) const
{
    auto pa = static_cast<const Float*>(peer_in(a));
    auto pb = static_cast<const Float*>(peer_in(b));
    if (!pa || !pb)
        return 0;
    const int r = pa->m_value < pb->m_value ? -1 : (pa->m_value > pb->m_value ? 1 : 0);
    return ascending ? r : -r;
}

void Float::hash(Element*, Hash_arg& h) const
{
    h.add_value(m_value);
    h.add_value(m_flags);
}

bool Float::set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify)
{
    auto other = dynamic_cast<const Float*>(source);
    if (!other)
        return false;
    bool changed = std::memcmp(&m_value, &other->m_value, sizeof m_value) != 0;
    m_value = other->m_value;
    changed |= set_flags_noevent(other->m_flags);
    if (changed && notify)
        notify_updated(owner);
    return changed;
}

bool Float::_to_xml(Element* owner, QDomElement& dom, const QString& name) const
{
    return dom_write(owner, dom, name);
}

bool Float::_from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name)
{
    return dom_read(owner, dom, name);
}

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
