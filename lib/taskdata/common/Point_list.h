// Point_list: the points of one point-carrying element, and the binary point file that holds
// them in format version 4 (one fixed-size little-endian record per point, no header).
//
// In a task data tree a PNT element whose J attribute names a file stands for every point of
// that file: its attributes left empty say which fields each record carries (the presence
// mask), the others give the values all points share (the default point). The tree keeps such
// a list with its PNT element; a list can also be used on its own. Shared data, copy-on-write:
// copies are cheap and independent. Threads: as any Qt value class, one thread per copy.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QPointF>
#include <QSharedDataPointer>
#include <QSharedPointer>
#include <QString>

#include <vector>

class QXmlStreamReader;
class QXmlStreamWriter;

namespace TC {
namespace Task_data {

class XML_interface;

namespace Elements {
namespace Base {
class Element;
}
} // namespace Elements

struct KTD_EXPORT Point
{
    // PointType of format version 4.
    enum Type : quint8 {
        flag = 1,
        other = 2,
        field_access = 3,
        storage = 4,
        obstacle = 5,
        guidance_reference_a = 6,
        guidance_reference_b = 7,
        guidance_reference_centre = 8,
        guidance_point = 9,
        partfield_reference = 10,
        homebase = 11
    };
    quint8 type = 0;
    quint8 colour = 0;
    quint8 icon_id = 0;
    qint32 up = 0; // millimetres
    double north = 0.0; // degrees
    double east = 0.0;  // degrees
    double horizontal_accuracy = 0.0; // metres
    double vertical_accuracy = 0.0;   // metres
    QString designator;
};

class KTD_EXPORT Point_list
{
public:
    // Presence mask bits, in record order.
    enum Field_bit : int {
        bit_type = 1,
        bit_north = 2,
        bit_east = 4,
        bit_up = 8,
        bit_colour = 16,
        bit_horizontal_accuracy = 32,
        bit_vertical_accuracy = 64,
        all_fields = 127
    };
    // Accuracies are stored as unsigned 16-bit millimetres: larger values are written as this.
    static constexpr double max_accuracy = 65.0;

    Point_list();
    Point_list(const Point_list& other);
    Point_list& operator=(const Point_list& other);
    ~Point_list();

    // --- per point (an index at or beyond the count reads 0 and writes nothing) ---
    quint8 get_type(unsigned i) const;
    void set_type(unsigned i, quint8 type);
    QString get_designator(unsigned i) const;
    void set_designator(unsigned i, const QString& d);
    double get_north(unsigned i) const;
    void set_north(unsigned i, double north);
    double get_east(unsigned i) const;
    void set_east(unsigned i, double east);
    // x = east (longitude), y = north (latitude).
    QPointF get_east_north(unsigned i) const;
    QPointF qpoint(unsigned i) const { return get_east_north(i); }
    qint32 get_up(unsigned i) const;
    void set_up(unsigned i, qint32 up_mm);
    quint8 get_colour(unsigned i) const;
    void set_colour(unsigned i, quint8 colour);
    // A point's id is its index.
    int get_id(unsigned i) const { return i < get_num_points() ? int(i) : 0; }
    void set_id(unsigned, int) {}
    double get_horizontal_accuracy(unsigned i) const;
    void set_horizontal_accuracy(unsigned i, double metres);
    double get_vertical_accuracy(unsigned i) const;
    void set_vertical_accuracy(unsigned i, double metres);
    quint8 get_icon_id(unsigned i) const;
    void set_icon_id(unsigned i, quint8 icon);
    const Point* point(unsigned i) const;

    unsigned get_num_points() const;
    void reserve(unsigned n);
    // A copy of the default point; answers its index.
    unsigned append_point();
    unsigned append_point(double north, double east);
    bool remove_point(unsigned i);
    void clear_points();
    // index < 0: everything of `from` (points, default point, binary settings); otherwise
    // point `index` of `from` is appended.
    void copy(const Point_list& from, int index);

    // The values every point starts from (the attributes the XML element gives).
    const Point& default_point() const;
    Point& default_point();

    // --- binary point file ---
    bool get_is_binary() const;
    void set_binary(bool binary, int presence_mask);
    int presence_mask() const;
    // The file's name as the element gives it (J, without the ".BIN" extension).
    QString get_file_name() const;
    // Where load_bin() reads: `dir`/`name`.BIN, found regardless of case. declared_length: the
    // element's K (0 = unknown).
    void set_file(const QString& name, const QString& dir, quint32 declared_length = 0);
    QString file_dir() const;
    quint32 declared_length() const;
    bool is_loaded() const;
    // Points were changed (set, added, removed) since the file was read: a save writes the file
    // anew. An unchanged file is left as it is (the directory writer copies it along).
    bool is_modified() const;
    // Bytes per record: the sizes of the fields present.
    int binrecsz() const;
    // Records the file holds: the declared length, or the file's size when the length is 0 or
    // larger than the file, divided by the record size; 0 with a record size of 0.
    qint64 numbinpts() const;
    // Reads the file record by record onto copies of the default point; stops at the first
    // short read. False (list empty) when the file cannot be opened. Does nothing when the
    // list is not binary or already loaded.
    bool load_bin();
    // The same from bytes in memory (the file's content); answers the number of points read.
    qint64 load_bin_data(const char* data, qint64 size);
    // Drops loaded points: the file stays the source of truth.
    void unload_bin();
    // The records of the points, as the file holds them.
    QByteArray bin_records() const;
    // Writes the records as `name`.BIN of the interface's output directory (atomically);
    // false, with the interface failed, when it cannot.
    bool write_bin(XML_interface& xi) const;
    // The XML element "PNT" for the list (fields of the file as empty attributes, the others
    // with the default point's values, J and K), then the file.
    bool save_bin(QXmlStreamWriter& w, XML_interface& xi) const;

    // --- in a task data tree ---
    // Reads the PNT element at the reader into `element` (a PNT) and takes the list's settings
    // from it; a binary list loads its file from the interface's directory.
    bool load_xml(const QSharedPointer<Elements::Base::Element>& element, QXmlStreamReader& r, XML_interface& xi);
    // Takes the binary settings and default point from a PNT element that was read.
    void from_element(const Elements::Base::Element& element, const QString& dir);
    // Writes the list through `element` (a PNT): binary lists as one element and their file,
    // others as one PNT per point.
    bool save_xml(const QSharedPointer<Elements::Base::Element>& element, QXmlStreamWriter& w, XML_interface& xi) const;
    // Gives the PNT element the attributes the list implies (empty fields of the file, shared
    // values, J, K), without change events.
    void to_element(Elements::Base::Element& element) const;

private:
    struct Data;
    QSharedDataPointer<Data> d;
};

} // namespace Task_data
} // namespace TC
