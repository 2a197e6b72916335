// telemetry_server [NAME]: answers questions about this machine under NAME, until SIGTERM or SIGINT.
//
// A question is a line of text: "load", "memory", "process PID", or "events" for the number of events that came over
// the same pipe. A request that begins with "event" is one-way and gets no answer.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "proc_readings.h"
#include "tarvo.h"

namespace {

// Callbacks of different pipes run at the same time, those of one pipe one after another.
std::mutex countsMutex;
std::map<int, long> *const eventCounts =
    new std::map<int, long>; // by pipe; never destroyed, callbacks may outlive main

long CountEvents(int fd, int more) {
    const std::lock_guard<std::mutex> lock(countsMutex);
    return (*eventCounts)[fd] += more;
}

std::string AnswerTo(int fd, const std::string &question) {
    if (question == "hello") {
        return "welcome";
    }
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
        return std::to_string(CountEvents(fd, 0));
    }
    return "error unknown question";
}

// Called once for each client, on the server's thread. The client's first request may be here already.
void OnClient(int fd, const char *name, uint32_t length) {
    std::printf("server: pipe %d is %.*s\n", fd, static_cast<int>(length), name);
}

// Called for each request of each client.
void OnRequest(int fd, TarvoRequest *request) {
    if (request == nullptr) {
        // The client is gone. The library closes the pipe when this returns.
        std::printf("server: pipe %d has ended after %ld events\n", fd, CountEvents(fd, 0));
        return;
    }
    // The bytes of a request are the library's, end with the callback, and have no terminating zero.
    const std::string text(request->data, request->size);
    if (text.compare(0, 6, "event ") == 0) {
        CountEvents(fd, 1);
        return;
    }
    std::string answer = AnswerTo(fd, text);
    TarvoResponse response = {request->id, answer.data(), static_cast<uint32_t>(answer.size())};
    const int result = TarvoSendResponse(fd, &response);
    if (result < 0) {
        std::printf("server: answer on pipe %d not sent, result %d\n", fd, result);
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
    // The library reports a client that is gone by a result. Without this line the signal would end the process.
    std::signal(SIGPIPE, SIG_IGN);
    for (const int signo : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        std::signal(signo, OnFatalSignal);
    }
    // Blocked before the library starts its threads, which inherit it, so that sigwait below gets these signals.
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGTERM);
    sigaddset(&endSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);

    TarvoServerAttr attr;
    attr.openCallback = OnClient;
    attr.callback = OnRequest;
    attr.selfName = argc > 1 ? argv[1] : "telemetry"; // must live as long as the server
    // attr.gid would name the group of the users who may connect; unset, it is the group of this process.
    const int result = TarvoCreateServer(&attr);
    if (result < 0) {
        std::fprintf(stderr, "server: cannot serve as %s: %s\n", attr.selfName, std::strerror(-result));
        return EXIT_FAILURE;
    }
    std::printf("server: process %d serves as %s\n", getpid(), attr.selfName);

    int signo = 0;
    sigwait(&endSignals, &signo);
    TarvoCfgFinishServer(); // closes all pipes and waits for the callbacks that run
    // The server's own file stays behind otherwise, and clients would find it without a reader.
    TarvoExceptionHandler(signo);
    std::printf("server: ended by signal %d\n", signo);
    return EXIT_SUCCESS;
}
