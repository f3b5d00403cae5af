#include <platform/util/Debug_print.h>

#include <QByteArray>
#include <QList>
#include <QtGlobal>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

struct Categories {
    bool all = false;
    QList<QByteArray> names; // lower-case
};

// A function-local static is initialised once and thread-safely; the set never changes after.
const Categories& categories()
{
    static const Categories set = [] {
        Categories c;
        const QByteArray env = qgetenv("KTD_DEBUG");
        for (const QByteArray& part : env.split(',')) {
            const QByteArray name = part.trimmed().toLower();
            if (name.isEmpty())
                continue;
            if (name == "all")
                c.all = true;
            else
                c.names.append(name);
        }
        return c;
    }();
    return set;
}

} // namespace

bool Debug_print::enabled(const char* category)
{
    const Categories& c = categories();
    if (c.all)
        return true;
    if (!category || c.names.isEmpty())
        return false;
    const size_t len = std::strlen(category);
    for (const QByteArray& name : c.names) {
        if (size_t(name.size()) == len && qstrnicmp(name.constData(), category, uint(len)) == 0)
            return true;
    }
    return false;
}

void Debug_print::dprint(const char* category, const char* fmt, ...)
{
    if (!fmt || !enabled(category))
        return;
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    const int body = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    if (body < 0) {
        va_end(again);
        return;
    }
    const char* prefix = category ? category : "";
    const size_t prefix_len = std::strlen(prefix);
    // prefix, ": ", body, optional newline, terminator
    std::vector<char> line(prefix_len + 2 + size_t(body) + 2);
    std::memcpy(line.data(), prefix, prefix_len);
    line[prefix_len] = ':';
    line[prefix_len + 1] = ' ';
    std::vsnprintf(line.data() + prefix_len + 2, size_t(body) + 1, fmt, again);
    va_end(again);
    size_t len = prefix_len + 2 + size_t(body);
    if (body == 0 || line[len - 1] != '\n')
        line[len++] = '\n';
    std::fwrite(line.data(), 1, len, stderr);
}
