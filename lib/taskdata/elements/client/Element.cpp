#include "Element.h"

#include "Attribute.h"
#include "Element_list.h"
#include "Element_man.h"

#include <taskdata/attributes/base/LinkedID.h>
#include <taskdata/attributes/base/String.h>
#include <taskdata/attributes/base/UniqueID.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Element_list.h>
#include <taskdata/elements/base/Element_man.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QXmlStreamWriter>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Client {

using Base_attribute = Attributes::Base::Attribute;
using Strong = QSharedPointer<Base::Element>;

namespace {
// The identifier attribute at `index`, or the element's own for -1.
Attributes::Base::UniqueID* id_at(Base::Element* e, int index)
{
    if (index < 0)
        return e->id_attribute();
    return dynamic_cast<Attributes::Base::UniqueID*>(e->_attribute(unsigned(index)));
}

// Declared attributes first, then the extra ones.
Base_attribute* attribute_at(Base::Element* e, unsigned index, bool extra = true)
{
    const unsigned n = e->_num_iso_attributes();
    if (index < n)
        return e->_attribute(index);
    if (!extra)
        return nullptr;
    const QVector<Base_attribute*> x = e->extra_attributes();
    return index - n < unsigned(x.size()) ? x.at(int(index - n)) : nullptr;
}

// f(attribute) for the attribute at `index`; `empty` when there is none.
template <class R, class F>
R on_attribute(Base::Element* e, unsigned index, R empty, F&& f)
{
    Base_attribute* a = attribute_at(e, index);
    return a ? f(a) : empty;
}

// Runs f(element) with the element and its parent locked, the parent first (the lock order),
// for what reads the parent's list: the element's position. `empty` when the element is gone or
// its parent's lock cannot be had (a lock out of order held by this thread).
template <class R, class F>
R with_parent(const Strong& self, R empty, F&& f)
{
    if (!self)
        return empty;
    for (;;) {
        const Strong parent = self->parent_sp();
        const Base::Element_locker_new parent_lock(parent, -1);
        if (parent && !parent_lock)
            return empty;
        const Base::Element_locker_new lock(self, -1);
        // Moved to another parent meanwhile (then it is no longer below the one held): again.
        if (self->parent_sp() != parent)
            continue;
        return lock ? f(self.data()) : empty;
    }
}

// An element's position in its parent's list, -1 without one. Both are locked by the caller.
int position_of(Base::Element* e)
{
    Base::Element_list* list = e->parent_list();
    return list ? list->index_of(e) : -1;
}
} // namespace

// --- identity ---

int Element::get_id() const
{
    return with(0, [](Base::Element* e, const Strong&) { return e->get_id(); });
}

QString Element::get_uid() const
{
    return with(QString(), [](Base::Element* e, const Strong&) { return e->get_id_string(); });
}

QString Element::get_full_id() const
{
    // One step at a time, each element with its parent (the lock order), never the whole chain
    // at once: the element, then ancestors until one with an identifier or the root.
    QString path;
    for (Strong e = get_base_elem(); e;) {
        struct Step
        {
            QString name;
            Strong parent;
            bool last = true;
        };
        const Step step = with_parent(e, Step(), [](Base::Element* x) {
            const Strong parent = x->parent_sp();
            const QString id = x->get_id_string();
            const int at = position_of(x);
            Step s{id.isEmpty() && at >= 0 ? QStringLiteral("%1[%2]").arg(x->get_tag()).arg(at + 1)
                                           : id.isEmpty() ? x->get_tag() : id,
                   parent, !id.isEmpty() || !parent};
            return s;
        });
        if (step.name.isEmpty())
            break; // gone meanwhile: the path found so far
        if (!path.isEmpty() && !step.parent)
            break; // the root is not part of a path
        path = path.isEmpty() ? step.name : step.name + QLatin1Char('/') + path;
        if (step.last)
            break;
        e = step.parent;
    }
    return path;
}

QString Element::get_tag() const
{
    return with(QString(), [](Base::Element* e, const Strong&) { return e->get_tag(); });
}

const char* Element::get_ctag() const
{
    return with<Base::Element, const char*>("", [](Base::Element* e, const Strong&) { return e->kind().tag; });
}

QUuid Element::get_guid(int attribute) const
{
    return with(QUuid(), [attribute](Base::Element* e, const Strong&) {
        auto id = id_at(e, attribute);
        return id ? id->get_guid() : QUuid();
    });
}

