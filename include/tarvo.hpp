// tarvo for C++17: owning handles over tarvo.h.
//
// Everything here is a thin, inline layer over the functions of tarvo.h, whose contracts hold throughout: what blocks,
// which threads may call, what a result means. What it adds is ownership and types:
//  - A Pipe closes itself, a Response releases itself. Both can be moved and not copied. A Client connects again when
//    its server comes back.
//  - Options have names. Time-outs are std::chrono durations. Payloads are views of whatever holds bytes.
//  - Each function comes in two styles, as in <filesystem>: one throws std::system_error, the other sets a
//    std::error_code and is noexcept. The codes are the errno values of tarvo.h in std::generic_category(), so that
//    they compare with std::errc; the result -1 ("the pipe is closing") is std::errc::broken_pipe. Only replies are
//    different: they return the code, because nothing can be done about a client that has gone.
//  - Callbacks are any callable, with or without captures. What one returns is the reply. An exception that leaves one
//    ends the process.
//
// The host process must ignore SIGPIPE, as with tarvo.h: call IgnoreSigpipe() first.
#ifndef TARVO_HPP
#define TARVO_HPP

#include "tarvo_basics.hpp"
#include "tarvo_client.hpp"
#include "tarvo_names.hpp"
#include "tarvo_pipe.hpp"
#include "tarvo_request.hpp"
#include "tarvo_server.hpp"

#endif // TARVO_HPP
