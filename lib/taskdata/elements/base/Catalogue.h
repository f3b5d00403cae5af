// The typed element classes of ISO 11783-10 (Task, Partfield, Device_element, ...).
//
// Every class is expanded from the one table in catalogue.def: its static attribute specs
// (`designator_spec`, `status_spec_v4`, ...), its attributes as inline members (`designator`,
// `status`, ...), its child lists (`time_logs`, `polygons`, ...) and the dispatch the readers
// and writers use. Elements are created through QSharedPointer<Class>::create(manager) or by a
// list (`task->time_logs.create()`). Threads: as for Element.
#pragma once

#include <taskdata/attributes/base/Datetime.h>
#include <taskdata/attributes/base/Float.h>
#include <taskdata/attributes/base/Integer.h>
#include <taskdata/attributes/base/LinkedID.h>
#include <taskdata/attributes/base/String.h>
#include <taskdata/attributes/base/UniqueID.h>
#include <taskdata/common/Point_list.h>
#include <taskdata/elements/base/Element.h>
#include <taskdata/elements/base/Element_list.h>
#include <taskdata/elements/base/catalogue.def>

#include <QObject>

#include <memory>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Base {

#define KTD_NOTHING(...)

// --- static specs (inline: defined once for the whole program, in declaration order) ---
#define KTD_SPEC_I(Kind, m, x, v, r, mn, mx, d)                                               \
    inline static Attributes::Base::Kind::Spec m##_spec{x, v, r, mn, mx, d};
#define KTD_SPEC_H(Kind, m, x, v, r, mn, mx, d, w)                                            \
    inline static Attributes::Base::Kind::Spec m##_spec{x, v, r, mn, mx, d, w, 16};
#define KTD_SPEC_N(m, x, v, r)                                                                \
    inline static Attributes::Base::UInt64::Spec m##_spec{x, v, r, 0ull, ~0ull, 0ull, 16, 16};
#define KTD_SPEC_F(m, x, v, r, mn, mx, d, dec)                                                \
    inline static Attributes::Base::Float::Spec m##_spec{x, v, r, mn, mx, d, dec, 0, 10};
#define KTD_SPEC_S(m, x, v, r, len) inline static Attributes::Base::String::Spec m##_spec{x, v, r, len};
#define KTD_SPEC_D(m, x, v, r) inline static Attributes::Base::Datetime::Spec m##_spec{x, v, r};
#define KTD_SPEC_U(m, x, v, r, pfx, w) inline static Attributes::Base::UniqueID::Spec m##_spec{x, v, r, pfx, w, 10};
#define KTD_SPEC_L(m, x, v, r, T, tag) inline static Attributes::Base::LinkedID::Spec m##_spec{x, v, r, tag, 0, 10};
#define KTD_SPEC_I2(Kind, m, x, v, r, k1, mn1, mx1, d1, k2, mn2, mx2, d2)                     \
    inline static Attributes::Base::Attribute::Variant_map m##_variants;                       \
    inline static Attributes::Base::Kind::Spec m##_spec_v##k1{x, v, r, mn1, mx1, d1, 0, 10, &m##_variants, k1}; \
    inline static Attributes::Base::Kind::Spec m##_spec_v##k2{x, v, r, mn2, mx2, d2, 0, 10, &m##_variants, k2};
#define KTD_SPEC_I3(Kind, m, x, v, r, k1, mn1, mx1, d1, k2, mn2, mx2, d2, k3, mn3, mx3, d3)   \
    inline static Attributes::Base::Attribute::Variant_map m##_variants;                       \
    inline static Attributes::Base::Kind::Spec m##_spec_v##k1{x, v, r, mn1, mx1, d1, 0, 10, &m##_variants, k1}; \
    inline static Attributes::Base::Kind::Spec m##_spec_v##k2{x, v, r, mn2, mx2, d2, 0, 10, &m##_variants, k2}; \
    inline static Attributes::Base::Kind::Spec m##_spec_v##k3{x, v, r, mn3, mx3, d3, 0, 10, &m##_variants, k3};
#define KTD_SPEC_S2(m, x, v, r, k1, len1, k2, len2)                                           \
    inline static Attributes::Base::Attribute::Variant_map m##_variants;                       \
    inline static Attributes::Base::String::Spec m##_spec_v##k1{x, v, r, len1, false, &m##_variants, k1}; \
    inline static Attributes::Base::String::Spec m##_spec_v##k2{x, v, r, len2, false, &m##_variants, k2};
#define KTD_SPECS(Cls)                                                                         \
    KTD_##Cls(KTD_SPEC_I, KTD_SPEC_H, KTD_SPEC_N, KTD_SPEC_F, KTD_SPEC_S, KTD_SPEC_D, KTD_SPEC_U, KTD_SPEC_L, \
              KTD_SPEC_I2, KTD_SPEC_I3, KTD_SPEC_S2, KTD_NOTHING)

