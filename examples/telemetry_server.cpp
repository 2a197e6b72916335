// telemetry_server [NAME]: answers questions about this machine under NAME, until SIGTERM or SIGINT.
//
// A question is a line of text: "load", "memory", "process PID", or "events" for the number of events that came over
// the same pipe. A request that begins with "event" is one-way and gets no answer.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include "proc_readings.h"
#include "tarvo.hpp"

namespace {

// Callbacks of different pipes run at the same time, those of one pipe one after another.
std::mutex countsMutex;
auto *const eventCounts = new std::map<int, long>; // by pipe; never destroyed, callbacks may outlive main

long CountEvents(tarvo::PipeView pipe, int more) {
    const std::lock_guard<std::mutex> lock(countsMutex);
    return (*eventCounts)[pipe.Handle()] += more;
}

std::string AnswerTo(tarvo::PipeView pipe, const std::string &question) {
    if (question == "load") {
        return ReadLoad();
    }
    if (question == "memory") {
        return ReadMemory();
    }
    if (question.compare(0, 8, "process ") == 0) {
        return ReadProcess(std::atoi(question.c_str() + 8));
    }
    if (question == "events") {
        return std::to_string(CountEvents(pipe, 0));
    }
    return "error unknown question";
}

void OnRequest(const tarvo::Request &request) {
    // The bytes of a request are the library's and end with the callback.
    const std::string text = request.Text();
    if (text.compare(0, 6, "event ") == 0) {
        CountEvents(request.From(), 1);
        return;
    }
    const std::error_code error = request.Reply(AnswerTo(request.From(), text));
    if (error) {
        std::printf("server: answer on pipe %d not sent: %s\n", request.From().Handle(), error.message().c_str());
    }
}

// A server that dies of a fatal signal takes its FIFO files with it.
void OnFatalSignal(int signo) {
    TarvoExceptionHandler(signo);
    std::signal(signo, SIG_DFL);
    std::raise(signo);
}

} // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    tarvo::IgnoreSigpipe();
    for (const int signo : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        std::signal(signo, OnFatalSignal);
    }
    // Blocked before the library starts its threads, which inherit it, so that sigwait below gets these signals.
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGTERM);
    sigaddset(&endSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);

    const std::string name = argc > 1 ? argv[1] : "telemetry";
    std::error_code error;
    // Group() would name the group of the users who may connect; unset, it is the group of this process.
    tarvo::Server::Start(tarvo::ServerOptions()
                             .As(name)
                             .OnClient([](tarvo::PipeView pipe, std::string_view client) {
                                 std::printf("server: pipe %d is %s\n", pipe.Handle(), std::string(client).c_str());
                             })
                             .OnRequest(OnRequest)
                             .OnClosed([](tarvo::PipeView pipe) {
                                 std::printf("server: pipe %d has ended after %ld events\n", pipe.Handle(),
                                             CountEvents(pipe, 0));
                             }),
                         error);
    if (error) {
        std::fprintf(stderr, "server: cannot serve as %s: %s\n", name.c_str(), error.message().c_str());
        return EXIT_FAILURE;
    }
    std::printf("server: process %d serves as %s\n", getpid(), name.c_str());

    int signo = 0;
    sigwait(&endSignals, &signo);
    tarvo::Finish(); // closes all pipes and waits for the callbacks that run
    // The server's own file stays behind otherwise, and clients would find it without a reader.
    TarvoExceptionHandler(signo);
    std::printf("server: ended by signal %d\n", signo);
    return EXIT_SUCCESS;
}
