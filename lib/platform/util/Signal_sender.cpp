#include "Signal_sender.h"

#include <QMetaMethod>
#include <QMetaObject>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QRecursiveMutex>
#include <QThread>
#include <QVarLengthArray>
#include <QVector>

namespace Util {

namespace {
// Lazy creation of a sender's state: rare, so one lock for all senders.
QBasicMutex g_create_lock;

// "2updated(int)" (SIGNAL) or "updated(int)" -> normalised "updated(int)".
QByteArray signature_of(const char* text)
{
    if (!text)
        return QByteArray();
    if (*text >= '0' && *text <= '9')
        ++text;
    return QMetaObject::normalizedSignature(text);
}

QByteArray name_of(const QByteArray& signature)
{
    const int paren = signature.indexOf('(');
    return paren < 0 ? signature : signature.left(paren);
}

QList<QByteArray> parameters_of(const QByteArray& signature)
{
    const int open = signature.indexOf('(');
    const int close = signature.lastIndexOf(')');
    if (open < 0 || close <= open + 1)
        return {};
    return signature.mid(open + 1, close - open - 1).split(',');
}
} // namespace

struct Signal_sender::State
{
    struct Connection
    {
        QByteArray prefix;
        QByteArray name;
        QByteArray signal; // normalised signature
        QList<QByteArray> parameters;
        QObject* receiver; // null once its destruction began (see the watch)
        QMetaMethod method;
        QMetaObject::Connection watch;
    };
    QRecursiveMutex lock;
    QVector<Connection> connections;
    std::atomic<int> live{0};

    void purge_dead()
    {
        for (int i = connections.size() - 1; i >= 0; --i)
            if (!connections.at(i).receiver)
                connections.remove(i);
    }
};

Signal_sender::Signal_sender() = default;

Signal_sender::~Signal_sender()
{
    if (!m_state)
        return;
    QMutexLocker guard(&m_state->lock);
    for (const auto& c : m_state->connections)
        QObject::disconnect(c.watch);
    m_state->connections.clear();
    m_state->live.store(0);
}

bool Signal_sender::empty() const
{
    const State* s = m_raw.load(std::memory_order_acquire);
    return !s || s->live.load(std::memory_order_acquire) == 0;
}

Signal_sender::State* Signal_sender::state_for_connect()
{
    if (State* s = m_raw.load(std::memory_order_acquire))
        return s;
    QMutexLocker guard(&g_create_lock);
    if (!m_state) {
        m_state = QSharedPointer<State>::create();
        m_raw.store(m_state.data(), std::memory_order_release);
    }
    return m_state.data();
}

bool Signal_sender::connected(const QByteArray& prefix, const char* signal) const
{
    State* s = m_raw.load(std::memory_order_acquire);
    if (!s || !signal)
        return false;
    const QByteArray sig = signature_of(signal);
    const bool by_name = !sig.contains('(');
    QMutexLocker guard(&s->lock);
    for (const auto& c : s->connections)
        if (c.receiver && c.prefix == prefix && (by_name ? c.name == sig : c.signal == sig))
            return true;
    return false;
}

bool Signal_sender::connect(const QByteArray& prefix, const char* signal, const QObject* receiver, const char* slot)
{
    if (!signal || !receiver || !slot)
        return false;
    const QByteArray sig = signature_of(signal);
    const QByteArray slot_sig = signature_of(slot);
    if (!sig.contains('(') || !QMetaObject::checkConnectArgs(sig, slot_sig))
        return false;
    const int index = receiver->metaObject()->indexOfMethod(slot_sig.constData());
    if (index < 0)
        return false;
    State* s = state_for_connect();
    QObject* target = const_cast<QObject*>(receiver);
    const QWeakPointer<State> weak = m_state;
    // Runs in the receiver's destructor, before Qt drops the calls posted to it: once this has
    // taken the lock, no emission can reach the receiver any more.
    const QMetaObject::Connection watch = QObject::connect(target, &QObject::destroyed, [weak, target] {
        if (const QSharedPointer<State> st = weak.toStrongRef()) {
            QMutexLocker guard(&st->lock);
            for (auto& c : st->connections) {
                if (c.receiver == target) {
                    c.receiver = nullptr;
                    st->live.fetch_sub(1, std::memory_order_release);
                }
            }
        }
    });
    QMutexLocker guard(&s->lock);
    s->purge_dead();
    s->connections.append({prefix, name_of(sig), sig, parameters_of(sig), target,
                           receiver->metaObject()->method(index), watch});
    s->live.fetch_add(1, std::memory_order_release);
    return true;
}

bool Signal_sender::disconnect(const QByteArray& prefix, const char* signal, const QObject* receiver, const char* slot)
{
    State* s = m_raw.load(std::memory_order_acquire);
    if (!s)
        return false;
    const QByteArray sig = signature_of(signal);
    const QByteArray slot_sig = signature_of(slot);
    const bool by_name = !sig.isEmpty() && !sig.contains('(');
    QMutexLocker guard(&s->lock);
    bool any = false;
    for (int i = s->connections.size() - 1; i >= 0; --i) {
        const auto& c = s->connections.at(i);
        if (c.prefix != prefix || (!sig.isEmpty() && (by_name ? c.name != sig : c.signal != sig)) ||
            (receiver && c.receiver != receiver) || (!slot_sig.isEmpty() && c.method.methodSignature() != slot_sig))
            continue;
        if (c.receiver)
            s->live.fetch_sub(1, std::memory_order_release);
        QObject::disconnect(c.watch);
        s->connections.remove(i);
        any = true;
    }
    return any;
}

int Signal_sender::emit_signal(const QByteArray& prefix, const char* name, QGenericArgument a0, QGenericArgument a1,
                               QGenericArgument a2, QGenericArgument a3, QGenericArgument a4, QGenericArgument a5,
                               QGenericArgument a6, QGenericArgument a7, QGenericArgument a8,
                               QGenericArgument a9) const
{
    State* s = m_raw.load(std::memory_order_acquire);
    if (!s || s->live.load(std::memory_order_acquire) == 0 || !name)
        return 0;
    const QGenericArgument args[] = {a0, a1, a2, a3, a4, a5, a6, a7, a8, a9};
    int given = 0;
    while (given < 10 && args[given].name())
        ++given;
    QVarLengthArray<QByteArray, 4> types;
    for (int i = 0; i < given; ++i)
        types.append(QMetaObject::normalizedType(args[i].name()));
    int called = 0;
    QMutexLocker guard(&s->lock);
    // By index: a slot called directly may connect or disconnect on this sender.
    for (int i = 0; i < s->connections.size(); ++i) {
        const auto c = s->connections.at(i);
        if (!c.receiver || c.prefix != prefix || c.name != name || c.parameters.size() != given)
            continue;
        bool fits = true;
        for (int k = 0; k < given && fits; ++k)
            fits = c.parameters.at(k) == types[k];
        if (!fits)
            continue;
        if (c.method.invoke(c.receiver, Qt::AutoConnection, a0, a1, a2, a3, a4, a5, a6, a7, a8, a9))
            ++called;
    }
    return called;
}

} // namespace Util
