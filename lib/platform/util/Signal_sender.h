// Signal_sender: named signals without a QObject of their own, for objects that have many
// instances and few listeners (one per task data element). A connection is keyed by a prefix
// (empty for the object itself, or naming a part of it such as one attribute) and a signal
// signature; emit_signal() calls every connected slot whose signal matches the name and the
// argument types given.
//
// Slots are called like Qt's automatic connections: directly when the receiver lives on the
// emitting thread, as a posted call on the receiver's thread otherwise (the argument types must
// then be registered with qRegisterMetaType). A receiver destroyed on another thread never gets
// a call after its destruction began. Connections are dropped with their receiver.
// Threads: every operation may be called from any thread. Slots called directly run while the
// sender's own (recursive) lock is held: they may connect and emit, but must not wait for
// another thread that emits on the same sender.
#pragma once

#include <platform/platform_export.h>

#include <QByteArray>
#include <QGenericArgument>
#include <QSharedPointer>

#include <atomic>

class QObject;

namespace Util {

class KPL_EXPORT Signal_sender
{
public:
    Signal_sender();
    ~Signal_sender();
    Signal_sender(const Signal_sender&) = delete;
    Signal_sender& operator=(const Signal_sender&) = delete;

    // True when nothing is connected: emitters test this first, it costs two atomic loads.
    bool empty() const;
    // Whether any slot is connected to a signal of that name (a bare name or a signature, with
    // or without the SIGNAL() code) under the prefix.
    bool connected(const QByteArray& prefix, const char* signal) const;

    // signal and slot as written with SIGNAL() and SLOT(), or as plain signatures. The slot may
    // take fewer arguments than the signal. False when the receiver has no such slot or the
    // argument types do not fit.
    bool connect(const QByteArray& prefix, const char* signal, const QObject* receiver, const char* slot);
    // Null signal, receiver or slot match any. Answers whether anything was disconnected.
    bool disconnect(const QByteArray& prefix, const char* signal = nullptr, const QObject* receiver = nullptr,
                    const char* slot = nullptr);

    // Calls every slot connected under `prefix` to a signal named `name` whose argument types
    // are those given (Q_ARG type names, compared after normalisation). Answers the number of
    // slots called.
    int emit_signal(const QByteArray& prefix, const char* name, QGenericArgument a0 = QGenericArgument(nullptr),
                    QGenericArgument a1 = QGenericArgument(), QGenericArgument a2 = QGenericArgument(),
                    QGenericArgument a3 = QGenericArgument(), QGenericArgument a4 = QGenericArgument(),
                    QGenericArgument a5 = QGenericArgument(), QGenericArgument a6 = QGenericArgument(),
                    QGenericArgument a7 = QGenericArgument(), QGenericArgument a8 = QGenericArgument(),
                    QGenericArgument a9 = QGenericArgument()) const;

    struct State;

private:
    State* state_for_connect();

    // Made on the first connection; shared with the watches on the receivers' destruction,
    // which may outlive the sender.
    QSharedPointer<State> m_state;
    std::atomic<State*> m_raw{nullptr};
};

} // namespace Util
