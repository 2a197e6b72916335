// Programs that must not compile. refused.sh compiles one case at a time and looks for the words behind "says:" in what
// the compiler prints, whichever compiler it is.
#include <tarvo.hpp>

using namespace std::chrono_literals;

inline void Use(tarvo::Pipe &pipe, const tarvo::Request &request) {
    std::error_code error;
#if defined(CASE_NONE) // compiles
    const tarvo::Response answer = pipe.Call("question", 1s);
    pipe.Send(answer.Bytes());
    pipe.Send(pipe.Call("question", 1s).Text(), error);
    request.Reply("dropping the code is fine");
    tarvo::Options().OnRequest([](const tarvo::Request &) { return std::string("reply"); });
    tarvo::Options().OnRequest([](tarvo::Request) { return std::vector<char>(3); });
    tarvo::ServerOptions().OnRequest([](const auto &) {});
    pipe = tarvo::Pipe::Connect("server");
#elif defined(CASE_SEND_OF_ZERO)                          // says: deleted
    pipe.Send(0);
#elif defined(CASE_SEND_OF_NULLPTR)                       // says: deleted
    pipe.Send(nullptr);
#elif defined(CASE_SEND_OF_A_NUMBER)                      // says: deleted
    pipe.Send(4711, error);
#elif defined(CASE_REPLY_OF_ZERO)                         // says: deleted
    request.Reply(0);
#elif defined(CASE_BYTES_OF_A_TEMPORARY)                  // says: deleted
    pipe.Send(pipe.Call("question", 1s).Bytes());
#elif defined(CASE_DROPPED_ANSWER)                        // says: nodiscard
    pipe.Call("question", 1s, error);
#elif defined(CASE_DROPPED_PIPE)                          // says: nodiscard
    tarvo::Pipe::Connect("server");
#elif defined(CASE_DROPPED_HANDLE)                        // says: nodiscard
    pipe.Release();
#elif defined(CASE_DROPPED_TICKET)                        // says: nodiscard
    request.Keep();
#elif defined(CASE_DROPPED_WAIT)                          // says: nodiscard
    tarvo::WaitForServer("server", 1s);
#elif defined(CASE_CALLBACK_THAT_RETURNS_A_NUMBER)        // says: tarvo: an OnRequest callback returns the reply
    tarvo::Options().OnRequest([](const tarvo::Request &) { return 42; });
#elif defined(CASE_CALLBACK_THAT_RETURNS_A_CODE)          // says: tarvo: an OnRequest callback returns the reply
    tarvo::Options().OnRequest([](const tarvo::Request &asked) { return asked.Reply("x"); });
#elif defined(CASE_SERVER_CALLBACK_THAT_RETURNS_A_NUMBER) // says: tarvo: an OnRequest callback returns the reply
    tarvo::ServerOptions().OnRequest([](const tarvo::Request &) { return 42; });
#elif defined(CASE_CALLBACK_FOR_SOMETHING_ELSE)           // says: tarvo: OnRequest takes a callable for
    tarvo::Options().OnRequest([](int, TarvoRequest *) {});
#elif defined(CASE_CLOSED_FOR_SOMETHING_ELSE)             // says: takes a callable for (tarvo::PipeView)
    tarvo::Options().OnRequest([](const tarvo::Request &) {}, [](int, int) {});
#endif
    (void)error;
    (void)pipe;
    (void)request;
}
