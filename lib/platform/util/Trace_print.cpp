#include <platform/util/Trace_print.h>

#include <QByteArray>
#include <QtGlobal>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace {

// -1: not decided yet; read from the environment on first use.
std::atomic<int> g_state{-1};

int from_environment()
{
    const QByteArray env = qgetenv("KTD_TRACE").trimmed().toLower();
    return (env == "0" || env == "off" || env == "no" || env == "false") ? 0 : 1;
}

} // namespace

bool Trace_print::enabled()
{
    int s = g_state.load(std::memory_order_relaxed);
    if (s < 0) {
        int expected = -1;
        s = from_environment();
        // A set_enabled() that raced with this keeps its value.
        if (!g_state.compare_exchange_strong(expected, s))
            s = expected;
    }
    return s != 0;
}

void Trace_print::set_enabled(bool on) { g_state.store(on ? 1 : 0); }

void Trace_print::print(const char* fmt, ...)
{
    if (!fmt || !enabled())
        return;
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    const int len = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    if (len <= 0) {
        va_end(again);
        return;
    }
    std::vector<char> line(size_t(len) + 1);
    std::vsnprintf(line.data(), line.size(), fmt, again);
    va_end(again);
    std::fwrite(line.data(), 1, size_t(len), stderr);
}
