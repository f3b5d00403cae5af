// The client form of the update events, as receivers get them, and the conversion from the
// base form made on the changing thread.
//
// A receiver keeps one function-local static Event_types_ids and compares QEvent::type()
// against it, then reads the payload of the matching Qt_event, for example:
//     static const Client::Event_types_ids ids;
//     if (e->type() == ids.attribute_update)
//         use(static_cast<Client::Attribute_update_qt_event*>(e)->payload().element);
// Payloads hold weak references only: lock the element (Element_locker_new on the handle)
// before reading it, and take a failed lock as the element having gone meanwhile.
// Threads: the payloads are immutable and may be read from any thread.
#pragma once

#include <taskdata/common/Update_events.h>
#include <taskdata/elements/base/Element.h>
#include <taskdata/elements/client/Attribute.h>
#include <taskdata/elements/client/Element.h>
#include <taskdata/elements/client/Element_list.h>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Client {

using Attribute_update = Attribute_update_event<Element, Attributes::Client::Attribute>;
using Child_added_update = Child_update_event<child_added, Element, Element_list>;
using Child_removed_update = Child_update_event<child_removed, Element, Element_list>;
using Binary_appended_update = Typed_update_event<binary_appended, Element>;
using Binary_modified_update = Typed_update_event<binary_modified, Element>;

using Attribute_update_qt_event = Qt_event<Attribute_update>;
using Child_added_qt_event = Qt_event<Child_added_update>;
using Child_removed_qt_event = Qt_event<Child_removed_update>;
using Binary_appended_qt_event = Qt_event<Binary_appended_update>;
using Binary_modified_qt_event = Qt_event<Binary_modified_update>;
using Flush_qt_event = Qt_event<Flush_event>;

} // namespace Client

namespace Base {

// Base payload to client payload: the element becomes a handle holding a weak reference, the
// attribute and the list handles of their own; type and index are copied. The result never
// keeps the element alive.
KTD_EXPORT Client::Attribute_update from_base(const Base_attribute_update& e);
KTD_EXPORT Client::Child_added_update from_base(const Base_child_update<child_added>& e);
KTD_EXPORT Client::Child_removed_update from_base(const Base_child_update<child_removed>& e);
KTD_EXPORT Client::Binary_appended_update from_base(const Base_typed_update<binary_appended>& e);
KTD_EXPORT Client::Binary_modified_update from_base(const Base_typed_update<binary_modified>& e);

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
