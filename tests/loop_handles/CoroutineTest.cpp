// Coroutines that wait for links: with a task type as a user has one.
#include "tarvo_coro.hpp"

#include <coroutine>
#include <exception>
#include <vector>

#include "LoopHandles.h"

namespace tarvo_test {
namespace {

// Starts at once; owns its coroutine, which it destroys wherever that has come to.
class Task {
public:
    struct promise_type {
        Task get_return_object() { return Task(std::coroutine_handle<promise_type>::from_promise(*this)); }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_always final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };

    Task() = default;
    Task(Task &&other) noexcept : coroutine(std::exchange(other.coroutine, nullptr)) {}
    Task &operator=(Task &&other) noexcept {
        std::swap(coroutine, other.coroutine);
        return *this;
    }
    ~Task() {
        if (coroutine) {
            coroutine.destroy();
        }
    }
    bool Done() const { return coroutine.done(); }

private:
    explicit Task(std::coroutine_handle<promise_type> started) : coroutine(started) {}
    std::coroutine_handle<promise_type> coroutine;
};

class CoroutineTest : public LoopHandlesTest {
protected:
    void Finish(const Task &task) {
        Until([&task] { return task.Done(); });
    }
    tarvo::CoLink Connect(const std::string &self = "client") { return tarvo::CoLink::Connect(loop, name, As(self)); }
};

Task AskInTurn(tarvo::CoLink &link, int times, std::vector<std::string> &answers) {
    EXPECT_FALSE(co_await link.Opened());
    for (int i = 0; i < times; ++i) {
        const std::string question = "question " + std::to_string(i);
        const auto [error, answer] = co_await link.Call(question, PATIENCE);
        EXPECT_FALSE(error);
        answers.emplace_back(answer);
    }
}

TEST_F(CoroutineTest, CallsInTurnHaveTheirAnswers) {
    ServeEcho();
    tarvo::CoLink link = Connect();
    std::vector<std::string> answers;
    const Task task = AskInTurn(link, 100, answers);
    EXPECT_FALSE(task.Done());
    Finish(task);
    ASSERT_EQ(answers.size(), 100U);
    EXPECT_EQ(answers[0], "question 0");
    EXPECT_EQ(answers[99], "question 99");
}

TEST_F(CoroutineTest, ManyCoroutinesShareALink) {
    ServeEcho();
    tarvo::CoLink link = Connect();
    std::vector<std::vector<std::string>> answers(50);
    std::vector<Task> tasks;
    for (auto &own : answers) {
        tasks.push_back(AskInTurn(link, 3, own));
    }
    for (const Task &task : tasks) {
        Finish(task);
    }
    for (const auto &own : answers) {
        EXPECT_EQ(own, (std::vector<std::string>{"question 0", "question 1", "question 2"}));
    }
}

Task Wait(tarvo::CoLink &link, std::error_code &result) { result = co_await link.Opened(); }

TEST_F(CoroutineTest, OpenThatHasEndedIsNotWaitedFor) {
    ServeEcho();
    tarvo::CoLink link = Connect();
    std::error_code first = std::make_error_code(std::errc::interrupted);
    const Task waits = Wait(link, first);
    Finish(waits);
    EXPECT_FALSE(first);
    std::error_code second = first;
    const Task goesOn = Wait(link, second);
    EXPECT_TRUE(goesOn.Done());
    EXPECT_FALSE(second);
}

TEST_F(CoroutineTest, FailedOpenIsTheEndOfEverything) {
    tarvo::CoLink link = Connect();
    std::error_code opened;
    std::error_code closed;
    std::error_code writable;
    const Task one = Wait(link, opened);
    const Task two = [](tarvo::CoLink &of, std::error_code &to) -> Task { to = co_await of.Closed(); }(link, closed);
    const Task three = [](tarvo::CoLink &of, std::error_code &to) -> Task { to = co_await of.Writable(); }(link,
                                                                                                           writable);
    Finish(three);
    EXPECT_TRUE(one.Done() && two.Done());
    EXPECT_EQ(opened, std::errc::no_such_device_or_address);
    EXPECT_EQ(closed, opened);
    EXPECT_EQ(writable, opened);
}

TEST_F(CoroutineTest, RefusedCallDoesNotWait) {
    ServeEcho();
    tarvo::CoLink link = Connect();
    std::error_code result;
    const Task task = [](tarvo::CoLink &of, std::error_code &to) -> Task {
        to = (co_await of.Call("too early", 1s)).error;
    }(link, result);
    EXPECT_TRUE(task.Done());
    EXPECT_EQ(result, std::errc::not_connected);
}

Task CallOnce(tarvo::CoLink &link, std::error_code &result) {
    EXPECT_FALSE(co_await link.Opened());
    result = (co_await link.Call("x", tarvo::NO_LIMIT)).error;
}

TEST_F(CoroutineTest, LinkThatEndsCancelsWhatWaits) {
    service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers());
    std::error_code call;
    std::error_code open;
    {
        tarvo::CoLink link = Connect();
        const Task opening = Wait(link, open);
        Finish(opening);
        const Task calling = CallOnce(link, call);
        std::error_code closed;
        const Task closing = [](tarvo::CoLink &of, std::error_code &to) -> Task { to = co_await of.Closed(); }(link,
                                                                                                               closed);
        link = tarvo::CoLink();
        EXPECT_FALSE(calling.Done() || closing.Done()) << "never inside the close";
        Finish(calling);
        Finish(closing);
        EXPECT_EQ(call, std::errc::operation_canceled);
        EXPECT_EQ(closed, std::errc::operation_canceled);
    }
    tarvo::CoLink unopened = Connect();
    const Task opening = Wait(unopened, open);
    unopened = tarvo::CoLink();
    Finish(opening);
    EXPECT_EQ(open, std::errc::operation_canceled);
}

TEST_F(CoroutineTest, CoroutineMayEndItsLinkItself) {
    ServeEcho();
    int answered = 0;
    const Task task = [](tarvo::CoLink link, int &count) -> Task {
        EXPECT_FALSE(co_await link.Opened());
        const tarvo::Answer answer = co_await link.Call("x", PATIENCE);
        count += answer.bytes == "x";
        link.Close();
        EXPECT_FALSE(link);
    }(Connect(), answered);
    Finish(task);
    EXPECT_EQ(answered, 1);
}

TEST_F(CoroutineTest, CoroutinesMayBeDestroyedWhileTheyWait) {
    service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers());
    tarvo::CoLink link = Connect();
    std::error_code result;
    { const Task dropped = Wait(link, result); }
    const Task opening = Wait(link, result);
    Finish(opening);
    {
        const Task dropped = CallOnce(link, result);
        EXPECT_FALSE(dropped.Done());
    }
    std::error_code timedOut;
    const Task task = [](tarvo::CoLink &of, std::error_code &to) -> Task {
        to = (co_await of.Call("later", 1ms)).error;
    }(link, timedOut);
    Finish(task);
    EXPECT_EQ(timedOut, std::errc::timed_out);
    link = tarvo::CoLink();
    Drain();
    EXPECT_FALSE(result) << "what was destroyed has not gone on";
}

