#include "Integer.h"

#include <taskdata/elements/base/Element.h>

#include <QDomElement>

#include <cstdio>
#include <limits>
#include <type_traits>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

namespace Number_text {

namespace {
inline int digit_value(ushort c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 99;
}

// Plain digits with an optional leading minus, short enough not to overflow: the form every
// file uses. Anything else goes to the platform conversion for its exact rules.
template <class U>
bool fast_digits(QStringView text, int base, U& magnitude, bool& negative)
{
    const int n = text.size();
    int i = 0;
    negative = false;
    if (n > 0 && text[0] == QLatin1Char('-')) {
        negative = true;
        i = 1;
    }
    const int max_digits = base == 16 ? 15 : 18;
    if (n - i < 1 || n - i > max_digits)
        return false;
    U v = 0;
    for (; i < n; ++i) {
        const int d = digit_value(text[i].unicode());
        if (d >= base)
            return false;
        v = v * U(base) + U(d);
    }
    magnitude = v;
    return true;
}
} // namespace

qint64 parse_integer(QStringView text, int base, bool* ok)
{
    quint64 mag = 0;
    bool neg = false;
    if (fast_digits(text, base, mag, neg)) {
        *ok = true;
        return neg ? -qint64(mag) : qint64(mag);
    }
    if (base == 16)
        return (QStringLiteral("0x") + text.toString()).toLongLong(ok, 16);
    return text.toString().toLongLong(ok, base);
}

quint64 parse_unsigned(QStringView text, int base, bool* ok)
{
    quint64 mag = 0;
    bool neg = false;
    if (fast_digits(text, base, mag, neg)) {
        // A minus sign is no part of an unsigned number ("-1" is not 65535), but "-0" is zero.
        *ok = !neg || mag == 0;
        return neg ? 0 : mag;
    }
    if (text.trimmed().startsWith(QLatin1Char('-'))) {
        *ok = false;
        return 0;
    }
    if (base == 16)
        return (QStringLiteral("0x") + text.toString()).toULongLong(ok, 16);
    return text.toString().toULongLong(ok, base);
}

QString format_unsigned(quint64 v, int base, int width)
{
    char buf[72];
    int pos = sizeof buf;
    const char* digits = "0123456789ABCDEF";
    do {
        buf[--pos] = digits[v % unsigned(base)];
        v /= unsigned(base);
    } while (v);
    while (int(sizeof buf) - pos < width && pos > 1)
        buf[--pos] = '0';
    return QString::fromLatin1(buf + pos, int(sizeof buf) - pos);
}

QString format_integer(qint64 v, int base, int width)
{
    if (v >= 0)
        return format_unsigned(quint64(v), base, width);
    // The sign stands before the padding, as the platform's formatting does.
    const quint64 mag = quint64(0) - quint64(v);
    QString digits = format_unsigned(mag, base, width > 0 ? width - 1 : 0);
    return QLatin1Char('-') + digits;
}

} // namespace Number_text

template <class T>
const char* Integer<T>::kind_name()
{
    if (std::is_same<T, qint8>::value)
        return "Int8";
    if (std::is_same<T, quint8>::value)
        return "UInt8";
    if (std::is_same<T, qint16>::value)
        return "Int16";
    if (std::is_same<T, quint16>::value)
        return "UInt16";
    if (std::is_same<T, qint32>::value)
        return "Int32";
    if (std::is_same<T, quint32>::value)
        return "UInt32";
    return "UInt64";
}

template <class T>
T Integer<T>::clamp(T v) const
{
    const Spec& s = base_spec();
    if (v > s.max)
        return s.max;
    if (v < s.min)
        return s.min;
    return v;
}

template <class T>
bool Integer<T>::_set_val(T value, bool valid)
{
    value = clamp(value);
    bool changed = value != m_value;
    m_value = value;
    changed |= set_flag_noevent(flag_valid, valid);
    return changed;
}

template <class T>
bool Integer<T>::set_val(const QSharedPointer<Element>& owner, T value, bool valid)
{
    if (!set_val_noevent(value, valid))
        return false;
    notify_updated(owner);
    return true;
}