bool Element::set_guid(const QUuid& guid, int attribute) const
{
    return with(false, [&](Base::Element* e, const Strong&) {
        auto id = id_at(e, attribute);
        if (!id || id->get_guid() == guid)
            return false;
        id->set_guid(guid);
        if (id->get_val() != 0)
            if (QSharedPointer<Base::Element_man> m = e->man())
                m->register_guid(id->get_tag(), id->get_val(), guid);
        return true;
    });
}

uint Element::get_qhash() const { return qHash(m_element.toStrongRef().data()); }

bool Element::hash(Attributes::Base::Hash_arg& h) const
{
    return with(false, [&h](Base::Element* e, const Strong&) {
        const unsigned n = e->_num_iso_attributes();
        for (unsigned i = 0; i < n; ++i)
            e->_attribute(i)->hash(e, h);
        for (Base_attribute* a : e->extra_attributes())
            a->hash(e, h);
        return true;
    });
}

// --- names and text ---

QString Element::designator() const
{
    return with(QString(), [](Base::Element* e, const Strong&) { return e->get_designator(); });
}

QString Element::generate_default_designator() const
{
    const Strong self = get_base_elem();
    return with_parent(self, QString(), [&self](Base::Element* e) {
        Attributes::Base::String* d = e->ptr_designator();
        if (!d)
            return QString();
        if (d->get_string().isEmpty()) {
            int n = qAbs(e->get_id());
            if (n == 0)
                n = position_of(e) + 1;
            d->set_string(self, QStringLiteral("%1 %2").arg(e->get_tr_name(1)).arg(n));
        }
        return d->get_string();
    });
}

QString Element::get_name(int count) const
{
    return with(QString(), [count](Base::Element* e, const Strong&) { return e->get_name(count); });
}

QString Element::get_tr_name(int count) const
{
    return with(QString(), [count](Base::Element* e, const Strong&) { return e->get_tr_name(count); });
}

QByteArray Element::get_cname(int count) const { return get_name(count).toUtf8(); }

QByteArray Element::get_tr_cname(int count) const { return get_tr_name(count).toUtf8(); }

QString Element::get_tr_attribute_name(int index) const
{
    return with(QString(), [index](Base::Element* e, const Strong&) { return e->get_tr_attribute_name(index); });
}

QByteArray Element::get_tr_attribute_cname(int index) const { return get_tr_attribute_name(index).toUtf8(); }

QString Element::get_individual_icon() const
{
    return with(QString(), [](Base::Element* e, const Strong&) { return e->get_individual_icon(); });
}

QString Element::print(int indent) const
{
    return with(QString(), [indent](Base::Element* e, const Strong&) { return e->print(unsigned(qMax(0, indent))); });
}

// --- attributes ---

unsigned Element::num_attributes() const
{
    return with(0u, [](Base::Element* e, const Strong&) {
        return e->_num_iso_attributes() + unsigned(e->extra_attributes().size());
    });
}

unsigned Element::num_iso_attributes() const
{
    return with(0u, [](Base::Element* e, const Strong&) { return e->_num_iso_attributes(); });
}

unsigned Element::num_ext_attributes() const
{
    return with(0u, [](Base::Element* e, const Strong&) { return unsigned(e->extra_attributes().size()); });
}

Attributes::Client::Attribute Element::attribute(unsigned index) const { return attribute(index, true, nullptr); }

Attributes::Client::Attribute Element::attribute(const QByteArray& xml_name) const
{
    return with(Attributes::Client::Attribute(), [&](Base::Element* e, const Strong& self) {
        const QString name = QString::fromLatin1(xml_name);
        Base_attribute* a = e->find_attribute(name);
        if (!a)
            a = e->extra_attribute(name);
        return a ? Attributes::Client::Attribute(self.toWeakRef(), a) : Attributes::Client::Attribute();
    });
}

Attributes::Client::Attribute Element::attribute(unsigned index, bool extra, Element* owner) const
{
    const auto a = with(Attributes::Client::Attribute(), [&](Base::Element* e, const Strong& self) {
        Base_attribute* found = attribute_at(e, index, extra);
        return found ? Attributes::Client::Attribute(self.toWeakRef(), found) : Attributes::Client::Attribute();
    });
    if (owner)
        *owner = a.valid() ? *this : Element();
    return a;
}

Attributes::Client::Attribute Element::iso_attribute(unsigned index) const { return attribute(index, false, nullptr); }

