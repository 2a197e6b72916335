#include "loop/sd_event_watch.h"

#include "Scenes.h"

namespace tarvo_test {

INSTANTIATE_TYPED_TEST_SUITE_P(SdEventWatch, ForeignLoopTest, SdEventWatch, );

} // namespace tarvo_test
