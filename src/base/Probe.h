// Trace points of the provider `tarvo`: places where bpftrace(8), perf(1) and others can look at a running program. Each
// is one `nop` until somebody does. docs/tracing.md tells users of them, and of what each argument is.
//
// Arguments are scalars that are there anyway, so that nothing is done for them when nobody listens: no call, no
// conversion, no look at a clock. What they are called is the same in both engines:
//
//   handle     of the pipe: the int of the first engine, a link's address in the loop; 0 where an open had none yet
//   id         of the message, as its frame carries it: a response has that of its request. 0 where a refused one has
//              none yet
//   bytes      of payload
//   timeoutMs  that the frame carries: ms; -1: none
//   writtenUs  when the frame was written, as it says itself: us of CLOCK_MONOTONIC
//   result     0 or a negated errno
//   reason     a value of TARVO_STATS_DROP_... (tarvo_stats.h)
//
//   open(handle, result)                            an open has ended
//   close(handle)                                   this side closes
//   remote_close(handle)                            the remote has closed or died
//   request_written(handle, id, bytes, timeoutMs)   a request is in the FIFO, or in the link's batch
//   request_read(handle, id, bytes, writtenUs)      a request has come
//   callback_start(handle, id)                      its callback begins
//   callback_end(handle, id)                        its callback has returned
//   response_written(handle, id, bytes)             an answer is in the FIFO, or in the link's batch
//   response_read(handle, id, bytes, writtenUs)     an answer has come
//   call_end(handle, id, result)                    a call has ended, its answer or its failure is about to be told
//   refused(handle, id, result)                     a message could not be sent, or not written out of the batch
//   dropped(handle, id, reason)                     a request that had come whole gets to no callback
#ifndef TARVO_BASE_PROBE_H
#define TARVO_BASE_PROBE_H

#ifdef TARVO_PROBES
#include <sys/sdt.h>
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
