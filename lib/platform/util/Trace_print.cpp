#include <platform/util/Trace_print.h>

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <atomic>
#include <cstdarg>
#include <cstdio>

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
    const QByteArray line = QString::vasprintf(fmt, args).toUtf8();
    va_end(args);
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
}
