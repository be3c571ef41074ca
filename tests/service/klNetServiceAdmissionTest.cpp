// The service's handshake stage, in this process: connections that never finish their handshake
// are closed at its deadline, or at stop(), which ends run() at once and leaves no thread; and a
// keyed service seals or refuses a link given to it from outside as well.
#include <support/klNetProcessTestSupport.h>

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>

#include "klServiceClient.h"

#include <QCoreApplication>

#include <unistd.h>

using namespace kltest;

namespace {

// A service on a loopback port, run() on a thread of its own; stopped and joined when it goes.
class RunningService {
public:
    RunningService(std::shared_ptr<klNetLinkSealer> sealer, double handshakeTimeout,
                   int maxRequests = 64) {
        m_service->setListenAddress("127.0.0.1");
        m_service->setMaxRequests(maxRequests);
        m_service->setConsole(false);
        m_service->setLinkSealer(std::move(sealer));
        m_service->setHandshakeTimeout(handshakeTimeout);
        m_service->setRequestTimeout(60.0);
        auto listening = std::make_shared<std::promise<void>>();
        m_service->setListeningHandler([listening](int) { listening->set_value(); });
        m_run = std::make_unique<Task>([service = m_service] { service->run(); });
        EXPECT_EQ(std::future_status::ready, listening->get_future().wait_for(kBound));
    }
    ~RunningService() {
        m_service->stop();
        EXPECT_TRUE(m_run->finishedWithin(kBound));
    }
    klNetService& service() { return *m_service; }
    bool ended(Clock::duration limit) const { return m_run->finishedWithin(limit); }
    klSocketAddress address() const { return {"127.0.0.1", m_service->getPort()}; }

private:
    std::shared_ptr<klNetService> m_service = std::make_shared<klNetService>(0, "");
    std::unique_ptr<Task> m_run;
};

std::uint64_t refusals(klNetService& service, const std::string& reason) {
    const auto metrics = service.metrics();
    const auto found = metrics.refusals.find(reason);
    return found == metrics.refusals.end() ? 0 : found->second;
}

// What a connection that greets (or not) and then waits hears before the service closes it.
struct Loiterer {
    Loiterer(const klSocketAddress& address, std::uint32_t greeting) : link(address, 10.0) {
        link.setRecvTimeout(30.0);
        if (greeting != 0) {
            link.send(&greeting, sizeof(greeting));
        }
    }
    // Reads until the service closes the connection: "closed", or how reading failed.
    std::string end() {
        return outcome([this] {
            for (unsigned char byte = 0;;) {
                link.recv(&byte, 1);
            }
        });
    }
    klSocketLink link;
};

struct Crowd {
    const char* name;
    bool keyed;
    std::uint32_t greeting;  // of the half that greets
};

void PrintTo(const Crowd& crowd, std::ostream* os) {
    *os << crowd.name;
}

class klNetServiceAdmissionTest : public ::testing::TestWithParam<Crowd> {};

// Far more connections than request places that never finish their handshake (silent, or
// greeting and then waiting, in the keyed service's handshake after its hello) hold no place: a
// client that does finish it is served meanwhile; the crowd is closed at the handshake deadline,
// each counted; a wrong greeting to a keyed service is refused at once.
TEST_P(klNetServiceAdmissionTest, ACrowdThatNeverFinishesItsHandshakeHoldsNoPlaceAndIsClosed) {
    const Crowd crowd = GetParam();
    const auto sealer =
        crowd.keyed ? std::make_shared<klNetFarmSealer>(klNetFarmKey::random()) : nullptr;
    RunningService running(sealer, 2.0, 2);
    constexpr int kCrowd = 40;
    std::vector<std::unique_ptr<Loiterer>> loiterers;
    for (int i = 0; i < kCrowd; ++i) {
        loiterers.push_back(
            std::make_unique<Loiterer>(running.address(), i % 2 == 0 ? 0 : crowd.greeting));
    }
    // The last one has its answer: the stage holds the whole crowd.
    std::uint32_t echoed = 0;
    loiterers.back()->link.recv(&echoed, sizeof(echoed));
    klServiceClient client("127.0.0.1", running.address().getPort());
    client.setRecvTimeout(30.0);
    client.setSealer(sealer);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("returned", outcome([&] { client.status(); }));
    }
    for (auto& loiterer : loiterers) {
        EXPECT_EQ("closed", loiterer->end());
    }
    EXPECT_TRUE(
        waitUntil([&] { return refusals(running.service(), "handshake-timeout") == kCrowd; }));
    if (crowd.keyed) {
        Loiterer plain(running.address(), klSocketLink::kGreeting);
        EXPECT_EQ("closed", plain.end());
        EXPECT_EQ(1u, refusals(running.service(), "unsealed"));
    }
    EXPECT_EQ(std::uint64_t(kCrowd), refusals(running.service(), "handshake-timeout"));
}

