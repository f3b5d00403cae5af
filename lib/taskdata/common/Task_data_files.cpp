#include "Task_data_files.h"

#include "Fast_xml_reader.h"
#include "File_lookup.h"
#include "Save_transaction.h"
#include "Symlink_policy.h"
#include "XML_interface.h"

#include <platform/util/Trace_print.h>

#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMetaType>
#include <QSet>
#include <QUuid>
#include <QVariant>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>

namespace TC {
namespace Task_data {

using Elements::Base::Element;
using Elements::Base::Element_list;
using Elements::Base::Element_man;

using Document_state = Element_man::Document_origin;

namespace {

QString tr(const char* text) { return QCoreApplication::translate("XML_interface", text); }

const QString xfr_tag = QStringLiteral("XFR");
const QString xfc_tag = QStringLiteral("XFC");
const QString uid_xfr = QStringLiteral("P231_UID_XFR");
const QString guid_xfr = QStringLiteral("P231_GUID_XFR");
const QString ext_par = QStringLiteral("P231_ExtendedPar");
const QString link_list_name = QStringLiteral("LINKLIST.XML");
const QString guid_list_name = QStringLiteral("GUIDLIST.XML");
const QString guid_list_root = QStringLiteral("ISO11783_GuidList");

// Visits `e` and everything below it, parents first. Unlocked, the caller answers for the tree
// (a Tree_locker holds it, or it is being loaded: a lock per element would cost a load about a
// quarter of its time). Locked, each
// element is visited under its own lock, taken on the way down and held while its subtree is
// walked, so that changes elsewhere in the tree go on meanwhile (autosave); an element this
// thread holds already is not taken again.
template <bool locked = false, class F>
void walk(Element* e, const F& f)
{
    std::optional<Elements::Base::Element_locker_new> lock;
    if (locked && !e->held_by_current_thread())
        lock.emplace(e->get_sp(), -1);
    f(e);
    const unsigned lists = e->_num_element_lists();
    for (unsigned l = 0; l < lists; ++l)
        for (const auto& c : e->_element_list(l)->elements())
            walk<locked>(c.data(), f);
}

// File name attributes that name their file by the element's code and a number, given with
// another width or case than the format's five digits ("GRD1", "grd00001"): the name the format
// gives them ("GRD00001"), by attribute. A name already used by another element stays as it is.
QHash<const void*, QString> file_name_rewrites(Element* root)
{
    QVector<QPair<Attributes::Base::String*, QString>> names; // attribute, code it must start with
    walk(root, [&](Element* e) {
        using namespace Elements::Base;
        if (e->is_kind("GRD"))
            names.append({&static_cast<Grid*>(e)->filename, QStringLiteral("GRD")});
        else if (e->is_kind("PNT"))
            names.append({&static_cast<Elements::Base::Point*>(e)->filename, QStringLiteral("PNT")});
        else if (e->is_kind("XFR"))
            names.append({&static_cast<External_file_reference*>(e)->filename, QString()});
    });
    QSet<QString> used;
    for (const auto& n : names)
        used.insert(n.first->get_string().toUpper());
    QHash<const void*, QString> out;
    for (const auto& n : names) {
        const QString text = n.first->get_string();
        const QString name = Task_data_files::format_file_name(text, n.second);
        if (name.isEmpty() || name == text || used.contains(name))
            continue;
        used.insert(name);
        out.insert(n.first, name);
    }
    return out;
}

// Reports what a loaded tree lacks: files its elements refer to, identifiers refused.
void check_tree(XML_interface& xi, const QSharedPointer<Element>& root)
{
    for (const Task_data_files::Referenced_file& f : Task_data_files::referenced_files(root)) {
        if (f.tag == xfr_tag) // looked up while reading
            continue;
        const QString as_given = f.source.isEmpty() ? QString() : xi.find_optional(f.source);
        if (as_given.isEmpty())
            xi.infilepath(f.name);
        else
            xi.note_used_file(QFileInfo(as_given).fileName());
    }
    const QSharedPointer<Element_man> man = root->man();
    walk(root.data(), [&](Element* e) {
        Attributes::Base::UniqueID* id = e->id_attribute();
        if (!id)
            return;
        if (id->present() && !id->valid())
            xi.add_warning(tr("%1 \"%2\" has an identifier that is malformed or already taken")
                               .arg(e->get_tag(), e->get_designator()));
        // An identifier the format requires is never left out: one missing or unreadable is
        // made as for a new element.
        if (!id->has_number() && id->base_spec().required && man) {
            id->set_to_default(e->get_sp(), *man, false);
            id->set_flag_noevent(Attributes::Base::Attribute::flag_valid, false);
            id->set_flag_noevent(Attributes::Base::Attribute::flag_empty, false);
            xi.add_warning(tr("%1 \"%2\" has no identifier: written as %3")
                               .arg(e->get_tag(), e->get_designator(), id->get_as_string()));
        }
    });
}

// --- reading ---

// Each file is read by Fast_xml_reader when it passes the fast reader's prescan, else by
// QXmlStreamReader (read_xml_file); R is the one reading the current file.
struct Reader
{
    XML_interface& xi;
    QSharedPointer<Element> root;
    Document_state& state;
    // Occurrences per tag across the main file, its external files and individual files, so
    // that the n-th child of a tag is always the same element and a reload stays in place.
    QHash<QString, int> counters;

