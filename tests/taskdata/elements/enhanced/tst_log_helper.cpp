// Binary time log decoding: every time log of the corpus decodes from its first to its last
// record and consumes its file exactly (first/last records of a few read by hand from the bytes);
// the record layout follows which header attributes are empty, absent or valued; the file is
// refused when its length is not the declared one; cut-off records are not records; any access
// order gives what a fresh sequential reader gives; time differences across midnight; the cache
// window and the debug output.
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>
#include <taskdata/elements/enhanced/Log_helper.h>

#include "test_support.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <array>
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

// The time logs of a task data directory, read into `man` (which then knows where their files are).
QVector<QSharedPointer<Time_log>> time_logs(const QString& dir, const QSharedPointer<Element_man>& man)
{
    QVector<QSharedPointer<Time_log>> out;
    XML_interface xi(dir);
    const auto root = xi.load(man) ? man->root().staticCast<Task_data>() : nullptr;
    for (int t = 0; root && t < root->tasks.count(); ++t)
        for (int i = 0; i < root->tasks.typed_at(t)->time_logs.count(); ++i)
            out << root->tasks.typed_at(t)->time_logs.typed_at(i);
    return out;
}

// A task data directory with one task holding one time log.
struct Synthetic_log
{
    QTemporaryDir dir;
    QSharedPointer<Element_man> man = Element_man::create();
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
        if (!write_file(dir.filePath(QStringLiteral("TASKDATA.XML")), main.toUtf8()) ||
            (!header_name.isEmpty() && !write_file(dir.filePath(header_name), header)) ||
            (!binary_name.isEmpty() && !write_file(dir.filePath(binary_name), binary)))
            return false;
        tlg = time_logs(dir.path(), man).value(0);
        return !tlg.isNull();
    }
};

// The bytes of one record as the mapping holds them.
QByteArray raw_bytes(Log_helper& h, unsigned index)
{
    unsigned n = 0;
    const uchar* p = h.get_raw_record(index, &n);
    return p ? QByteArray(reinterpret_cast<const char*>(p), int(h.fixed_length() + 5 * n)) : QByteArray();
}

// Every field of a record: index, day/time, north east up, status, PDOP HDOP satellites,
// GPS time and date, values by number.
QString describe(const Record& r)
{
    QStringList v;
    for (auto it = r.get_dlvs().cbegin(); it != r.get_dlvs().cend(); ++it)
        v << QStringLiteral("%1:%2").arg(it.key()).arg(it.value());
    return QStringLiteral("#%1 %2/%3 | %4 %5 %6 s%7 | %8 %9 %10 | %11 %12 | %13")
        .arg(r.index).arg(r.day).arg(r.time).arg(r.north, 0, 'g', 10).arg(r.east, 0, 'g', 10).arg(r.up, 0, 'g', 10)
        .arg(r.status).arg(r.pdop).arg(r.hdop).arg(r.satellites).arg(r.gps_utc_time).arg(r.gps_utc_date)
        .arg(v.join(QLatin1Char(',')));
}

// time, day, north and east in 1e-7 degrees, status, value count, one value's number and value.
using Known_record = std::array<qint64, 8>;

QVector<qint64> known_fields(const Record& r, quint8 number)
{
    return {r.time, r.day, std::llround(r.north * 1e7), std::llround(r.east * 1e7), r.status, r.dlv_count(),
            r.has_dlv(number) ? number : -1, r.dlv(number)};
}

struct Known_log
{
    const char* set;
    const char* tlg;
    unsigned records;
    Known_record first, last;
};

