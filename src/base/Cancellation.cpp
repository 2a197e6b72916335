#include "base/Cancellation.h"

namespace tarvo_cancellation {

__thread int callersState = OUTSIDE;

} // namespace tarvo_cancellation