Attributes::Client::Attribute Element::ext_attribute(unsigned index) const
{
    return with(Attributes::Client::Attribute(), [index](Base::Element* e, const Strong& self) {
        const QVector<Base_attribute*> x = e->extra_attributes();
        return index < unsigned(x.size()) ? Attributes::Client::Attribute(self.toWeakRef(), x.at(int(index)))
                                          : Attributes::Client::Attribute();
    });
}

QString Element::get_attribute_name(unsigned index) const
{
    return with(QString(), [index](Base::Element* e, const Strong&) {
        if (index < e->_num_iso_attributes())
            return QString::fromLatin1(e->kind().attribute_members[index]);
        return on_attribute(e, index, QString(), [](Base_attribute* a) { return a->xml_name(); });
    });
}

QString Element::get_attribute_tag(unsigned index) const
{
    return with(QString(), [index](Base::Element* e, const Strong&) {
        return on_attribute(e, index, QString(), [](Base_attribute* a) { return a->xml_name(); });
    });
}

QString Element::get_attribute_string(unsigned index) const
{
    return with(QString(), [index](Base::Element* e, const Strong&) {
        return on_attribute(e, index, QString(), [](Base_attribute* a) { return a->to_string(); });
    });
}

QVariant Element::get_attribute_variant(unsigned index) const
{
    return with(QVariant(), [index](Base::Element* e, const Strong&) {
        return on_attribute(e, index, QVariant(), [](Base_attribute* a) { return a->get_qvariant(); });
    });
}

Element::flags_t Element::get_flags(unsigned index) const
{
    return with(flags_t(0), [index](Base::Element* e, const Strong&) {
        return on_attribute(e, index, flags_t(0), [](Base_attribute* a) { return a->get_flags(); });
    });
}

bool Element::is_flag_set(unsigned index, flags_t flags) const
{
    return with(false, [=](Base::Element* e, const Strong&) {
        return on_attribute(e, index, false, [flags](Base_attribute* a) { return a->is_flag_set(flags); });
    });
}

bool Element::set_flag(unsigned index, flags_t flags, bool on) const
{
    return with(false, [=](Base::Element* e, const Strong& self) {
        return on_attribute(e, index, false, [&](Base_attribute* a) { return a->set_flag(self, flags, on); });
    });
}

bool Element::set_attributes_to_default(bool notify) const
{
    return with(false, [notify](Base::Element* e, const Strong& self) {
        e->set_attributes_to_default(self, notify);
        return true;
    });
}

bool Element::add(const QString& name, const QString& text) const
{
    if (name.isEmpty())
        return false;
    return with(false, [&](Base::Element* e, const Strong& self) {
        if (e->find_attribute(name))
            return false; // declared: set it through its own accessor
        Base_attribute* a = e->extra_attribute(name);
        if (!a) {
            a = new Attributes::Base::Extra_string(name);
            e->_add(name, a);
        }
        a->set_by_xml_value(self, text);
        return true;
    });
}

// --- tree ---

Element Element::get_parent() const
{
    return with(Element(), [](Base::Element* e, const Strong&) { return Element(e->parent_sp()); });
}

Element Element::get_root() const
{
    return with(Element(), [](Base::Element* e, const Strong&) { return Element(e->root()); });
}

Element_list Element::parent_list() const
{
    return with(Element_list(), [](Base::Element* e, const Strong&) {
        const Strong p = e->parent_sp();
        Base::Element_list* l = e->parent_list();
        return p && l ? Element_list(p, l) : Element_list();
    });
}

int Element::index_in_parent() const
{
    return with_parent(get_base_elem(), -1, &position_of);
}

int Element::index_of_child(const Element* child) const
{
    const Strong c = child ? child->get_base_elem() : Strong();
    if (!c)
        return -1;
    return with(-1, [&c](Base::Element* e, const Strong&) {
        Base::Element_list* l = c->parent_element() == e ? c->parent_list() : nullptr;
        return l ? l->index_of(c.data()) : -1;
    });
}

int Element::num_children() const
{
    return with(0, [](Base::Element* e, const Strong&) {
        int n = 0;
        for (unsigned l = 0; l < e->_num_element_lists(); ++l)
            n += e->_element_list(l)->count();
        return n;
    });
}

Element Element::child(unsigned index) const
{
    return with(Element(), [index](Base::Element* e, const Strong&) {
        unsigned i = index;
        for (unsigned l = 0; l < e->_num_element_lists(); ++l) {
            Base::Element_list* list = e->_element_list(l);
            if (i < unsigned(list->count()))
                return Element(list->at(int(i)));
            i -= unsigned(list->count());
        }
        return Element();
    });
}