// Read by hand from the files. The 21 logs of one set share one header: the first, one whose
// last record carries other values, and one that runs past midnight stand for them.
const Known_log known_logs[] = {
    {"v4-mixed-case-timelog", "TLG00004", 7017, {21600000, 10332, 391393630, 98495876, 1, 46, 45, 65537}, {22401000, 10332, 391395451, 98501378, 1, 1, 22, 2}},
    {"v4-timelogs-21", "TLG00001", 4716, {63020000, 14611, 545822941, 102119904, 15, 17, 22, 690}, {69053000, 14611, 545826594, 102103599, 15, 15, 22, 404}},
    {"v4-timelogs-21", "TLG00017", 6359, {74621000, 14612, 544579856, 100376324, 15, 17, 22, 704}, {82420000, 14612, 544573189, 100370422, 15, 24, 25, 7797}},
    {"v4-timelogs-21", "TLG00019", 2484, {84834000, 14612, 544556756, 100338486, 15, 17, 22, 690}, {1507000, 14613, 544554672, 100350849, 15, 15, 22, 704}},
};

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

class Tst_log_helper : public QObject
{
    Q_OBJECT
private slots:
    void corpus_logs_data();
    void corpus_logs();
    void layout_and_fields_data();
    void layout_and_fields();
    void framing_data();
    void framing();
    void open_file_data();
    void open_file();
    void access_order();
    void dtime_data();
    void dtime();
    void values_data();
    void values();
    void summary();
    void cache_window_data();
    void cache_window();
    void debug_output();
};

void Tst_log_helper::corpus_logs_data()
{
    KTD_REQUIRE_CORPUS(corpus);
    QTest::addColumn<QString>("set");
    QTest::addColumn<QString>("tlg");
    QVector<QPair<QString, QString>> found;
    Ktd_test::Capture_fd quiet(2);
    for (const QString& set : QDir(corpus).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        auto man = Element_man::create();
        for (const auto& tlg : time_logs(QDir(corpus).filePath(set), man))
            found.append({set, tlg->filename.get_as_string()});
    }
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
    Ktd_test::Capture_fd quiet(2); // the file lookup notes every name it matched in another case
    QSharedPointer<Time_log> log;
    for (const auto& t : time_logs(QDir(corpus).filePath(set), man))
        if (t->filename.get_as_string() == tlg)
            log = t;
    QVERIFY2(log, "a time log of the table not found in the corpus");

    Ktd_test::Capture_fd out(1);
    Log_helper h;
    const bool ok = h.init(log);
    const unsigned n = h.get_num_records();
    qint64 consumed = 0;
    bool numbers_in_header = true;
    Record r;
    for (unsigned i = 0; i < n; ++i) {
        unsigned count = 0;
        QVERIFY(h.get_record(r, i) && h.get_raw_record(i, &count));
        consumed += h.fixed_length() + 5 * count;
        for (int j = 0; j < r.dlv_count(); ++j)
            numbers_in_header = numbers_in_header && r.dlv_number_at(j) < h.values().size();
    }
    QVERIFY2(ok, qPrintable(h.fail_text()));
    QCOMPARE(out.text(), QString());
    QVERIFY(n > 0);
    QCOMPARE(h.trailing_bytes(), qint64(0));
    QCOMPARE(consumed, QFileInfo(h.binary_path()).size());
    QVERIFY(numbers_in_header);

    // The header is read into the document's manager: every DLV names a loaded device element.
    QCOMPARE(h.values().size(), h.header()->data_log_values.count());
    for (int i = 0; i < h.values().size(); ++i) {
        auto target = h.header()->data_log_values.typed_at(i)->device_element.target();
        QVERIFY2(target && h.values()[i].device_element == target->get_id(), qPrintable(QStringLiteral("DLV %1").arg(i)));
    }

    for (const Known_log& k : known_logs) {
        if (set != QLatin1String(k.set) || tlg != QLatin1String(k.tlg))
            continue;
        QCOMPARE(n, k.records);
        QCOMPARE(known_fields(*h.record(0), quint8(k.first[6])), QVector<qint64>(k.first.begin(), k.first.end()));
        QCOMPARE(known_fields(*h.record(n - 1), quint8(k.last[6])), QVector<qint64>(k.last.begin(), k.last.end()));
    }
}

