#include "Attribute.h"

#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Element.h>

#include <platform/util/Signal_sender.h>

#include <QDomElement>
#include <QXmlStreamWriter>

#include <cstdio>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

void Hash_arg::add(const void* data, size_t size)
{
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) {
        value ^= p[i];
        value *= 1099511628211ULL;
    }
}

bool Attribute::Spec::is_proprietary_name(QStringView name)
{
    return name.size() >= 2 && name[0] == QLatin1Char('P') && name[1].isDigit();
}

bool Attribute::Spec::is_proprietary() const
{
    return name && name[0] == 'P' && name[1] >= '0' && name[1] <= '9';
}

void enter_variant(Attribute::Variant_map* map, quint8 key, const Attribute::Spec* spec)
{
    if (map)
        (*map)[key] = spec;
}

Attribute::~Attribute() = default;

QString Attribute::extra_description() const { return QString(); }

void Attribute::set_to_default(const QSharedPointer<Element>&, Element_man&, bool) {}

QString Attribute::_print(unsigned int indent) const
{
    return QString(int(indent), QLatin1Char(' ')) + xml_name() + QLatin1Char('=') + _to_string();
}

QString Attribute::_to_string() const
{
    QString s;
    _xml_value(s, nullptr, 4);
    return s;
}

bool Attribute::_document_export(Export_properties&) const { return false; }

bool Attribute::_to_xml(Element*, QDomElement&, const QString&) const
{
    printf("Not implemented, how did this happen %s %d\n", "lib/taskdata/attributes/base/Attribute", __LINE__);
    return false;
}

bool Attribute::_from_xml(const QSharedPointer<Element>&, QDomElement&, const QString&)
{
    printf("Not implemented, how did this happen %s %d\n", "lib/taskdata/attributes/base/Attribute", __LINE__);
    return false;
}

bool Attribute::_load_xml(const QSharedPointer<Element>&, const QString&, XML_interface&) { return true; }

bool Attribute::save_xml(QXmlStreamWriter& w, Element* owner, const QString& name, XML_interface& xi) const
{
    if (const QString* replaced = xi.written_text(this)) {
        w.writeAttribute(name, *replaced);
        return true;
    }
    QString text;
    if (!_xml_value(text, owner, xi.format_version()))
        return false;
    w.writeAttribute(name, text);
    return true;
}

bool Attribute::set_flag_noevent(flags_t f, bool on)
{
    const flags_t old = m_flags;
    m_flags = on ? flags_t(m_flags | f) : flags_t(m_flags & ~f);
    return old != m_flags;
}

bool Attribute::set_flags_noevent(flags_t f)
{
    const flags_t old = m_flags;
    m_flags = f;
    return old != m_flags;
}

bool Attribute::set_flag(const QSharedPointer<Element>& owner, flags_t f, bool on)
{
    if (!set_flag_noevent(f, on))
        return false;
    notify_updated(owner);
    return true;
}

bool Attribute::set_flags(const QSharedPointer<Element>& owner, flags_t f)
{
    if (!set_flags_noevent(f))
        return false;
    notify_updated(owner);
    return true;
}

void Attribute::emit_attribute_updated(Util::Signal_sender& sender) const
{
    const QByteArray prefix = signal_prefix();
    if (!sender.connected(prefix, "value_changed"))
        return;
    const QVariant value = _get_qvariant();
    sender.emit_signal(prefix, "value_changed", Q_ARG(QVariant, value));
}

void Attribute::notify_updated(const QSharedPointer<Element>& owner)
{
    if (owner)
        owner->notify_attribute_updated(owner, this);
}

void Attribute::notify_updated(const QSharedPointer<Element>& owner, Attribute* attribute)
{
    if (attribute)
        attribute->notify_updated(owner);
}

bool Attribute::mark_read(QStringView text)
{
    bool changed = set_flag_noevent(flag_present, true);
    changed |= set_flag_noevent(flag_empty, text.isEmpty());
    return changed;
}

const Attribute* Attribute::peer_in(Element* other) const
{
    if (!other)
        return nullptr;
    return other->_iso_attribute(QLatin1String(base_spec().name));
}

bool Attribute::dom_write(Element* owner, QDomElement& dom, const QString& name) const
{
    QString text;
    if (!_xml_value(text, owner, 4))
        return false;
    dom.setAttribute(name, text);
    return true;
}

bool Attribute::dom_read(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name)
{
    if (!dom.hasAttribute(name))
        return false;
    const QString text = dom.attribute(name);
    return _set_by_xml_value(owner, text);
}

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