TEST_F(CoroutineTest, CoroutineThatGoesOnMayDestroyAnother) {
    ServeEcho();
    tarvo::CoLink link = Connect();
    std::vector<Task> tasks(2);
    int ran = 0;
    const auto destroyOther = [](tarvo::CoLink &of, std::vector<Task> &all, std::size_t other, int &count) -> Task {
        co_await of.Opened();
        ++count;
        all[other] = Task();
    };
    tasks[0] = destroyOther(link, tasks, 1, ran);
    tasks[1] = destroyOther(link, tasks, 0, ran);
    Until([&] { return ran > 0; });
    Drain();
    EXPECT_EQ(ran, 1);
}

TEST_F(CoroutineTest, WhatWaitsWhenTheLoopEndsIsLeftToItsOwner) {
    service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers());
    tarvo::CoLink link = Connect();
    std::error_code result;
    const Task opening = Wait(link, result);
    Finish(opening);
    const Task calling = CallOnce(link, result);
    const Task closing = [](tarvo::CoLink &of) -> Task { co_await of.Closed(); }(link);
    loop = tarvo::Loop();
    link = tarvo::CoLink();
    EXPECT_FALSE(calling.Done() || closing.Done());
}

TEST_F(CoroutineTest, RemotesEndIsToldAfterTheCallsHaveEnded) {
    tarvo::LinkView client;
    service = tarvo::Service::Open(
        loop, name, {}, tarvo::ServiceHandlers().OnRequest([&](const auto &request) { client = request.From(); }));
    tarvo::CoLink link = Connect();
    std::error_code call;
    const Task calling = CallOnce(link, call);
    Until([&] { return static_cast<bool>(client); });
    bool callHadEnded = false;
    const Task closing = [](tarvo::CoLink &of, const Task &first, bool &to) -> Task {
        EXPECT_FALSE(co_await of.Closed());
        to = first.Done();
    }(link, calling, callHadEnded);
    EXPECT_FALSE(client.Close());
    Finish(closing);
    EXPECT_TRUE(callHadEnded);
    EXPECT_EQ(call, std::errc::broken_pipe);
}

TEST_F(CoroutineTest, SenderWaitsUntilThereIsRoom) {
    std::size_t heard = 0;
    service = tarvo::Service::Open(
        loop, name, {}, tarvo::ServiceHandlers().OnRequest([&heard](const tarvo::LinkRequest &) { ++heard; }));
    tarvo::CoLink link = Connect();
    int waits = 0;
    const Task task = [](tarvo::CoLink &to, int &count) -> Task {
        EXPECT_FALSE(co_await to.Opened());
        const std::string payload(4000, 'x');
        for (int sent = 0; sent < 200;) {
            const std::error_code error = to.View().Send(payload);
            if (error == std::errc::resource_unavailable_try_again) {
                ++count;
                EXPECT_FALSE(co_await to.Writable());
            } else {
                EXPECT_FALSE(error);
                ++sent;
            }
        }
    }(link, waits);
    Finish(task);
    Until([&] { return heard == 200; });
    EXPECT_GT(waits, 0);
}

TEST_F(CoroutineTest, ServiceCanAskItsClients) {
    std::string answer;
    std::vector<Task> tasks;
    service = tarvo::Service::Open(loop, name, {},
                                   tarvo::ServiceHandlers().OnClient([&](tarvo::LinkView client, std::string_view) {
                                       tasks.push_back([](tarvo::LinkView asked, std::string &to) -> Task {
                                           to = (co_await tarvo::CoCall(asked, "how are you", PATIENCE)).bytes;
                                       }(client, answer));
                                   }));
    const tarvo::CoLink link = tarvo::CoLink::Connect(
        loop, name, As("client"), [](const tarvo::LinkRequest &) { return std::string_view("well"); });
    Until([&] { return !answer.empty(); });
    EXPECT_EQ(answer, "well");
}

} // namespace
} // namespace tarvo_test