// A header's record layout, and one record decoded under it into a record that held other values.
void Tst_log_helper::layout_and_fields_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<QByteArray>("record");
    QTest::addColumn<bool>("update"); // update_record rather than get_record
    QTest::addColumn<QString>("expected");
    const QByteArray ptn = "<PTN A=\"\" B=\"\" D=\"\"/>", tim = "<TIM A=\"\">", none;
    const QByteArray h16(header_16), head16 = Bytes().head16(1, 2, 3, 4, 1, 0).b.chopped(1);
    QTest::newRow("every field carried, at its limits")
        << QByteArray("<TIM A=\"\"><PTN A=\"\" B=\"\" C=\"\" D=\"\" E=\"\" F=\"\" G=\"\" H=\"\" I=\"\"/></TIM>")
        << Bytes().i32(86399999).u16(65535).i32(-900000000).i32(1800000000).i32(-2147483647 - 1).u8(0)
               .u16(65535).u16(1).u8(255).u32(4294967295u).u16(65535).u8(0).b
        << false << "mask 3ff fixed 31: #0 65535/86399999 | -90 180 -2147483.648 s0 | 6553.5 0.1 255 | 4294967295 65535 | ";
    QTest::newRow("get_record: status not carried reads 15, others kept, values dropped")
        << tim + "<PTN A=\"\" B=\"\" D=\"2\"/></TIM>" << Bytes().i32(5).u16(6).i32(1).i32(-1).u8(0).b << false
        << "mask 7 fixed 15: #0 6/5 | 1e-07 -1e-07 7.5 s15 | 1.5 0 12 | 0 0 | ";
    QTest::newRow("update_record keeps values not carried") << h16 << head16 + Bytes().u8(1).dlv(0, 5).b << true
        << "mask 17 fixed 16: #0 2/1 | 3e-07 4e-07 7.5 s1 | 1.5 0 12 | 0 0 | 0:5,2:99";
    QTest::newRow("a later value of the same number wins") << h16 << head16 + Bytes().u8(2).dlv(1, 10).dlv(1, 20).b
        << false << "mask 17 fixed 16: #0 2/1 | 3e-07 4e-07 7.5 s1 | 1.5 0 12 | 0 0 | 1:20";
    QTest::newRow("values in descending number order")
        << h16 << head16 + Bytes().u8(3).dlv(2, -5).dlv(0, 2147483647).dlv(1, -2147483647 - 1).b << false
        << "mask 17 fixed 16: #0 2/1 | 3e-07 4e-07 7.5 s1 | 1.5 0 12 | 0 0 | 0:2147483647,1:-2147483648,2:-5";
    QTest::newRow("every field valued: count and pairs, time from the header")
        << QByteArray("<TIM A=\"2024-03-01T10:00:00.250\" D=\"4\"><PTN A=\"54.1\" B=\"10.2\" C=\"5\" D=\"1\" E=\"1.2\" "
                      "F=\"1.3\" G=\"9\" H=\"1000\" I=\"16000\"/><DLV A=\"0001\" B=\"\" C=\"DET-1\"/>"
                      "<DLV A=\"0043\" B=\"\" C=\"DET-1\"/></TIM>")
        << Bytes().u8(2).dlv(0, -1).dlv(1, 7).b << false
        << "mask 0 fixed 1 header time: #0 16131/36000250 | 0 0 7.5 s15 | 1.5 0 12 | 0 0 | 0:-1,1:7";
    QTest::newRow("no PTN: time and values") << QByteArray("<TIM A=\"\"><DLV A=\"0001\" B=\"\" C=\"DET-1\"/></TIM>")
        << Bytes().i32(1000).u16(5).u8(1).dlv(0, 3).b << false << "mask 1 fixed 7: #0 5/1000 | 0 0 7.5 s15 | 1.5 0 12 | 0 0 | 0:3";
    QTest::newRow("up empty is carried") << tim + "<PTN A=\"\" B=\"\" C=\"\" D=\"\"/></TIM>" << none << false << "mask 1f fixed 20";
    QTest::newRow("PDOP and GPS date among the optional")
        << tim + "<PTN A=\"\" B=\"\" D=\"\" E=\"\" I=\"\"/></TIM>" << none << false << "mask 237 fixed 20";
    QTest::newRow("north valued still a layout") << tim + "<PTN A=\"54.0\" B=\"\" D=\"\"/></TIM>" << none << false
                                                 << "mask 15 fixed 12";
    QTest::newRow("no north") << tim + "<PTN B=\"\" D=\"\"/></TIM>" << none << false << "refused";
    QTest::newRow("no east") << tim + "<PTN A=\"\" D=\"\"/></TIM>" << none << false << "refused";
    QTest::newRow("no status") << tim + "<PTN A=\"\" B=\"\" C=\"\"/></TIM>" << none << false << "refused";
    QTest::newRow("A absent, B empty: time carried") << "<TIM B=\"\">" + ptn + "</TIM>" << none << false << "mask 17 fixed 16";
    QTest::newRow("A and B absent: no time") << "<TIM D=\"4\">" + ptn + "</TIM>" << none << false << "mask 16 fixed 10";
    QTest::newRow("A absent, B valued: time from the header")
        << "<TIM B=\"2024-03-01T10:00:00\">" + ptn + "</TIM>" << none << false << "mask 16 fixed 10 header time";
    QTest::newRow("A valued, B empty: A decides")
        << "<TIM A=\"2024-03-01T10:00:00\" B=\"\">" + ptn + "</TIM>" << none << false << "mask 16 fixed 10 header time";
    QTest::newRow("second PTN ignored") << tim + ptn + "<PTN A=\"\" B=\"\" C=\"\" D=\"\" E=\"\"/></TIM>" << none << false
                                        << "mask 17 fixed 16";
    QTest::newRow("root is not TIM") << ptn << none << false << "refused";
    QTest::newRow("not XML") << QByteArray("TLG\x01\x02") << none << false << "refused";
}

