// Programs over the loop's handles that must not compile; otherwise as refused.cpp.
#include <tarvo_loop.hpp>

using namespace std::chrono_literals;

inline void Use(tarvo::Loop &loop, tarvo::Link &link, const tarvo::LinkRequest &request) {
#if defined(CASE_NONE) // compiles
    int answers = 0;
    const auto done = [&answers](std::error_code, std::string_view) { ++answers; };
    if (link.Call("question", 1s, done) || link.Send("one-way") || request.Reply("reply")) {
        link = {};
    }
    tarvo::Link other = tarvo::Link::Connect(
        loop, "server", {}, tarvo::LinkHandlers().OnRequest([](const auto &) { return std::string("reply"); }));
    (void)tarvo::ServiceHandlers().OnClient([](auto, auto) {}).OnRequest([](tarvo::LinkRequest) {});
#elif defined(CASE_COPIED_LINK)                            // says: deleted
    const tarvo::Link copy = link;
#elif defined(CASE_COPIED_LOOP)                            // says: deleted
    const tarvo::Loop copy = loop;
#elif defined(CASE_LINK_SEND_OF_A_NUMBER)                  // says: deleted
    (void)link.Send(4711);
#elif defined(CASE_DROPPED_SEND)                           // says: nodiscard
    link.Send("one-way");
#elif defined(CASE_DROPPED_CALL)                           // says: nodiscard
    link.Call("question", 1s, [](std::error_code, std::string_view) {});
#elif defined(CASE_DROPPED_LINK)                           // says: nodiscard
    tarvo::Link::Connect(loop, "server", {}, tarvo::LinkHandlers());
#elif defined(CASE_DROPPED_SERVICE)                        // says: nodiscard
    tarvo::Service::Open(loop, "server", {}, tarvo::ServiceHandlers());
#elif defined(CASE_DONE_FOR_SOMETHING_ELSE)                // says: tarvo: Call takes a callable for
    (void)link.Call("question", 1s, [](int) {});
#elif defined(CASE_OPENED_FOR_SOMETHING_ELSE)              // says: tarvo: OnOpened takes a callable for
    (void)tarvo::LinkHandlers().OnOpened([](int) {});
#elif defined(CASE_LINK_CALLBACK_THAT_RETURNS_A_NUMBER)    // says: tarvo: an OnRequest callback returns the reply
    (void)tarvo::LinkHandlers().OnRequest([](const tarvo::LinkRequest &) { return 42; });
#elif defined(CASE_SERVICE_CALLBACK_THAT_RETURNS_A_NUMBER) // says: tarvo: an OnRequest callback returns the reply
    (void)tarvo::ServiceHandlers().OnRequest([](const tarvo::LinkRequest &) { return 42; });
#elif defined(CASE_SERVICE_CALLBACK_FOR_SOMETHING_ELSE)    // says: tarvo: OnRequest takes a callable for
    (void)tarvo::ServiceHandlers().OnRequest([](const tarvo::Loop &) {});
#elif defined(CASE_CLIENT_FOR_SOMETHING_ELSE)              // says: tarvo: OnClient takes a callable for
    (void)tarvo::ServiceHandlers().OnClient([](tarvo::LinkView) {});
#elif defined(CASE_POST_OF_SOMETHING_ELSE)                 // says: tarvo: Post takes a callable for ()
    (void)loop.Post([](int) {});
#endif
    (void)loop;
    (void)link;
    (void)request;
}
