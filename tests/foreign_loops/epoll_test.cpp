#include "loop/epoll_watch.h"

#include "Scenes.h"

namespace tarvo_test {

INSTANTIATE_TYPED_TEST_SUITE_P(EpollWatch, ForeignLoopTest, EpollWatch, );

} // namespace tarvo_test
