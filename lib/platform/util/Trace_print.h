// Trace lines of the library: timings of loads and saves, file lookups that needed a directory
// listing, the autosave's progress. They are on by default (an application's log wants them);
// a command-line tool keeps its standard error for warnings and errors and turns them on only
// when asked. KTD_TRACE=0 or 1 in the environment sets the default; set_enabled() overrides
// both. No state is owned by callers; any thread may call every function, and each line is
// written with one stdio call, so lines of different threads do not mix.
#pragma once

#include <platform/platform_export.h>

class KPL_EXPORT Trace_print {
public:
    static bool enabled();
    static void set_enabled(bool on);

    // printf-style, written on standard error as it is (no prefix, no newline added) when
    // tracing is on; nothing is formatted when it is off.
    static void print(const char* fmt, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 1, 2)))
#endif
        ;
};
