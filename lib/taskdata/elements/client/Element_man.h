// Client::Element_man: the application's handle to one task data tree and its element manager.
//
// Copies share the manager (a shared pointer); the handle keeps it alive. create() makes a new
// manager, destroy() drops its tree for every holder (every element handle of it turns empty)
// and lets go of this handle's reference. What the client side keeps per manager (load and
// save paths, the format version to write, the time source) is shared by every handle of the
// same manager. Threads: any; loading and saving run on the calling thread.
#pragma once

#include <taskdata/common/DDI_table.h>
#include <taskdata/common/String_filter.h>
#include <taskdata/elements/base/Element_man.h>
#include <taskdata/elements/client/Element.h>

#include <platform/iso/Position.h>

#include <QUrl>

namespace Iso {
class Time_source;
}

namespace TC {
namespace Task_data {

class XML_interface;

namespace Elements {
namespace Client {

class Task_data;
class Link_lst;
class Link_group;
class Attached_file;

// The manufacturer file type code written into an attached file's type attribute.
enum Proprietery_file_types : quint8 {
    proprietary_file_other = 1,
    proprietary_file_shapefile = 2, // a shapefile set (.shp, .shx, .dbf) packed as one file
    proprietary_file_image = 3,
    proprietary_file_document = 4,
};

class KTD_EXPORT Element_man
{
public:
    Element_man() = default;
    explicit Element_man(const QSharedPointer<Base::Element_man>& man) : m_man(man) {}

    // --- life ---
    static Element_man create();
    // Drops the tree (root and link list) for every holder and this handle's reference.
    void destroy();
    static void destroy(Element_man eman) { eman.destroy(); }
    bool valid() const { return !m_man.isNull(); }
    explicit operator bool() const { return valid(); }
    bool operator==(const Element_man& o) const { return m_man == o.m_man; }
    bool operator!=(const Element_man& o) const { return !(*this == o); }
    QSharedPointer<Base::Element_man> get_eman_real() const { return m_man; }

    // --- root ---
    // A new empty document of the format version set with set_xml_version() (default 4),
    // replacing the tree's root.
    Task_data create_client_root();
    Task_data get_client_root() const;
    // The handle of a base element of this tree given by address (item models keep them);
    // empty when no element of the tree has that address. Walks the tree.
    Element get_client_element(const void* base_element) const;
    Link_lst link_list() const;
    // The link group of the link list that holds GUIDs (type 1), if there is one.
    Link_group guid_group() const;

    // --- loading and saving ---
    bool load_xml(XML_interface& xi);
    bool save_xml(XML_interface& xi);
    // Loads the directory `path` (or the main file in it); the filter chooses the proprietary
    // child elements read. The path is kept as the load path.
    bool load_from_xml(const char* path, String_filter filter = String_filter());
    // Saves into the directory `path` (created when missing) in the version set with
    // set_xml_version(), or the document's own.
    bool save_to_xml(const char* path, bool keep_proprietary = true);
    // Elements written so far and in all, while a save through this manager runs; false when
    // none runs.
    bool get_save_progress(int& done, int& total) const;
    void set_taskdata_load_path(const QString& path);
    QString get_taskdata_load_path() const;
    void set_taskdata_save_path(const QString& path);
    QString get_taskdata_save_path() const;
    QString find_file_path(const QString& name) const;
    void set_xml_version(int version);
    int get_xml_version() const; // the version set, else the one last loaded, else 4

    // --- identifiers ---
    bool check_uid_free(const QString& prefix, int n) const;
    int get_free_uid(const QString& prefix, bool positive) const;

    // --- attached files ---
    // Records the file `name` of the task data directory as an attached file of the document
    // (created or updated): its type, the name of the file it came from and whether it is to be
    // kept when the data goes back to the farm (preserve 1) or only on the terminal (2). A file
    // at `source` that is not yet in the directory is copied there (atomically). False when
    // there is no document, the name does not fit, or the copy failed.
    bool set_attached_file(const QByteArray& name, Proprietery_file_types type, const QString& source,
                           bool preserve = true);
    // Path of the attached file `name` in the task data directory; empty when it is not
    // attached or not there.
    QString get_attached_file(const QByteArray& name) const;

    // --- terminal state ---
    void set_cur_position(const Iso::Position& position);
    Iso::Position get_cur_position() const;
    QPointF get_cur_pos() const; // x longitude, y latitude
    void set_time_source(Iso::Time_source* source);
    Iso::Time_source* get_time_source() const;
    const QVector<DDI_table::Entry>& get_ddi_list() const;

    // --- remote access: not available in this build, every call answers false ---
    bool start_remote_server(unsigned short port);
    bool stop_remote_server();
    bool start_remote_client(const QUrl& url);
    bool stop_remote_client();

    // The element of kind T (a per-kind handle) with identifier number n; empty when no
    // element of that kind bears it.
    template <class T>
    T find_element(int n) const;

private:
    QSharedPointer<Base::Element_man> m_man;
};

} // namespace Client
} // namespace Elements
} // namespace Task_data
} // namespace TC
