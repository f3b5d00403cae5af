// The model under threads: eight threads create, erase, add again, renumber and link fields,
// tasks, products and numbered points while a ninth saves the document now and then. Afterwards
// every identifier is unique and not 0, the registry and the tree name the same elements, no link
// waits for a number that is there, and every saved file is well-formed, writes every element
// with its own identifier (a save never sees an element between made and numbered) and is valid
// against the schema.
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_list.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <QXmlStreamReader>
#include <QtTest>

#include <atomic>
#include <memory>
#include <mutex>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;

namespace {

// The test's own list of every element made (not the model's business, so its own mutex).
struct Pool
{
    std::mutex mutex;
    QVector<QWeakPointer<Element>> elements;
    void add(const QSharedPointer<Element>& e)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        elements.append(e);
    }
    int size()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return elements.size();
    }
    QSharedPointer<Element> pick(QRandomGenerator& rng, const char* tag = nullptr)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        for (int tries = 0; tries < 8 && !elements.isEmpty(); ++tries) {
            QSharedPointer<Element> e = elements.at(int(rng.bounded(elements.size()))).toStrongRef();
            if (e && (!tag || e->kind().tag == QByteArray(tag)))
                return e;
        }
        return QSharedPointer<Element>();
    }
};

struct Model
{
    QSharedPointer<Element_man> man = Element_man::create();
    QSharedPointer<Task_data> root = XML_interface::create_document(man, 4);
    Pool pool;
    std::atomic<bool> stop{false};
};

template <class E>
QSharedPointer<E> create_at_root(Model& m, Element_list_t<E>& list)
{
    Element_locker_new lock(m.root, -1);
    QSharedPointer<E> e = list.create();
    if (e) {
        e->designator.set_string(e, QStringLiteral("made by a worker"));
        m.pool.add(e);
    }
    return e;
}

// One worker: random operations until told to stop. Erased elements stay with the worker (so
// they stay alive) until it adds them again.
void work(Model& m, quint32 seed, QVector<QSharedPointer<Element>>& erased)
{
    QRandomGenerator rng(seed);
    // A tree of a few thousand elements: small enough to save often, crowded enough to collide.
    const int enough = Ktd_test::sanitized ? 800 : 3000;
    while (!m.stop.load()) {
        quint32 operation = rng.bounded(10);
        if (operation < 4 && m.pool.size() > enough)
            operation = 4 + rng.bounded(6);
        switch (operation) {
        case 0:
            create_at_root(m, m.root->partfields);
            break;
        case 1:
            create_at_root(m, m.root->tasks);
            break;
        case 2:
            create_at_root(m, m.root->products);
            break;
        case 3: {
            auto field = m.pool.pick(rng, "PFD").staticCast<Partfield>();
            Element_locker_new lock(field, -1);
            if (!lock)
                break;
            QSharedPointer<Elements::Base::Point> p = field->points.create();
            if (!p)
                break;
            Element_locker_new point_lock(p, -1);
            p->type.set_val(p, 2);
            p->north.set_val(p, 52.0 + rng.bounded(1000) * 1e-4);
            p->east.set_val(p, 8.0 + rng.bounded(1000) * 1e-4);
            p->id.set_to_default(p, *m.man);
            m.pool.add(p);
            break;
        }
        case 4: {
            QSharedPointer<Element> e = m.pool.pick(rng);
            Element_locker_new lock(e, -1);
            if (lock && e->erase(e))
                erased.append(e);
            break;
        }
        case 5: {
            if (erased.isEmpty())
                break;
            QSharedPointer<Element> e = erased.takeLast();
            QSharedPointer<Element> parent = e->kind().tag == QByteArray("PNT") ? m.pool.pick(rng, "PFD")
                                                                                : QSharedPointer<Element>(m.root);
            Element_locker_new lock(parent, -1);
            Element_list* list = lock ? parent->find_list(e->get_tag()) : nullptr;
            if (!list || !list->add(e))
                erased.prepend(e); // busy or gone: another time
            break;
        }
        case 6: {
            // Small ranges on purpose: renumbering often meets numbers in use.
            QSharedPointer<Element> e = m.pool.pick(rng);
            Element_locker_new lock(e, -1);
            if (lock)
                e->id_attribute()->set_val(e, rng.bounded(2) ? -int(1 + rng.bounded(300)) : int(1 + rng.bounded(50)));
            break;
        }
        case 7: {
            auto task = m.pool.pick(rng, "TSK").staticCast<Task>();
            auto field = m.pool.pick(rng, "PFD").staticCast<Partfield>();
            Element_locker_new lock(task, -1);
            if (lock && field)
                task->partfield.set(task, field);
            break;
        }
        case 8: {
            // By number: often a field that is not there yet, so the link waits for it.
            auto task = m.pool.pick(rng, "TSK").staticCast<Task>();
            Element_locker_new lock(task, -1);
            if (lock)
                task->partfield.set_val(task, -int(1 + rng.bounded(300)));
            break;
        }
        default: {
            auto field = m.pool.pick(rng, "PFD").staticCast<Partfield>();
            Element_locker_new lock(field, -1);
            if (lock)
                field->parent_field.set_val(field, -int(1 + rng.bounded(300)));
            break;
        }
        }
    }
}