INSTANTIATE_TEST_SUITE_P(BothServices, klNetServiceAdmissionTest,
                         ::testing::Values(Crowd{"keyed", true, klSocketLink::kSealedGreeting},
                                           Crowd{"plain", false, klSocketLink::kGreeting}),
                         [](const ::testing::TestParamInfo<Crowd>& info) {
                             return std::string(info.param.name);
                         });

// stop() reaches the accepting thread while it carries handshakes that would last a minute: run()
// ends, every connection is closed, and no thread of the service is left once it has gone.
TEST(klNetServiceAdmissionStopTest, StopEndsRunAtOnceWithHandshakesPendingAndLeavesNoThread) {
    // A first thread, so that runtimes that start a helper thread with it (the sanitizers) have.
    std::thread([] {}).join();
    const std::size_t threads = procEntries(::getpid(), "task");
    std::vector<std::unique_ptr<Loiterer>> loiterers;
    {
        auto running = std::make_unique<RunningService>(
            std::make_shared<klNetFarmSealer>(klNetFarmKey::random()), 60.0);
        for (int i = 0; i < 20; ++i) {
            loiterers.push_back(std::make_unique<Loiterer>(
                running->address(), i % 2 == 0 ? 0 : klSocketLink::kSealedGreeting));
        }
        // The last one has its hello: the stage holds them all.
        std::uint32_t greeting = 0;
        loiterers.back()->link.recv(&greeting, sizeof(greeting));
        EXPECT_EQ(klSocketLink::kSealedGreeting, greeting);
        running->service().stop();
        EXPECT_TRUE(running->ended(kBound));
        for (auto& loiterer : loiterers) {
            EXPECT_EQ("closed", loiterer->end());
        }
        EXPECT_EQ(0u, refusals(running->service(), "handshake-timeout"));
    }
    EXPECT_TRUE(waitUntil([&] { return procEntries(::getpid(), "task") == threads; }));
}

// A link given to a keyed service from outside is served only when it is sealed already; a plain
// one is closed and counted as unsealed. A service without a key serves a plain one.
TEST(klNetServiceAdmissionExternalTest, AKeyedServiceSealsOrRefusesEveryLinkGivenToIt) {
    static char name[] = "klNetServiceAdmissionTest";
    static char* argv[] = {name, nullptr};
    int argc = 1;
    QCoreApplication application(argc, argv);
    const auto farmSealer = std::make_shared<klNetFarmSealer>(klNetFarmKey::random());
    const struct {
        bool keyed;
        bool sealed;
        const char* answer;
    } cases[] = {{true, false, "closed"}, {true, true, "returned"}, {false, false, "returned"}};
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.keyed ? "keyed" : "plain") + " service, " +
                     (each.sealed ? "sealed" : "plain") + " link");
#ifdef __SANITIZE_THREAD__
        // A served link runs on a Qt request thread, whose ordering ThreadSanitizer cannot see.
        if (each.answer == std::string("returned")) {
            continue;
        }
#endif
        auto service = std::make_shared<klNetService>(0, "");
        if (each.keyed) {
            service->setLinkSealer(farmSealer);
        }
        klBoundSocketLink listener(klSocketAddress("127.0.0.1", "0"));
        const int port = listener.getAddress().getPort();
        std::unique_ptr<klSocketLink> far;
        Task accept([&] {
            far = std::make_unique<klSocketLink>(listener);
            std::uint32_t greeting = 0;
            far->recv(&greeting, sizeof(greeting));
            if (each.sealed) {
                klNetNodeNames names;
                names.add("127.0.0.1", port);
                farmSealer->accept(*far, names);
            } else {
                far->send(&greeting, sizeof(greeting));
            }
        });
        auto near = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 10.0);
        near->setRecvTimeout(30.0);
        if (each.sealed) {
            farmSealer->connect(*near, klNetNodeNames::nameOf("127.0.0.1", port), 30.0);
        } else {
            near->signalHPCNetSocket();
        }
        ASSERT_TRUE(accept.finishedWithin(kBound));
        accept.get();
        service->handleExternalRequest(far.release());
        klNetStream stream(near);
        EXPECT_EQ(each.answer, outcome([&] {
                      stream << std::uint32_t(klNetService::kGetStatus) << klNetStream::flush;
                      stream.recvResult();
                  }));
        EXPECT_EQ(each.keyed && !each.sealed ? 1u : 0u, refusals(*service, "unsealed"));
        // The service waits for its request threads; the application deletes them.
        EXPECT_TRUE(releasedWithin(std::move(service)));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

}  // namespace
