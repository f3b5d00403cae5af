// An application of its own using the installed library: builds a small task data tree and
// prints it as XML. Exit code 0 only when the tree was written as expected.
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QString>
#include <QXmlStreamWriter>

#include <cstdio>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;

int main()
{
    auto man = Element_man::create();
    auto root = QSharedPointer<Task_data>::create(man);
    man->set_root(root);
    auto task = root->tasks.create();
    task->designator.set_string(task, QStringLiteral("Consumer check"));

    XML_interface xi;
    QString text;
    QXmlStreamWriter w(&text);
    if (!root->save_xml(root, w, xi) || !xi.ok()) {
        std::printf("save failed: %s\n", qPrintable(xi.fail_text()));
        return 1;
    }
    std::printf("%s\n", qPrintable(text));
    const bool expected = text.contains(QLatin1String("<ISO11783_TaskData"))
                          && text.contains(QLatin1String("<TSK")) && text.contains(QLatin1String("Consumer check"));
    std::printf("%s: %d task(s)\n", expected ? "consumer ok" : "consumer FAILED", root->tasks.count());
    return expected ? 0 : 1;
}