// --- attribute members ---
#define KTD_MEMBER_I(Kind, m, ...) Attributes::Base::Bound<Attributes::Base::Kind, m##_spec> m;
#define KTD_MEMBER_N(m, ...) Attributes::Base::Bound<Attributes::Base::UInt64, m##_spec> m;
#define KTD_MEMBER_F(m, ...) Attributes::Base::Bound<Attributes::Base::Float, m##_spec> m;
#define KTD_MEMBER_S(m, ...) Attributes::Base::Bound<Attributes::Base::String, m##_spec> m;
#define KTD_MEMBER_D(m, ...) Attributes::Base::Bound<Attributes::Base::Datetime, m##_spec> m;
#define KTD_MEMBER_U(m, ...) Attributes::Base::Bound<Attributes::Base::UniqueID, m##_spec> m;
#define KTD_MEMBER_L(m, x, v, r, T, tag) Attributes::Base::Bound<Attributes::Base::LinkedID_t<T>, m##_spec> m;
#define KTD_MEMBER_I2(Kind, m, x, v, r, k1, mn1, mx1, d1, k2, ...)                            \
    Attributes::Base::Bound<Attributes::Base::Kind, m##_spec_v##k2> m;
#define KTD_MEMBER_I3(Kind, m, x, v, r, k1, mn1, mx1, d1, k2, mn2, mx2, d2, k3, ...)          \
    Attributes::Base::Bound<Attributes::Base::Kind, m##_spec_v##k3> m;
#define KTD_MEMBER_S2(m, x, v, r, k1, len1, k2, len2) Attributes::Base::Bound<Attributes::Base::String, m##_spec_v##k2> m;
#define KTD_MEMBERS(Cls)                                                                       \
    KTD_##Cls(KTD_MEMBER_I, KTD_MEMBER_I, KTD_MEMBER_N, KTD_MEMBER_F, KTD_MEMBER_S, KTD_MEMBER_D, KTD_MEMBER_U, \
              KTD_MEMBER_L, KTD_MEMBER_I2, KTD_MEMBER_I3, KTD_MEMBER_S2, KTD_NOTHING)

// --- attribute and list indices ---
#define KTD_IDX_K(Kind, m, ...) idx_##m,
#define KTD_IDX_M(m, ...) idx_##m,
#define KTD_ATTRIBUTE_INDICES(Cls)                                                             \
    KTD_##Cls(KTD_IDX_K, KTD_IDX_K, KTD_IDX_M, KTD_IDX_M, KTD_IDX_M, KTD_IDX_M, KTD_IDX_M, KTD_IDX_M, KTD_IDX_K, \
              KTD_IDX_K, KTD_IDX_M, KTD_NOTHING)
#define KTD_LIDX(T, m, tag, v, ...) lidx_##m,
#define KTD_LIST_INDICES(Cls)                                                                  \
    KTD_##Cls(KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, \
              KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_LIDX)

// --- child lists ---
#define KTD_LIST_MEMBER(T, m, tag, v, ...) Element_list_t<T> m{this, tag, v};
#define KTD_LIST_MEMBERS(Cls)                                                                  \
    KTD_##Cls(KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, \
              KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_NOTHING, KTD_LIST_MEMBER)

// The generated part of every element class. Hand-written additions go after it.
#define KTD_ELEMENT_BODY(Cls)                                                                  \
public:                                                                                        \
    KTD_SPECS(Cls)                                                                             \
    enum Attribute_index : unsigned { KTD_ATTRIBUTE_INDICES(Cls) num_attributes };            \
    enum List_index : unsigned { KTD_LIST_INDICES(Cls) num_lists };                           \
    KTD_MEMBERS(Cls)                                                                           \
    KTD_LIST_MEMBERS(Cls)                                                                      \
    explicit Cls(const QWeakPointer<Element_man>& man);                                        \
    ~Cls() override;                                                                           \
    static const Kind_info& static_kind();                                                     \
    static const char* xml_tag();                                                              \
    const Kind_info& kind() const override { return static_kind(); }                          \
    QSharedPointer<Element> create_new(const QSharedPointer<Element>& self,                   \
                                       const QWeakPointer<Element_man>& man) const override;   \
    QString get_tag() const override;                                                          \
    QString get_name(int count = 1) const override;                                            \
    QString get_tr_name(int count = 1) const override;                                         \
    QString get_tr_attribute_name(int index) const override;                                   \
    UI::Chooser_level* create_chooser_level(QWidget* parent) override;                        \
    void _customise_edit_widget(QWidget*) override {}                                         \
    void _customise_element_list(QWidget*) override {}                                        \
    void _customise_chooser(QWidget*) override {}                                             \
    unsigned _num_iso_attributes() const override { return num_attributes; }                  \
    unsigned _num_element_lists() const override { return num_lists; }                        \
    Attributes::Base::Attribute* _attribute(unsigned index) override;                         \
    Attributes::Base::Attribute* _iso_attribute(const QString& name) override;                \
    Element_list* _element_list(unsigned index) override;                                      \
    Element_list* _element_list(const QString& tag) override;                                  \
    int _element_list_index(Element_list* list) override;                                      \
    void register_lookup(const QSharedPointer<Element>& self, int old_id, int new_id,          \
                         const QString& prefix) override;                                      \
                                                                                               \
