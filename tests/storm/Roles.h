// What the processes of a storm do until they are killed or told to finish.
#ifndef TARVO_STORM_ROLES_H
#define TARVO_STORM_ROLES_H

#include <cstdint>
#include <string>

#include "storm/Board.h"
#include "storm/Points.h"

namespace storm {

// One life of one process.
struct Life {
    Board *board = nullptr;
    int progress = -1; // an event descriptor that tells the parent of something new on the board
    std::string server;
    std::string client; // empty for the server
    std::size_t index = 0;
    uint32_t generation = 0;
    bool survivor = false; // is not killed, and counts what it holds
    Moment moment = Moment::Never;
    unsigned nth = 1;
};

// Each returns the exit code of the process.
int RunServer(const Life &life);
int RunClient(const Life &life);

} // namespace storm

#endif // TARVO_STORM_ROLES_H
