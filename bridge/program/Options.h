// What a bridge is told on its command line and in its file.
#ifndef TARVO_BRIDGE_PROGRAM_OPTIONS_H
#define TARVO_BRIDGE_PROGRAM_OPTIONS_H

#include <string>
#include <vector>

#include "core/Bridge.h"
#include "network/Settings.h"

namespace tarvo_bridge {

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

struct Options {
    Plan plan; // but for its run
    Settings network;
    std::string stateFolder = "/run/tarvo-bridge";
    std::string log = "notice";
    bool check = false;
};

enum class Parsed { RUN, DONE, WRONG };

// Reads the command line, and the file that it names. Says what is wrong.
Parsed ParseOptions(int argc, char **argv, Options &options);

// Reads "SERVICE[@MACHINE][ as LOCAL]". Empty, or what is wrong with it.
std::string ParseImport(const std::string &text, ImportRule &rule);

// What is wrong with options that make sense each by itself; a line for each.
std::vector<std::string> FaultsOf(const Options &options);

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_PROGRAM_OPTIONS_H
