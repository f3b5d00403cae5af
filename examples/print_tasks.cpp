// Loads a task data directory with the library and prints its tasks: the smallest complete use
// of the API (manager, XML_interface::load, the typed tree). Run it on examples/taskdata:
//   print_tasks examples/taskdata
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QCoreApplication>
#include <QTextStream>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);
    if (app.arguments().size() != 2) {
        err << "usage: print_tasks DIR\n";
        return 2;
    }
    const QString dir = app.arguments().at(1);

    // The manager owns identifiers and links; elements hold it weakly, so it lives as long as the tree.
    QSharedPointer<Element_man> man = Element_man::create();
    man->set_task_data_dir(dir);
    XML_interface xi(dir);
    if (!xi.load(man)) {
        err << "cannot load " << dir << ": " << xi.fail_text() << '\n';
        return 2;
    }
    const QSharedPointer<Task_data> root = man->root().dynamicCast<Task_data>();
    if (!root) {
        err << dir << " holds no task data\n";
        return 2;
    }

    for (int i = 0; i < root->tasks.count(); ++i) {
        const QSharedPointer<Task> task = root->tasks.typed_at(i);
        out << task->get_id_string() << "  \"" << task->designator.get_string() << "\"  status "
            << task->status.get_val();
        // References are live links to the elements, not copies of their identifiers.
        if (const QSharedPointer<Customer> c = task->customer.get_target())
            out << "  customer " << c->designator.get_string();
        if (const QSharedPointer<Partfield> f = task->partfield.get_target())
            out << "  field " << f->designator.get_string() << " (" << f->area.get_val() << " m2)";
        out << '\n';
        for (int z = 0; z < task->treatment_zones.count(); ++z) {
            const QSharedPointer<Treatment_zone> zone = task->treatment_zones.typed_at(z);
            for (int v = 0; v < zone->process_data_variables.count(); ++v) {
                const QSharedPointer<Process_data_variable> pdv = zone->process_data_variables.typed_at(v);
                out << "  zone " << zone->code.get_val() << ": DDI " << pdv->ddi.get_val() << " = "
                    << pdv->value.get_val();
                if (const QSharedPointer<Product> p = pdv->product.get_target())
                    out << " of " << p->designator.get_string();
                out << '\n';
            }
        }
    }
    return 0;
}
