// How long the callables of a service live: as long as it or a client of it.
#include "LoopHandles.h"

namespace tarvo_test {
namespace {

class ServiceTest : public LoopHandlesTest {
protected:
    void Serve() {
        service = tarvo::Service::Open(
            loop, name, {},
            tarvo::ServiceHandlers()
                .OnClient([this](tarvo::LinkView link, std::string_view) { client = link; })
                .OnRequest([counted = Counted(alive)](const tarvo::LinkRequest &request) { return request.Bytes(); })
                .OnClosed([this](tarvo::LinkView) { ++closed; }));
    }
    // Whether a call still reaches the callables.
    bool Answers(const tarvo::Link &link) {
        std::optional<std::error_code> end;
        EXPECT_FALSE(link.Call("x", PATIENCE, [&end](std::error_code error, std::string_view) { end = error; }));
        Until([&] { return end.has_value(); });
        return !*end;
    }

    int alive = 0;
    int closed = 0;
    tarvo::LinkView client;
};

TEST_F(ServiceTest, CallablesEndWithAServiceThatHasNoClients) {
    Serve();
    EXPECT_EQ(alive, 1);
    EXPECT_FALSE(service.Close());
    EXPECT_EQ(alive, 0);
}

TEST_F(ServiceTest, ClientsOfAClosedServiceAreStillAnswered) {
    Serve();
    tarvo::Link link = Connected();
    EXPECT_TRUE(Answers(link));
    EXPECT_FALSE(service.Close());
    EXPECT_TRUE(Answers(link));
    EXPECT_EQ(alive, 1);
    link = tarvo::Link();
    Until([&] { return closed == 1; });
    EXPECT_EQ(alive, 0);
}

TEST_F(ServiceTest, CallablesEndWithTheLastClientThatTheServerCloses) {
    Serve();
    const tarvo::Link link = Connected();
    Until([&] { return static_cast<bool>(client); });
    EXPECT_FALSE(service.Close());
    EXPECT_EQ(alive, 1);
    EXPECT_FALSE(client.Close());
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(closed, 0);
}

TEST_F(ServiceTest, ClientMayBeClosedInsideItsOwnCallbacks) {
    int ends = 0;
    int clients = 0;
    service = tarvo::Service::Open(loop, name, {},
                                   tarvo::ServiceHandlers()
                                       .OnClient([&](tarvo::LinkView, std::string_view) { ++clients; })
                                       .OnRequest([counted = Counted(alive)](const tarvo::LinkRequest &request) {
                                           tarvo::LinkView from = request.From();
                                           if (request.Bytes() == "close") {
                                               EXPECT_FALSE(from.Close());
                                           }
                                       })
                                       .OnClosed([&](tarvo::LinkView link) {
                                           EXPECT_FALSE(link.Close());
                                           ++ends;
                                       }));
    const tarvo::Link closedHere = Connected("one");
    tarvo::Link closedThere = Connected("other");
    Until([&] { return clients == 2; });
    EXPECT_FALSE(closedHere.Send("close"));
    Drain();
    EXPECT_FALSE(closedThere.Close());
    Until([&] { return ends == 1; });
    EXPECT_EQ(alive, 1);
    EXPECT_FALSE(service.Close());
    EXPECT_EQ(alive, 0) << "both clients have gone";
}

TEST_F(ServiceTest, ServiceMayEndInsideItsOwnCallback) {
    bool ended = false;
    service = tarvo::Service::Open(
        loop, name, {},
        tarvo::ServiceHandlers().OnClient([&, counted = Counted(alive)](tarvo::LinkView link, std::string_view) {
            service = tarvo::Service();
            EXPECT_FALSE(link.Close());
            EXPECT_EQ(alive, 1);
            ended = true;
        }));
    const tarvo::Link link = tarvo::Link::Connect(loop, name, As("client"), tarvo::LinkHandlers());
    Until([&] { return ended; });
    EXPECT_EQ(alive, 0);
}

TEST_F(ServiceTest, CallablesOfClientsEndWithTheLoop) {
    Serve();
    const tarvo::Link link = Connected();
    Until([&] { return static_cast<bool>(client); });
    EXPECT_FALSE(service.Close());
    loop = tarvo::Loop();
    EXPECT_EQ(alive, 0);
}

TEST_F(ServiceTest, NameCanBeTakenAwayWhenAskedFor) {
    Serve();
    tarvo::Loop other = tarvo::Loop::Create();
    std::error_code error;
    tarvo::Service second = tarvo::Service::Open(other, name, {}, tarvo::ServiceHandlers(), error);
    EXPECT_EQ(error, std::errc::address_in_use);
    second = tarvo::Service::Open(other, name, tarvo::ServiceOptions().Replace(), tarvo::ServiceHandlers(), error);
    EXPECT_FALSE(error);
    EXPECT_TRUE(second);
}

} // namespace
} // namespace tarvo_test