void Tst_log_helper::layout_and_fields()
{
    QFETCH(QByteArray, header);
    QFETCH(QByteArray, record);
    QFETCH(bool, update);
    QFETCH(QString, expected);
    auto man = Element_man::create();
    Log_helper h;
    Ktd_test::Capture_fd out(1);
    const bool opened = h.init_from_data(man, header, record);
    QCOMPARE(out.text(), opened ? QString() : QStringLiteral("init failed\n"));
    QCOMPARE(h.ok(), opened);
    if (!opened)
        QVERIFY(!h.fail_text().isEmpty() && h.get_num_records() == 0 && !h.record(0));
    QString got = opened ? QStringLiteral("mask %1 fixed %2%3").arg(uint(h.field_mask()), 0, 16).arg(h.fixed_length())
                               .arg(h.header_time_valid() ? " header time" : "") : QStringLiteral("refused");
    if (!record.isEmpty()) {
        // Exactly one record long: the layout and the bytes agree.
        QCOMPARE(h.get_num_records(), 1u);
        QCOMPARE(h.trailing_bytes(), qint64(0));
        Record r;
        r.up = 7.5;
        r.satellites = 12;
        r.pdop = 1.5f;
        r.set_dlv(2, 99);
        r.set_dlv(0, 1);
        QVERIFY(update ? h.update_record(r, 0) : h.get_record(r, 0));
        got += QStringLiteral(": ") + describe(r);
    }
    QCOMPARE(got, expected);
}

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
    // A fresh reader asked for the cut record first (before counting) finds no record either.
    Log_helper fresh;
    QVERIFY(fresh.init_from_data(man, header_16, binary));
    QVERIFY(!fresh.get_raw_record(unsigned(records), nullptr));
    QVERIFY(!fresh.get_raw_record(unsigned(records) + 1000, nullptr));
}

