// Categorised debug output on standard error, switched on per category at start-up.
// KTD_DEBUG holds comma-separated category names (case-insensitive) or "all"; it is read once,
// on the first call. No state is owned by callers. Any thread may call both functions; each
// dprint() line is written with one stdio call, so lines of different threads do not mix.
#pragma once

#include <platform/platform_export.h>

class KPL_EXPORT Debug_print {
public:
    static bool enabled(const char* category);

    // printf-style; the line is prefixed with "category: " and ends with a newline even when
    // fmt has none. Nothing is formatted when the category is off, so callers need not test
    // enabled() first except to skip costly argument preparation.
    static void dprint(const char* category, const char* fmt, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;
};
