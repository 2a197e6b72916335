// Trace points of the provider `tarvo`: places where bpftrace(8), perf(1) and others can look at a running program,
// each one `nop` until somebody does. docs/tracing.md says what each tells, and what its arguments are in both engines.
//
// Arguments are scalars that are there anyway, so that nothing is done for them when nobody listens: no call, no
// conversion, no look at a clock.
#ifndef TARVO_BASE_PROBE_H
#define TARVO_BASE_PROBE_H

#ifdef TARVO_PROBES
#include <sys/sdt.h>

// The header's, with `inline`: a compiler takes each line of an assembly text for an instruction, and calls functions
// that it would have compiled into their callers because of a trace point that is one `nop` (gcc, "Size of an asm").
#undef _SDT_PROBE
#define _SDT_PROBE(provider, name, n, arglist)                                                                         \
    do {                                                                                                               \
        __asm__ __inline__ __volatile__(                                                                               \
            _SDT_ASM_BODY(provider, name, _SDT_ASM_ARGS, (n))::_SDT_ASM_OPERANDS_##n arglist);                         \
        __asm__ __inline__ __volatile__(_SDT_ASM_BASE);                                                                \
    } while (0)
#else
// Looks at what the arguments are called, and evaluates nothing.
#define TARVO_NO_PROBE_ARGUMENT(argument) static_cast<void>(sizeof(argument))
#define DTRACE_PROBE1(provider, name, a) TARVO_NO_PROBE_ARGUMENT(a)
#define DTRACE_PROBE2(provider, name, a, b) (TARVO_NO_PROBE_ARGUMENT(a), TARVO_NO_PROBE_ARGUMENT(b))
#define DTRACE_PROBE3(provider, name, a, b, c) (DTRACE_PROBE2(provider, name, a, b), TARVO_NO_PROBE_ARGUMENT(c))
#define DTRACE_PROBE4(provider, name, a, b, c, d) (DTRACE_PROBE3(provider, name, a, b, c), TARVO_NO_PROBE_ARGUMENT(d))
#endif

#define TARVO_PROBE_OPEN(handle, result) DTRACE_PROBE2(tarvo, open, handle, result)
#define TARVO_PROBE_CLOSE(handle) DTRACE_PROBE1(tarvo, close, handle)
#define TARVO_PROBE_REMOTE_CLOSE(handle) DTRACE_PROBE1(tarvo, remote_close, handle)
#define TARVO_PROBE_REQUEST_WRITTEN(handle, id, bytes, timeoutMs)                                                      \
    DTRACE_PROBE4(tarvo, request_written, handle, id, bytes, timeoutMs)
#define TARVO_PROBE_REQUEST_READ(handle, id, bytes, writtenUs)                                                         \
    DTRACE_PROBE4(tarvo, request_read, handle, id, bytes, writtenUs)
#define TARVO_PROBE_CALLBACK_START(handle, id) DTRACE_PROBE2(tarvo, callback_start, handle, id)
#define TARVO_PROBE_CALLBACK_END(handle, id) DTRACE_PROBE2(tarvo, callback_end, handle, id)
#define TARVO_PROBE_RESPONSE_WRITTEN(handle, id, bytes) DTRACE_PROBE3(tarvo, response_written, handle, id, bytes)
#define TARVO_PROBE_RESPONSE_READ(handle, id, bytes, writtenUs)                                                        \
    DTRACE_PROBE4(tarvo, response_read, handle, id, bytes, writtenUs)
#define TARVO_PROBE_CALL_END(handle, id, result) DTRACE_PROBE3(tarvo, call_end, handle, id, result)
#define TARVO_PROBE_REFUSED(handle, id, result) DTRACE_PROBE3(tarvo, refused, handle, id, result)
#define TARVO_PROBE_DROPPED(handle, id, reason) DTRACE_PROBE3(tarvo, dropped, handle, id, reason)

#endif // TARVO_BASE_PROBE_H