void Tst_log_helper::open_file_data()
{
    QTest::addColumn<QString>("tlg_b");
    QTest::addColumn<QString>("header_name");
    QTest::addColumn<QString>("binary_name");
    QTest::addColumn<QByteArray>("binary");
    QTest::addColumn<QString>("printed"); // nothing when the log opens
    const QByteArray two = Bytes().head16(1, 2, 3, 4, 1, 0).head16(5, 6, 7, 8, 1, 0).b; // 32 bytes
    const QString x = QStringLiteral("TLG00001.XML");
    const QString b = QStringLiteral("TLG00001.BIN");
    const QString failed = QStringLiteral("init failed\n");
    QTest::newRow("declared length equals") << "32" << x << b << two << QString();
    QTest::newRow("file one byte shorter than declared") << "33" << x << b << two << failed;
    QTest::newRow("file one byte longer than declared") << "31" << x << b << two << failed;
    QTest::newRow("no declared length") << QString() << x << b << two << QString();
    QTest::newRow("declared length unknown") << "4294967295" << x << b << two << QString();
    QTest::newRow("lower-case file names") << "32" << "tlg00001.xml" << "tlg00001.bin" << two << QString();
    QTest::newRow("empty binary, declared 0") << "0" << x << b << QByteArray() << QString();
    QTest::newRow("binary missing") << "32" << x << QString() << two << failed;
    QTest::newRow("header missing") << "32" << QString() << b << two << failed;
    QTest::newRow("no time log") << "32" << x << b << two << "Timelog is of no use\n";
}

void Tst_log_helper::open_file()
{
    QFETCH(QString, tlg_b);
    QFETCH(QString, header_name);
    QFETCH(QString, binary_name);
    QFETCH(QByteArray, binary);
    QFETCH(QString, printed);
    const bool ok = printed.isEmpty();
    Synthetic_log s;
    Ktd_test::Capture_fd quiet(2);
    QVERIFY(s.make(header_16, binary, tlg_b, header_name, binary_name));
    Ktd_test::Capture_fd out(1);
    Log_helper h;
    QCOMPARE(h.init(QTest::currentDataTag() == QByteArray("no time log") ? nullptr : s.tlg), ok);
    const unsigned n = h.get_num_records();
    const Record* last = n ? h.record(n - 1) : nullptr;
    QCOMPARE(out.text(), printed);
    QCOMPARE(h.fail_text().isEmpty(), ok);
    QCOMPARE(int(n), ok ? binary.size() / 16 : 0);
    QCOMPARE(h.binary_size(), ok ? qint64(binary.size()) : 0);
    if (n)
        QCOMPARE(last->time, 5u);
}

// Backwards, then at random: the raw bytes, the decoded records and the cached records are
// those of a fresh reader going forwards once.
void Tst_log_helper::access_order()
{
    Synthetic_log s;
    Ktd_test::Capture_fd quiet(2);
    QVERIFY(s.make(header_16, synthetic_records(600)));
    Log_helper ref(s.tlg);
    const unsigned n = ref.get_num_records();
    QCOMPARE(n, 600u);
    QVector<QByteArray> bytes;
    QStringList records;
    Record r;
    for (unsigned i = 0; i < n; ++i) {
        QVERIFY(ref.get_record(r, i));
        records << describe(r);
        bytes << raw_bytes(ref, i);
    }
    QVector<unsigned> visits;
    for (unsigned i = n; i-- > 0;)
        visits << i;
    quint32 x = 12345;
    for (int k = 0; k < 3000; ++k) {
        x = x * 1103515245u + 12345u;
        visits << (x >> 8) % n;
    }
    Log_helper h(s.tlg);
    Log_helper cached(s.tlg);
    for (unsigned i : visits) {
        QCOMPARE(raw_bytes(h, i), bytes[int(i)]);
        QVERIFY(h.get_record(r, i));
        QCOMPARE(describe(r), records[int(i)]);
        const Record* c = cached.record(i);
        QVERIFY(c && cached.cache().size() <= cached.cache().capacity());
        QCOMPARE(describe(*c), records[int(i)]);
    }
}

