// Implementation of the shared parts of the `taskdata` tool; see tool_support.h.
#include "tool_support.h"

#include "assume_version.h"

#include <taskdata/common/File_lookup.h>
#include <taskdata/common/Save_transaction.h>
#include <taskdata/elements/base/Element_list.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QXmlStreamReader>

#include <cstdio>
#include <unistd.h>

namespace Taskdata_tool {

using TC::Task_data::File_lookup;
using TC::Task_data::Elements::Base::Element_list;

QString find_in_dir(const QString& dir, const QString& name)
{
    if (name.isEmpty())
        return QString();
    return File_lookup::find(dir, name, true).path;
}

Document_header read_header(const QString& path)
{
    Document_header h;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return h;
    QXmlStreamReader r(&f);
    while (!r.atEnd()) {
        if (r.readNext() == QXmlStreamReader::StartElement) {
            h.root_tag = r.name().toString();
            h.version_major = r.attributes().value(QLatin1String("VersionMajor")).toString();
            h.version_minor = r.attributes().value(QLatin1String("VersionMinor")).toString();
            break;
        }
    }
    return h;
}

bool load_directory(const QString& arg, Loaded_dir& out)
{
    QFileInfo fi(arg);
    if (!fi.exists()) {
        out.error = QStringLiteral("%1 does not exist").arg(arg);
        return false;
    }
    out.dir = fi.isDir() ? QDir(arg).absolutePath() : fi.absolutePath();
    out.main_file = fi.isDir() ? find_in_dir(out.dir, QStringLiteral("TASKDATA.XML")) : fi.absoluteFilePath();
    out.man = Element_man::create();
    out.man->set_task_data_dir(out.dir);
    // A main file given by name is the one read, whatever it is called.
    out.xi.reset(new XML_interface(fi.isDir() ? out.dir : out.main_file));
    out.xi->set_assumed_version(assumed_version());
    if (out.main_file.isEmpty()) {
        out.error = QStringLiteral("no TASKDATA.XML in %1").arg(out.dir);
        return false;
    }
    out.header = read_header(out.main_file);
    const bool loaded = out.xi->load(out.man);
    if (out.header.root_tag == QLatin1String("ISO11783_TaskData") && out.header.version_major.isEmpty() &&
        assumed_version() > 0) {
        QTextStream(stderr) << "taskdata: warning: " << out.main_file << " has no VersionMajor: read as format version "
                            << assumed_version() << '\n';
        out.header.version_major = QString::number(assumed_version());
    }
    if (!loaded) {
        out.error = out.xi->fail_text();
        if (out.error.isEmpty())
            out.error = QStringLiteral("%1 could not be read").arg(out.main_file);
        return false;
    }

    if (!out.man->root()) {
        out.error = QStringLiteral("%1 holds no task data").arg(out.main_file);
        return false;
    }
    return true;
}

bool is_document_root(const QString& tag)
{
    return tag == QLatin1String("ISO11783_TaskData") || tag == QLatin1String("ISO11783LinkList") ||
           tag == QLatin1String("XFC");
}

QString element_name(const Element* e)
{
    const QString id = e->get_id_string();
    if (!id.isEmpty())
        return id;
    int index = 0;
    if (const Element_list* list = e->parent_list())
        index = list->index_of(e);
    return QStringLiteral("%1[%2]").arg(e->get_tag()).arg(index + 1);
}

QString element_path(const Element* e)
{
    QStringList parts;
    for (const Element* p = e; p; p = p->parent_element()) {
        if (!p->parent_element() && is_document_root(p->get_tag()))
            break;
        parts.prepend(element_name(p));
    }
    if (parts.isEmpty())
        return e->get_tag();
    return parts.join(QLatin1Char('/'));
}

void walk(const QSharedPointer<Element>& e, const std::function<void(const QSharedPointer<Element>&)>& visit)
{
    if (!e)
        return;
    visit(e);
    const unsigned lists = e->_num_element_lists();
    for (unsigned l = 0; l < lists; ++l) {
        const Element_list* list = e->_element_list(l);
        for (const QSharedPointer<Element>& child : list->elements())
            walk(child, visit);
    }
}

void walk_all(const Loaded_dir& d, const std::function<void(const QSharedPointer<Element>&)>& visit)
{
    if (!d.man)
        return;
    walk(d.man->root(), visit);
    walk(d.man->link_list(), visit);
}

QString task_status_name(int status)
{
    switch (status) {
    case 1:
        return QStringLiteral("Planned");
    case 2:
        return QStringLiteral("Running");
    case 3:
        return QStringLiteral("Paused");
    case 4:
        return QStringLiteral("Completed");
    case 5:
        return QStringLiteral("Template");
    case 6:
        return QStringLiteral("Canceled");
    default:
        return QString();
    }
}

void print_json(QTextStream& out, const QJsonObject& o)
{
    out << QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Indented));
}