    template <class R>
    bool read_children(R& r, const QString& path, const QString& external);
    template <class R>
    bool read_individual(R& r, bool by_guid);
    bool read_external(const QSharedPointer<Element>& reference);
};

template <class R>
bool Reader::read_children(R& r, const QString& path, const QString& external)
{
    while (!r.atEnd()) {
        const QXmlStreamReader::TokenType t = r.readNext();
        if (t == QXmlStreamReader::EndElement)
            return true;
        if (t != QXmlStreamReader::StartElement)
            continue;
        if (xi.cancelled()) {
            xi.set_fail(tr("Cancelled"));
            return false;
        }
        const QString name = r.name().toString();
        if (Element_list* list = root->find_list(name)) {
            // An external file holds top-level objects only; a reference in it would nest.
            if (!external.isEmpty() && name == xfr_tag) {
                xi.add_warning(tr("External file %1 refers to another external file").arg(path));
                r.skipCurrentElement();
                continue;
            }
            const int index = counters[name]++;
            const int before = list->count();
            if (!list->load_xml_from(root, r, xi, index))
                return false;
            if (list->isEmpty())
                continue;
            const QSharedPointer<Element> e = index < before ? list->at(index) : list->at(list->count() - 1);
            if (!external.isEmpty())
                state.external.append(qMakePair(e.toWeakRef(), external));
            else if (name == xfr_tag && !read_external(e))
                return false;
            continue;
        }
        if (name == uid_xfr || name == guid_xfr) {
            if (!read_individual(r, name == guid_xfr))
                return false;
            continue;
        }
        if (name == ext_par && xi.admits(QStringView(name))) {
            bool has_key = false, has_value = false;
            const QStringView key = r.attribute_value(QLatin1String("P231_key"), &has_key);
            const QStringView value = r.attribute_value(QLatin1String("P231_value"), &has_value);
            if (has_key && has_value)
                root->set_extended_parameter(key.toString(), value.toString());
        } else if (root->read_foreign_child_from(r, xi)) {
            continue;
        }
        r.skipCurrentElement();
    }
    if (r.hasError()) {
        r.fail(xi, path);
        return false;
    }
    return true;
}

template <class R>
bool Reader::read_individual(R& r, bool by_guid)
{
    return root->load_individual_reference_from(root, r, xi, by_guid, counters) && !r.hasError();
}

bool Reader::read_external(const QSharedPointer<Element>& reference)
{
    const QString base = static_cast<Elements::Base::External_file_reference*>(reference.data())->filename.get_string();
    if (base.isEmpty()) {
        xi.add_warning(tr("External file reference without a file name"));
        return true;
    }
    const QString path = xi.infilepath(base + QStringLiteral(".XML"));
    if (path.isEmpty())
        return true;
    bool opened = false;
    const bool ok = read_xml_file(path, opened, xi, [&](auto& r) {
        while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
        }
        if (r.tokenType() != QXmlStreamReader::StartElement) {
            if (r.hasError()) {
                r.fail(xi, path);
                return false;
            }
            xi.add_warning(tr("Could not find start tag in %1").arg(path));
            return true;
        }
        if (r.name() != xfc_tag) {
            xi.add_warning(tr("Not a valid external file: %1").arg(path));
            return true;
        }
        const QString previous = xi.cur_infilepath();
        xi.set_cur_infilepath(path);
        const bool ok = read_children(r, path, base);
        xi.set_cur_infilepath(previous);
        return ok;
    });
    if (!opened) {
        xi.add_warning(tr("Could not open %1").arg(path));
        return true;
    }
    return ok;
}

template <class R>
bool read_link_list_from(XML_interface& xi, const QSharedPointer<Element_man>& man, const QString& path, R& r)
{
    xi.note_used_file(QFileInfo(path).fileName());
    while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
    }
    if (r.tokenType() != QXmlStreamReader::StartElement || r.name() != QLatin1String("ISO11783LinkList")) {
        if (r.hasError())
            r.fail(xi, path);
        else
            xi.set_fail(tr("Not a valid LINKLIST.XML"));
        return false;
    }
    QSharedPointer<Element> list = man->link_list();
    if (!list) {
        list = QSharedPointer<Elements::Base::Link_lst>::create(man.toWeakRef());
        man->set_link_list(list);
    }
    const QString previous = xi.cur_infilepath();
    xi.set_cur_infilepath(path);
    const bool ok = list->load_xml_from(list, r, xi, Elements::Base::xml_part_all);
    xi.set_cur_infilepath(previous);
    return ok;
}

template <class R>
bool read_guid_list_from(XML_interface& xi, const QSharedPointer<Element_man>& man, const QString& path, R& r)
{
    xi.note_used_file(QFileInfo(path).fileName());
    while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
    }
    if (r.tokenType() != QXmlStreamReader::StartElement || r.name() != guid_list_root) {
        if (r.hasError())
            r.fail(xi, path);
        else
            xi.set_fail(tr("Not a valid GUIDLIST.XML"));
        return false;
    }
    int depth = 1;
    while (depth > 0 && !r.atEnd()) {
        const QXmlStreamReader::TokenType t = r.readNext();
        if (t == QXmlStreamReader::EndElement) {
            --depth;
            continue;
        }
        if (t != QXmlStreamReader::StartElement)
            continue;
        ++depth;
        if (depth != 2 || r.name() != QLatin1String("GUID"))
            continue;
        const QString id = r.attribute_value(QLatin1String("ID")).toString();
        const QUuid guid(r.attribute_value(QLatin1String("GUID")).toString());
        QString prefix;
        int n = 0;
        if (guid.isNull() || !Attributes::Base::UniqueID::deconstruct_uid_string(prefix, n, id)) {
            xi.add_warning(tr("Bad entry in %1: %2").arg(path, id));
            continue;
        }
        man->register_uid_for_guid(prefix, n, guid);
        man->edit_document_origin([&](Document_state& s) { s.guid_list.insert(qMakePair(prefix, n)); });
    }
    if (r.hasError()) {
        r.fail(xi, path);
        return false;
    }
    return true;
}

