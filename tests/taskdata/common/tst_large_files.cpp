// Referenced binary files of any size are copied streamed: a sparse grid of 2.5 GiB (more than
// a QByteArray or a 32-bit size holds) is converted into another directory and must arrive
// with its size, its bytes and its holes. Labelled "large": skip it with `ctest -LE large`.
#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Element_man.h>

#include "test_support.h"

#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace TC::Task_data;
using namespace TC::Task_data::Elements::Base;

namespace {

constexpr qint64 size = (qint64(5) << 29); // 2.5 GiB

// Whether two files hold the same bytes (holes read as zeros), compared block by block.
bool same_bytes(const QString& a, const QString& b)
{
    QFile fa(a), fb(b);
    if (!fa.open(QIODevice::ReadOnly) || !fb.open(QIODevice::ReadOnly) || fa.size() != fb.size())
        return false;
    QByteArray ba(8 << 20, Qt::Uninitialized), bb(8 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 na = fa.read(ba.data(), ba.size());
        const qint64 nb = fb.read(bb.data(), bb.size());
        if (na != nb || na < 0)
            return false;
        if (na == 0)
            return true;
        if (std::memcmp(ba.constData(), bb.constData(), size_t(na)) != 0)
            return false;
    }
}

} // namespace

class Tst_large_files : public QObject
{
    Q_OBJECT

private slots:
    void sparse_grid_copied_whole();
};

void Tst_large_files::sparse_grid_copied_whole()
{
    // 1 MiB of data at the start, in the middle and at the end; holes between.
    const QVector<qint64> data_at{0, size / 2 + 4097, size - (1 << 20)};
    QTemporaryDir tmp;
    const QString source = tmp.filePath("in"), target = tmp.filePath("out");
    QVERIFY(Ktd_test::write_files(source, {{"TASKDATA.XML", Ktd_test::task_data("<TSK A=\"TSK1\" G=\"1\"><GRD A=\"52\" "
                                       "B=\"8\" C=\"0.1\" D=\"0.1\" E=\"65536\" F=\"40960\" G=\"GRD00001\" I=\"1\"/></TSK>\n")}}));
    const QString grid = QDir(source).filePath("GRD00001.BIN");
    {
        QFile f(grid);
        QVERIFY(f.open(QIODevice::WriteOnly));
        QByteArray block(1 << 20, Qt::Uninitialized);
        for (int i = 0; i < block.size(); ++i)
            block[i] = char(i * 31 + 7);
        for (qint64 at : data_at) {
            QVERIFY(f.seek(at));
            QCOMPARE(f.write(block), qint64(block.size()));
        }
        QVERIFY(f.resize(size));
    }
    auto man = Element_man::create();
    XML_interface xi(source);
    Ktd_test::Capture_fd quiet(2);
    QVERIFY2(xi.load(man), qPrintable(xi.fail_text()));
    xi.set_output_dir(target); // after the load, which reads from the output directory
    QVERIFY2(xi.save(man), qPrintable(xi.fail_text()));
    const QString copy = QDir(target).filePath("GRD00001.BIN");
    QCOMPARE(QFileInfo(copy).size(), size);
    QVERIFY(same_bytes(copy, grid));
    // The holes stay holes: the copy takes about the disk space of its data.
    struct stat st;
    QCOMPARE(::stat(QFile::encodeName(copy).constData(), &st), 0);
    QVERIFY2(qint64(st.st_blocks) * 512 < qint64(data_at.size() + 1) * (4 << 20),
             qPrintable(QString("%1 bytes on disk").arg(qint64(st.st_blocks) * 512)));
}

QTEST_MAIN(Tst_large_files)
#include "tst_large_files.moc"
