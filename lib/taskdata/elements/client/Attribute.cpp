#include "Attribute.h"

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Client {

using Elements::Base::Element;

bool Attribute::belongs_to(Element* element, const Base::Attribute* a)
{
    if (!element || !a)
        return false;
    const unsigned n = element->_num_iso_attributes();
    for (unsigned i = 0; i < n; ++i)
        if (element->_attribute(i) == a)
            return true;
    for (const Base::Attribute* extra : element->extra_attributes())
        if (extra == a)
            return true;
    return false;
}

QString Attribute::xml_name() const
{
    return with<Base::Attribute>(QString(), [](Base::Attribute* a, const auto&) { return a->xml_name(); });
}

QByteArray Attribute::signal_prefix() const
{
    return with<Base::Attribute>(QByteArray(), [](Base::Attribute* a, const auto&) { return a->signal_prefix(); });
}

QString Attribute::to_string() const
{
    return with<Base::Attribute>(QString(), [](Base::Attribute* a, const auto&) { return a->to_string(); });
}

QVariant Attribute::get_qvariant() const
{
    return with<Base::Attribute>(QVariant(), [](Base::Attribute* a, const auto&) { return a->get_qvariant(); });
}

Attribute::flags_t Attribute::get_flags() const
{
    return with<Base::Attribute>(flags_t(0), [](Base::Attribute* a, const auto&) { return a->get_flags(); });
}

bool Attribute::is_flag_set(flags_t flags) const
{
    return with<Base::Attribute>(false, [flags](Base::Attribute* a, const auto&) { return a->is_flag_set(flags); });
}

bool Attribute::set_flag(flags_t flags, bool on) const
{
    return with<Base::Attribute>(false, [=](Base::Attribute* a, const auto& e) { return a->set_flag(e, flags, on); });
}

bool Attribute::set_by_text(const QString& text) const
{
    return with<Base::Attribute>(false, [&](Base::Attribute* a, const auto& e) { return a->set_by_xml_value(e, text); });
}

bool Attribute::connect(const char* signal, const QObject* receiver, const char* slot) const
{
    return with<Base::Attribute>(false, [&](Base::Attribute* a, const auto& e) {
        return e->signal_sender().connect(a->signal_prefix(), signal, receiver, slot);
    });
}

bool Attribute::disconnect(const char* signal, const QObject* receiver, const char* slot) const
{
    return with<Base::Attribute>(false, [&](Base::Attribute* a, const auto& e) {
        Util::Signal_sender* s = e->connected_signals();
        return s && s->disconnect(a->signal_prefix(), signal, receiver, slot);
    });
}

double Float::get_val() const
{
    return with<Base::Float>(0.0, [](Base::Float* a, const auto&) { return a->get_val(); });
}

bool Float::set_val(double v) const
{
    return with<Base::Float>(false, [v](Base::Float* a, const auto& e) { return a->set_val(e, v); });
}

bool Float::set_val_noevent(double v) const
{
    return with<Base::Float>(false, [v](Base::Float* a, const auto&) { return a->set_val_noevent(v); });
}

QString String::get_string() const
{
    return with<Base::String>(QString(), [](Base::String* a, const auto&) { return a->get_string(); });
}

bool String::set_string(const QString& text) const
{
    return with<Base::String>(false, [&](Base::String* a, const auto& e) { return a->set_string(e, text); });
}

bool String::set_string_noevent(const QString& text) const
{
    return with<Base::String>(false, [&](Base::String* a, const auto&) { return a->set_string_noevent(text); });
}

QDateTime Datetime::get_qdt() const
{
    return with<Base::Datetime>(QDateTime(), [](Base::Datetime* a, const auto&) { return a->get_qdt(); });
}

bool Datetime::set_qdt(const QDateTime& value) const
{
    return with<Base::Datetime>(false, [&](Base::Datetime* a, const auto& e) { return a->set_qdt(e, value); });
}

bool Datetime::set_qdt_noevent(const QDateTime& value) const
{
    return with<Base::Datetime>(false, [&](Base::Datetime* a, const auto& e) {
        Elements::Base::Quiet_changes quiet(e.data());
        return a->set_qdt(e, value);
    });
}

int UniqueID::get_val() const
{
    return with<Base::UniqueID>(0, [](Base::UniqueID* a, const auto&) { return a->get_val(); });
}

QString UniqueID::get_as_string() const
{
    return with<Base::UniqueID>(QString(), [](Base::UniqueID* a, const auto&) { return a->get_as_string(); });
}

QUuid UniqueID::get_guid() const
{
    return with<Base::UniqueID>(QUuid(), [](Base::UniqueID* a, const auto&) { return a->get_guid(); });
}

bool UniqueID::set_val(int n) const
{
    return with<Base::UniqueID>(false, [n](Base::UniqueID* a, const auto& e) { return a->set_val(e, n); });
}

Elements::Client::Element LinkedID::get_target() const
{
    return with<Base::LinkedID>(Elements::Client::Element(),
                                [](Base::LinkedID* a, const auto&) { return Elements::Client::Element(a->target()); });
}

QString LinkedID::get_as_string() const
{
    return with<Base::LinkedID>(QString(), [](Base::LinkedID* a, const auto&) { return a->get_as_string(); });
}

namespace {
bool set_link(Base::LinkedID* a, const QSharedPointer<Element>& owner, const Elements::Client::Element& target,
              bool notify)
{
    const QSharedPointer<Element> t = target.get_base_elem();
    if (target.valid() && !t)
        return false;
    return a->set_target(owner, t, notify);
}
} // namespace

bool LinkedID::set_target(const Elements::Client::Element& target) const
{
    return with<Base::LinkedID>(false, [&](Base::LinkedID* a, const auto& e) { return set_link(a, e, target, true); });
}

bool LinkedID::set_target_noevent(const Elements::Client::Element& target) const
{
    return with<Base::LinkedID>(false, [&](Base::LinkedID* a, const auto& e) { return set_link(a, e, target, false); });
}

} // namespace Client
} // namespace Attributes
} // namespace Task_data
} // namespace TC
