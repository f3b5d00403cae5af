// Binary time log decoding: every time log of the corpus decodes from its first to its last
// record and consumes its file exactly (counts and first/last records as read by hand from the
// bytes); the record layout follows which header attributes are empty, absent or valued; the
// file is refused when its length is not the declared one; cut-off records are not records;
// any access order gives the bytes a fresh sequential reader gives; time differences across
// midnight; the cache window and the debug output.
#include <taskdata/common/File_lookup.h>
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>
#include <taskdata/elements/enhanced/Log_helper.h>

#include "test_support.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtEndian>
#include <QtTest>

#include <cmath>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;
using TC::Task_data::Elements::Enhanced::Log_helper;
using Record = Log_helper::Record;

namespace {

// Little-endian record bytes, written the way a task controller writes them.
struct Bytes
{
    QByteArray b;
    template <class T>
    Bytes& le(T v)
    {
        char x[sizeof(T)];
        qToLittleEndian(v, x);
        b.append(x, int(sizeof(T)));
        return *this;
    }
    Bytes& u8(quint8 v) { return le(v); }
    Bytes& u16(quint16 v) { return le(v); }
    Bytes& i32(qint32 v) { return le(v); }
    Bytes& u32(quint32 v) { return le(v); }
    Bytes& dlv(quint8 n, qint32 v) { return u8(n).i32(v); }
    // The time, date, north, east and status of the layout most terminals write.
    Bytes& head16(qint32 ms, quint16 day, qint32 north, qint32 east, quint8 status, quint8 count)
    {
        return i32(ms).u16(day).i32(north).i32(east).u8(status).u8(count);
    }
};

const char* const header_16 = "<TIM A=\"\" D=\"4\"><PTN A=\"\" B=\"\" D=\"\"/>"
                              "<DLV A=\"0001\" B=\"\" C=\"DET-1\"/><DLV A=\"0043\" B=\"\" C=\"DET-1\"/>"
                              "<DLV A=\"0094\" B=\"\" C=\"DET-2\"/></TIM>";

bool write_file(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

// The main document of a task data directory read with the element reader, its directory
// set on the manager so that time logs find their files.
QSharedPointer<Task_data> read_directory(const QString& dir, const QSharedPointer<Element_man>& man)
{
    man->set_task_data_dir(dir);
    const QString main = File_lookup::find(dir, QStringLiteral("TASKDATA.XML"), true).path;
    QFile f(main);
    if (main.isEmpty() || !f.open(QIODevice::ReadOnly))
        return {};
    const QByteArray xml = f.readAll();
    QXmlStreamReader r(xml);
    while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
    }
    auto root = QSharedPointer<Task_data>::create(man);
    XML_interface xi(dir);
    if (!root->load_xml(root, r, xi) || !xi.ok())
        return {};
    man->set_root(root);
    return root;
}

QSharedPointer<Time_log> find_tlg(const QSharedPointer<Task_data>& root, const QString& name)
{
    for (int t = 0; t < root->tasks.count(); ++t) {
        auto task = root->tasks.typed_at(t);
        for (int i = 0; i < task->time_logs.count(); ++i) {
            auto tlg = task->time_logs.typed_at(i);
            if (tlg->filename.get_as_string() == name)
                return tlg;
        }
    }
    return {};
}

// A task data directory with one task holding one time log.
struct Synthetic_log
{
    QTemporaryDir dir;
    QSharedPointer<Element_man> man = Element_man::create();
    QSharedPointer<Task_data> root;
    QSharedPointer<Time_log> tlg;

