#ifndef TARVO_BASE_NOTHROW_H
#define TARVO_BASE_NOTHROW_H

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>

#include "base/Cancellation.h"

// The result code of the exception that is being handled.
inline int CodeOfException() {
    try {
        throw;
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    } catch (const std::system_error &error) {
        return error.code().value() > 0 ? -error.code().value() : -EIO;
    } catch (...) {
        // Nothing of ours throws anything else; what is left is the caller's callback object that cannot be copied.
        return -EINVAL;
    }
}

// Runs the body of an exported function, out of which no exception may go; the result of `body`, or a negated errno.
// The calling thread can be cancelled only where `body` waits.
template <typename Body>
int NoThrow(Body &&body) {
    const Uncancelled unlessItWaits;
    try {
        return body();
    } catch (...) {
        // What comes without an exception is the cancellation of the calling thread, which must not be stopped: the C
        // library ends the process otherwise.
        if (std::current_exception() == nullptr) {
            throw;
        }
        return CodeOfException();
    }
}

#endif // TARVO_BASE_NOTHROW_H