int Element::num_element_lists() const
{
    return with(0, [](Base::Element* e, const Strong&) { return int(e->_num_element_lists()); });
}

Element_list Element::element_list(int index) const
{
    return with(Element_list(), [&](Base::Element* e, const Strong&) {
        return index >= 0 && unsigned(index) < e->_num_element_lists() ? Element_list(*this, index) : Element_list();
    });
}

Element_list Element::element_list(const QString& tag) const
{
    return with(Element_list(), [&](Base::Element* e, const Strong&) {
        Base::Element_list* l = e->find_list(tag);
        return l ? Element_list(*this, e->_element_list_index(l)) : Element_list();
    });
}

QString Element::element_list_name(unsigned index, bool translated) const
{
    const Element_list l = element_list(int(index));
    return translated ? l.get_tr_type_name(2) : l.get_tag();
}

int Element::num_element_children(int list) const { return element_list(list).count(); }

Element Element::element_child(int list, int index) const { return element_list(list)[index]; }

bool Element::remove_element_child(int list, int index) const
{
    const Element_list l = element_list(list);
    return l.remove_element_child(l[index]);
}

Element Element::create_from_list(unsigned list, bool notify) const
{
    return element_list(int(list)).create_from_list(notify);
}

bool Element::add_to_list(Element& child, unsigned list) const { return element_list(int(list)).add(child); }

Element Element::copy_child(int list, int index, bool recurse, bool keep_ids, bool notify) const
{
    const Element_list l = element_list(list);
    return l.copy_child(l[index], recurse, keep_ids, notify);
}

bool Element::copy(const Element& source, const Element_man& man, bool recurse, bool copy_ids,
                   QMap<QUuid, QUuid> guid_map) const
{
    const Strong src = source.get_base_elem();
    if (!src)
        return false;
    // The source is locked by set() after this element, in the lock order: only tried when it
    // is not below this element, so a busy source refuses the copy.
    return with(false, [&](Base::Element* e, const Strong& self) {
        if (src == self || (man.valid() && e->man() != man.get_eman_real()))
            return false;
        Strong dst = self;
        return e->set(dst, src.data(), recurse, true, guid_map, {}, copy_ids);
    });
}

bool Element::kill() const
{
    return with(false, [](Base::Element* e, const Strong& self) {
        if (!e->parent_list())
            return false;
        Strong keep = self;
        return e->erase(keep);
    });
}

// --- links ---

QList<Element> Element::get_linked_elements(int attribute) const
{
    return with(QList<Element>(), [attribute](Base::Element* e, const Strong&) {
        QList<Element> out;
        const unsigned n = e->_num_iso_attributes();
        for (unsigned i = 0; i < n; ++i) {
            if (attribute >= 0 && unsigned(attribute) != i)
                continue;
            if (auto link = dynamic_cast<Attributes::Base::LinkedID*>(e->_attribute(i)))
                if (const Strong t = link->target())
                    out.append(Element(t));
        }
        return out;
    });
}

QStringList Element::get_linked_element_ids(int attribute) const
{
    return with(QStringList(), [attribute](Base::Element* e, const Strong&) {
        QStringList out;
        const unsigned n = e->_num_iso_attributes();
        for (unsigned i = 0; i < n; ++i) {
            if (attribute >= 0 && unsigned(attribute) != i)
                continue;
            auto link = dynamic_cast<Attributes::Base::LinkedID*>(e->_attribute(i));
            if (link && link->get_val() != 0)
                out.append(link->get_as_string());
        }
        return out;
    });
}

// --- extended parameters ---

bool Element::pe_contains(const QString& key) const
{
    return with(false, [&](Base::Element* e, const Strong&) { return e->extended_parameters().contains(key); });
}

QVariant Element::pe_value(const QString& key) const { return pe_value(key, QVariant()); }

QVariant Element::pe_value(const QString& key, const QVariant& default_value) const
{
    return with(default_value, [&](Base::Element* e, const Strong&) {
        return e->extended_parameters().value(key, default_value);
    });
}

bool Element::pe_set_value(const QString& key, const QVariant& value) const
{
    return with(false, [&](Base::Element* e, const Strong&) {
        const auto& p = e->extended_parameters();
        const auto it = p.constFind(key);
        if (it != p.constEnd() && *it == value)
            return false;
        e->set_extended_parameter(key, value);
        return true;
    });
}