Progress::Progress(const QString& what) : m_what(what), m_terminal(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress()
{
    if (m_shown) {
        fputs("\r\033[K", stderr);
        fflush(stderr);
    }
}

void Progress::update(qint64 done, qint64 total)
{
    if (!m_terminal || (m_since.isValid() && m_since.elapsed() < 100))
        return;
    m_since.start();
    m_shown = true;
    const QString line = total > 0 ? QStringLiteral("\r%1: %2% (%3/%4)").arg(m_what).arg(done * 100 / total).arg(done).arg(total)
                                   : QStringLiteral("\r%1: %2").arg(m_what).arg(done);
    fputs(line.toUtf8().constData(), stderr);
    fflush(stderr);
}

struct Output_file::Transaction
{
    TC::Task_data::Save_transaction t;
    explicit Transaction(const QString& dir) : t(dir, TC::Task_data::Save_transaction::In_place) {}
};

Output_file::Output_file(const QString& path, QFile& standard_output) : m_path(path), m_stdout(standard_output) {}

Output_file::~Output_file()
{
    if (m_fd >= 0 && m_t) {
        m_file.close();
        m_t->t.close_staged(m_fd);
    }
}

bool Output_file::open()
{
    if (is_standard_output())
        return true;
    // Through a symbolic link the user named, the file it points at is the one written.
    QFileInfo fi(m_path);
    const QString path = fi.exists() ? fi.canonicalFilePath() : fi.absoluteFilePath();
    fi = QFileInfo(path);
    m_t.reset(new Transaction(fi.absolutePath()));
    if (!m_t->t.begin_unlocked() || (m_fd = m_t->t.open_staged(fi.fileName())) < 0) {
        m_error = m_t->t.error();
        return false;
    }
    if (!m_file.open(m_fd, QIODevice::WriteOnly, QFileDevice::DontCloseHandle)) {
        m_error = m_file.errorString();
        return false;
    }
    return true;
}

QIODevice* Output_file::device() { return is_standard_output() ? static_cast<QIODevice*>(&m_stdout) : &m_file; }

bool Output_file::commit()
{
    QFileDevice& f = is_standard_output() ? static_cast<QFileDevice&>(m_stdout) : m_file;
    if (!f.flush() || f.error() != QFileDevice::NoError) {
        m_error = f.errorString();
        return false;
    }
    if (is_standard_output())
        return true;
    m_file.close();
    const int fd = m_fd;
    m_fd = -1;
    if (!m_t->t.close_staged(fd) || !m_t->t.commit()) {
        m_error = m_t->t.error();
        return false;
    }
    return true;
}

Parsed_args parse_args(const QStringList& args, const QSet<QString>& flag_options, const QSet<QString>& value_options)
{
    Parsed_args p;
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args.at(i);
        if (a == QLatin1String("--")) {
            p.positional += args.mid(i + 1);
            break;
        }
        if (!a.startsWith(QLatin1String("--")) || a.size() == 2) {
            if (a.startsWith(QLatin1Char('-')) && a.size() > 1 && a != QLatin1String("-")) {
                p.error = QStringLiteral("unknown option %1").arg(a);
                return p;
            }
            p.positional.append(a);
            continue;
        }
        QString name = a;
        QString value;
        bool has_value = false;
        const int eq = a.indexOf(QLatin1Char('='));
        if (eq > 0) {
            name = a.left(eq);
            value = a.mid(eq + 1);
            has_value = true;
        }
        if (flag_options.contains(name)) {
            if (has_value) {
                p.error = QStringLiteral("option %1 takes no value").arg(name);
                return p;
            }
            p.flags.insert(name);
        } else if (value_options.contains(name)) {
            if (!has_value) {
                if (i + 1 >= args.size()) {
                    p.error = QStringLiteral("option %1 needs a value").arg(name);
                    return p;
                }
                value = args.at(++i);
            }
            p.values.insert(name, value);
        } else {
            p.error = QStringLiteral("unknown option %1").arg(name);
            return p;
        }
    }
    return p;
}

} // namespace Taskdata_tool
