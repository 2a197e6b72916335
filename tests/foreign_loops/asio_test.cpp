#include "loop/asio_watch.h"

#include "Scenes.h"

namespace tarvo_test {

INSTANTIATE_TYPED_TEST_SUITE_P(AsioWatch, ForeignLoopTest, AsioWatch, );

} // namespace tarvo_test
