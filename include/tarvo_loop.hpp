// tarvo on the program's own thread, for C++17: owning handles over tarvo_loop.h.
//
// Everything here is a thin, inline layer over the functions of tarvo_loop.h, whose contracts hold throughout: which
// thread may call, what a result means, when a callback comes. What it adds is ownership and types:
//  - A Loop destroys itself, a Link and a Service close themselves. They can be moved and not copied, and may end in
//    any order.
//  - Callbacks are any callables, with or without captures, and need no std::function.
//  - Time-outs are std::chrono durations; NO_LIMIT is for what may take as long as it takes.
//  - What can fail in the middle of a loop returns a std::error_code: the errno values of tarvo_loop.h in
//    std::generic_category(), so that they compare with std::errc. Creating and opening come in two styles, as in
//    <filesystem>: one throws std::system_error, the other sets a std::error_code and is noexcept.
//
//     tarvo::Loop loop = tarvo::Loop::Create();
//     tarvo::Service service = tarvo::Service::Open(loop, "echo", {}, tarvo::ServiceHandlers().OnRequest(
//         [](const tarvo::LinkRequest &request) { return request.Bytes(); }));
//     loop.Run();
//
// The host process must ignore SIGPIPE, as with tarvo_loop.h: call IgnoreSigpipe() first.
#ifndef TARVO_LOOP_HPP
#define TARVO_LOOP_HPP

#include "tarvo_event_loop.hpp"
#include "tarvo_link.hpp"
#include "tarvo_link_view.hpp"
#include "tarvo_service.hpp"

#endif // TARVO_LOOP_HPP
