// What the subcommands of the `taskdata` tool share: loading a task data directory through the
// library, naming elements for operators, walking the tree and writing JSON.
// A Loaded_dir owns its element manager, its tree and its XML_interface; everything here runs on
// the tool's one thread.
#pragma once

#include <taskdata/common/XML_interface.h>
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QTextStream>

#include <functional>
#include <memory>

namespace Taskdata_tool {

using TC::Task_data::XML_interface;
using TC::Task_data::Elements::Base::Element;
using TC::Task_data::Elements::Base::Element_man;

// Exit codes shared by every subcommand (also listed by `taskdata --help`).
enum Exit_code : int {
    exit_ok = 0,
    exit_problems = 1,     // check found something, ddi found nothing
    exit_unusable = 2,     // bad usage, or the input directory cannot be loaded
    exit_write_failed = 3, // the output (a directory, a file, standard output) could not be written
};

// The root attributes of the main file as written there. The tree keeps the format version only
// through the attribute families of the root, which fold every version into what they can write,
// so the text is read separately for reporting.
struct Document_header
{
    QString root_tag;
    QString version_major;
    QString version_minor;
};

struct Loaded_dir
{
    QString dir;       // absolute path of the task data directory
    QString main_file; // absolute path of its main file as found (any letter case)
    Document_header header;
    QSharedPointer<Element_man> man;
    std::unique_ptr<XML_interface> xi;
    QString error; // why it could not be loaded; empty when it was

    QSharedPointer<Element> root() const { return man ? man->root() : QSharedPointer<Element>(); }
    // The major format version the library read from the main file.
    int version() const { return xi ? xi->format_version() : 4; }
};

// Resolves DIR (a directory or the main file in it) and loads it. False with out.error when the
// directory or its main file is missing or the main file cannot be read; what was read before an
// error stays in out.man.
bool load_directory(const QString& arg, Loaded_dir& out);

// Reads only the root start tag of an XML file.
Document_header read_header(const QString& path);

// A file of `dir` by name regardless of case; empty when absent. Prints nothing.
QString find_in_dir(const QString& dir, const QString& name);

// "TSK1" for an element with an identifier, "TZN[2]" (1-based position among the children of its
// kind) otherwise.
QString element_name(const Element* e);
// Names from below the document root down to `e`: "TSK1/TLG00001", "PFD1/PLN[1]/LSG[1]/PNT[3]".
// The root itself is named by its tag.
QString element_path(const Element* e);
// True for the roots that are no element of the data (ISO11783_TaskData, ISO11783LinkList, XFC).
bool is_document_root(const QString& tag);

// Visits e and all its descendants, parents before children.
void walk(const QSharedPointer<Element>& e, const std::function<void(const QSharedPointer<Element>&)>& visit);
// Visits the task data tree and the link list tree.
void walk_all(const Loaded_dir& d, const std::function<void(const QSharedPointer<Element>&)>& visit);

// Task status names by value; "" for a value outside them.
QString task_status_name(int status);

// Prints a JSON document (indented) on the stream.
void print_json(QTextStream& out, const QJsonObject& o);

// A progress line on standard error ("\rconvert: 45% (1234/5678)"), shown only when standard
// error is a terminal and at most ten times a second; the line is cleared when done.
class Progress
{
public:
    explicit Progress(const QString& what);
    ~Progress();
    void update(qint64 done, qint64 total);

private:
    QString m_what;
    bool m_shown = false;
    bool m_terminal = false;
    QElapsedTimer m_since;
};

// A result file a command writes. "-" is standard output; an existing device or FIFO is
// written to directly; a regular file (or none yet) is written under a temporary name and
// replaces the old one only when all of it is written, so a failure leaves the old file.
class Output_file
{
public:
    Output_file(const QString& path, QFile& standard_output);
    ~Output_file();
    // False with error() when the file cannot be created.
    bool open();
    QIODevice* device();
    // Flushes, syncs and puts the file in place; false with error() when any write failed.
    bool commit();
    QString error() const { return m_error; }
    bool is_standard_output() const { return m_path == QLatin1String("-"); }

private:
    QString m_path;
    QFile& m_stdout;
    QFile m_file;
    struct Transaction;
    std::unique_ptr<Transaction> m_t;
    int m_fd = -1;
    QString m_error;
};

// Splits "--name=value" and "--name value" options. Unknown options and missing values end in
// an error text.
struct Parsed_args
{
    QStringList positional;
    QHash<QString, QString> values; // options with a value
    QSet<QString> flags;            // options without one
    QString error;
};
Parsed_args parse_args(const QStringList& args, const QSet<QString>& flag_options, const QSet<QString>& value_options);

} // namespace Taskdata_tool
