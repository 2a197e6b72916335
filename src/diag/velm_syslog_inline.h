// For sources that every message runs through: compiles the test of a line's level into the caller, where gcc knows the
// level and drops the whole call of a line that is never written. A message passes ten or more of those.
#ifndef TARVO_DIAG_VELM_SYSLOG_INLINE_H
#define TARVO_DIAG_VELM_SYSLOG_INLINE_H

#include "diag/velm_syslog.h"

// Only gcc hands the arguments of an inlined function on, and only when it optimises. As in the C library's own
// <bits/syslog.h>, the function out of line has a second name here. `cold`: a line that is written is out of the way.
#if defined(__GNUC__) && !defined(__clang__) && defined(__OPTIMIZE__)
extern "C" void VelmSyslogOutOfLine(VELMLogType type, int level, int line, const char *file, const char *format,
                                    ...) __asm__("VelmSyslog") __attribute__((format(printf, 5, 6), cold));

extern inline __attribute__((gnu_inline, always_inline, artificial)) void
VelmSyslog(VELMLogType type, int level, int line, const char *file, const char *format, ...) {
    if (level > LOG_NOTICE) {
        return;
    }
    VelmSyslogOutOfLine(type, level, line, file, format, __builtin_va_arg_pack());
}
#endif

#endif // TARVO_DIAG_VELM_SYSLOG_INLINE_H
