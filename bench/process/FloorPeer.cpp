#include "FloorPeer.h"

#include "FloorFrame.h"

namespace bench {

Contestant TheContestant() {
    const char *const name = FLOOR_WITH_SHARED_WORKER ? "floor-shared" : FLOOR_WITH_SEMAPHORES ? "floor-sem" : "floor";
    const char *const remark = FLOOR_WITH_SHARED_WORKER ? "as floor-sem, with one worker for all clients of the server"
                               : FLOOR_WITH_SEMAPHORES
                                   ? "bare program of the library's topology: semaphores, no cleared buffers, no clock"
                                   : "bare program of the library's topology: condition variables";
    const unsigned abilities =
        FLOOR_WITH_SHARED_WORKER ? MANY_CLIENTS : LANES | ONE_WAY | CONNECTS | MANY_CLIENTS | MANY_PIPES;
    return {name, remark, "", abilities, "threads", true, MakeFloorServer, MakeFloorClient};
}

} // namespace bench