// A link or GUID list through whichever reader suits the file.
bool read_optional_list(XML_interface& xi, const QSharedPointer<Element_man>& man, const QString& name)
{
    const QString path = xi.find_optional(name);
    if (path.isEmpty())
        return true;
    bool opened = false;
    const bool ok = read_xml_file(path, opened, xi, [&](auto& r) {
        return name == link_list_name ? read_link_list_from(xi, man, path, r) : read_guid_list_from(xi, man, path, r);
    });
    if (!opened) {
        xi.add_warning(tr("Could not open %1").arg(path));
        return true;
    }
    return ok;
}

// The main file, read by R, and everything it refers to. `set_version` gets the document's
// format version as soon as it is known, before the elements are read.
template <class R>
bool read_document(XML_interface& xi, const QSharedPointer<Element_man>& man, const QString& main_path,
                   const std::function<void(int)>& set_version, R& r)
{
    while (!r.atEnd() && r.readNext() != QXmlStreamReader::StartElement) {
    }
    if (r.tokenType() != QXmlStreamReader::StartElement) {
        // A file without any element says so; one that breaks off in the middle of markup, or
        // holds bytes that are not UTF-8, says where.
        if (r.hasError() && !r.premature_end())
            r.fail(xi, main_path);
        else
            xi.set_fail(tr("Could not find start tag"));
        return false;
    }
    if (r.name() != QLatin1String(Elements::Base::Task_data::static_kind().tag)) {
        xi.set_fail(tr("Not a valid TASKDATA.XML"));
        return false;
    }
    bool has_version = false;
    const QStringView major = r.attribute_value(QLatin1String("VersionMajor"), &has_version);
    if (!has_version && xi.assumed_version() <= 0) {
        xi.set_fail(tr("No Version Major tag"));
        return false;
    }
    bool number = !has_version;
    const int version = has_version ? major.trimmed().toString().toInt(&number) : xi.assumed_version();
    if (!number || version < 0) {
        xi.set_fail(tr("Bad Version Major tag"));
        return false;
    }
    if (!has_version)
        xi.add_warning(tr("%1 has no VersionMajor: read as format version %2").arg(main_path).arg(version));
    set_version(version);

    man->set_task_data_dir(QFileInfo(main_path).absolutePath());
    QSharedPointer<Element> root = man->root();
    if (!root) {
        root = QSharedPointer<Elements::Base::Task_data>::create(man.toWeakRef());
        man->set_root(root);
    } else if (!root->is_kind(Elements::Base::Task_data::static_kind().tag)) {
        xi.set_fail(tr("The manager's root is not a task data root"));
        return false;
    }
    Document_state state;
    state.format_version = version;
    man->set_document_origin(state);

    xi.set_cur_infilepath(main_path);
    bool ok = root->load_xml_from(root, r, xi, Elements::Base::xml_part_attributes);
    if (ok) {
        Reader reader{xi, root, state, {}};
        ok = reader.read_children(r, main_path, QString());
    }
    man->set_document_origin(state);
    xi.set_cur_infilepath(QString());
    if (!ok)
        return false;
    if (!read_optional_list(xi, man, link_list_name) || !read_optional_list(xi, man, guid_list_name))
        return false;
    check_tree(xi, root);
    Elements::Base::Point::load_binary_files(root, xi);
    return true;
}

// --- writing ---

int count_elements(Element* root)
{
    int n = 0;
    walk(root, [&](Element*) { ++n; });
    return n;
}

// The name a file gets in the output directory: the name of a file there that differs only in
// case (so that it is replaced rather than joined by a second one), else the name it has in the
// directory the tree was read from, else `name`.
QString output_name(const XML_interface& xi, const QString& name, const QString& source_dir = QString())
{
    QString existing = File_lookup::find(xi.output_dir(), name, true).path;
    if (existing.isEmpty() && !source_dir.isEmpty())
        existing = File_lookup::find(source_dir, name, true).path;
    return existing.isEmpty() ? name : QFileInfo(existing).fileName();
}

