#include "loop/glib_watch.h"

#include "Scenes.h"

namespace tarvo_test {
namespace {

// GLib's context stays until the process ends, with a descriptor of its own: it is no leak of a test.
class DefaultContext : public testing::Environment {
    void SetUp() override { g_main_context_default(); }
};

[[maybe_unused]] const testing::Environment *const CONTEXT = testing::AddGlobalTestEnvironment(new DefaultContext);

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(GlibWatch, ForeignLoopTest, GlibWatch, );

} // namespace tarvo_test