void collect(Element* e, QSet<Element*>& out)
{
    out.insert(e);
    for (unsigned l = 0; l < e->_num_element_lists(); ++l)
        for (const auto& c : e->_element_list(l)->elements())
            collect(c.data(), out);
}

// Identifiers of the tree: unique per kind and not 0; the registry holds exactly them; no link
// waits for a number that is there.
QString identifier_faults(const QSharedPointer<Element>& root, const QSharedPointer<Element_man>& man)
{
    QSet<Element*> tree;
    collect(root.data(), tree);
    QSet<QString> seen;
    for (Element* e : tree) {
        if (!e->id_attribute())
            continue;
        const QString id = e->get_tag() + QString::number(e->get_id());
        if (!e->has_id())
            return "an element without identifier: " + e->get_tag();
        if (e->get_id() == 0)
            return "a number made on the terminal is 0: " + id; // only a file gives 0
        if (seen.contains(id))
            return "identifier twice in the tree: " + id;
        seen.insert(id);
        if (man->lookup(e->get_tag(), e->get_id()).data() != e)
            return "element of the tree not registered: " + id;
    }
    for (const QString& prefix : man->registered_prefixes()) {
        for (int n : man->registered_uids(prefix)) {
            const QSharedPointer<Element> e = man->lookup(prefix, n);
            if (!e || !tree.contains(e.data()) || e->get_id() != n)
                return QString("registered but not in the tree: %1%2").arg(prefix).arg(n);
        }
    }
    for (const Element_man::Pending_entry& p : man->pending_links()) {
        const QSharedPointer<Element> owner = p.owner.toStrongRef();
        const QSharedPointer<Element> target = man->lookup(p.tag, p.n);
        if (owner && tree.contains(owner.data()) && target && target->get_tag() == p.tag)
            return QString("a link still waits for %1%2, which is there").arg(p.tag).arg(p.n);
    }
    return QString();
}

// Identifiers as written in a saved main file: unique per kind and present.
QString file_identifier_faults(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return "cannot open " + path;
    const QHash<QString, QString> id_name{{"PFD", "A"}, {"TSK", "A"}, {"PDT", "A"}, {"PNT", "G"}};
    QSet<QString> seen;
    QXmlStreamReader r(&f);
    while (!r.atEnd()) {
        if (r.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QString tag = r.name().toString();
        if (!id_name.contains(tag))
            continue;
        const QString id = r.attributes().value(id_name.value(tag)).toString();
        if (id.size() <= 3 || id == tag + "0")
            return "written without identifier: " + tag;
        if (seen.contains(id))
            return "written twice: " + id;
        seen.insert(id);
    }
    return r.hasError() ? r.errorString() : QString();
}

} // namespace

class Tst_model_stress : public QObject
{
    Q_OBJECT
private slots:
    void allocation_is_one_step_data();
    void allocation_is_one_step();
    void eight_editors_and_a_saver();
};

void Tst_model_stress::allocation_is_one_step_data()
{
    QTest::addColumn<bool>("read_zero");
    QTest::newRow("new numbers") << false;
    // Every task read as TSK0: one of them wins 0, the others are duplicates and get free
    // numbers of the same sign.
    QTest::newRow("all read as number 0") << true;
}

