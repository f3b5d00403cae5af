// The client side of update events: conversion to client payloads, the posting and signalling
// the base layer calls through its hooks, installed when the library is loaded.
#include "Events.h"

#include <cstdint>

namespace TC {
namespace Task_data {
namespace Elements {

namespace Base {

// Each handle costs one reference count on the element, taken once here and then moved: a
// change with receivers pays for these on its own thread.
namespace {
Client::Attribute_update attribute_update(const QSharedPointer<Element>& e, Attributes::Base::Attribute* a)
{
    QWeakPointer<Element> element = e;
    Attributes::Client::Attribute attribute = a ? Attributes::Client::Attribute(element, a) : Attributes::Client::Attribute();
    return Client::Attribute_update(Client::Element(std::move(element)), std::move(attribute));
}
} // namespace

Client::Attribute_update from_base(const Base_attribute_update& e) { return attribute_update(e.element, e.attribute); }

Client::Child_added_update from_base(const Base_child_update<child_added>& e)
{
    return Client::Child_added_update(Client::Element(e.element), Client::Element_list(e.element, e.list), e.index);
}

Client::Child_removed_update from_base(const Base_child_update<child_removed>& e)
{
    return Client::Child_removed_update(Client::Element(e.element), Client::Element_list(e.element, e.list), e.index);
}

Client::Binary_appended_update from_base(const Base_typed_update<binary_appended>& e)
{
    return Client::Binary_appended_update(Client::Element(e.element));
}

Client::Binary_modified_update from_base(const Base_typed_update<binary_modified>& e)
{
    return Client::Binary_modified_update(Client::Element(e.element));
}

} // namespace Base

namespace {

// One payload for the whole walk, shared by every event posted for this change.
template <class B>
void post(const B& e, const Base::Listeners& listeners)
{
    using P = decltype(Base::from_base(e));
    typename Qt_event<P>::Sender sender(Base::from_base(e));
    Base::Element::_post_event(sender, listeners);
}

void post_attribute(const QSharedPointer<Base::Element>& element, Attributes::Base::Attribute* attribute,
                    const Base::Listeners& listeners)
{
    Qt_event<Client::Attribute_update>::Sender sender(Base::attribute_update(element, attribute));
    Base::Element::_post_event(sender, listeners);
}

void emit_updated(Util::Signal_sender& signals_of, const QSharedPointer<Base::Element>& element,
                  Attributes::Base::Attribute* attribute)
{
    const Client::Element handle(element.toWeakRef());
    signals_of.emit_signal(QByteArray(), "updated", Q_ARG(TC::Task_data::Elements::Client::Element, handle));
    if (!attribute)
        return;
    const Attributes::Client::Attribute a(element.toWeakRef(), attribute);
    const QByteArray prefix = attribute->signal_prefix();
    signals_of.emit_signal(QByteArray(), "updated", Q_ARG(TC::Task_data::Attributes::Client::Attribute, a));
    signals_of.emit_signal(prefix, "updated", Q_ARG(TC::Task_data::Attributes::Client::Attribute, a));
    attribute->emit_attribute_updated(signals_of);
}

const Base::Event_hooks hooks = {
    &post_attribute,
    &post<Base::Base_child_update<child_added>>,
    &post<Base::Base_child_update<child_removed>>,
    &post<Base::Base_typed_update<binary_appended>>,
    &post<Base::Base_typed_update<binary_modified>>,
    &emit_updated,
};

// Named with the type names the signals use, so that slots on other threads get posted calls.
[[maybe_unused]] const bool installed = [] {
    qRegisterMetaType<Client::Element>("TC::Task_data::Elements::Client::Element");
    qRegisterMetaType<Client::Element_list>("TC::Task_data::Elements::Client::Element_list");
    qRegisterMetaType<Attributes::Client::Attribute>("TC::Task_data::Attributes::Client::Attribute");
    qRegisterMetaType<int32_t>("int32_t");
    qRegisterMetaType<uint32_t>("uint32_t");
    Base::Element::set_event_hooks(&hooks);
    return true;
}();

} // namespace
} // namespace Elements
} // namespace Task_data
} // namespace TC
