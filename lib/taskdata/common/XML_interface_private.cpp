#include "XML_interface_private.h"

#include "Autosave.h"
#include "Autosave_dispatcher.h"
#include "Background_thread.h"
#include "XML_interface.h"

#include <taskdata/elements/client/Elements.h>

#include <QCoreApplication>
#include <QMutexLocker>
#include <QSemaphore>

namespace TC {
namespace Task_data {

XML_interface_private::~XML_interface_private() { clear_autosave(); }

XML_interface_private& XML_interface_private::of(XML_interface& xml) { return *xml.m_private; }

void XML_interface_private::sync()
{
    QSemaphore done;
    Autosave* target = nullptr;
    {
        QMutexLocker guard(&lock);
        if (!autosave)
            return;
        target = autosave;
        if (autosave_thread == QThread::currentThread()) {
            // Its own thread cannot wait for itself: deliver what is posted to it, then write.
            guard.unlock();
            QCoreApplication::sendPostedEvents(target);
            QMutexLocker again(&lock);
            if (autosave == target)
                target->save_queued_elements();
            return;
        }
        // Below the updates' priority: Qt delivers every update already posted to it first.
        QCoreApplication::postEvent(target, new Elements::Client::Flush_qt_event(Flush_event{done}),
                                    Qt::LowEventPriority);
        // Its thread may be asleep until a pending timer: a flush does not wait for that.
        if (dispatcher && autosave_thread == thread)
            dispatcher->wake_now();
    }
    // An autosave torn down first drops the flush with its other events.
    while (!done.tryAcquire(1, 20)) {
        QMutexLocker guard(&lock);
        if (autosave != target)
            return;
    }
}

void XML_interface_private::clear_autosave()
{
    sync();
    Background_thread* t = nullptr;
    Autosave* a = nullptr;
    {
        QMutexLocker guard(&lock);
        t = thread;
        thread = nullptr;
        dispatcher = nullptr;
        if (!t) {
            a = autosave;
            autosave = nullptr;
            autosave_thread = nullptr;
        }
    }
    if (t) {
        // Its event loop ends, and the thread destroys the autosave on its way out.
        t->quit();
        t->wait();
        delete t;
    } else if (a) {
        if (a->thread() == QThread::currentThread())
            delete a;
        else
            a->deleteLater();
    }
}

XML_interface::~XML_interface() { m_private->clear_autosave(); }

QObject* XML_interface::set_autosave(const Elements::Client::Element_man& eman, bool background, int delay_ms)
{
    XML_interface_private& d = *m_private;
    d.clear_autosave();
    if (!eman.valid() || !eman.get_client_root().valid())
        return nullptr;
    if (!background) {
        auto a = new XML_interface_private::Autosave(*this, eman, delay_ms);
        QMutexLocker guard(&d.lock);
        d.autosave = a;
        d.autosave_thread = QThread::currentThread();
        return a;
    }
    QSemaphore started;
    auto t = new XML_interface_private::Background_thread(*this, eman, &started, delay_ms);
    t->setObjectName(QStringLiteral("XML Autosave"));
    auto dispatcher = new XML_interface_private::Autosave_dispatcher;
    t->setEventDispatcher(dispatcher);
    {
        QMutexLocker guard(&d.lock);
        d.thread = t;
        d.dispatcher = dispatcher;
    }
    t->start(QThread::InheritPriority);
    started.acquire(); // the autosave object exists now
    QMutexLocker guard(&d.lock);
    return d.autosave;
}

bool XML_interface::is_autosave() const
{
    QMutexLocker guard(&m_private->lock);
    return m_private->autosave != nullptr;
}

void XML_interface::autosave_sync() { m_private->sync(); }

void XML_interface::set_autosave_trace(bool on) { m_autosave_trace.store(on); }

XML_interface_private::Background_thread::Background_thread(XML_interface& xml,
                                                            const Elements::Client::Element_man& eman,
                                                            QSemaphore* started, int delay)
    : xml(xml), eman(eman), started(started), delay(delay)
{
}

void XML_interface_private::Background_thread::run()
{
    setPriority(QThread::LowPriority);
    auto a = new Autosave(xml, eman, delay);
    XML_interface_private& d = of(xml);
    {
        QMutexLocker guard(&d.lock);
        d.autosave = a;
        d.autosave_thread = this;
    }
    started->release();
    started = nullptr;
    exec();
    delete a;
}

} // namespace Task_data
} // namespace TC
