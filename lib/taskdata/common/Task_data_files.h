// Task_data_files: reads and writes a whole task data directory for XML_interface -- the main
// document, its external files (XFR references to XFC files), individually saved elements,
// "LINKLIST.XML" and "GUIDLIST.XML" -- and knows which files the elements of a tree refer to.
//
// Ownership: stateless functions. What must outlive one run (the format version a document was
// read or created with, which top-level elements came from which external file) is kept with
// the element manager, so a tree loaded through one interface can be saved through another.
// Threads: the thread running the XML_interface's load or save, which must be the only one
// changing the tree meanwhile.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QByteArray>
#include <QPair>
#include <QSharedPointer>
#include <QString>
#include <QVector>

namespace TC {
namespace Task_data {

class XML_interface;

namespace Elements {
namespace Base {
class Element;
class Element_man;
class Task_data;
} // namespace Base
} // namespace Elements

class KTD_EXPORT Task_data_files
{
public:
    // One file an element refers to, by the name the element gives ("GRD00001.BIN").
    struct Referenced_file
    {
        QString name;
        QString tag;    // XML code of the referring element ("GRD", "TLG", "PNT", "AFE", "XFR")
        QString source = QString(); // the name the data gave, when the library writes another ("TLG0001.BIN")
    };
    // The file in `dir`: under the name the data gave first, then under the name written.
    static QString find(const QString& dir, const Referenced_file& file);
    // The name the format gives a file name attribute (grid, point file, external file) that
    // names its file by a code and a number: "GRD00001" for "GRD1" or "grd00001" (code "GRD"; an
    // empty code admits any element code). Empty when the text is no such name. A save writes this
    // name, for the attribute and the file, unless another element uses it already.
    static QString format_file_name(const QString& text, const QString& code);

    static bool load(XML_interface& xi, const QSharedPointer<Elements::Base::Element_man>& man);
    static bool save(XML_interface& xi, const QSharedPointer<Elements::Base::Element_man>& man);

    // The autosave's writes, in two steps: the documents are made in memory (while the tree is
    // held), then written in one all-or-nothing save of the output directory, in the order
    // given (the directory locked meanwhile). Nothing is copied along.
    using Files = QVector<QPair<QString, QByteArray>>; // file name, content
    // "TASKDATA.XML" (last), its external files and "GUIDLIST.XML"; individually saved
    // elements are written as references when the interface says so.
    static bool main_files(XML_interface& xi, const QSharedPointer<Elements::Base::Element_man>& man, Files& files);
    static bool link_list_file(XML_interface& xi, const QSharedPointer<Elements::Base::Element_man>& man,
                               Files& files);
    static bool write_files(XML_interface& xi, const Files& files);

    // Every file the tree under `root` refers to, in tree order, each name once: external files
    // ("<XFR A>.XML"), grids ("<GRD G>.BIN"), time logs ("<TLG A>.XML" and ".BIN"), binary
    // point files ("<PNT J>.BIN") and attached files ("<AFE A>").
    static QVector<Referenced_file> referenced_files(const QSharedPointer<Elements::Base::Element>& root);
    // The "%1_%2.XML" files the interface's individual-save settings give the tree.
    static QVector<Referenced_file> individual_files(const XML_interface& xi,
                                                     const QSharedPointer<Elements::Base::Element>& root);

    static QSharedPointer<Elements::Base::Task_data>
    create_document(const QSharedPointer<Elements::Base::Element_man>& man, int format_version);
    // The format version save() writes: the one set on the interface, else the document's own,
    // unless its content needs version 4.
    static int version_to_write(const XML_interface& xi, const QSharedPointer<Elements::Base::Element_man>& man);
    // The format version the manager's document was read or created with; 0 when unknown.
    static int document_format_version(const QSharedPointer<Elements::Base::Element_man>& man);
    // The external file (XFR file name, without extension) a top-level element was read from;
    // empty when it stands in the main document.
    static QString external_origin(const QSharedPointer<Elements::Base::Element_man>& man,
                                   const Elements::Base::Element* element);

private:
    // version_to_write(), which a save that chose none keeps on the interface (with a warning
    // when it is not the document's own).
    static int writing_version(XML_interface& xi, const QSharedPointer<Elements::Base::Element_man>& man);
};

} // namespace Task_data
} // namespace TC
