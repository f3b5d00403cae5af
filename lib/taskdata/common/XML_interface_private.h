// XML_interface_private: what an XML_interface keeps for its autosave -- the autosave object and
// the background thread it may live on.
//
// Ownership: owned by its XML_interface and torn down with it (clear_autosave() first). It owns
// the background thread; the autosave object belongs to that thread (deleted by it when its
// event loop ends) or, without one, to the thread that started autosave.
// Threads: the pointers are guarded by `lock`; every function may be called from any thread
// but the autosave thread itself.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QMutex>

class QThread;

namespace TC {
namespace Task_data {

class XML_interface;

class KTD_EXPORT XML_interface_private
{
public:
    class Autosave;
    class Background_thread;
    class Autosave_dispatcher;

    explicit XML_interface_private(XML_interface& xml) : xml(xml) {}
    ~XML_interface_private();
    XML_interface_private(const XML_interface_private&) = delete;
    XML_interface_private& operator=(const XML_interface_private&) = delete;

    static XML_interface_private& of(XML_interface& xml);
    // Writes what the autosave has queued, then stops it (and its thread).
    void clear_autosave();
    // Asks the autosave to write everything posted to it so far and waits until it has.
    void sync();

    XML_interface& xml;
    // Guards the two pointers. The autosave clears its own when it is destroyed, under the
    // lock, so a thread holding it may post to the object it finds.
    QMutex lock;
    Autosave* autosave = nullptr;
    QThread* autosave_thread = nullptr; // the thread the autosave lives on
    Background_thread* thread = nullptr;
    Autosave_dispatcher* dispatcher = nullptr; // the thread's, owned by it
};

} // namespace Task_data
} // namespace TC
