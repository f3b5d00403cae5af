// LinkedID attributes: references from one element to another (a task's customer, a field's farm).
//
// The value is a weak reference to the target, never a stored number: the text written is the
// target's current identifier, so renumbering a target renumbers every reference to it. A
// reference whose target is not loaded yet waits in the element manager and completes when
// that identifier is registered (forward references in a file). Thread: the holder of the
// owning element's lock.
#pragma once

#include <taskdata/attributes/base/Attribute.h>

#include <QMap>
#include <QUuid>
#include <QWeakPointer>

#include <limits>

namespace TC {
namespace Task_data {
namespace Attributes {
namespace Base {

class KTD_EXPORT LinkedID : public Attribute
{
public:
    struct Spec : Attribute::Spec
    {
        qint32 min;
        qint32 max;
        quint8 width;
        quint8 base;
        bool linked;            // true in every spec
        const char* target_tag; // XML code of the referenced kind; "" for any kind
        Variant_map* variants = nullptr;
        Spec(const char* n, int v, bool r, const char* target, quint8 w = 0, quint8 b = 10)
            : Attribute::Spec(n, v, r), min(std::numeric_limits<qint32>::min()),
              max(std::numeric_limits<qint32>::max()), width(w), base(b), linked(true), target_tag(target)
        {
        }
    };

    const Spec& base_spec() const override = 0;

    // --- link operations, in their fixed order ---
    virtual QSharedPointer<Element> _target() const;
    virtual QSharedPointer<Element> _get_target() const;
    virtual int get_val() const;
    virtual QString get_tag() const;
    virtual bool set_val(const QSharedPointer<Element>& owner, const QString& tag, int id, bool notify = true);
    // Whether an element may be the target (its class); the typed links narrow it.
    virtual bool accepts(Element* candidate) const;

    QSharedPointer<Element> target() const { return _target(); }
    QSharedPointer<Element> lookup() const { return _target(); }
    QString get_as_string() const;
    // True when making `candidate` the target would make an element its own ancestor.
    bool loop_test(Element* candidate) const;
    // Points at an element directly; false when it is not an acceptable target.
    bool set_target(const QSharedPointer<Element>& owner, const QSharedPointer<Element>& target, bool notify = true);
    // Looks up (tag, id) through the owner's manager; when there is no such element yet the
    // link waits in the manager. Answers whether the target was found (or id is 0).
    bool update_target_from_id(bool& changed, const QSharedPointer<Element>& owner, const QString& tag, int id);

    QString extra_description() const override;
    void set_to_default(const QSharedPointer<Element>& owner, Element_man& man, bool notify = true) override;
    int compare(Element* a, Element* b, bool ascending = true) const override;
    void hash(Element* owner, Hash_arg& h) const override;
    bool set_from_other(const Attribute* source, const QSharedPointer<Element>& owner, bool notify = true) override;
    QString _to_string() const override { return get_as_string(); }
    bool _to_xml(Element* owner, QDomElement& dom, const QString& name) const override;
    bool _from_xml(const QSharedPointer<Element>& owner, QDomElement& dom, const QString& name) override;
    bool _xml_value(QString& out, Element* owner, int version) const override;
    bool _set_by_xml_value(const QSharedPointer<Element>& owner, QStringView text) override;
    QVariant _get_qvariant() const override { return QVariant(get_as_string()); }
    bool _get_ui_state(const UI::Attribute_ui_config&, const UI::Attribute_ui_spec&,
                       UI::Attribute_ui_state&) const override
    {
        return false;
    }
    bool _set_from_ui_state(const QSharedPointer<Element>&, const UI::Attribute_ui_state&) override { return false; }

    // Takes the reference of `source` (an element being copied, managed by `source_man`): a target
    // whose GUID `guid_map` translates becomes the element of this manager with the mapped GUID;
    // in the same manager the target stays; in another one it is found by its GUID, else by its
    // number (waiting for it like a reference read from a file).
    bool copy_link(const QSharedPointer<Element>& owner, const LinkedID& source,
                   const QSharedPointer<Element_man>& source_man, const QMap<QUuid, QUuid>& guid_map, bool notify);
    // Called by the manager when a pending target is registered.
    void complete_pending(const QSharedPointer<Element>& owner, const QSharedPointer<Element>& target,
                          const QString& tag, int id);

protected:
    // update_target_from_id() without its rule that number 0 clears the link.
    bool look_up(bool& changed, const QSharedPointer<Element>& owner, const QString& tag, int id);
    QString target_text(Element* target) const;

    QWeakPointer<Element> m_target;
};

// A reference to an element of class E.
template <class E>
class LinkedID_t : public LinkedID
{
public:
    bool accepts(Element* candidate) const override { return dynamic_cast<E*>(candidate) != nullptr; }
    bool set_val(const QSharedPointer<Element>& owner, int id, bool notify = true)
    {
        return LinkedID::set_val(owner, QString::fromLatin1(base_spec().target_tag), id, notify);
    }
    using LinkedID::set_val;
    bool set(const QSharedPointer<Element>& owner, const QSharedPointer<E>& target, bool notify = true)
    {
        return set_target(owner, target, notify);
    }
    QSharedPointer<E> get_target() const { return _target().template dynamicCast<E>(); }
    bool _update_target_from_id(bool& changed, const QSharedPointer<Element>& owner, const QString& tag, int id)
    {
        return update_target_from_id(changed, owner, tag, id);
    }
    bool _update_target_from_elem(bool& changed, const QSharedPointer<Element>& owner)
    {
        const QSharedPointer<Element> t = _target();
        changed = false;
        return t ? accepts(t.data()) : true;
    }
};

} // namespace Base
} // namespace Attributes
} // namespace Task_data
} // namespace TC
