// Autosave_dispatcher: the event dispatcher of the autosave's background thread.
//
// Why it exists: a change posts one event to the autosave, and the dispatcher Qt would give the
// thread wakes it for every posted event -- a system call on the changing thread for each change
// while the autosave keeps up (with GLib, for every event even while it does not). The autosave
// has nothing to do with an update before its delay ends, so this dispatcher wakes the thread for
// a posted event only while no timer is pending: the first change of a burst wakes it (and starts
// the delay), the rest are taken, in order and before the timer's write, when the timer is due or
// when `batch` of them have come in (so that what waits stays small and its memory warm).
// A flush (autosave_sync) and a quit wake it at once through wake_now() and interrupt().
// No socket notifiers: nothing on this thread needs them.
//
// Ownership: installed on the Background_thread before it starts; the thread owns it.
// Threads: wakeUp(), wake_now() and interrupt() from any thread; everything else on the thread
// it serves.
#pragma once

#include <taskdata/common/XML_interface_private.h>

#include <QAbstractEventDispatcher>
#include <QElapsedTimer>
#include <QMutex>
#include <QVector>
#include <QWaitCondition>

#include <atomic>

namespace TC {
namespace Task_data {

class KTD_EXPORT XML_interface_private::Autosave_dispatcher final : public QAbstractEventDispatcher
{
public:
    Autosave_dispatcher();
    ~Autosave_dispatcher() override;

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override { return m_posted.load(std::memory_order_acquire) != 0; }
    void registerSocketNotifier(QSocketNotifier*) override;
    void unregisterSocketNotifier(QSocketNotifier*) override {}
    void registerTimer(int id, int interval, Qt::TimerType type, QObject* object) override;
    bool unregisterTimer(int id) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int id) override;
    void wakeUp() override;
    void interrupt() override;
    void flush() override {}

    // Wakes the thread whether or not a timer is pending (a flush was posted).
    void wake_now();
    // Times the thread was woken before a timer was due (for tests).
    int early_wakes() const { return m_early_wakes.load(std::memory_order_relaxed); }

private:
    struct Timer
    {
        int id;
        int interval;
        Qt::TimerType type;
        QObject* object;
        qint64 due; // ms on m_clock
    };
    // Sends the timer events that are due; answers whether it sent any.
    bool fire_due_timers();
    qint64 next_due() const; // -1 without timers
    void timers_changed();

    QElapsedTimer m_clock;
    QVector<Timer> m_timers;                // the serving thread only
    std::atomic<bool> m_timer_pending{false}; // m_timers is not empty
    static constexpr int batch = 256;
    std::atomic<int> m_posted{0};             // events posted since the last delivery
    std::atomic<bool> m_woken{false};         // wake_now() or interrupt() since the last round
    std::atomic<int> m_early_wakes{0};
    QMutex m_mutex; // with m_wait: the serving thread sleeps on it
    QWaitCondition m_wait;
};

} // namespace Task_data
} // namespace TC
