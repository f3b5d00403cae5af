// Autosave: keeps the files of a task data directory in step with the tree, one change at a time.
//
// Registered as an event receiver on the task data root, it gets every change below it as a
// posted update event, queues the changed element and, `delay` ms after the first change of a
// burst (a single-shot timer that later changes do not restart), writes what changed: the
// element's own file when its kind is saved individually, else "TASKDATA.XML" (with the files
// of individually saved elements that are new or changed, before it) and "LINKLIST.XML". What
// it wrote is remembered by change stamp, so duplicates and repeated events cost a lookup.
// Ownership: made by XML_interface::set_autosave (directly, or by the background thread); it
// refers to the interface, which outlives it, and holds the manager handle.
// Threads: lives on one thread (normally "XML Autosave") and does all its work there; other
// threads reach it only by posting events (XML_interface::autosave_sync posts a flush).
#pragma once

#include <taskdata/common/Task_data_files.h>
#include <taskdata/common/XML_interface_private.h>
#include <taskdata/elements/client/Element_man.h>
#include <taskdata/elements/client/Events.h>

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QTimer>

#include <atomic>
#include <deque>

namespace TC {
namespace Task_data {

class KTD_EXPORT XML_interface_private::Autosave : public QObject
{
public:
    // Registers on the manager's root and writes, at once, every file whose content the tree
    // may have changed (all of them: nothing was written yet).
    Autosave(XML_interface& xml, const Elements::Client::Element_man& eman, int delay);
    ~Autosave() override;

    bool event(QEvent* e) override;
    // A change: written at once with delay 0, else queued (the timer started when idle).
    void save(const Update_event<Elements::Client::Element>& e);
    // Writes what the element's change touches, unless it was written at its current stamp.
    void save(QSharedPointer<Elements::Base::Element> element);
    // Writes every queued element, then syncs the file system.
    void save_queued_elements();
    // Starts the trace line of a write: "ASave <calls> <ms> <stamp> <kind> '<designator>'".
    void debug_header(QSharedPointer<Elements::Base::Element> element);

    // What it did, for tests and benchmarks (read on the autosave's thread, or after a flush).
    int queue_size() const { return int(queue.size()); }
    bool timer_active() const { return timer->isActive(); }
    int timer_starts() const { return m_timer_starts; }
    // Writes tried: one per individual file, main file (with what goes along) or link list.
    int writes() const { return m_writes; }

private:
    bool tracing() const;
    void trace(const char* fmt, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;
    void end_trace();
    // Replaces the recorded stamp of `e` (before the write is tried: a failed write is not
    // retried until the element changes again).
    void record(const Elements::Base::Element* e, quint64 stamp);
    bool changed(const Elements::Base::Element* e, quint64 stamp) const;
    void save_individual(const QSharedPointer<Elements::Base::Element>& element);
    void save_root();
    // Files of individually saved elements below `e` that are new or changed since written,
    // written with the main file so that it never refers to a file that is not there.
    void changed_individuals(Elements::Base::Element* e, Task_data_files::Files& files);
    bool saved_individually(const Elements::Base::Element* e) const;

    XML_interface& xml;
    Elements::Client::Element_man eman;
    int delay;
    QHash<const Elements::Base::Element*, quint64> saved_stamps;
    QTimer* timer;
    std::deque<QWeakPointer<Elements::Base::Element>> queue;
    bool debug = true;
    quint32 saves_since_header = 0;
    QElapsedTimer header_timer;
    QElapsedTimer save_timer;

    QByteArray m_line; // the trace line being built, written whole
    int m_timer_starts = 0;
    int m_writes = 0;
};

} // namespace Task_data
} // namespace TC
