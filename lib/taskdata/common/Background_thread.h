// Background_thread: the low-priority thread "XML Autosave" on which an autosave object lives.
//
// run() builds the autosave object on the thread, publishes it in the interface's private part,
// releases the starter (blocked in XML_interface::set_autosave on `started`) and runs the
// event loop; when the loop ends it destroys the autosave object.
// Ownership: owned by XML_interface_private, which quits and joins it before deleting it.
// Threads: constructed, started and joined by the thread calling set_autosave.
#pragma once

#include <taskdata/common/XML_interface_private.h>
#include <taskdata/elements/client/Element_man.h>

#include <QSemaphore>
#include <QThread>

namespace TC {
namespace Task_data {

class KTD_EXPORT XML_interface_private::Background_thread : public QThread
{
public:
    Background_thread(XML_interface& xml, const Elements::Client::Element_man& eman, QSemaphore* started, int delay);

protected:
    void run() override;

private:
    XML_interface& xml;
    Elements::Client::Element_man eman;
    QSemaphore* started; // cleared once released
    int delay;
};

} // namespace Task_data
} // namespace TC