void Tst_log_helper::dtime_data()
{
    QTest::addColumn<QVector<qint64>>("v"); // base time, base day, time, day, milliseconds from the base
    QTest::newRow("same day, later") << QVector<qint64>{1000, 10, 1500, 10, 500};
    QTest::newRow("same day, earlier") << QVector<qint64>{1000, 10, 999, 10, 0};
    QTest::newRow("earlier day, later clock") << QVector<qint64>{1000, 10, 5000, 9, 0};
    QTest::newRow("a day and one ms after the base") << QVector<qint64>{1000, 10, 1001, 11, 86400001};
    QTest::newRow("across midnight") << QVector<qint64>{86399000, 10, 500, 11, 1500};
    QTest::newRow("largest that fits") << QVector<qint64>{0, 0, 61367294, 49, 4294967294};
    QTest::newRow("first that does not fit") << QVector<qint64>{0, 0, 61367296, 49, 4294967295};
}

void Tst_log_helper::dtime()
{
    QFETCH(QVector<qint64>, v);
    Record r;
    r.time = quint32(v[2]);
    r.day = quint32(v[3]);
    QCOMPARE(qint64(Log_helper::get_dtime(r, quint32(v[0]), quint32(v[1]))), v[4]);
}

void Tst_log_helper::values_data()
{
    QTest::addColumn<QByteArray>("dlv");
    QTest::addColumn<int>("raw");
    QTest::addColumn<QString>("expected"); // DDI, device element, PGN, start-stop bit, decoded value
    QTest::newRow("dictionary resolution, element not loaded")
        << QByteArray("<DLV A=\"0001\" B=\"\" C=\"DET-7\"/>") << 150 << "1 -7 0 0-0 1.5";
    QTest::newRow("PGN based data keeps PGN and bits")
        << QByteArray("<DLV A=\"DFFE\" B=\"\" C=\"DET-1\" D=\"65280\" E=\"8\" F=\"15\"/>") << 3 << "57342 -1 65280 8-15 3";
    QTest::newRow("PGN and bits only for PGN based data")
        << QByteArray("<DLV A=\"0043\" B=\"\" C=\"DET-1\" D=\"65280\" E=\"8\" F=\"15\"/>") << 3000 << "67 -1 0 0-0 3000";
    QTest::newRow("proprietary DDI: resolution 1") << QByteArray("<DLV A=\"EB6E\" B=\"\" C=\"DET-3\"/>") << -7
                                                   << "60270 -3 0 0-0 -7";
}

void Tst_log_helper::values()
{
    QFETCH(QByteArray, dlv);
    QFETCH(int, raw);
    QFETCH(QString, expected);
    auto man = Element_man::create();
    Log_helper h;
    QVERIFY(h.init_from_data(man, "<TIM A=\"\"><PTN A=\"\" B=\"\" D=\"\"/>" + dlv + "</TIM>", QByteArray()));
    QCOMPARE(h.values().size(), 1);
    const Log_helper::Value v = h.values()[0];
    QCOMPARE(QStringLiteral("%1 %2 %3 %4-%5 %6").arg(v.ddi).arg(v.device_element).arg(v.pgn).arg(v.start_bit)
                 .arg(v.stop_bit).arg(v.decode(raw)), expected);
    // Device element ranks before the bits.
    Log_helper::Value w = v;
    QVERIFY(w == v && !(w < v) && !(v < w));
    w.stop_bit = quint8(w.stop_bit + 1);
    QCOMPARE(v.diff(w), 16u);
    QVERIFY(v < w && v != w);
    w.device_element = v.device_element - 1;
    QCOMPARE(v.diff(w), 18u);
    QVERIFY(w < v);
}