    // tlg_b: the TLG's B attribute text, or a null string for no B attribute.
    bool make(const QByteArray& header, const QByteArray& binary, const QString& tlg_b = QString(),
              const QString& header_name = QStringLiteral("TLG00001.XML"),
              const QString& binary_name = QStringLiteral("TLG00001.BIN"))
    {
        const QString b = tlg_b.isNull() ? QString() : QStringLiteral(" B=\"%1\"").arg(tlg_b);
        const QString main = QStringLiteral("<ISO11783_TaskData VersionMajor=\"4\" VersionMinor=\"3\" "
                                            "ManagementSoftwareManufacturer=\"t\" ManagementSoftwareVersion=\"1\" "
                                            "DataTransferOrigin=\"1\"><TSK A=\"TSK1\" G=\"1\">"
                                            "<TLG A=\"TLG00001\"%1 C=\"1\"/></TSK></ISO11783_TaskData>")
                                 .arg(b);
        if (!write_file(dir.filePath(QStringLiteral("TASKDATA.XML")), main.toUtf8()))
            return false;
        if (!header_name.isEmpty() && !write_file(dir.filePath(header_name), header))
            return false;
        if (!binary_name.isEmpty() && !write_file(dir.filePath(binary_name), binary))
            return false;
        root = read_directory(dir.path(), man);
        if (!root)
            return false;
        tlg = find_tlg(root, QStringLiteral("TLG00001"));
        return !tlg.isNull();
    }
};

// The bytes of one record as the mapping holds them.
QByteArray raw_bytes(Log_helper& h, unsigned index)
{
    unsigned n = 0;
    const uchar* p = h.get_raw_record(index, &n);
    if (!p)
        return QByteArray();
    return QByteArray(reinterpret_cast<const char*>(p), int(h.fixed_length() + 5 * n));
}

struct Known_record
{
    qint64 time, day, north, east, status, dlv_count, dlv_number, dlv_value;
};

struct Known_log
{
    const char* set;
    const char* tlg;
    unsigned records;
    qint64 bytes;
    Known_record first;
    Known_record last;
};

// Read by hand from the files (16-byte fixed part: time, date, north, east, status, count).
const Known_log known_logs[] = {
    {"v4-mixed-case-timelog", "TLG00004", 7017, 246007, {21600000, 10332, 391393630, 98495876, 1, 46, 45, 65537}, {22401000, 10332, 391395451, 98501378, 1, 1, 22, 2}},
    {"v4-timelogs-21", "TLG00001", 4716, 454406, {63020000, 14611, 545822941, 102119904, 15, 17, 22, 690}, {69053000, 14611, 545826594, 102103599, 15, 15, 22, 404}},
    {"v4-timelogs-21", "TLG00002", 4135, 398775, {69729000, 14611, 545736382, 102017834, 15, 17, 22, 704}, {75089000, 14611, 545732917, 101996472, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00003", 1599, 154074, {75512000, 14611, 545682661, 102132697, 15, 17, 22, 704}, {77593000, 14611, 545680671, 102135416, 15, 15, 22, 704}},
    {"v4-timelogs-21", "TLG00004", 2496, 240711, {78268000, 14611, 545675501, 102104537, 15, 17, 22, 1184}, {81524000, 14611, 545660919, 102112084, 15, 15, 22, 240}},
    {"v4-timelogs-21", "TLG00005", 1785, 172135, {82470000, 14611, 545705157, 101874124, 15, 17, 22, 1200}, {84790000, 14611, 545720195, 101877952, 15, 15, 22, 690}},
    {"v4-timelogs-21", "TLG00006", 187, 18017, {11000, 14612, 545738029, 101861302, 15, 17, 22, 1214}, {229000, 14612, 545734121, 101892032, 15, 15, 22, 614}},
    {"v4-timelogs-21", "TLG00007", 3883, 374123, {1228000, 14612, 545734632, 101891721, 15, 17, 22, 0}, {6194000, 14612, 545732504, 101904486, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00008", 4952, 477287, {7270000, 14612, 545548442, 101891224, 15, 17, 22, 704}, {13413000, 14612, 545589654, 101785180, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00009", 4497, 433317, {13628000, 14612, 545585754, 101772214, 15, 17, 22, 720}, {19325000, 14612, 545602071, 101740751, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00015", 3433, 331013, {65074000, 14612, 544652177, 100356387, 15, 17, 22, 690}, {69810000, 14612, 544618635, 100359652, 15, 15, 22, 690}},
    {"v4-timelogs-21", "TLG00016", 2956, 285126, {69960000, 14612, 544618419, 100359919, 15, 17, 22, 720}, {74032000, 14612, 544606562, 100361857, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00017", 6359, 612744, {74621000, 14612, 544579856, 100376324, 15, 17, 22, 704}, {82420000, 14612, 544573189, 100370422, 15, 24, 25, 7797}},
    {"v4-timelogs-21", "TLG00018", 1877, 180742, {82503000, 14612, 544573431, 100346439, 15, 17, 22, 1200}, {84818000, 14612, 544556680, 100338522, 15, 15, 22, 704}},
    {"v4-timelogs-21", "TLG00019", 2484, 239439, {84834000, 14612, 544556756, 100338486, 15, 17, 22, 690}, {1507000, 14613, 544554672, 100350849, 15, 15, 22, 704}},
    {"v4-timelogs-21", "TLG00020", 1053, 101583, {2662000, 14613, 544555659, 100351377, 15, 17, 22, 0}, {4002000, 14613, 544547344, 100350872, 15, 15, 22, 1200}},
    {"v4-timelogs-21", "TLG00021", 2416, 232916, {4139000, 14613, 544543875, 100336869, 15, 17, 22, 1214}, {7316000, 14613, 544537482, 100342529, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00022", 5092, 490887, {7899000, 14613, 544554601, 100431434, 15, 17, 22, 1184}, {15713000, 14613, 544539121, 100410031, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00023", 1525, 147135, {17511000, 14613, 544220305, 101183544, 15, 17, 22, 1200}, {19590000, 14613, 544216384, 101185206, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00024", 2797, 269602, {21125000, 14613, 544192939, 101271644, 15, 17, 22, 0}, {24851000, 14613, 544211262, 101192854, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00025", 2088, 201088, {28111000, 14613, 545016656, 100893391, 15, 17, 22, 704}, {30622000, 14613, 545028656, 100887571, 15, 15, 22, 0}},
    {"v4-timelogs-21", "TLG00026", 984, 94684, {31081000, 14613, 545035335, 100903286, 15, 17, 22, 0}, {32303000, 14613, 545037187, 100904524, 15, 15, 22, 194}},
};

const Known_log* known(const QString& set, const QString& tlg)
{
    for (const Known_log& k : known_logs)
        if (set == QLatin1String(k.set) && tlg == QLatin1String(k.tlg))
            return &k;
    return nullptr;
}

void compare_known(const Record& r, const Known_record& k)
{
    QCOMPARE(qint64(r.time), k.time);
    QCOMPARE(qint64(r.day), k.day);
    QCOMPARE(qint64(std::llround(r.north * 1e7)), k.north);
    QCOMPARE(qint64(std::llround(r.east * 1e7)), k.east);
    QCOMPARE(qint64(r.status), k.status);
    QCOMPARE(qint64(r.dlv_count()), k.dlv_count);
    QVERIFY(r.has_dlv(quint8(k.dlv_number)));
    QCOMPARE(qint64(r.dlv(quint8(k.dlv_number))), k.dlv_value);
}

// Compares what two decodes of the same record give.
bool same_record(const Record& a, const Record& b)
{
    return a.index == b.index && a.time == b.time && a.day == b.day && a.north == b.north && a.east == b.east &&
           a.up == b.up && a.status == b.status && a.pdop == b.pdop && a.hdop == b.hdop &&
           a.satellites == b.satellites && a.gps_utc_time == b.gps_utc_time && a.gps_utc_date == b.gps_utc_date &&
           a.field_mask == b.field_mask && a.get_dlvs() == b.get_dlvs();
}

} // namespace

class Tst_log_helper : public QObject
{
    Q_OBJECT
private slots:
    void corpus_logs_data();
    void corpus_logs();
    void layout_data();
    void layout();
    void decode_fields_data();
    void decode_fields();
    void framing_data();
    void framing();
    void open_file_data();
    void open_file();
    void null_time_log();
    void access_order_data();
    void access_order();
    void dtime_data();
    void dtime();
    void dtime_from_first_record();
    void values_data();
    void values();
    void extremes();
    void cache_window_data();
    void cache_window();
    void debug_output();
};

// ---------------------------------------------------------------------------------------------

namespace {
// Every (set, time log) of the corpus, found through the TLG elements of its main documents.
QVector<QPair<QString, QString>> corpus_time_logs(const QString& corpus)
{
    QVector<QPair<QString, QString>> out;
    const QStringList sets = QDir(corpus).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& set : sets) {
        const QString dir = QDir(corpus).filePath(set);
        const QString main = File_lookup::find(dir, QStringLiteral("TASKDATA.XML"), true).path;
        QFile f(main);
        if (main.isEmpty() || !f.open(QIODevice::ReadOnly) || !f.readAll().contains("<TLG"))
            continue;
        auto man = Element_man::create();
        Ktd_test::Capture_fd quiet(2);
        auto root = read_directory(dir, man);
        if (!root)
            continue;
        for (int t = 0; t < root->tasks.count(); ++t) {
            auto task = root->tasks.typed_at(t);
            for (int i = 0; i < task->time_logs.count(); ++i)
                out.append({set, task->time_logs.typed_at(i)->filename.get_as_string()});
        }
    }
    return out;
}
} // namespace

void Tst_log_helper::corpus_logs_data()
{
    KTD_REQUIRE_CORPUS(corpus);
    QTest::addColumn<QString>("set");
    QTest::addColumn<QString>("tlg");
    auto found = corpus_time_logs(corpus);
    // A row of the table the corpus no longer has fails as a time log that is not found.
    for (const Known_log& k : known_logs)
        if (!found.contains({QString::fromLatin1(k.set), QString::fromLatin1(k.tlg)}))
            found.append({QString::fromLatin1(k.set), QString::fromLatin1(k.tlg)});
    for (const auto& p : found)
        QTest::newRow(qPrintable(p.first + '/' + p.second)) << p.first << p.second;
}


void Tst_log_helper::corpus_logs()
{
    KTD_REQUIRE_CORPUS(corpus);
    QFETCH(QString, set);
    QFETCH(QString, tlg);
    auto man = Element_man::create();
    QSharedPointer<Task_data> root;
    {
        Ktd_test::Capture_fd quiet(2);
        root = read_directory(QDir(corpus).filePath(set), man);
    }
    QVERIFY(root);
    auto log = find_tlg(root, tlg);
    QVERIFY2(log, "a time log of the table not found in the corpus");

    Ktd_test::Capture_fd quiet(2); // the file lookup notes every name it matched in another case
    Ktd_test::Capture_fd out(1);
    Log_helper h;
    const bool ok = h.init(log);
    const unsigned n = h.get_num_records();
    qint64 consumed = 0;
    bool all_decoded = true;
    bool numbers_in_header = true;
    Record first, last, r;
    for (unsigned i = 0; i < n && all_decoded; ++i) {
        all_decoded = h.get_record(r, i);
        unsigned count = 0;
        all_decoded = all_decoded && h.get_raw_record(i, &count) != nullptr;
        consumed += h.fixed_length() + 5 * count;
        for (int j = 0; j < r.dlv_count(); ++j)
            numbers_in_header = numbers_in_header && r.dlv_number_at(j) < h.values().size();
        if (i == 0)
            first = r;
        last = r;
    }
    Record beyond;
    const bool beyond_decoded = h.get_record(beyond, n);
    const QString printed = out.text();

    QVERIFY2(ok, qPrintable(h.fail_text()));
    QCOMPARE(printed, QString());
    QVERIFY(all_decoded);
    QVERIFY(!beyond_decoded);
    QVERIFY(n > 0);
    QCOMPARE(h.trailing_bytes(), qint64(0));
    QCOMPARE(consumed, h.binary_size());
    QCOMPARE(consumed, QFileInfo(h.binary_path()).size());
    QVERIFY(numbers_in_header);

    // Every header DLV names a device element of the loaded document.
    auto header = h.header();
    QCOMPARE(h.values().size(), header->data_log_values.count());
    for (int i = 0; i < h.values().size(); ++i) {
        auto target = header->data_log_values.typed_at(i)->device_element.target();
        QVERIFY2(target, qPrintable(QStringLiteral("DLV %1").arg(i)));
        QCOMPARE(h.values()[i].device_element, target->get_id());
    }

    const Known_log* k = known(set, tlg);
    if (!k)
        QFAIL("a time log the table does not know: add its counts and first and last records");
    QCOMPARE(n, k->records);
    QCOMPARE(h.binary_size(), k->bytes);
    compare_known(first, k->first);
    compare_known(last, k->last);
    QCOMPARE(first.index, 0u);
    QCOMPARE(last.index, n - 1);
}

// ---------------------------------------------------------------------------------------------

void Tst_log_helper::layout_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<int>("mask");
    QTest::addColumn<int>("fixed");
    QTest::addColumn<bool>("header_time");

    const QByteArray ptn = "<PTN A=\"\" B=\"\" D=\"\"/>";
    QTest::newRow("time, north, east, status") << QByteArray(header_16) << true << 0x17 << 16 << false;
    QTest::newRow("every field carried")
        << QByteArray("<TIM A=\"\"><PTN A=\"\" B=\"\" C=\"\" D=\"\" E=\"\" F=\"\" G=\"\" H=\"\" I=\"\"/></TIM>") << true
        << 0x3FF << 31 << false;
    QTest::newRow("every field valued: count byte only")
        << QByteArray("<TIM A=\"2024-03-01T10:00:00\" D=\"4\"><PTN A=\"54.1\" B=\"10.2\" C=\"5\" D=\"1\" E=\"1.2\" "
                      "F=\"1.3\" G=\"9\" H=\"1000\" I=\"16000\"/><DLV A=\"0001\" B=\"\" C=\"DET-1\"/></TIM>")
        << true << 0 << 1 << true;
    QTest::newRow("up empty is carried") << QByteArray("<TIM A=\"\"><PTN A=\"\" B=\"\" C=\"\" D=\"\"/></TIM>") << true
                                         << 0x1F << 20 << false;
    QTest::newRow("up valued is not carried")
        << QByteArray("<TIM A=\"\"><PTN A=\"\" B=\"\" C=\"100\" D=\"\"/></TIM>") << true << 0x17 << 16 << false;
    QTest::newRow("status valued is not carried")
        << QByteArray("<TIM A=\"\"><PTN A=\"\" B=\"\" D=\"1\"/></TIM>") << true << 0x07 << 15 << false;
    QTest::newRow("PDOP and GPS date among the optional")
        << QByteArray("<TIM A=\"\"><PTN A=\"\" B=\"\" D=\"\" E=\"\" I=\"\"/></TIM>") << true << 0x237 << 20 << false;
    QTest::newRow("north valued still a layout")
        << QByteArray("<TIM A=\"\"><PTN A=\"54.0\" B=\"\" D=\"\"/></TIM>") << true << 0x15 << 12 << false;
    QTest::newRow("no north") << QByteArray("<TIM A=\"\"><PTN B=\"\" D=\"\"/></TIM>") << false << 0 << 0 << false;
    QTest::newRow("no east") << QByteArray("<TIM A=\"\"><PTN A=\"\" D=\"\"/></TIM>") << false << 0 << 0 << false;
    QTest::newRow("no status") << QByteArray("<TIM A=\"\"><PTN A=\"\" B=\"\" C=\"\"/></TIM>") << false << 0 << 0
                               << false;
    QTest::newRow("no PTN: no position fields")
        << QByteArray("<TIM A=\"\"><DLV A=\"0001\" B=\"\" C=\"DET-1\"/></TIM>") << true << 0x1 << 7 << false;
    QTest::newRow("A absent, B empty: time carried") << ("<TIM B=\"\">" + ptn + "</TIM>") << true << 0x17 << 16 << false;
    QTest::newRow("A and B absent: no time") << ("<TIM D=\"4\">" + ptn + "</TIM>") << true << 0x16 << 10 << false;
    QTest::newRow("A absent, B valued: time from the header")
        << ("<TIM B=\"2024-03-01T10:00:00\">" + ptn + "</TIM>") << true << 0x16 << 10 << true;
    QTest::newRow("A valued, B empty: A decides")
        << ("<TIM A=\"2024-03-01T10:00:00\" B=\"\">" + ptn + "</TIM>") << true << 0x16 << 10 << true;
    QTest::newRow("A empty, B valued") << ("<TIM A=\"\" B=\"2024-03-01T10:00:00\">" + ptn + "</TIM>") << true << 0x17
                                       << 16 << false;
    QTest::newRow("second PTN ignored")
        << ("<TIM A=\"\">" + ptn + "<PTN A=\"\" B=\"\" C=\"\" D=\"\" E=\"\"/></TIM>") << true << 0x17 << 16 << false;
    QTest::newRow("root is not TIM") << ptn << false << 0 << 0 << false;
    QTest::newRow("not XML") << QByteArray("TLG\x01\x02") << false << 0 << 0 << false;
}

void Tst_log_helper::layout()
{
    QFETCH(QByteArray, header);
    QFETCH(bool, ok);
    QFETCH(int, mask);
    QFETCH(int, fixed);
    QFETCH(bool, header_time);
    auto man = Element_man::create();
    Log_helper h;
    Ktd_test::Capture_fd out(1);
    const bool opened = h.init_from_data(man, header, QByteArray());
    const QString printed = out.text();
    QCOMPARE(opened, ok);
    QCOMPARE(h.ok(), ok);
    if (!ok) {
        QCOMPARE(printed, QStringLiteral("init failed\n"));
        QVERIFY(!h.fail_text().isEmpty());
        QCOMPARE(h.get_num_records(), 0u);
        QVERIFY(!h.record(0));
        return;
    }
    QCOMPARE(printed, QString());
    QCOMPARE(int(h.field_mask()), mask);
    QCOMPARE(int(h.pos_mask()), mask >> 1);
    QCOMPARE(int(h.fixed_length()), fixed);
    QCOMPARE(h.time_in_record(), bool(mask & 1));
    QCOMPARE(h.header_time_valid(), header_time);
    // The fixed part is the sum of its fields' lengths.
    unsigned sum = 1 + ((mask & 1) ? 6 : 0);
    for (unsigned i = 0; i < Log_helper::num_pos_fields; ++i)
        if (mask & Log_helper::mask_pos(i))
            sum += Log_helper::get_pos_field_len(i);
    QCOMPARE(int(sum), fixed);
}

// ---------------------------------------------------------------------------------------------

void Tst_log_helper::decode_fields_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<QByteArray>("record");
    QTest::addColumn<QVariantMap>("before");
    QTest::addColumn<bool>("update");
    QTest::addColumn<QVariantMap>("expected");

    const QByteArray all = "<TIM A=\"\"><PTN A=\"\" B=\"\" C=\"\" D=\"\" E=\"\" F=\"\" G=\"\" H=\"\" I=\"\"/>"
                           "<DLV A=\"0001\" B=\"\" C=\"DET-1\"/></TIM>";
    QTest::newRow("every position field at its limits")
        << all
        << Bytes()
               .i32(86399999)
               .u16(65535)
               .i32(-900000000)
               .i32(1800000000)
               .i32(-2147483647 - 1)
               .u8(0)
               .u16(65535)
               .u16(1)
               .u8(255)
               .u32(4294967295u)
               .u16(65535)
               .u8(0)
               .b
        << QVariantMap() << false
        << QVariantMap{{"time", 86399999u}, {"day", 65535u}, {"mask", 0x3FF}, {"North", -90.0}, {"East", 180.0},
                       {"Up", -2147483.648}, {"Status", 0}, {"PDOP", 6553.5}, {"HDOP", 0.1}, {"Num Sats", 255},
                       {"GPS ms", 4294967295u}, {"GPS day", 65535u}, {"dlvs", QVariantMap()}};
    QTest::newRow("status not carried reads 15")
        << QByteArray("<TIM A=\"\"><PTN A=\"\" B=\"\" D=\"2\"/></TIM>") << Bytes().i32(5).u16(6).i32(1).i32(-1).u8(0).b
        << QVariantMap() << false
        << QVariantMap{{"time", 5u}, {"day", 6u}, {"mask", 0x7}, {"North", 1e-7}, {"East", -1e-7}, {"Status", 15}};
    QTest::newRow("status carried 0 stays 0") << QByteArray(header_16) << Bytes().head16(1, 2, 3, 4, 0, 0).b
                                              << QVariantMap() << false
                                              << QVariantMap{{"mask", 0x17}, {"Status", 0}};
    QTest::newRow("fields not carried keep what the record held")
        << QByteArray(header_16) << Bytes().head16(1, 2, 3, 4, 5, 0).b
        << QVariantMap{{"Up", 7.5}, {"Num Sats", 12}, {"PDOP", 1.5}} << false
        << QVariantMap{{"Up", 7.5}, {"Num Sats", 12}, {"PDOP", 1.5}, {"Status", 5}};
    QTest::newRow("a later value of the same number wins")
        << QByteArray(header_16) << Bytes().head16(1, 2, 3, 4, 1, 2).dlv(1, 10).dlv(1, 20).b << QVariantMap() << false
        << QVariantMap{{"dlvs", QVariantMap{{"1", 20}}}};
    QTest::newRow("values in descending number order")
        << QByteArray(header_16)
        << Bytes().head16(1, 2, 3, 4, 1, 3).dlv(2, -5).dlv(0, 2147483647).dlv(1, -2147483647 - 1).b << QVariantMap()
        << false << QVariantMap{{"dlvs", QVariantMap{{"0", 2147483647}, {"1", -2147483647 - 1}, {"2", -5}}}};
    QTest::newRow("get_record drops the values of the record before")
        << QByteArray(header_16) << Bytes().head16(1, 2, 3, 4, 1, 1).dlv(0, 5).b << QVariantMap{{"dlv:2", 99}} << false
        << QVariantMap{{"dlvs", QVariantMap{{"0", 5}}}};
    QTest::newRow("update_record keeps values the record does not carry")
        << QByteArray(header_16) << Bytes().head16(1, 2, 3, 4, 1, 1).dlv(0, 5).b
        << QVariantMap{{"dlv:2", 99}, {"dlv:0", 1}} << true << QVariantMap{{"dlvs", QVariantMap{{"0", 5}, {"2", 99}}}};
    QTest::newRow("every field valued: count and pairs, time from the header")
        << QByteArray("<TIM A=\"2024-03-01T10:00:00.250\" D=\"4\"><PTN A=\"54.1\" B=\"10.2\" D=\"1\"/>"
                      "<DLV A=\"0001\" B=\"\" C=\"DET-1\"/><DLV A=\"0043\" B=\"\" C=\"DET-1\"/></TIM>")
        << Bytes().u8(2).dlv(0, -1).dlv(1, 7).b << QVariantMap() << false
        << QVariantMap{{"time", 36000250u}, {"day", 16131u}, {"mask", 0}, {"Status", 15}, {"North", 0.0},
                       {"dlvs", QVariantMap{{"0", -1}, {"1", 7}}}};
    QTest::newRow("no PTN: time and values")
        << QByteArray("<TIM A=\"\"><DLV A=\"0001\" B=\"\" C=\"DET-1\"/></TIM>") << Bytes().i32(1000).u16(5).u8(1).dlv(0, 3).b
        << QVariantMap() << false
        << QVariantMap{{"time", 1000u}, {"day", 5u}, {"mask", 1}, {"Status", 15}, {"dlvs", QVariantMap{{"0", 3}}}};
}

void Tst_log_helper::decode_fields()
{
    QFETCH(QByteArray, header);
    QFETCH(QByteArray, record);
    QFETCH(QVariantMap, before);
    QFETCH(bool, update);
    QFETCH(QVariantMap, expected);
    auto man = Element_man::create();
    Log_helper h;
    QVERIFY2(h.init_from_data(man, header, record), qPrintable(h.fail_text()));
    // The record is exactly one record long: the layout and the bytes agree.
    QCOMPARE(h.get_num_records(), 1u);
    QCOMPARE(h.trailing_bytes(), qint64(0));

    Record r;
    for (auto it = before.cbegin(); it != before.cend(); ++it) {
        if (it.key() == QLatin1String("Up"))
            r.up = it.value().toDouble();
        else if (it.key() == QLatin1String("Num Sats"))
            r.satellites = quint8(it.value().toInt());
        else if (it.key() == QLatin1String("PDOP"))
            r.pdop = it.value().toFloat();
        else if (it.key().startsWith(QLatin1String("dlv:")))
            r.set_dlv(quint8(it.key().mid(4).toInt()), it.value().toInt());
    }
    QVERIFY(update ? h.update_record(r, 0) : h.get_record(r, 0));
    QCOMPARE(r.index, 0u);

    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        const QString& key = it.key();
        if (key == QLatin1String("time")) {
            QCOMPARE(r.time, it.value().toUInt());
        } else if (key == QLatin1String("day")) {
            QCOMPARE(r.day, it.value().toUInt());
        } else if (key == QLatin1String("mask")) {
            QCOMPARE(int(r.field_mask), it.value().toInt());
        } else if (key == QLatin1String("dlvs")) {
            QMap<quint8, qint32> want;
            const QVariantMap m = it.value().toMap();
            for (auto d = m.cbegin(); d != m.cend(); ++d)
                want.insert(quint8(d.key().toInt()), d.value().toInt());
            QCOMPARE(r.get_dlvs(), want);
            QCOMPARE(r.dlv_count(), want.size());
        } else {
            int field = -1;
            for (unsigned i = 0; i < Log_helper::num_pos_fields; ++i)
                if (Record::get_pos_name(i) == key)
                    field = int(i);
            QVERIFY2(field >= 0, qPrintable(key));
            const QVariant got = r.get_pos_field(unsigned(field));
            if (it.value().type() == QVariant::Double)
                QVERIFY2(std::fabs(got.toDouble() - it.value().toDouble()) < 1e-6,
                         qPrintable(key + QStringLiteral(": ") + got.toString()));
            else
                QCOMPARE(got.toLongLong(), it.value().toLongLong());
        }
    }
    // The types callers rely on when they show a field.
    QCOMPARE(int(r.get_pos_field(Log_helper::pos_north).type()), int(QMetaType::Double));
    QCOMPARE(int(r.get_pos_field(Log_helper::pos_status).type()), int(QMetaType::Int));
    QCOMPARE(int(r.get_pos_field(Log_helper::pos_pdop).type()), int(QMetaType::Float));
    QCOMPARE(int(r.get_pos_field(Log_helper::pos_gps_utc_time).type()), int(QMetaType::UInt));
    QVERIFY(!r.get_pos_field(Log_helper::num_pos_fields).isValid());
    QVERIFY(Record::get_pos_name(Log_helper::num_pos_fields).isEmpty());
}

// ---------------------------------------------------------------------------------------------

void Tst_log_helper::framing_data()
{
    QTest::addColumn<QByteArray>("binary");
    QTest::addColumn<int>("records");
    QTest::addColumn<int>("trailing");

    const QByteArray one = Bytes().head16(1, 2, 3, 4, 1, 1).dlv(0, 9).b; // 21 bytes
    const QByteArray bare = Bytes().head16(1, 2, 3, 4, 1, 0).b;           // 16 bytes
    Bytes full;
    full.head16(1, 2, 3, 4, 1, 255);
    for (int i = 0; i < 255; ++i)
        full.dlv(quint8(i % 3), i);
    QTest::newRow("empty file") << QByteArray() << 0 << 0;
    QTest::newRow("one record, count byte last") << bare << 1 << 0;
    QTest::newRow("fixed part one byte short") << bare.left(15) << 0 << 15;
    QTest::newRow("values cut off") << Bytes().head16(1, 2, 3, 4, 1, 3).dlv(0, 1).dlv(1, 2).b << 0 << 26;
    QTest::newRow("whole records, then a cut one") << one + bare + one.left(7) << 2 << 7;
    QTest::newRow("cut one after its count byte") << one + bare + one.left(16) << 2 << 16;
    QTest::newRow("255 values") << full.b << 1 << 0;
    QTest::newRow("255 values, one byte short") << full.b.left(full.b.size() - 1) << 0 << full.b.size() - 1;
    QTest::newRow("mixed counts") << one + bare + one + bare + bare << 5 << 0;
}

void Tst_log_helper::framing()
{
    QFETCH(QByteArray, binary);
    QFETCH(int, records);
    QFETCH(int, trailing);
    auto man = Element_man::create();
    Log_helper h;
    QVERIFY(h.init_from_data(man, header_16, binary));
    QCOMPARE(int(h.get_num_records()), records);
    QCOMPARE(h.trailing_bytes(), qint64(trailing));
    Record r;
    qint64 consumed = 0;
    for (int i = 0; i < records; ++i) {
        QVERIFY(h.get_record(r, unsigned(i)));
        consumed += raw_bytes(h, unsigned(i)).size();
    }
    QCOMPARE(consumed + trailing, qint64(binary.size()));
    QVERIFY(!h.get_record(r, unsigned(records)));
    QVERIFY(!h.get_raw_record(unsigned(records), nullptr));
    // A fresh reader asked for the cut record first finds no record either.
    Log_helper fresh;
    QVERIFY(fresh.init_from_data(man, header_16, binary));
    QVERIFY(!fresh.get_raw_record(unsigned(records), nullptr));
    QVERIFY(!fresh.get_raw_record(unsigned(records) + 1000, nullptr));
}

// ---------------------------------------------------------------------------------------------

void Tst_log_helper::open_file_data()
{
    QTest::addColumn<QString>("tlg_b");
    QTest::addColumn<QString>("header_name");
    QTest::addColumn<QString>("binary_name");
    QTest::addColumn<QByteArray>("binary");
    QTest::addColumn<bool>("ok");

    const QByteArray two = Bytes().head16(1, 2, 3, 4, 1, 0).head16(5, 6, 7, 8, 1, 0).b; // 32 bytes
    const QString x = QStringLiteral("TLG00001.XML");
    const QString b = QStringLiteral("TLG00001.BIN");
    QTest::newRow("declared length equals") << "32" << x << b << two << true;
    QTest::newRow("file one byte shorter than declared") << "33" << x << b << two << false;
    QTest::newRow("file one byte longer than declared") << "31" << x << b << two << false;
    QTest::newRow("no declared length") << QString() << x << b << two << true;
    QTest::newRow("declared length unknown") << "4294967295" << x << b << two << true;
    QTest::newRow("lower-case file names") << "32" << "tlg00001.xml" << "tlg00001.bin" << two << true;
    QTest::newRow("mixed-case binary name") << "32" << x << "Tlg00001.bIn" << two << true;
    QTest::newRow("empty binary, declared 0") << "0" << x << b << QByteArray() << true;
    QTest::newRow("empty binary, declared 16") << "16" << x << b << QByteArray() << false;
    QTest::newRow("binary missing") << "32" << x << QString() << two << false;
    QTest::newRow("header missing") << "32" << QString() << b << two << false;
}

void Tst_log_helper::open_file()
{
    QFETCH(QString, tlg_b);
    QFETCH(QString, header_name);
    QFETCH(QString, binary_name);
    QFETCH(QByteArray, binary);
    QFETCH(bool, ok);
    Synthetic_log s;
    Ktd_test::Capture_fd quiet(2);
    QVERIFY(s.make(header_16, binary, tlg_b, header_name, binary_name));
    Ktd_test::Capture_fd out(1);
    Log_helper h;
    const bool opened = h.init(s.tlg);
    const unsigned n = h.get_num_records();
    const Record* first = h.record(0);
    const QString printed = out.text();
    QCOMPARE(opened, ok);
    if (!ok) {
        QCOMPARE(printed, QStringLiteral("init failed\n"));
        QVERIFY(!h.fail_text().isEmpty());
        QCOMPARE(n, 0u);
        QVERIFY(!first);
        return;
    }
    QCOMPARE(printed, QString());
    QCOMPARE(int(n), binary.size() / 16);
    QCOMPARE(h.binary_size(), qint64(binary.size()));
    if (n) {
        QVERIFY(first);
        QCOMPARE(first->time, 1u);
        QCOMPARE(h.record(1)->time, 5u);
    }
}

void Tst_log_helper::null_time_log()
{
    Ktd_test::Capture_fd out(1);
    Log_helper h(QSharedPointer<Time_log>{});
    const unsigned n = h.get_num_records();
    Record r;
    const bool decoded = h.get_record(r, 0);
    QCOMPARE(out.text(), QStringLiteral("Timelog is of no use\n"));
    QVERIFY(!h.ok());
    QCOMPARE(n, 0u);
    QVERIFY(!decoded);
}

// ---------------------------------------------------------------------------------------------

namespace {
QByteArray synthetic_records(int count)
{
    Bytes b;
    for (int i = 0; i < count; ++i) {
        const int values = (i * 7) % 5;
        b.head16(i * 1000, quint16(i / 100), 540000000 + i, 100000000 - i, quint8(i % 16), quint8(values));
        for (int v = 0; v < values; ++v)
            b.dlv(quint8((i + v) % 3), i * 10 + v);
    }
    return b.b;
}
} // namespace

void Tst_log_helper::access_order_data()
{
    QTest::addColumn<bool>("corpus");
    QTest::addColumn<QString>("order");
    for (bool c : {false, true}) {
        const QString src = c ? QStringLiteral("corpus log, ") : QStringLiteral("synthetic, ");
        for (const char* o : {"backwards", "random", "zigzag", "cache backwards"})
            QTest::newRow(qPrintable(src + QLatin1String(o))) << c << QString::fromLatin1(o);
    }
}

void Tst_log_helper::access_order()
{
    QFETCH(bool, corpus);
    QFETCH(QString, order);
    auto man = Element_man::create();
    QSharedPointer<Time_log> log;
    Synthetic_log s;
    Ktd_test::Capture_fd quiet(2);
    if (corpus) {
        KTD_REQUIRE_CORPUS(dir);
        auto root = read_directory(QDir(dir).filePath(QStringLiteral("v4-mixed-case-timelog")), man);
        QVERIFY(root);
        log = find_tlg(root, QStringLiteral("TLG00004"));
    } else {
        QVERIFY(s.make(header_16, synthetic_records(600)));
        log = s.tlg;
    }
    QVERIFY(log);

    // What a fresh reader gives going forwards once.
    Log_helper ref(log);
    QVERIFY(ref.ok());
    const unsigned n = ref.get_num_records();
    QVERIFY(n > 100);
    QVector<QByteArray> bytes;
    QVector<Record> records;
    for (unsigned i = 0; i < n; ++i) {
        Record r;
        QVERIFY(ref.get_record(r, i));
        records.append(r);
        bytes.append(raw_bytes(ref, i));
    }

    QVector<unsigned> visits;
    if (order.endsWith(QLatin1String("backwards"))) {
        for (unsigned i = n; i-- > 0;)
            visits.append(i);
    } else if (order == QLatin1String("random")) {
        quint32 x = 12345;
        for (int k = 0; k < 3000; ++k) {
            x = x * 1103515245u + 12345u;
            visits.append((x >> 8) % n);
        }
    } else {
        for (unsigned i = 1; i < n; i += 2) {
            visits.append(i);
            visits.append(i);
            visits.append(i - 1);
        }
    }

    Log_helper h(log);
    QVERIFY(h.ok());
    for (unsigned i : visits) {
        if (order.startsWith(QLatin1String("cache"))) {
            const Record* r = h.record(i);
            QVERIFY(r);
            QVERIFY2(same_record(*r, records[int(i)]), qPrintable(QString::number(i)));
            QVERIFY(h.cache().size() <= h.cache().capacity());
        } else {
            QCOMPARE(raw_bytes(h, i), bytes[int(i)]);
            Record r;
            QVERIFY(h.get_record(r, i));
            QVERIFY2(same_record(r, records[int(i)]), qPrintable(QString::number(i)));
        }
    }
}

// ---------------------------------------------------------------------------------------------

void Tst_log_helper::dtime_data()
{
    QTest::addColumn<uint>("base_time");
    QTest::addColumn<uint>("base_day");
    QTest::addColumn<uint>("time");
    QTest::addColumn<uint>("day");
    QTest::addColumn<uint>("expected");
    QTest::newRow("same day, later") << 1000u << 10u << 1500u << 10u << 500u;
    QTest::newRow("same moment") << 1000u << 10u << 1000u << 10u << 0u;
    QTest::newRow("same day, earlier") << 1000u << 10u << 999u << 10u << 0u;
    QTest::newRow("earlier day, later clock") << 1000u << 10u << 5000u << 9u << 0u;
    QTest::newRow("a day and one ms after the base") << 1000u << 10u << 1001u << 11u << 86400001u;
    QTest::newRow("across midnight") << 86399000u << 10u << 500u << 11u << 1500u;
    QTest::newRow("largest that fits") << 0u << 0u << 61367294u << 49u << 4294967294u;
    QTest::newRow("first that does not fit") << 0u << 0u << 61367296u << 49u << 4294967295u;
    QTest::newRow("far day") << 0u << 0u << 0u << 65535u << 4294967295u;
}

void Tst_log_helper::dtime()
{
    QFETCH(uint, base_time);
    QFETCH(uint, base_day);
    QFETCH(uint, time);
    QFETCH(uint, day);
    QFETCH(uint, expected);
    Record r;
    r.time = time;
    r.day = day;
    QCOMPARE(uint(Log_helper::get_dtime(r, base_time, base_day)), expected);
}

void Tst_log_helper::dtime_from_first_record()
{
    auto man = Element_man::create();
    Log_helper h;
    const QByteArray bin = Bytes()
                               .head16(86399000, 100, 1, 1, 1, 0)
                               .head16(500, 101, 1, 1, 1, 0)
                               .head16(86399001, 101, 1, 1, 1, 0)
                               .b;
    QVERIFY(h.init_from_data(man, header_16, bin));
    Record r;
    QVERIFY(h.get_record(r, 2));
    QCOMPARE(h.get_dtime(r), 86400001u);
    QVERIFY(h.get_record(r, 1));
    QCOMPARE(h.get_dtime(r), 1500u);
    QVERIFY(h.get_record(r, 0));
    QCOMPARE(h.get_dtime(r), 0u);
}

// ---------------------------------------------------------------------------------------------

void Tst_log_helper::values_data()
{
    QTest::addColumn<QByteArray>("dlv");
    QTest::addColumn<uint>("ddi");
    QTest::addColumn<int>("device_element");
    QTest::addColumn<uint>("pgn");
    QTest::addColumn<uint>("start_bit");
    QTest::addColumn<uint>("stop_bit");
    QTest::addColumn<int>("raw");
    QTest::addColumn<double>("decoded");
    QTest::newRow("dictionary resolution, element not loaded")
        << QByteArray("<DLV A=\"0001\" B=\"\" C=\"DET-7\"/>") << 1u << -7 << 0u << 0u << 0u << 150 << 1.5;
    QTest::newRow("PGN based data keeps PGN and bits")
        << QByteArray("<DLV A=\"DFFE\" B=\"\" C=\"DET-1\" D=\"65280\" E=\"8\" F=\"15\"/>") << 57342u << -1 << 65280u
        << 8u << 15u << 3 << 3.0;
    QTest::newRow("PGN and bits only for PGN based data")
        << QByteArray("<DLV A=\"0043\" B=\"\" C=\"DET-1\" D=\"65280\" E=\"8\" F=\"15\"/>") << 67u << -1 << 0u << 0u
        << 0u << 3000 << 3000.0;
    QTest::newRow("proprietary DDI: resolution 1")
        << QByteArray("<DLV A=\"EB6E\" B=\"\" C=\"DET-3\"/>") << 60270u << -3 << 0u << 0u << 0u << -7 << -7.0;
}

void Tst_log_helper::values()
{
    QFETCH(QByteArray, dlv);
    QFETCH(uint, ddi);
    QFETCH(int, device_element);
    QFETCH(uint, pgn);
    QFETCH(uint, start_bit);
    QFETCH(uint, stop_bit);
    QFETCH(int, raw);
    QFETCH(double, decoded);
    auto man = Element_man::create();
    Log_helper h;
    QVERIFY(h.init_from_data(man, "<TIM A=\"\"><PTN A=\"\" B=\"\" D=\"\"/>" + dlv + "</TIM>", QByteArray()));
    QCOMPARE(h.values().size(), 1);
    const Log_helper::Value v = h.values()[0];
    QCOMPARE(uint(v.ddi), ddi);
    QCOMPARE(v.device_element, device_element);
    QCOMPARE(uint(v.pgn), pgn);
    QCOMPARE(uint(v.start_bit), start_bit);
    QCOMPARE(uint(v.stop_bit), stop_bit);
    QCOMPARE(v.decode(raw), decoded);

    Log_helper::Value w = v;
    QVERIFY(w == v && !(w < v) && !(v < w));
    w.stop_bit = quint8(w.stop_bit + 1);
    QCOMPARE(v.diff(w), 16u);
    QVERIFY(v < w && v != w);
    w.device_element = v.device_element - 1;
    QCOMPARE(v.diff(w), 18u);
    QVERIFY(w < v);
}

// ---------------------------------------------------------------------------------------------

void Tst_log_helper::extremes()
{
    auto man = Element_man::create();
    Log_helper h;
    const QByteArray bin = Bytes()
                               .head16(86000000, 100, 10, 20, 1, 1)
                               .dlv(0, 5)
                               .head16(1000, 101, -5, 30, 4, 2)
                               .dlv(0, -3)
                               .dlv(1, 9)
                               .head16(2000, 101, 7, 25, 2, 1)
                               .dlv(1, 4)
                               .b;
    QVERIFY(h.init_from_data(man, header_16, bin));
    const Record lo = h.get_min_record();
    const Record hi = h.get_max_record();
    // Time and date are one field: the earliest moment, not the smallest clock of any day.
    const auto fields = [](const Record& r) {
        return QVector<qint64>{r.day, r.time, std::llround(r.north * 1e7), std::llround(r.east * 1e7), r.status};
    };
    QCOMPARE(fields(lo), (QVector<qint64>{100, 86000000, -5, 20, 1}));
    QCOMPARE(fields(hi), (QVector<qint64>{101, 2000, 10, 30, 4}));
    QCOMPARE(lo.get_dlvs(), (QMap<quint8, qint32>{{0, -3}, {1, 4}}));
    QCOMPARE(hi.get_dlvs(), (QMap<quint8, qint32>{{0, 5}, {1, 9}}));
    QCOMPARE(h.dlvs_seen(), (QVector<quint8>{0, 1}));
}

void Tst_log_helper::cache_window_data()
{
    QTest::addColumn<int>("capacity");
    QTest::addColumn<QVector<int>>("inserts");
    QTest::addColumn<int>("min");
    QTest::addColumn<int>("max");
    QTest::addColumn<int>("absent");
    QTest::newRow("forwards fills up to capacity") << 4 << QVector<int>{0, 1, 2, 3, 4, 5} << 2 << 5 << 1;
    QTest::newRow("a step back extends below") << 4 << QVector<int>{0, 1, 2, 3, 4, 5, 1} << 1 << 4 << 5;
    QTest::newRow("a jump starts a new window") << 4 << QVector<int>{0, 1, 2, 10} << 10 << 10 << 2;
    QTest::newRow("a held record keeps the window") << 4 << QVector<int>{0, 1, 2, 1} << 0 << 2 << 3;
    QTest::newRow("backwards from a jump") << 3 << QVector<int>{9, 8, 7, 6} << 6 << 8 << 9;
}

void Tst_log_helper::cache_window()
{
    QFETCH(int, capacity);
    QFETCH(QVector<int>, inserts);
    QFETCH(int, min);
    QFETCH(int, max);
    QFETCH(int, absent);
    Log_helper::Record_cache cache{unsigned(capacity)};
    for (int i : inserts) {
        Record r;
        r.index = unsigned(i);
        r.time = unsigned(i) * 10;
        const Record* held = cache.insert(r);
        QCOMPARE(held->index, unsigned(i));
        QVERIFY(cache.size() <= cache.capacity());
    }
    QCOMPARE(int(cache.min_record_no()), min);
    QCOMPARE(int(cache.max_record_no()), max);
    QCOMPARE(int(cache.size()), max - min + 1);
    for (int i = min; i <= max; ++i) {
        const Record* r = cache.find(unsigned(i));
        QVERIFY(r);
        QCOMPARE(r->index, unsigned(i));
        QCOMPARE(r->time, unsigned(i) * 10);
    }
    QVERIFY(!cache.find(unsigned(absent)));
}

void Tst_log_helper::debug_output()
{
    Synthetic_log s;
    const QByteArray bin = Bytes()
                               .head16(1000, 5, 541234567, -15000000, 1, 2)
                               .dlv(2, -3)
                               .dlv(0, 7)
                               .head16(2000, 5, 1, 2, 1, 1)
                               .dlv(2, 4)
                               .b;
    Ktd_test::Capture_fd quiet(2);
    QVERIFY(s.make(header_16, bin));
    const QString path = s.dir.filePath(QStringLiteral("debug.txt"));
    {
        Log_helper h;
        QVERIFY(h.init(s.tlg, path));
        Record r;
        QVERIFY(h.get_record(r, 0));
        QVERIFY(h.get_record(r, 1));
    }
    QFile f(path);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(f.readAll()),
             QStringLiteral("RECORD idx=0 day=5 time_ms=1000 north=54.1234567 east=-1.5000000\n"
                            "    DLV=0 Value=7\n"
                            "    DLV=2 Value=-3\n"
                            "RECORD idx=1 day=5 time_ms=2000 north=0.0000001 east=0.0000002\n"
                            "    DLV=2 Value=4\n"
                            "DLVS Seen:\n"
                            "Seen DLV=0\n"
                            "Seen DLV=2\n"));
}

QTEST_MAIN(Tst_log_helper)
#include "tst_log_helper.moc"