// One whole file of the output directory, staged in the save's transaction (which checks that
// what is on disk has the size of what was meant to be written).
bool write_whole(XML_interface& xi, const QString& name, const QByteArray& data)
{
    QString error;
    if (!xi.write_file_atomic(xi.outfilepath(name), data, &error)) {
        xi.set_fail(error);
        return false;
    }
    xi.note_used_file(QFileInfo(xi.outfilepath(name)).fileName());
    return true;
}

struct Writer
{
    XML_interface& xi;
    QSharedPointer<Element> root;
    int version;
    QString source_dir; // where the tree was read from
    QHash<const Element*, QString> external_of; // top-level elements that go to an external file
    // When set, documents are collected here (name, content) instead of being written.
    QVector<QPair<QString, QByteArray>>* collect = nullptr;

    bool write_main(QByteArray& out);
    bool write_external_files(QSet<QString>& written);
    bool write_link_list(const QSharedPointer<Element>& list);
    bool write_guid_list(const QSharedPointer<Element_man>& man);
    // One whole document `name`: `body` writes its root element, then the file is replaced.
    template <class Body>
    bool write_document(const QString& name, const Body& body);
};

template <class Body>
bool Writer::write_document(const QString& name, const Body& body)
{
    QByteArray data;
    {
        QBuffer buffer(&data);
        buffer.open(QIODevice::WriteOnly);
        QXmlStreamWriter w(&buffer);
        w.setAutoFormatting(true);
        xi.write_start_document(w);
        xi.set_cur_outfilename(name);
        body(w);
        xi.set_cur_outfilename(QString());
        w.writeEndDocument();
        if (w.hasError())
            xi.set_fail(tr("Write error on %1").arg(xi.outfilepath(name)));
    }
    if (collect && xi.ok()) {
        collect->append(qMakePair(name, data));
        return true;
    }
    return xi.ok() && write_whole(xi, name, data);
}

namespace {
// While alive, the root's minor version is the default of the major version written, when that
// differs from the document's own: a minor version belongs to its major version. The tree is
// as before afterwards; the saving thread is the only one at the tree meanwhile.
struct Minor_version_for
{
    Attributes::Base::UInt8* minor = nullptr;
    quint8 value = 0;
    Attributes::Base::Attribute::flags_t flags = 0;
    Minor_version_for(const QSharedPointer<Element>& root, int version)
    {
        auto doc = root.dynamicCast<Elements::Base::Task_data>();
        const int own = doc ? Task_data_files::document_format_version(doc->man()) : 0;
        if (!own || own == version)
            return;
        minor = &doc->ver_minor;
        value = minor->get_val();
        flags = minor->flags();
        minor->set_val_noevent(Attributes::Base::choose_variant(doc->ver_minor.spec(), version).def);
    }
    ~Minor_version_for()
    {
        if (!minor)
            return;
        minor->set_val_noevent(value);
        minor->set_flags_noevent(flags);
    }
};
} // namespace

bool Writer::write_main(QByteArray& out)
{
    const Minor_version_for minor(root, version);
    QBuffer buffer(&out);
    buffer.open(QIODevice::WriteOnly);
    QXmlStreamWriter w(&buffer);
    w.setAutoFormatting(true);
    xi.write_start_document(w);
    xi.set_cur_outfilename(QString());
    xi.set_partial_save_state(1);
    bool ok = root->save_xml(root, w, xi, Elements::Base::xml_part_start | Elements::Base::xml_part_attributes);
    if (ok && xi.write_children()) {
        const unsigned lists = root->_num_element_lists();
        for (unsigned l = 0; ok && l < lists; ++l) {
            Element_list* list = root->_element_list(l);
            if (list->version() > version || list->isEmpty())
                continue;
            if (xi.keep_proprietary() && xi.individual_save(list->tag())) {
                ok = list->save_xml(root, w, xi);
                continue;
            }
            for (const auto& c : list->elements()) {
                if (xi.cancelled()) {
                    xi.set_fail(tr("Cancelled"));
                    ok = false;
                    break;
                }
                if (external_of.contains(c.data()))
                    continue;
                if (!c->save_xml(c, w, xi)) {
                    ok = false;
                    break;
                }
            }
        }
        root->write_foreign_children(w, xi);
    }
    w.writeEndElement();
    w.writeEndDocument();
    xi.set_partial_save_state(0);
    if (w.hasError()) {
        xi.set_fail(tr("Write error on %1").arg(xi.main_outfilepath()));
        return false;
    }
    return ok && xi.ok();
}

bool Writer::write_external_files(QSet<QString>& written)
{
    Element_list* references = root->find_list(xfr_tag);
    if (!references)
        return true;
    for (const auto& ref : references->elements()) {
        QString base;
        {
            const Elements::Base::Element_locker_new lock(ref, -1);
            base = static_cast<Elements::Base::External_file_reference*>(ref.data())->filename.get_string();
        }
        if (base.isEmpty() || written.contains((base + QStringLiteral(".XML")).toUpper()))
            continue;
        QVector<QSharedPointer<Element>> members;
        const unsigned lists = root->_num_element_lists();
        for (unsigned l = 0; l < lists; ++l) {
            Element_list* list = root->_element_list(l);
            if (list->version() > version)
                continue;
            for (const auto& c : list->elements())
                if (external_of.value(c.data()) == base)
                    members.append(c);
        }
        if (members.isEmpty())
            continue;
        const QString* written_as = xi.written_text(&static_cast<Elements::Base::External_file_reference*>(ref.data())->filename);
        const QString name = written_as ? *written_as + QStringLiteral(".XML")
                                        : output_name(xi, base + QStringLiteral(".XML"), source_dir);
        const bool ok = write_document(name, [&](QXmlStreamWriter& w) {
            w.writeStartElement(xfc_tag);
            for (const auto& c : members)
                if (!c->save_xml(c, w, xi))
                    break;
            w.writeEndElement();
        });
        if (!ok)
            return false;
        written.insert(name.toUpper());
    }
    return true;
}

bool Writer::write_link_list(const QSharedPointer<Element>& list)
{
    return write_document(output_name(xi, link_list_name),
                          [&](QXmlStreamWriter& w) { list->save_xml(list, w, xi); });
}

bool Writer::write_guid_list(const QSharedPointer<Element_man>& man)
{
    QVector<Element_man::Guid_entry> entries = man->guid_entries();
    if (xi.guid_list_as_read()) {
        // Only what the document came with: new random GUIDs would make two saves differ.
        const QSet<QPair<QString, int>> read = man->document_origin().guid_list;
        entries.erase(std::remove_if(entries.begin(), entries.end(),
                                     [&](const Element_man::Guid_entry& e) {
                                         return !read.contains(qMakePair(e.prefix, e.n));
                                     }),
                      entries.end());
    }
    if (entries.isEmpty())
        return true;
    return write_document(output_name(xi, guid_list_name), [&](QXmlStreamWriter& w) {
        w.writeStartElement(guid_list_root);
        for (const Element_man::Guid_entry& e : entries) {
            w.writeEmptyElement(QStringLiteral("GUID"));
            w.writeAttribute(QStringLiteral("ID"), Attributes::Base::UniqueID::construct_uid_string(e.prefix, e.n));
            w.writeAttribute(QStringLiteral("GUID"), e.guid.toString(QUuid::WithBraces));
        }
        w.writeEndElement();
    });
}

// Whether writing the tree with an older format version keeps every value: an attribute or a
// child list that the version lacks, or a value it writes differently, would be lost.
bool expressible(const QSharedPointer<Element>& root, int version)
{
    if (version >= 4)
        return true;
    bool fits = true;
    // Also run by autosave, which holds only the root.
    walk<true>(root.data(), [&](Element* e) {
        if (!fits)
            return;
        const unsigned n = e->_num_iso_attributes();
        for (unsigned i = 0; i < n && fits; ++i) {
            // The root's own version numbers are what changes with the version.
            if (e == root.data() && (i == Elements::Base::Task_data::idx_ver_major ||
                                     i == Elements::Base::Task_data::idx_ver_minor))
                continue;
            Attributes::Base::Attribute* a = e->_attribute(i);
            if (!(a->flags() & (Attributes::Base::Attribute::flag_present | Attributes::Base::Attribute::flag_valid)))
                continue;
            if (a->base_spec().version > version) {
                fits = false;
                break;
            }
            QString older, newest;
            a->xml_value(older, e, version);
            a->xml_value(newest, e, 4);
            fits = older == newest;
        }
        const unsigned lists = e->_num_element_lists();
        for (unsigned l = 0; l < lists && fits; ++l) {
            const Element_list* list = e->_element_list(l);
            fits = list->version() <= version || list->isEmpty();
        }
    });
    return fits;
}

bool same_directory(const QString& a, const QString& b)
{
    const QString ca = QFileInfo(a).canonicalFilePath();
    const QString cb = QFileInfo(b).canonicalFilePath();
    return !ca.isEmpty() && ca == cb;
}

// Brings the files the tree refers to from the directory it was read from into the output
// directory, as they are, so that the output directory is complete.
// `written`: upper-case names of the files this save writes itself.
bool copy_referenced_files(XML_interface& xi, const QSharedPointer<Element>& root, const QString& source,
                           const QSet<QString>& written)
{
    const bool same = source.isEmpty() || same_directory(source, xi.output_dir());
    for (const Task_data_files::Referenced_file& f : Task_data_files::referenced_files(root)) {
        if (written.contains(f.name.toUpper()))
            continue;
        const QString existing = File_lookup::find(xi.output_dir(), f.name, true).path;
        if (same && (!existing.isEmpty() || f.source.isEmpty())) {
            if (existing.isEmpty())
                xi.add_warning(tr("Could not find file: %1 in %2").arg(f.name, xi.output_dir()));
            else
                xi.note_used_file(QFileInfo(existing).fileName());
            continue;
        }
        // Saved in place, a file named otherwise in the data is copied to the name now written.
        const QString found = Task_data_files::find(same ? xi.output_dir() : source, f);
        if (found.isEmpty()) {
            xi.add_warning(File_lookup::find(source, f.name, true).message);
            continue;
        }
        // A link in a set from outside could publish any file the user can read.
        QString refused;
        if (Symlink_policy::refuses(found, &refused)) {
            xi.add_warning(refused);
            continue;
        }
        // Under the name the tree now gives it (a file named otherwise in the data follows the
        // name written), in the letter case it has in either directory.
        const bool renamed = QFileInfo(found).fileName().compare(f.name, Qt::CaseInsensitive) != 0;
        const QString name = !existing.isEmpty() ? QFileInfo(existing).fileName()
                             : renamed          ? f.name
                                                : QFileInfo(found).fileName();
        QString error;
        if (!xi.copy_file(name, found, &error)) {
            fprintf(stderr, "Could not save attached file %s to %s\n", name.toUtf8().constData(),
                    xi.output_dir().toUtf8().constData());
            xi.set_fail(error);
            return false;
        }
    }
    return true;
}

// Top-level elements read from an external file that the root still refers to: they go back
// into that file.
QHash<const Element*, QString> external_members(const QSharedPointer<Element_man>& man,
                                                const QSharedPointer<Element>& root)
{
    QHash<const Element*, QString> out;
    QSet<QString> references;
    if (Element_list* list = root->find_list(xfr_tag)) {
        for (const auto& ref : list->elements()) {
            const Elements::Base::Element_locker_new lock(ref, -1);
            references.insert(static_cast<Elements::Base::External_file_reference*>(ref.data())->filename.get_string());
        }
    }
    for (const auto& o : man->document_origin().external) {
        const QSharedPointer<Element> e = o.first.toStrongRef();
        if (e && e->parent_element() == root.data() && references.contains(o.second))
            out.insert(e.data(), o.second);
    }
    return out;
}

} // namespace

// --- public ---

QVector<Task_data_files::Referenced_file> Task_data_files::referenced_files(const QSharedPointer<Element>& root)
{
    QVector<Referenced_file> out;
    if (!root)
        return out;
    QSet<QString> seen;
    auto add = [&](const QString& name, const char* tag, const QString& source = QString()) {
        if (name.isEmpty())
            return;
        const QString key = name.toUpper();
        if (seen.contains(key))
            return;
        seen.insert(key);
        out.append({name, QString::fromLatin1(tag), source});
    };
    using namespace Elements::Base;
    const QHash<const void*, QString> rewrites = file_name_rewrites(root.data());
    // A file whose name the format writes otherwise: under that name, found under the one given.
    auto add_named = [&](const Attributes::Base::String& name, const QString& extension, const char* tag) {
        const QString given = name.get_string();
        const QString written = rewrites.value(&name);
        if (written.isEmpty())
            add(given.isEmpty() ? given : given + extension, tag);
        else
            add(written + extension, tag, given + extension);
    };
    walk(root.data(), [&](Element* e) {
        const char* tag = e->kind().tag;
        if (e->is_kind("GRD")) {
            add_named(static_cast<Grid*>(e)->filename, QStringLiteral(".BIN"), tag);
        } else if (e->is_kind("TLG")) {
            auto t = static_cast<Time_log*>(e);
            if (t->filename.has_number()) {
                const QString base = t->filename.get_as_string();
                const QString read = t->filename.read_text();
                add(base + QStringLiteral(".XML"), tag, read.isEmpty() ? read : read + QStringLiteral(".XML"));
                add(base + QStringLiteral(".BIN"), tag, read.isEmpty() ? read : read + QStringLiteral(".BIN"));
            }
        } else if (e->is_kind("PNT")) {
            add_named(static_cast<Elements::Base::Point*>(e)->filename, QStringLiteral(".BIN"), tag);
        } else if (e->is_kind("AFE")) {
            add(static_cast<Attached_file*>(e)->filename.get_string(), tag);
        } else if (e->is_kind("XFR")) {
            add_named(static_cast<External_file_reference*>(e)->filename, QStringLiteral(".XML"), tag);
        }
    });
    return out;
}

QString Task_data_files::format_file_name(const QString& text, const QString& code)
{
    const QString given = text.left(3).toUpper();
    const QStringRef digits = text.midRef(3);
    bool number = false;
    const int value = digits.toInt(&number);
    if (!number || value < 0 || value > 99999 || !digits.at(0).isDigit() || (!code.isEmpty() && given != code) ||
        (code.isEmpty() && !Elements::Base::Catalogue::find(given)))
        return QString();
    return given + QStringLiteral("%1").arg(value, 5, 10, QLatin1Char('0'));
}

QString Task_data_files::find(const QString& dir, const Referenced_file& file)
{
    const QString as_given = file.source.isEmpty() ? QString() : File_lookup::find(dir, file.source, true).path;
    return as_given.isEmpty() ? File_lookup::find(dir, file.name, true).path : as_given;
}

QVector<Task_data_files::Referenced_file> Task_data_files::individual_files(const XML_interface& xi,
                                                                           const QSharedPointer<Element>& root)
{
    QVector<Referenced_file> out;
    if (!root || !xi.any_individual_save() || !xi.keep_proprietary())
        return out;
    walk(root.data(), [&](Element* e) {
        const unsigned lists = e->_num_element_lists();
        for (unsigned l = 0; l < lists; ++l) {
            Element_list* list = e->_element_list(l);
            if (!xi.individual_save(list->tag()))
                continue;
            for (const auto& c : list->elements())
                if (c->has_id())
                    out.append({QStringLiteral("%1_%2.XML").arg(list->tag()).arg(c->get_id()), list->tag()});
        }
    });
    return out;
}

QSharedPointer<Elements::Base::Task_data> Task_data_files::create_document(const QSharedPointer<Element_man>& man,
                                                                           int format_version)
{
    if (!man)
        return QSharedPointer<Elements::Base::Task_data>();
    auto root = QSharedPointer<Elements::Base::Task_data>::create(man.toWeakRef());
    const QSharedPointer<Element> self = root;
    root->set_attributes_to_default(self, false);
    root->ver_major.set_val(self, quint8(format_version));
    // The minor version the catalogue gives the major one (4.2 for version 4).
    root->ver_minor.set_val(self, Attributes::Base::choose_variant(root->ver_minor.spec(), format_version).def);
    root->mngt_sw_manufacturer.set_string(self, QStringLiteral("Tarvex Agriculture"));
    root->mngt_sw_ver.set_string(self, QStringLiteral("korvaneltaskdata 0.1"));
    // Made on the terminal: the data goes from the machine to farm software.
    root->data_xfer_origin.set_val(self, 2);
    man->set_root(root);
    Document_state state;
    state.format_version = format_version;
    man->set_document_origin(state);
    return root;
}

int Task_data_files::version_to_write(const XML_interface& xi, const QSharedPointer<Element_man>& man)
{
    if (xi.format_version_set() || !man || !man->root())
        return xi.format_version();
    const int own = document_format_version(man);
    const int version = own > 0 ? own : xi.format_version();
    // A document that claims an older version than its content needs (a v3 file with v4 point
    // types) is written as version 4 rather than losing that content.
    return expressible(man->root(), version) ? version : 4;
}

int Task_data_files::document_format_version(const QSharedPointer<Element_man>& man)
{
    return man ? man->document_origin().format_version : 0;
}

QString Task_data_files::external_origin(const QSharedPointer<Element_man>& man, const Element* element)
{
    if (!man || !element)
        return QString();
    for (const auto& o : man->document_origin().external)
        if (o.first.toStrongRef().data() == element)
            return o.second;
    return QString();
}

bool Task_data_files::load(XML_interface& xi, const QSharedPointer<Element_man>& man)
{
    QElapsedTimer timer;
    timer.start();
    xi.reset_state();
    const QString dir = xi.output_dir();
    const QString main_name = xi.main_outfilename();
    QString main_path;
    auto finish = [&](bool ok) {
        Trace_print::print("XML_LOAD_NEW %dms ok=%d file=%s\n", int(timer.elapsed()), int(ok && xi.ok()),
                           (main_path.isEmpty() ? QDir(dir).filePath(main_name) : main_path).toUtf8().constData());
        return ok && xi.ok();
    };
    if (!man) {
        xi.set_fail(tr("No element manager"));
        return finish(false);
    }
    if (dir.isEmpty() || !QFileInfo(dir).isDir()) {
        fprintf(stderr, "Path '%s' does not exist\n", dir.toUtf8().constData());
        xi.set_fail(tr("Path '%1' does not exist\n").arg(dir).trimmed());
        return finish(false);
    }
    const File_lookup::Result found = File_lookup::find(dir, main_name);
    if (found.path.isEmpty()) {
        xi.set_fail(found.message);
        return finish(false);
    }
    if (!found.message.isEmpty())
        xi.add_warning(found.message);
    main_path = found.path;

    // Not through set_format_version(): the version belongs to this run, not to a later save
    // of another document through the same interface.
    const auto set_version = [&xi](int version) { xi.m_format_version = version; };
    xi.note_used_file(QFileInfo(main_path).fileName());
    bool opened = false;
    const bool ok = read_xml_file(main_path, opened, xi,
                                  [&](auto& r) { return read_document(xi, man, main_path, set_version, r); });
    if (!opened)
        xi.set_fail(tr("Could not open %1").arg(main_path));
    return finish(ok);
}

int Task_data_files::writing_version(XML_interface& xi, const QSharedPointer<Element_man>& man)
{
    const int version = version_to_write(xi, man);
    if (!xi.format_version_set()) {
        const int own = document_format_version(man);
        if (own > 0 && version != own)
            xi.add_warning(tr("The document of format version %1 holds content of version 4: written as version 4")
                               .arg(own));
        xi.m_format_version = version;
    }
    return version;
}

bool Task_data_files::main_files(XML_interface& xi, const QSharedPointer<Element_man>& man, Files& files)
{
    const QSharedPointer<Element> root = man ? man->root() : QSharedPointer<Element>();
    if (!root) {
        xi.set_fail(tr("No task data to save"));
        return false;
    }
    Writer writer{xi, root, writing_version(xi, man), QString(), external_members(man, root), &files};
    QByteArray main_data;
    QSet<QString> written{guid_list_name};
    if (!writer.write_main(main_data) || !writer.write_external_files(written) ||
        (xi.keep_proprietary() && !writer.write_guid_list(man)))
        return false;
    files.append(qMakePair(output_name(xi, xi.main_outfilename()), main_data));
    return true;
}

bool Task_data_files::link_list_file(XML_interface& xi, const QSharedPointer<Element_man>& man, Files& files)
{
    const QSharedPointer<Element> list = man ? man->link_list() : QSharedPointer<Element>();
    if (!list)
        return true;
    Writer writer{xi, list, xi.format_version(), QString(), {}, &files};
    return writer.write_link_list(list);
}

bool Task_data_files::write_files(XML_interface& xi, const Files& files)
{
    if (files.isEmpty())
        return true;
    Save_transaction transaction(xi.output_dir(), Save_transaction::In_place);
    if (!transaction.begin(xi.lock_timeout())) {
        xi.set_fail(transaction.error());
        return false;
    }
    struct Joined
    {
        XML_interface& xi;
        ~Joined() { xi.m_transaction = nullptr; }
    } joined{xi};
    xi.m_transaction = &transaction;
    for (const auto& f : files)
        if (!write_whole(xi, f.first, f.second))
            return false;
    if (!transaction.commit()) {
        xi.set_fail(transaction.error());
        return false;
    }
    xi.m_index.reset();
    return true;
}

bool Task_data_files::save(XML_interface& xi, const QSharedPointer<Element_man>& man)
{
    QElapsedTimer timer;
    timer.start();
    xi.reset_state();
    const QString dir = xi.output_dir();
    const QSharedPointer<Element> root = man ? man->root() : QSharedPointer<Element>();
    QString main_name = xi.main_outfilename();
    auto finish = [&](bool ok) {
        Trace_print::print("XML_SAVE_OLD %dms ok=%d objs=%d/%d file=%s\n", int(timer.elapsed()), int(ok && xi.ok()),
                           xi.objects_done(), xi.total_objects(), QDir(dir).filePath(main_name).toUtf8().constData());
        return ok && xi.ok();
    };
    if (!root) {
        xi.set_fail(tr("No task data to save"));
        return finish(false);
    }
    // The document stays as it is while it is written: editors of single elements wait for it.
    const Elements::Base::Tree_locker tree_lock({root, man->link_list()});
    if (!tree_lock.locked()) {
        xi.set_fail(tr("The task data is in use"));
        return finish(false);
    }
    if (dir.isEmpty()) {
        xi.set_fail(tr("No output directory"));
        return finish(false);
    }
    const QString source_dir = man->task_data_dir();
    const bool in_place = !xi.replace_whole_directory() || source_dir.isEmpty() || !QFileInfo(source_dir).isDir() ||
                          same_directory(source_dir, dir);
    const QFileInfo dir_info(dir);
    if (in_place && dir_info.exists() && !dir_info.isDir()) {
        xi.set_fail(tr("Path '%1' is not a directory").arg(dir));
        return finish(false);
    }
    Save_transaction transaction(dir, in_place ? Save_transaction::In_place : Save_transaction::Whole_directory);
    if (!transaction.begin(xi.lock_timeout())) {
        xi.set_fail(transaction.error());
        return finish(false);
    }
    // Every file written from here on joins the transaction; none is in place before commit().
    struct Joined
    {
        XML_interface& xi;
        ~Joined() { xi.m_transaction = nullptr; }
    } joined{xi};
    xi.m_transaction = &transaction;
    main_name = output_name(xi, main_name);

    const int version = writing_version(xi, man);

    // File names the format names otherwise are written so, for the elements and their files.
    struct Written_texts
    {
        XML_interface& xi;
        ~Written_texts() { xi.set_written_texts({}); }
    } written_texts{xi};
    xi.set_written_texts(file_name_rewrites(root.data()));
    Writer writer{xi, root, version, source_dir, external_members(man, root)};
    QSet<QString> data_names{main_name.toUpper(), link_list_name, guid_list_name};
    for (const Referenced_file& f : referenced_files(root) + individual_files(xi, root))
        data_names.insert(f.name.toUpper());
    transaction.reserve_names(data_names);
    // The link list came with format version 4: an older version has none.
    const QSharedPointer<Element> link_list = version >= 4 ? man->link_list() : QSharedPointer<Element>();
    xi.set_total_objects(count_elements(root.data()) + (link_list ? count_elements(link_list.data()) : 0));

    // The main file is staged last and so put in place last: a crash while the files are
    // being renamed leaves the old main file with files it does not need, never the reverse.
    QByteArray main_data;
    if (!writer.write_main(main_data))
        return finish(false);
    QSet<QString> written{main_name.toUpper(), guid_list_name};
    if (link_list)
        written.insert(link_list_name);
    if (!writer.write_external_files(written))
        return finish(false);
    // Files the elements wrote themselves (binary point files) are not copied over again.
    for (const QString& name : xi.used_files())
        written.insert(name.toUpper());
    if (!copy_referenced_files(xi, root, source_dir, written))
        return finish(false);
    if (link_list && !writer.write_link_list(link_list))
        return finish(false);
    if (xi.keep_proprietary() && !writer.write_guid_list(man))
        return finish(false);
    xi.set_partial_save_state(1);
    bool ok = write_whole(xi, main_name, main_data);
    xi.set_partial_save_state(0);
    if (ok && !transaction.commit()) {
        xi.set_fail(transaction.error());
        ok = false;
    }
    xi.m_index.reset();
    return finish(ok);
}

} // namespace Task_data
} // namespace TC
