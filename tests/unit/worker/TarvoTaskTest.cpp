#include "worker/TarvoTask.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "worker/Worker.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class FinishObserver : public TarvoTaskObserver {
public:
    void OnTaskFinished(const TarvoTask &task) override { finished.push_back(task.GetExecutor()); }
    std::vector<const Worker *> finished;
};

TEST(TarvoTaskTest, ASyncTaskRunsItsCallbackAndHasNoExecutor) {
    int calls = 0;
    const SyncTask task([&] { ++calls; });
    task();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(task.GetExecutor(), nullptr);
}

TEST(TarvoTaskTest, AOneShotTaskTellsItsObserverAfterTheCallback) {
    FinishObserver observer;
    Worker worker("1");
    const OneShotTask task([&] { EXPECT_THAT(observer.finished, IsEmpty()); }, observer, worker);
    EXPECT_EQ(task.GetExecutor(), &worker);
    task();
    EXPECT_THAT(observer.finished, ElementsAre(&worker));
}

TEST(TarvoTaskTest, ACallbackThatThrowsIsNotReportedAsFinished) {
    FinishObserver observer;
    Worker worker("1");
    const OneShotTask task([] { throw std::runtime_error("out of a callback"); }, observer, worker);
    EXPECT_THROW(task(), std::runtime_error);
    EXPECT_THAT(observer.finished, IsEmpty());
}

} // namespace
