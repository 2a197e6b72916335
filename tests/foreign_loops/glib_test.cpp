#include "loop/glib_watch.h"

#include "Scenes.h"

namespace tarvo_test {

INSTANTIATE_TYPED_TEST_SUITE_P(GlibWatch, ForeignLoopTest, GlibWatch);

} // namespace tarvo_test