private:

#define KTD_FORWARD(Cls, Tag, Singular, Plural) class Cls;
KTD_ELEMENT_KINDS(KTD_FORWARD)
#undef KTD_FORWARD

class KTD_EXPORT Allocation_stamp : public Element { KTD_ELEMENT_BODY(Allocation_stamp) };
class KTD_EXPORT Attached_file : public Element { KTD_ELEMENT_BODY(Attached_file) };
class KTD_EXPORT Base_station : public Element { KTD_ELEMENT_BODY(Base_station) };
class KTD_EXPORT Coded_comment : public Element { KTD_ELEMENT_BODY(Coded_comment) };
class KTD_EXPORT Coded_comment_group : public Element { KTD_ELEMENT_BODY(Coded_comment_group) };
class KTD_EXPORT Coded_comment_list_value : public Element { KTD_ELEMENT_BODY(Coded_comment_list_value) };
class KTD_EXPORT Colour_legend : public Element { KTD_ELEMENT_BODY(Colour_legend) };
class KTD_EXPORT Colour_range : public Element { KTD_ELEMENT_BODY(Colour_range) };
class KTD_EXPORT Comment_allocation : public Element { KTD_ELEMENT_BODY(Comment_allocation) };
class KTD_EXPORT Connection : public Element { KTD_ELEMENT_BODY(Connection) };
class KTD_EXPORT Control_assignment : public Element { KTD_ELEMENT_BODY(Control_assignment) };
class KTD_EXPORT Crop_type : public Element { KTD_ELEMENT_BODY(Crop_type) };
class KTD_EXPORT Crop_variety : public Element { KTD_ELEMENT_BODY(Crop_variety) };
class KTD_EXPORT Cultural_practice : public Element { KTD_ELEMENT_BODY(Cultural_practice) };
class KTD_EXPORT Customer : public Element { KTD_ELEMENT_BODY(Customer) };
class KTD_EXPORT Data_log_trigger : public Element { KTD_ELEMENT_BODY(Data_log_trigger) };
class KTD_EXPORT Data_log_value : public Element { KTD_ELEMENT_BODY(Data_log_value) };
class KTD_EXPORT Device : public Element { KTD_ELEMENT_BODY(Device) };
class KTD_EXPORT Device_allocation : public Element { KTD_ELEMENT_BODY(Device_allocation) };
class KTD_EXPORT Device_element : public Element { KTD_ELEMENT_BODY(Device_element) };
class KTD_EXPORT Device_object_reference : public Element { KTD_ELEMENT_BODY(Device_object_reference) };
class KTD_EXPORT Device_process_data : public Element { KTD_ELEMENT_BODY(Device_process_data) };
class KTD_EXPORT Device_property : public Element { KTD_ELEMENT_BODY(Device_property) };
class KTD_EXPORT Device_value_presentation : public Element { KTD_ELEMENT_BODY(Device_value_presentation) };
class KTD_EXPORT External_file_reference : public Element { KTD_ELEMENT_BODY(External_file_reference) };
// Root of an external file: its children are merged where the file's reference stands.
class KTD_EXPORT External_file_contents : public Element { KTD_ELEMENT_BODY(External_file_contents) };
class KTD_EXPORT Farm : public Element { KTD_ELEMENT_BODY(Farm) };
class KTD_EXPORT Grid : public Element { KTD_ELEMENT_BODY(Grid) };
class KTD_EXPORT Guidance_allocation : public Element { KTD_ELEMENT_BODY(Guidance_allocation) };
class KTD_EXPORT GuidanceGroup : public Element { KTD_ELEMENT_BODY(GuidanceGroup) };
class KTD_EXPORT Guidance_pattern : public Element { KTD_ELEMENT_BODY(Guidance_pattern) };
class KTD_EXPORT Guidance_shift : public Element { KTD_ELEMENT_BODY(Guidance_shift) };
class KTD_EXPORT Linestring : public Element { KTD_ELEMENT_BODY(Linestring) };
class KTD_EXPORT Link : public Element { KTD_ELEMENT_BODY(Link) };
class KTD_EXPORT Link_group : public Element { KTD_ELEMENT_BODY(Link_group) };
// Root of "LINKLIST.XML".
class KTD_EXPORT Link_lst : public Element { KTD_ELEMENT_BODY(Link_lst) };
class KTD_EXPORT Operation_technique : public Element { KTD_ELEMENT_BODY(Operation_technique) };
class KTD_EXPORT Operation_technique_practice : public Element { KTD_ELEMENT_BODY(Operation_technique_practice) };
class KTD_EXPORT Operation_technique_reference : public Element { KTD_ELEMENT_BODY(Operation_technique_reference) };
class KTD_EXPORT Partfield : public Element { KTD_ELEMENT_BODY(Partfield) };
// A point, or -- when J names a binary point file -- every point of that file (Point_list).
class KTD_EXPORT Point : public Element
{
    KTD_ELEMENT_BODY(Point)
public:
    // The points of the element's binary point file; null for a point of its own.
    Point_list* binary_points() const { return m_binary.get(); }
    Point_list& make_binary_points();
    // Announces a change made through binary_points() (update kind 4, binary data modified).
    void binary_points_changed() { notify_changed(4); }
    // Every binary point file the tree names, read from the interface's directory (after a
    // load). Answers the number of points read.
    static qint64 load_binary_files(const QSharedPointer<Element>& root, XML_interface& xi);
    bool set(QSharedPointer<Element>& self, Element* other, bool copy_children, bool notify, QMap<QUuid, QUuid> guid_map,
             QSet<QByteArray> skip_attributes, bool copy_ids) override;
    // A loaded binary list writes its file too, through the interface.
    bool _save_xml(const QSharedPointer<Element>& self, QXmlStreamWriter& w, XML_interface& xi,
                   XML_read_write_parts parts) override;

private:
    std::unique_ptr<Point_list> m_binary;
};
class KTD_EXPORT Polygon : public Element { KTD_ELEMENT_BODY(Polygon) };
class KTD_EXPORT Position : public Element { KTD_ELEMENT_BODY(Position) };
class KTD_EXPORT Process_data_variable : public Element { KTD_ELEMENT_BODY(Process_data_variable) };
class KTD_EXPORT Product : public Element { KTD_ELEMENT_BODY(Product) };
class KTD_EXPORT Product_allocation : public Element { KTD_ELEMENT_BODY(Product_allocation) };
class KTD_EXPORT Product_group : public Element { KTD_ELEMENT_BODY(Product_group) };
class KTD_EXPORT Product_relation : public Element { KTD_ELEMENT_BODY(Product_relation) };
class KTD_EXPORT Task : public Element { KTD_ELEMENT_BODY(Task) };
class KTD_EXPORT Task_controller_capabilities : public Element { KTD_ELEMENT_BODY(Task_controller_capabilities) };
// Root of "TASKDATA.XML".
class KTD_EXPORT Task_data : public Element { KTD_ELEMENT_BODY(Task_data) };
class KTD_EXPORT Time : public Element { KTD_ELEMENT_BODY(Time) };
class KTD_EXPORT Time_log : public Element
{
    KTD_ELEMENT_BODY(Time_log)
public:
    // The terminal appended to this time log's binary file: posts the binary-appended update to
    // the receivers of the time log and of its ancestors, and emits the named signal
    // "timelog_write(int32_t,uint32_t)" of the task it belongs to with the two numbers (the
    // records and the bytes the file holds now). Neither stamps nor the change counter move:
    // the XML did not change. The caller holds the time log's data lock.
    void notify_timelog_write(int records, unsigned int bytes);
};
class KTD_EXPORT Treatment_zone : public Element { KTD_ELEMENT_BODY(Treatment_zone) };
class KTD_EXPORT Value_presentation : public Element { KTD_ELEMENT_BODY(Value_presentation) };
class KTD_EXPORT Worker : public Element { KTD_ELEMENT_BODY(Worker) };
class KTD_EXPORT Worker_allocation : public Element { KTD_ELEMENT_BODY(Worker_allocation) };

// Every kind of the catalogue, for tools and tests that walk them all.
struct KTD_EXPORT Catalogue
{
    // Kind descriptions in catalogue order.
    static const QVector<const Kind_info*>& kinds();
    static const Kind_info* find(const QString& tag);
    // A fresh element of the kind with that XML code; null for an unknown code.
    static QSharedPointer<Element> create(const QString& tag, const QWeakPointer<Element_man>& man);
};

} // namespace Base
} // namespace Elements
} // namespace Task_data
} // namespace TC