// Extremes over all records, the numbers seen, and the time from the first record.
void Tst_log_helper::summary()
{
    auto man = Element_man::create();
    Log_helper h;
    const QByteArray bin = Bytes().head16(86000000, 100, 10, 20, 1, 1).dlv(0, 5).head16(1000, 101, -5, 30, 4, 2)
                               .dlv(0, -3).dlv(1, 9).head16(2000, 101, 7, 25, 2, 1).dlv(1, 4).b;
    QVERIFY(h.init_from_data(man, header_16, bin));
    // Time and date are one field: the earliest moment, not the smallest clock of any day.
    QCOMPARE(describe(h.get_min_record()), QStringLiteral("#0 100/86000000 | -5e-07 2e-06 0 s1 | 0 0 0 | 0 0 | 0:-3,1:4"));
    QCOMPARE(describe(h.get_max_record()), QStringLiteral("#0 101/2000 | 1e-06 3e-06 0 s4 | 0 0 0 | 0 0 | 0:5,1:9"));
    QCOMPARE(h.dlvs_seen(), (QVector<quint8>{0, 1}));
    Record r;
    QVERIFY(h.get_record(r, 2));
    QCOMPARE(h.get_dtime(r), 402000u);
}

void Tst_log_helper::cache_window_data()
{
    QTest::addColumn<QVector<int>>("inserts"); // into a cache of 4
    QTest::addColumn<int>("min");
    QTest::addColumn<int>("max");
    QTest::newRow("forwards fills up to capacity") << QVector<int>{0, 1, 2, 3, 4, 5} << 2 << 5;
    QTest::newRow("a step back extends below") << QVector<int>{0, 1, 2, 3, 4, 5, 1} << 1 << 4;
    QTest::newRow("a jump starts a new window") << QVector<int>{0, 1, 2, 10} << 10 << 10;
    QTest::newRow("a held record keeps the window") << QVector<int>{0, 1, 2, 1} << 0 << 2;
    QTest::newRow("backwards from a jump") << QVector<int>{9, 8, 7, 6, 5} << 5 << 8;
}

void Tst_log_helper::cache_window()
{
    QFETCH(QVector<int>, inserts);
    QFETCH(int, min);
    QFETCH(int, max);
    Log_helper::Record_cache cache{4};
    for (int i : inserts) {
        Record r;
        r.index = unsigned(i);
        r.time = unsigned(i) * 10;
        QCOMPARE(cache.insert(r)->index, unsigned(i));
        QVERIFY(cache.size() <= cache.capacity());
    }
    QCOMPARE(int(cache.min_record_no()), min);
    QCOMPARE(int(cache.max_record_no()), max);
    QCOMPARE(int(cache.size()), max - min + 1);
    for (int i = min; i <= max; ++i) {
        const Record* r = cache.find(unsigned(i));
        QVERIFY(r && r->index == unsigned(i) && r->time == unsigned(i) * 10);
    }
    QVERIFY(!cache.find(unsigned(min - 1)) && !cache.find(unsigned(max + 1)));
}

void Tst_log_helper::debug_output()
{
    Synthetic_log s;
    const QByteArray bin =
        Bytes().head16(1000, 5, 541234567, -15000000, 1, 2).dlv(2, -3).dlv(0, 7).head16(2000, 5, 1, 2, 1, 1).dlv(2, 4).b;
    Ktd_test::Capture_fd quiet(2);
    QVERIFY(s.make(header_16, bin));
    const QString path = s.dir.filePath(QStringLiteral("debug.txt"));
    {
        Log_helper h;
        QVERIFY(h.init(s.tlg, path));
        Record r;
        QVERIFY(h.get_record(r, 0) && h.get_record(r, 1));
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
