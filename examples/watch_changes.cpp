// The client layer in one program: a manager handle loads a directory, a receiver on a worker
// thread learns of every change by posted events, a task's designator is changed through its
// handle and the directory is saved elsewhere. Run it on examples/taskdata:
//   watch_changes examples/taskdata /tmp/out
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/client/Elements.h>

#include <QCoreApplication>
#include <QThread>

using namespace TC::Task_data;
namespace Client = TC::Task_data::Elements::Client;

// Lives on the worker thread: events arrive there, after the change, never inside it.
class Watcher : public QObject
{
public:
    bool event(QEvent* e) override
    {
        static const Client::Event_types_ids ids;
        if (e->type() == ids.attribute_update) {
            const auto& change = static_cast<Client::Attribute_update_qt_event*>(e)->payload();
            // Handles hold weak references: the element may be gone by now, then this prints "".
            qInfo("changed %s of %s", qPrintable(change.attribute.xml_name()), qPrintable(change.element.get_uid()));
            return true;
        }
        if (e->type() == ids.flush) { // everything posted before it has been handled
            static_cast<Client::Flush_qt_event*>(e)->payload().handle();
            return true;
        }
        return QObject::event(e);
    }
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        qWarning("usage: watch_changes DIR OUTDIR");
        return 2;
    }
    Client::Element_man eman = Client::Element_man::create();
    XML_interface in(QString::fromLocal8Bit(argv[1]));
    if (!eman.load_xml(in)) {
        qWarning("%s", qPrintable(in.fail_text())); // failures are results, never exceptions
        return 1;
    }

    QThread worker;
    auto watcher = new Watcher;
    watcher->moveToThread(&worker);
    QObject::connect(&worker, &QThread::finished, watcher, &QObject::deleteLater);
    worker.start();
    const Client::Task_data root = eman.get_client_root();
    root.register_for_events(watcher); // every change anywhere in the tree

    const Client::Task task = root.tasks_count() > 0 ? root.get_task(0) : root.create_task();
    task.set_designator("Spraying north field"); // one event, posted to the worker
    post_flush_and_wait(watcher);                // the watcher has seen it when this returns

    XML_interface out(QString::fromLocal8Bit(argv[2]));
    out.set_output_dir(QString::fromLocal8Bit(argv[2]));
    const bool saved = eman.save_xml(out); // every file is replaced atomically
    worker.quit();
    worker.wait();
    return saved ? 0 : 1;
}
