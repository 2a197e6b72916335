#ifndef TARVO_BENCH_PROCESS_FLOORPEER_H
#define TARVO_BENCH_PROCESS_FLOORPEER_H

#include "Contestant.h"

namespace bench {

std::unique_ptr<Server> MakeFloorServer(const Place &place);
std::unique_ptr<Client> MakeFloorClient(const Place &place);

} // namespace bench

#endif // TARVO_BENCH_PROCESS_FLOORPEER_H