bool Element::pe_remove_value(const QString& key) const
{
    return with(false, [&](Base::Element* e, const Strong&) { return e->remove_extended_parameter(key); });
}

// --- events ---

bool Element::register_for_events(QObject* receiver) const
{
    return with(false, [receiver](Base::Element* e, const Strong& self) { return e->register_for_events(self, receiver); });
}

bool Element::unregister_for_events(QObject* receiver) const
{
    return with(false, [receiver](Base::Element* e, const Strong&) { return e->unregister_for_events(receiver); });
}

bool Element::connect(const char* signal, const QObject* receiver, const char* slot) const
{
    return with(false, [&](Base::Element* e, const Strong&) {
        return e->signal_sender().connect(QByteArray(), signal, receiver, slot);
    });
}

bool Element::disconnect(const char* signal, const QObject* receiver, const char* slot) const
{
    return with(false, [&](Base::Element* e, const Strong&) {
        Util::Signal_sender* s = e->connected_signals();
        return s && s->disconnect(QByteArray(), signal, receiver, slot);
    });
}

quint64 Element::stamp(bool of_list, bool touch, bool notify) const
{
    return with(quint64(0), [=](Base::Element* e, const Strong& self) {
        if (touch) {
            if (notify)
                e->notify_updated(Base::Base_attribute_update(self, nullptr));
            else
                e->_notify_updated(self, nullptr);
        }
        if (!of_list)
            return e->stamp();
        Base::Element_list* l = e->parent_list();
        return l ? l->stamp() : quint64(0);
    });
}

// --- geometry and export ---

bool Element::find_closest_point(QPointF position, QPointF& closest, bool recurse, double* distance) const
{
    return with(false, [&](Base::Element* e, const Strong&) {
        return e->find_closest_point(position, closest, recurse, distance);
    });
}

QDateTime Element::find_latest_time() const
{
    return with(QDateTime(), [](Base::Element* e, const Strong&) { return e->find_latest_time(); });
}

QPointF Element::get_first_point() const
{
    return with(QPointF(), [](Base::Element* e, const Strong&) { return e->get_first_point(); });
}

void Element::add_to_scene(QGraphicsScene& graphics, Scene& scene) const
{
    with(false, [&](Base::Element* e, const Strong&) {
        e->add_to_scene(graphics, scene);
        return true;
    });
}

bool Element::document_export(Export_properties& props) const
{
    return with(false, [&](Base::Element* e, const Strong&) {
        const unsigned n = e->_num_iso_attributes();
        for (unsigned i = 0; i < n; ++i)
            e->_attribute(i)->document_export(props);
        e->document_export_extra(props);
        return true;
    });
}

// --- files ---

bool Element::save_xml(XML_interface& xi) const
{
    return with(false, [&xi](Base::Element* e, const Strong&) { return e->save_xml(xi); });
}

namespace {
QString write_xml(Base::Element* e, const Strong& self, XML_interface& xi, bool recurse, int indent)
{
    QString text;
    QXmlStreamWriter w(&text);
    w.setAutoFormatting(indent > 0);
    w.setAutoFormattingIndent(indent);
    xi.set_write_children(recurse);
    e->save_xml(self, w, xi);
    return xi.ok() ? text : QString();
}
} // namespace

bool Element::save_to_xml(const char* path, bool recurse) const
{
    if (!path || !*path)
        return false;
    const QString file = QString::fromLocal8Bit(path);
    return with(false, [&](Base::Element* e, const Strong& self) {
        XML_interface xi(QFileInfo(file).absolutePath());
        const QString body = write_xml(e, self, xi, recurse, 1);
        if (body.isEmpty())
            return false;
        QByteArray data("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
        data += body.toUtf8();
        data += '\n';
        return xi.write_file_atomic(QFileInfo(file).absoluteFilePath(), data);
    });
}

QString Element::to_xml(bool recurse, int version, int indent) const
{
    return with(QString(), [=](Base::Element* e, const Strong& self) {
        XML_interface xi;
        xi.set_format_version(version);
        return write_xml(e, self, xi, recurse, indent);
    });
}

// --- access to the model ---

Element_man Element::get_element_man() const { return Element_man(get_eman()); }

QSharedPointer<Base::Element_man> Element::get_eman() const
{
    const Strong e = get_base_elem();
    return e ? e->man() : QSharedPointer<Base::Element_man>();
}

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC
