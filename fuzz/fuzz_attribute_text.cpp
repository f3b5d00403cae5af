// libFuzzer harness for the attribute texts of every element kind: arbitrary text is read into
// one attribute of the catalogue and written for format version 3 or 4. What is written must be
// valid UTF-16 (no half of a surrogate pair) and a fixed point: read into a fresh element and
// written again, it gives the same text. Anything else aborts. Single-threaded.
//
// Input: [kind: 1 byte][attribute: 1 byte][version: 1 byte][the text, UTF-8]
#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/elements/base/Element_man.h>

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace TC::Task_data::Elements::Base;

namespace {

// The text the attribute writes after reading `text`; false when it writes nothing.
bool read_and_write(const Kind_info* kind, unsigned index, const QString& text, int version, QString& out)
{
    auto man = Element_man::create();
    auto e = Catalogue::create(QString::fromLatin1(kind->tag), man);
    auto a = e->_attribute(index);
    a->set_by_xml_value(e, text);
    return a->xml_value(out, e.data(), version);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    const auto& kinds = Catalogue::kinds();
    const Kind_info* kind = kinds.at(data[0] % kinds.size());
    if (kind->num_attributes == 0)
        return 0;
    const unsigned index = data[1] % kind->num_attributes;
    const int version = data[2] % 2 ? 4 : 3;
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data + 3), int(size - 3));
    QString first;
    if (!read_and_write(kind, index, text, version, first))
        return 0;
    if (!QStringView(first).isValidUtf16()) {
        fprintf(stderr, "%s@%s wrote invalid UTF-16\n", kind->tag, kind->attribute_specs[index]->name);
        abort();
    }
    QString second;
    if (!read_and_write(kind, index, first, version, second) || second != first) {
        fprintf(stderr, "%s@%s: \"%s\" was written as \"%s\", which comes back as \"%s\"\n", kind->tag,
                kind->attribute_specs[index]->name, text.toUtf8().constData(), first.toUtf8().constData(),
                second.toUtf8().constData());
        abort();
    }
    return 0;
}
