#include "Autosave_dispatcher.h"

#include <QCoreApplication>
#include <QMutexLocker>
#include <QSocketNotifier>
#include <QTimerEvent>

#include <algorithm>

namespace TC {
namespace Task_data {

XML_interface_private::Autosave_dispatcher::Autosave_dispatcher() { m_clock.start(); }

XML_interface_private::Autosave_dispatcher::~Autosave_dispatcher()
{
    // A quit wakes the thread through interrupt(), and the finishing thread deletes this object
    // only after QThread::exit() has returned (Qt orders the two with a lock of its own, which the
    // thread checker cannot see). Taking the mutex interrupt() signals under shows it that order.
    QMutexLocker guard(&m_mutex);
}

bool XML_interface_private::Autosave_dispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    emit awake();
    m_woken.store(false, std::memory_order_relaxed);
    m_posted.store(0, std::memory_order_release);
    // Posted events first: updates that came in during a delay are queued before its write.
    QCoreApplication::sendPostedEvents();
    const bool fired = fire_due_timers();
    if (!(flags & QEventLoop::WaitForMoreEvents))
        return true;
    const qint64 due = next_due();
    const int posted = m_posted.load(std::memory_order_acquire);
    if (due == 0 || m_woken.load(std::memory_order_relaxed) || posted >= batch || (due < 0 && posted != 0))
        return true;
    emit aboutToBlock();
    QMutexLocker guard(&m_mutex);
    // Checked under the mutex that wakeUp() signals under: no wake-up falls between the test
    // and the wait.
    const int posted_now = m_posted.load(std::memory_order_acquire);
    const bool pending_wake =
        m_woken.load(std::memory_order_relaxed) || posted_now >= batch || (posted_now != 0 && due < 0);
    if (!pending_wake) {
        const bool signalled = due < 0 ? m_wait.wait(&m_mutex) : m_wait.wait(&m_mutex, quint64(due));
        if (signalled && next_due() > 0)
            m_early_wakes.fetch_add(1, std::memory_order_relaxed);
    }
    return fired;
}

void XML_interface_private::Autosave_dispatcher::registerSocketNotifier(QSocketNotifier* notifier)
{
    qWarning("The autosave thread serves no socket notifiers (socket %lld)", qlonglong(notifier->socket()));
}

void XML_interface_private::Autosave_dispatcher::registerTimer(int id, int interval, Qt::TimerType type,
                                                               QObject* object)
{
    m_timers.append({id, interval, type, object, m_clock.elapsed() + interval});
    timers_changed();
}

bool XML_interface_private::Autosave_dispatcher::unregisterTimer(int id)
{
    for (int i = 0; i < m_timers.size(); ++i) {
        if (m_timers.at(i).id == id) {
            m_timers.remove(i);
            timers_changed();
            return true;
        }
    }
    return false;
}

bool XML_interface_private::Autosave_dispatcher::unregisterTimers(QObject* object)
{
    const int before = m_timers.size();
    m_timers.erase(std::remove_if(m_timers.begin(), m_timers.end(), [object](const Timer& t) { return t.object == object; }),
                   m_timers.end());
    timers_changed();
    return m_timers.size() != before;
}

QList<QAbstractEventDispatcher::TimerInfo>
XML_interface_private::Autosave_dispatcher::registeredTimers(QObject* object) const
{
    QList<TimerInfo> out;
    for (const Timer& t : m_timers)
        if (t.object == object)
            out.append(TimerInfo(t.id, t.interval, t.type));
    return out;
}

int XML_interface_private::Autosave_dispatcher::remainingTime(int id)
{
    for (const Timer& t : qAsConst(m_timers))
        if (t.id == id)
            return int(qMax<qint64>(0, t.due - m_clock.elapsed()));
    return -1;
}

void XML_interface_private::Autosave_dispatcher::wakeUp()
{
    // Called by postEvent on the posting thread. While a timer is pending the event waits for it
    // (or for a full batch): no system call for the changes of a burst after its first.
    const int posted = m_posted.fetch_add(1, std::memory_order_acq_rel) + 1;
    if (posted % batch != 0 && (posted != 1 || m_timer_pending.load(std::memory_order_acquire)))
        return;
    QMutexLocker guard(&m_mutex);
    m_wait.wakeOne();
}

void XML_interface_private::Autosave_dispatcher::wake_now()
{
    QMutexLocker guard(&m_mutex);
    m_woken.store(true, std::memory_order_relaxed);
    m_wait.wakeOne();
}

void XML_interface_private::Autosave_dispatcher::interrupt() { wake_now(); }

bool XML_interface_private::Autosave_dispatcher::fire_due_timers()
{
    bool fired = false;
    const qint64 now = m_clock.elapsed();
    QVector<int> due;
    for (const Timer& t : qAsConst(m_timers))
        if (t.due <= now)
            due.append(t.id);
    for (int id : qAsConst(due)) {
        // An earlier timer event may have stopped or restarted this one.
        auto it = std::find_if(m_timers.begin(), m_timers.end(), [id](const Timer& t) { return t.id == id; });
        if (it == m_timers.end() || it->due > now)
            continue;
        it->due = now + qMax(1, it->interval);
        QObject* object = it->object;
        QTimerEvent event(id);
        QCoreApplication::sendEvent(object, &event);
        fired = true;
    }
    return fired;
}

qint64 XML_interface_private::Autosave_dispatcher::next_due() const
{
    if (m_timers.isEmpty())
        return -1;
    qint64 due = m_timers.first().due;
    for (const Timer& t : m_timers)
        due = qMin(due, t.due);
    return qMax<qint64>(0, due - m_clock.elapsed());
}

void XML_interface_private::Autosave_dispatcher::timers_changed()
{
    m_timer_pending.store(!m_timers.isEmpty(), std::memory_order_release);
}

} // namespace Task_data
} // namespace TC
