// The client that the programs of this folder run, each in another kind of event loop: has the server count the letters
// of a line, eight lines at a time.
#ifndef LOOP_LINES_CLIENT_H
#define LOOP_LINES_CLIENT_H

#include <cstdio>
#include <exception>
#include <string>

#include "tarvo_loop.hpp"

// `Watch` stands for the program's loop. Returns the exit code of the program.
template <typename Watch>
int RunLinesClient(const char *self, const std::string &server, int lines) try {
    using namespace std::chrono_literals;
    constexpr int atATime = 8;
    tarvo::IgnoreSigpipe();
    tarvo::Loop loop = tarvo::Loop::Create();
    Watch program(loop);

    struct Counting {
        void Next(tarvo::LinkView link) {
            for (; asked < wanted && asked - ended < atATime; ++asked) {
                const std::error_code refused =
                    link.Call(std::string(static_cast<std::size_t>(asked % 100 + 1), 'x'), 2s,
                              [this, link](std::error_code error, std::string_view letters) {
                                  ++ended;
                                  failed += error ? 1 : 0;
                                  total += error ? 0 : std::stol(std::string(letters));
                                  Next(link);
                              });
                failed += refused ? 1 : 0;
                ended += refused ? 1 : 0;
            }
            if (ended == wanted) {
                program.Stop();
            }
        }
        Watch &program;
        const int wanted;
        int asked = 0;
        int ended = 0;
        int failed = 0;
        long total = 0;
    } counting{program, lines};

    const tarvo::Link link =
        tarvo::Link::Connect(loop, server, tarvo::LinkOptions().As(self).Timeout(5s),
                             tarvo::LinkHandlers()
                                 .OnOpened([&](tarvo::LinkView opened, std::error_code error) {
                                     if (error) {
                                         std::fprintf(stderr, "%s: no link: %s\n", self, error.message().c_str());
                                         counting.failed = lines;
                                         return program.Stop();
                                     }
                                     counting.Next(opened);
                                 })
                                 .OnClosed([&](tarvo::LinkView) { program.Stop(); }));
    program.Run();
    std::printf("%s: %d lines, %d failed, %ld letters\n", self, counting.ended, counting.failed, counting.total);
    return counting.ended == lines && counting.failed == 0 ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s: %s\n", self, error.what());
    return 1;
}

#endif // LOOP_LINES_CLIENT_H