template <class T>
bool Integer<T>::_set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text)
{
    const bool flags_changed = mark_read(text);
    const Spec& s = base_spec();
    bool ok = false;
    qint64 parsed;
    T value;
    if (std::is_unsigned<T>::value) {
        // Unsigned: a NAME does not fit a signed 64-bit parse, and a negative text is no value.
        const quint64 u = Number_text::parse_unsigned(text, s.base, &ok);
        parsed = qint64(u);
        value = T(u);
    } else {
        parsed = Number_text::parse_integer(text, s.base, &ok);
        value = static_cast<T>(parsed);
    }
    bool value_changed;
    if (ok) {
        value_changed = _set_val(value, true);
    } else {
        // A text that is no value of the kind stands for nothing: the default takes its
        // place, unclamped, so that a default meaning "none" (outside the range) stays none.
        value_changed = m_value != s.def;
        m_value = s.def;
        value_changed |= set_flag_noevent(flag_valid, false);
    }
    if (flags_changed || value_changed)
        notify_updated(owner);
    if (!text.isEmpty() && !ok) {
        const QByteArray utf8 = text.toUtf8();
        const QByteArray path = QByteArray("lib/taskdata/attributes/base/Attribute_Base_") + kind_name();
        fprintf(stderr, "Failed to convert %s=>%ld:%lx at %s::%d\n", utf8.constData(), long(parsed),
                static_cast<unsigned long>(parsed), path.constData(), __LINE__);
    }
    return ok;
}

template <class T>
bool Integer<T>::_xml_value(QString& out, Element*, int version) const
{
    if (m_flags & flag_empty) {
        out.clear();
        return true;
    }
    const Spec& s = choose_variant(base_spec(), version);
    // A required attribute never read nor set is written with its default.
    T v = m_flags & (flag_present | flag_valid) ? m_value : s.def;
    if (v > s.max || v < s.min) {
        // An optional attribute whose default lies outside its range has no value to stand
        // in for it: it is left out rather than written with a value the format refuses.
        if ((s.def > s.max || s.def < s.min) && !s.required)
            return false;
        v = s.def;
    }
    if (std::is_signed<T>::value)
        out = Number_text::format_integer(qint64(v), s.base, s.width);
    else
        out = Number_text::format_unsigned(quint64(v), s.base, s.width);
    return true;
}

template <class T>
int Integer<T>::compare(Element* a, Element* b, bool ascending) const
{
    auto pa = static_cast<const Integer*>(peer_in(a));
    auto pb = static_cast<const Integer*>(peer_in(b));
    if (!pa || !pb)
        return 0;
    const int r = pa->m_value < pb->m_value ? -1 : (pa->m_value > pb->m_value ? 1 : 0);
    return ascending ? r : -r;
}

template <class T>
void Integer<T>::hash(Element*, Hash_arg& h) const
{
    h.add_value(m_value);
    h.add_value(m_flags);
}

template <class T>
bool Integer<T>::set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify)
{
    auto other = dynamic_cast<const Integer*>(source);
    if (!other)
        return false;
    bool changed = m_value != other->m_value;
    m_value = other->m_value;
    changed |= set_flags_noevent(other->m_flags);
    if (changed && notify)
        notify_updated(owner);
    return changed;
}

template <class T>
bool Integer<T>::_to_xml(Element* owner, QDomElement& dom, const QString& name) const
{
    return dom_write(owner, dom, name);
}

template <class T>
bool Integer<T>::_from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name)
{
    return dom_read(owner, dom, name);
}

template <class T>
QVariant Integer<T>::_get_qvariant() const
{
    if (std::is_same<T, quint64>::value)
        return QVariant(qulonglong(m_value));
    if (std::is_same<T, quint32>::value)
        return QVariant(uint(m_value));
    return QVariant(int(m_value));
}

template class Integer<qint8>;
template class Integer<quint8>;
template class Integer<qint16>;
template class Integer<quint16>;
template class Integer<qint32>;
template class Integer<quint32>;
template class Integer<quint64>;

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
