// Update events: how a change of the task data tree reaches observers on other threads.
//
// A change (attribute set, child added or removed, binary data appended) is described by a
// payload; the payload templates are instantiated once with base types (shared pointer to the
// changed element, raw attribute or list pointer) for the changing side and once with client
// handles (weak references only) for the receivers. The client payload is shared by every
// Qt_event posted for one change and freed with the last of them; events and payloads are
// recycled through Event_memory. Event type numbers are registered with Qt on first use, once
// per kind, whatever thread asks first.
// Threads: a Sender is used by the changing thread only; a Qt_event is read by the thread of
// the receiver it was posted to; the payload is immutable once posted.
#pragma once

#include <taskdata/common/Event_memory.h>
#include <taskdata/taskdata_export.h>

#include <QCoreApplication>
#include <QEvent>
#include <QSemaphore>

#include <atomic>
#include <cstddef>
#include <new>
#include <utility>

namespace TC {
namespace Task_data {

// Values are fixed: receivers and the remote protocol switch on them.
enum Update_type : int {
    attribute_updated = 0,
    child_added = 1,
    child_removed = 2,
    binary_appended = 3,
    binary_modified = 4,
};

// Each update type travels under an event type of its own, the flush under one more (the
// order of Event_types_ids).
constexpr int flush_event_slot = binary_modified + 1;

KTD_EXPORT QEvent::Type registered_event_type(int slot);

template <class E>
struct Update_event
{
    Update_type type;
    E element;
};

template <class E, class A>
struct Attribute_update_event : Update_event<E>
{
    static constexpr int event_slot = attribute_updated;
    // Null (an empty handle) when several attributes changed at once, as when an element is
    // read again from a file.
    A attribute;
    Attribute_update_event(E e, A a) : Update_event<E>{attribute_updated, std::move(e)}, attribute(std::move(a)) {}
};

template <Update_type T, class E, class L>
struct Child_update_event : Update_event<E>
{
    static_assert(T == child_added || T == child_removed, "a child event is an add or a removal");
    static constexpr int event_slot = T;
    L list;
    qint32 index; // position of the child added, or that the removed child had
    Child_update_event(E e, L l, qint32 i) : Update_event<E>{T, std::move(e)}, list(std::move(l)), index(i) {}
};

template <Update_type T, class E>
struct Typed_update_event : Update_event<E>
{
    static_assert(T == binary_appended || T == binary_modified, "a typed event is about binary data");
    static constexpr int event_slot = T;
    explicit Typed_update_event(E e) : Update_event<E>{T, std::move(e)} {}
};

// Asks a receiver to finish what was posted before it and then release the asking thread.
// Posted below normal priority, so every update already queued for the receiver comes first.
struct Flush_event
{
    static constexpr int event_slot = flush_event_slot;
    QSemaphore& semaphore; // owned by the thread that waits for the flush
    void handle() const { semaphore.release(); }
};

namespace Elements {
namespace Client {

// Posts one event for one change to a receiver. Made on the stack of the changing thread and
// handed down the delivery walk; send() is called once per live receiver.
class KTD_EXPORT Event_sender
{
public:
    virtual ~Event_sender();
    virtual void send(QObject* receiver) = 0;
    // Called by the delivery walk right before the last send of the change: that event may take
    // over what the sender holds instead of sharing it.
    void set_last() { m_last = true; }

protected:
    bool m_last = false;
};

// The six registered event type numbers, in this order. A receiver keeps one function-local
// static instance and compares QEvent::type() against the members.
struct KTD_EXPORT Event_types_ids
{
    Event_types_ids();
    QEvent::Type attribute_update;
    QEvent::Type child_added;
    QEvent::Type child_removed;
    QEvent::Type binary_appended;
    QEvent::Type binary_modified;
    QEvent::Type flush;
};

} // namespace Client
} // namespace Elements

// One payload shared by the events posted for one change; the last reference frees it. Counted
// inside the block (one atomic step per event) and kept in Event_memory.
template <class P>
class Shared_payload
{
public:
    static Shared_payload* make(P&& value)
    {
        return new (Event_memory::take(sizeof(Shared_payload))) Shared_payload(std::move(value));
    }
    Shared_payload(const Shared_payload&) = delete;
    Shared_payload& operator=(const Shared_payload&) = delete;
    void ref() noexcept { m_refs.fetch_add(1, std::memory_order_relaxed); }
    void deref() noexcept
    {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) != 1)
            return;
        this->~Shared_payload();
        Event_memory::give(this, sizeof(Shared_payload));
    }
    const P& value() const { return m_value; }

private:
    explicit Shared_payload(P&& value) : m_value(std::move(value)) {}
    ~Shared_payload() = default;
    std::atomic<int> m_refs{1};
    const P m_value;
};

// A posted event carrying one shared payload P. Its memory comes from Event_memory: the thread
// that posts it and the thread that deletes it are usually different.
template <class P>
class Qt_event final : public QEvent
{
public:
    explicit Qt_event(P payload) : Qt_event(Shared_payload<P>::make(std::move(payload))) {}
    ~Qt_event() override { m_payload->deref(); }
    Qt_event(const Qt_event&) = delete;
    Qt_event& operator=(const Qt_event&) = delete;
    static void* operator new(std::size_t size) { return Event_memory::take(size); }
    static void operator delete(void* block, std::size_t size) noexcept { Event_memory::give(block, size); }

    static QEvent::Type event_type() { return registered_event_type(P::event_slot); }
    const P& payload() const
    {
        (void)m_published.load(std::memory_order_acquire);
        return m_payload->value();
    }

    class Sender;

private:
    // Takes over one reference of `payload`.
    explicit Qt_event(Shared_payload<P>* payload) : QEvent(event_type()), m_payload(payload)
    {
        // Publishes the payload to the receiving thread in terms the thread checker sees
        // (the queue Qt hands the event through is not instrumented); free on x86.
        m_published.store(true, std::memory_order_release);
    }
    Shared_payload<P>* m_payload;
    std::atomic<bool> m_published{false};
};

template <class P>
class Qt_event<P>::Sender final : public Elements::Client::Event_sender
{
public:
    explicit Sender(P payload) : m_payload(Shared_payload<P>::make(std::move(payload))) {}
    ~Sender() override
    {
        if (m_payload)
            m_payload->deref();
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;
    void send(QObject* receiver) override
    {
        Shared_payload<P>* p = m_payload;
        // The last event takes the sender's reference: the receiving thread may free the payload
        // as soon as it is posted, so the sender lets go of it first.
        if (m_last)
            m_payload = nullptr;
        else
            p->ref();
        QCoreApplication::postEvent(receiver, new Qt_event<P>(p), Qt::NormalEventPriority);
    }

private:
    Shared_payload<P>* m_payload; // null once handed to the last event
};

// Posts a flush to `receiver` below normal priority and blocks until the receiver handled it
// (Flush_event::handle(), which the receiver must call): true then, false when the receiver was
// destroyed first. Never call it on the receiver's own thread: it would wait for ever.
KTD_EXPORT bool post_flush_and_wait(QObject* receiver);

} // namespace Task_data
} // namespace TC
