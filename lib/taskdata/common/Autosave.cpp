#include "Autosave.h"

#include "Task_data_files.h"
#include "XML_interface.h"

#include <platform/util/Trace_print.h>

#include <taskdata/elements/base/Element_list.h>
#include <taskdata/elements/client/Elements.h>

#include <QMutexLocker>

#include <cstdarg>
#include <cstdio>
#include <unistd.h>

namespace TC {
namespace Task_data {

using Elements::Base::Element;
using Elements::Base::Element_list;
using Elements::Base::Element_locker_new;
namespace Client = Elements::Client;


XML_interface_private::Autosave::Autosave(XML_interface& xml, const Client::Element_man& eman, int delay)
    : xml(xml), eman(eman), delay(delay), timer(new QTimer(this))
{
    const Client::Task_data root = eman.get_client_root();
    root.register_for_events(this);
    // Its changes would otherwise wait for the next change of the document.
    eman.link_list().register_for_events(this);
    save(root.get_base_elem());
    connect(timer, &QTimer::timeout, this, &Autosave::save_queued_elements);
    timer->setSingleShot(true);
}

XML_interface_private::Autosave::~Autosave()
{
    eman.get_client_root().unregister_for_events(this);
    eman.link_list().unregister_for_events(this);
    XML_interface_private& d = of(xml);
    QMutexLocker guard(&d.lock);
    if (d.autosave == this) {
        d.autosave = nullptr;
        d.autosave_thread = nullptr;
    }
}

bool XML_interface_private::Autosave::event(QEvent* e)
{
    static const Client::Event_types_ids ids;
    const QEvent::Type type = e->type();
    if (type == ids.attribute_update) {
        save(static_cast<Client::Attribute_update_qt_event*>(e)->payload());
        return true;
    }
    if (type == ids.child_added) {
        save(static_cast<Client::Child_added_qt_event*>(e)->payload());
        return true;
    }
    if (type == ids.child_removed) {
        save(static_cast<Client::Child_removed_qt_event*>(e)->payload());
        return true;
    }
    if (type == ids.binary_appended || type == ids.binary_modified)
        return true; // binary files are written by whoever appends to them
    if (type == ids.flush) {
        save_queued_elements();
        static_cast<Client::Flush_qt_event*>(e)->payload().handle();
        return true;
    }
    return QObject::event(e);
}

void XML_interface_private::Autosave::save(const Update_event<Client::Element>& e)
{
    const QSharedPointer<Element> element = e.element.get_base_elem();
    {
        Element_locker_new lock(element);
        if (!lock) {
            if (tracing())
                Trace_print::print("Autosave no elem %d\n", 94);
            return;
        }
    }
    if (delay == 0) {
        save(element);
        return;
    }
    queue.push_back(element.toWeakRef());
    // A running timer is left alone: the first change of a burst fixes when it is written.
    if (!timer->isActive()) {
        timer->start(delay);
        ++m_timer_starts;
    }
}

void XML_interface_private::Autosave::save_queued_elements()
{
    timer->stop();
    while (!queue.empty()) {
        const QSharedPointer<Element> element = queue.front().toStrongRef();
        queue.pop_front();
        if (element) // one deleted meanwhile has nothing left to write
            save(element);
    }
    ::sync(); // the renames and directories too, on every file system
}

bool XML_interface_private::Autosave::tracing() const
{
    return debug && xml.autosave_trace() && Trace_print::enabled();
}

void XML_interface_private::Autosave::trace(const char* fmt, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, fmt);
    const int n = vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    if (n > 0)
        m_line.append(buffer, qMin(n, int(sizeof buffer) - 1));
}

void XML_interface_private::Autosave::end_trace()
{
    if (!m_line.isEmpty())
        Trace_print::print("%s", m_line.constData());
    m_line.clear();
}

void XML_interface_private::Autosave::debug_header(QSharedPointer<Element> element)
{
    quint32 since = 0;
    if (header_timer.isValid())
        since = quint32(header_timer.restart());
    else
        header_timer.start();
    trace("ASave %u %u %u %s '%s'", saves_since_header, since, quint32(element->stamp()), element->kind().tag,
          element->get_designator().toLocal8Bit().constData());
    saves_since_header = 0;
}

bool XML_interface_private::Autosave::changed(const Element* e, quint64 stamp) const
{
    // Never written counts as changed, whatever its stamp: a new element the main file refers
    // to must have its own file.
    const auto it = saved_stamps.constFind(e);
    return it == saved_stamps.constEnd() || *it != stamp;
}

void XML_interface_private::Autosave::record(const Element* e, quint64 stamp)
{
    if (tracing())
        trace("<%u.%u>", quint32(saved_stamps.value(e)), quint32(stamp));
    saved_stamps.insert(e, stamp);
}

bool XML_interface_private::Autosave::saved_individually(const Element* e) const
{
    const Element_list* list = e->parent_list();
    return list && xml.keep_proprietary() && e->get_id() != 0 && xml.individual_save(list->tag());
}

void XML_interface_private::Autosave::save(QSharedPointer<Element> element)
{
    ++saves_since_header;
    for (QSharedPointer<Element> e = element; e;) {
        if (saved_individually(e.data())) {
            save_individual(e);
            return;
        }
        QSharedPointer<Element> parent = e->parent_sp();
        if (parent == e)
            break;
        e = parent;
    }
    save_root();
}

void XML_interface_private::Autosave::save_individual(const QSharedPointer<Element>& element)
{
    Element_list* list = element->parent_list();
    QByteArray data;
    QString name;
    QByteArray kind, designator;
    bool ok = false;
    {
        // Read element by element on the way down (Element::save_xml); held meanwhile, the
        // element keeps its children.
        const Element_locker_new hold(element, -1);
        const quint64 stamp = element->stamp();
        if (!list || !changed(element.data(), stamp))
            return;
        kind = element->kind().tag;
        designator = element->get_designator().toLocal8Bit();
        if (tracing())
            debug_header(element);
        record(element.data(), stamp);
        save_timer.start();
        xml.reset_state();
        xml.set_partial_save_state(2);
        name = Element_list::individual_file_name(*element, list->tag_latin1());
        ok = list->individual_file_data(element, xml, data);
    }
    const int objects = xml.objects_done();
    ok = ok ? Element_list::write_individual_file(xml, name, data) : Element_list::individual_file_failed(xml, name);
    xml.set_partial_save_state(0);
    ++m_writes;
    if (!tracing())
        return;
    if (ok)
        trace(" E %u %u %s '%s'\n", quint32(save_timer.elapsed()), quint32(objects), kind.constData(),
              designator.constData());
    else
        trace(" EFAIL %u %s '%s'\n", quint32(save_timer.elapsed()), kind.constData(), designator.constData());
    end_trace();
}

void XML_interface_private::Autosave::changed_individuals(Element* e, Task_data_files::Files& files)
{
    const unsigned lists = e->_num_element_lists();
    for (unsigned l = 0; l < lists; ++l) {
        Element_list* list = e->_element_list(l);
        for (const QSharedPointer<Element>& c : list->elements()) {
            const Element_locker_new lock(c, -1);
            if (saved_individually(c.data()) && changed(c.data(), c->stamp())) {
                saved_stamps.insert(c.data(), c->stamp());
                QByteArray data;
                if (list->individual_file_data(c, xml, data))
                    files.append(qMakePair(Element_list::individual_file_name(*c, list->tag_latin1()), data));
            }
            changed_individuals(c.data(), files);
        }
    }
}

void XML_interface_private::Autosave::save_root()
{
    const QSharedPointer<Elements::Base::Element_man> man = eman.get_eman_real();
    const QSharedPointer<Element> root = man ? man->root() : QSharedPointer<Element>();
    if (!root)
        return;
    const QSharedPointer<Element> link_list = man->link_list();
    man->update_attached_files(xml);
    const quint64 root_stamp = root->stamp();
    const quint64 list_stamp = link_list ? link_list->stamp() : 0;
    const bool main = changed(root.data(), root_stamp);
    const bool links = link_list && changed(link_list.data(), list_stamp);
    if (!main && !links)
        return;
    if (tracing())
        debug_header(root);
    save_timer.start();
    if (main) {
        record(root.data(), root_stamp);
        if (tracing())
            trace(" TD %u.%u", quint32(root_stamp), quint32(list_stamp));
        xml.reset_state();
        xml.set_partial_save_state(1);
        Task_data_files::Files files;
        {
            // Made in memory, then written. The root is held throughout, so the main file and
            // the files of individually saved elements it names agree (such elements are its
            // children); everything below it is read under its own lock on the way down
            // (Element::save_xml), so a change there waits for one element, not the document.
            const Element_locker_new hold(root, -1);
            changed_individuals(root.data(), files);
            xml.set_reference_individual_files(true);
            Task_data_files::main_files(xml, man, files);
            xml.set_reference_individual_files(false);
        }
        xml.set_partial_save_state(1);
        if (xml.ok())
            Task_data_files::write_files(xml, files);
        xml.set_partial_save_state(0);
        ++m_writes;
    }
    if (links) {
        record(link_list.data(), list_stamp);
        if (tracing())
            trace(" LL %u", quint32(list_stamp));
        xml.reset_state();
        Task_data_files::Files files;
        xml.set_cur_outfilename(QStringLiteral("LINKLIST.XML"));
        bool made;
        {
            const Element_locker_new hold(link_list, -1);
            made = Task_data_files::link_list_file(xml, man, files);
        }
        if (made)
            Task_data_files::write_files(xml, files);
        xml.set_cur_outfilename(QString());
        ++m_writes;
    }
    if (tracing()) {
        trace(" %u\n", quint32(save_timer.elapsed()));
        end_trace();
    }
}

} // namespace Task_data
} // namespace TC