void Tst_model_stress::allocation_is_one_step()
{
    // Elements outside any shared lock, numbered by their own threads at once: choosing (or
    // checking) and entering a number must be one step, or two threads take the same one (or one
    // gets 0).
    QFETCH(bool, read_zero);
    constexpr int threads = 4;
    constexpr int each = Ktd_test::sanitized ? 200 : 1000;
    for (int round = 0; round < 10; ++round) {
        auto man = Element_man::create();
        std::vector<QVector<QSharedPointer<Task>>> made(threads);
        for (auto& list : made)
            for (int i = 0; i < each; ++i)
                list.append(QSharedPointer<Task>::create(man.toWeakRef()));
        std::atomic<int> ready{0};
        std::vector<std::unique_ptr<QThread>> running;
        for (int t = 0; t < threads; ++t) {
            running.emplace_back(QThread::create([&made, &ready, t, read_zero] {
                // Started together, so that the threads number at the same moments.
                ++ready;
                while (ready.load() < threads)
                    QThread::yieldCurrentThread();
                for (const auto& task : made[t]) {
                    if (read_zero)
                        task->id._set_by_xml_value(task, u"TSK0");
                    else
                        task->set_attributes_to_default(task, false);
                }
            }));
            running.back()->start();
        }
        for (auto& r : running)
            QVERIFY(r->wait(60000));
        QSet<int> numbers;
        int zeros = 0;
        for (const auto& list : made) {
            for (const auto& task : list) {
                const int n = task->get_id();
                QVERIFY(task->has_id());
                zeros += n == 0;
                QVERIFY2(read_zero ? n >= 0 && (n == 0) != task->id.renumbered() : n < 0,
                         qPrintable(QString("number %1").arg(n)));
                QVERIFY2(!numbers.contains(n), qPrintable(QString("TSK%1 twice").arg(n)));
                numbers.insert(n);
                QCOMPARE(man->lookup("TSK", n), task.staticCast<Element>());
            }
        }
        QCOMPARE(zeros, read_zero ? 1 : 0);
    }
}

void Tst_model_stress::eight_editors_and_a_saver()
{
    Model m;
    QTemporaryDir tmp;
    QVERIFY(tmp.isValid());
    // Something of every kind before the threads start.
    for (int i = 0; i < 4; ++i) {
        create_at_root(m, m.root->partfields);
        create_at_root(m, m.root->tasks);
        create_at_root(m, m.root->products);
    }
    constexpr int editors = 8;
    std::vector<QVector<QSharedPointer<Element>>> erased(editors);
    // Save traces and the notes on elements that come back under new numbers.
    auto quiet = std::make_unique<Ktd_test::Capture_fd>(2);
    std::vector<std::unique_ptr<QThread>> running;
    for (int t = 0; t < editors; ++t) {
        running.emplace_back(QThread::create([&m, &erased, t] { work(m, 1000u + quint32(t), erased[t]); }));
        running.back()->start();
    }
    QStringList saved;
    QStringList save_failures;
    std::unique_ptr<QThread> saver(QThread::create([&] {
        for (int i = 0; !m.stop.load(); ++i) {
            QThread::msleep(Ktd_test::sanitized ? 200 : 100);
            const QString dir = QDir(tmp.path()).filePath(QString("save%1").arg(i));
            XML_interface xi(dir);
            if (xi.save(m.man))
                saved << dir;
            else
                save_failures << xi.fail_text();
        }
    }));
    saver->start();
    QThread::msleep(Ktd_test::sanitized ? 3000 : 2500);
    m.stop.store(true);
    for (auto& r : running)
        QVERIFY2(r->wait(60000), "an editor did not finish: a deadlock");
    QVERIFY2(saver->wait(60000), "the saver did not finish: a deadlock");
    quiet.reset();

    QVERIFY2(save_failures.isEmpty(), qPrintable(save_failures.join('\n')));
    QVERIFY(saved.size() >= 3);
    int points = 0;
    for (const auto& w : m.pool.elements)
        if (auto e = w.toStrongRef())
            points += e->get_tag() == "PNT";
    QVERIFY2(points > 10, "too little happened to prove anything");
    const QString faults = identifier_faults(m.root, m.man);
    QVERIFY2(faults.isEmpty(), qPrintable(faults));

    for (const QString& dir : saved) {
        const QString written = file_identifier_faults(QDir(dir).filePath("TASKDATA.XML"));
        QVERIFY2(written.isEmpty(), qPrintable(dir + ": " + written));
    }
    KTD_REQUIRE_SHARED(shared);
    if (Ktd_test::xmllint().isEmpty())
        QSKIP("xmllint not installed (Debian package libxml2-utils)");
    const QString schemas = QDir(tmp.path()).filePath("xsd");
    QVERIFY(Ktd_test::copy_schemas(QDir(shared).filePath("isoxml/xsd"), schemas));
    for (const QString& dir : saved) {
        const QString complaint =
            Ktd_test::validate(QDir(schemas).filePath("ISO11783_TaskFile_V4-3.xsd"), QDir(dir).filePath("TASKDATA.XML"));
        QVERIFY2(complaint.isEmpty(), qPrintable(dir + ": " + complaint.left(2000)));
    }
}

QTEST_MAIN(Tst_model_stress)
#include "tst_model_stress.moc"
