#ifndef TARVO_STORM_PROOF_H
#define TARVO_STORM_PROOF_H

#include <functional>

namespace storm {

// Runs the work of one of these programs, between two clearings of its FIFO files and without the watchdog of a test,
// since its processes live as long as it does. Prints the verdict and yields the exit status.
int Prove(const std::function<bool()> &work);

} // namespace storm

#endif // TARVO_STORM_PROOF_H
