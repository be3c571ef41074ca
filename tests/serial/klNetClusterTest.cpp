// A master (this process, rank 1) and three nodes (the same program started again with
// "--cluster-node <rank> <port>", ranks 2 to 4) exchange byte-stream data, messages, results and
// sync points over loopback. The master reaches the nodes through a multi sender over one link
// sender per node and reads them all through a multi-link receiver; each node talks to the master
// over its one link. Nodes act on requests: one-value messages from the master.
//
// Every blocking step of the master is guarded by a watchdog that shuts the stream down after a
// generous bound, so a fault ends in a failed test rather than a hang.
#include <support/klNetPipelineSupport.h>

#include <klNetBase/klNetBase.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

extern char** environ;

namespace {

constexpr int kMaster = 1;
constexpr int kNodes[] = {2, 3, 4};

enum Request : std::int32_t {
    kEchoValues = 1,  // read typed values from the byte stream, return them in a message
    kEchoMessage,     // receive one message, return its bytes in a message
    kSucceed,         // answer with a success result
    kFail,            // answer with a remote exception
    kSync,            // wait for the master's sync value v, answer with v + rank
    kWrongType,       // send a message where stream data is expected, then stream data 77
    kDieInMessage,    // send the first buffer of a three-buffer message, then die
    kQuit,
};

// ---- the typed values the byte stream carries --------------------------------------------------

// One value of every type the byte stream carries, at awkward values; the vector of ints is long
// enough to straddle several buffers.
using Values = std::tuple<std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t,
                          std::uint32_t, std::int64_t, std::uint64_t, float, double, bool,
                          std::string, std::vector<std::int32_t>, std::vector<double>,
                          std::vector<std::string>, std::vector<bool>>;

Values sampleValues() {
    std::vector<std::int32_t> ints(70000);
    for (std::size_t i = 0; i < ints.size(); ++i) {
        ints[i] = std::int32_t(i * 7919) - 1000000;
    }
    return Values{-128,
                  255,
                  -32768,
                  65535,
                  std::numeric_limits<std::int32_t>::min(),
                  0xDEADBEEF,
                  std::numeric_limits<std::int64_t>::min() + 7,
                  0xFEDCBA9876543210ull,
                  -1.5e-30f,
                  std::numeric_limits<double>::denorm_min(),
                  true,
                  std::string("scene\0with zero", 15),
                  ints,
                  {0.0, -0.0, 1e308, -3.25},
                  {"", "a", std::string(200000, 'x')},
                  {true, false, true}};
}

template <class S>
void writeValues(S& s, const Values& values) {
    std::apply([&s](const auto&... value) { (s << ... << value); }, values);
}

template <class S>
void readValues(S& s, Values& values) {
    std::apply([&s](auto&... value) { (s >> ... >> value); }, values);
}

std::vector<unsigned char> pattern(std::size_t size, unsigned seed) {
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>((i * 131 + seed * 17) ^ (i >> 9));
    }
    return bytes;
}

std::vector<unsigned char> bytesOf(klNetMessage& message) {
    std::vector<unsigned char> bytes(message.getMessageSize());
    message.getBytes(bytes.data(), bytes.size());
    return bytes;
}

void sendRequest(klNetStream& stream, Request request, int destination) {
    klNetMessage message;
    message << std::int32_t(request);
    stream.sendMessage(message, destination);
}

// ---- a node -------------------------------------------------------------------------------------

int runNode(int rank, int port) {
    auto link = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 10.0);
    const std::uint32_t announced = std::uint32_t(rank);
    link->send(&announced, sizeof(announced));
    klNetStream stream(link);
    stream.setRank(rank);
    stream.setSender(klNetLinkSender::create(link, {kMaster}));
    for (;;) {
        klNetMessage request;
        stream.recvMessage(request);
        std::int32_t code = 0;
        request >> code;
        switch (code) {
            case kEchoValues: {
                Values values;
                readValues(stream, values);
                klNetMessage reply;
                writeValues(reply, values);
                stream.sendMessage(reply, kMaster);
                break;
            }
            case kEchoMessage: {
                klNetMessage data;
                stream.recvMessage(data);
                const std::vector<unsigned char> bytes = bytesOf(data);
                klNetMessage reply;
                reply.putBytes(bytes.data(), bytes.size());
                stream.sendMessage(reply, kMaster);
                break;
            }
            case kSucceed:
                stream.sendSuccess() << klNetStream::flush;
                break;
            case kFail:
                stream.sendException(std::runtime_error("node " + std::to_string(rank) +
                                                        ": scene 'ß.kls' not found"))
                    << klNetStream::flush;
                break;
            case kSync:
                stream.sendSync(stream.waitSync() + rank);
                break;
            case kWrongType: {
                klNetMessage stray;
                stray << std::int32_t(5);
                stream.sendMessage(stray, kMaster);
                stream << std::int32_t(77) << klNetStream::flush;
                break;
            }
            case kDieInMessage: {
                klNetMessage big;
                const std::vector<unsigned char> bytes = pattern(3 * 131072, 1);
                big.putBytes(bytes.data(), bytes.size());
                std::vector<std::shared_ptr<klNetBuffer>> buffers = big.takeSendBuffers();
                buffers.front()->setDestination(kMaster);
                buffers.front()->setSource(std::uint32_t(rank));
                link->send(buffers.front());
                ::raise(SIGKILL);
                return 1;
            }
            case kQuit:
                return 0;
            default:
                return 2;
        }
    }
}

// ---- the master ---------------------------------------------------------------------------------

// Shuts the stream down if the test has not finished within the bound, so a blocked call returns.
class Watchdog {
public:
    Watchdog(klNetStream& stream, std::chrono::seconds bound)
        : m_thread([this, &stream, bound] {
              std::unique_lock<std::mutex> lock(m_mutex);
              if (!m_done.wait_for(lock, bound, [this] { return m_finished; })) {
                  m_fired = true;
                  stream.shutdown();
              }
          }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_finished = true;
        }
        m_done.notify_all();
        m_thread.join();
        EXPECT_FALSE(m_fired) << "the cluster did not answer in time";
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    bool m_fired = false;
    std::thread m_thread;
};

class Cluster : public testing::Test {
protected:
    void SetUp() override {
        klBoundSocketLink listener(0);
        const std::string port = std::to_string(listener.getAddress().getPort());
        for (int rank : kNodes) {
            const std::string rankText = std::to_string(rank);
            const char* argv[] = {"/proc/self/exe", "--cluster-node", rankText.c_str(),
                                  port.c_str(), nullptr};
            pid_t child = 0;
            ASSERT_EQ(0, ::posix_spawn(&child, argv[0], nullptr, nullptr, const_cast<char**>(argv),
                                       environ));
            m_children.push_back(child);
        }
        std::vector<std::shared_ptr<klNetLink>> links;
        std::vector<std::shared_ptr<klNetSender>> senders;
        for (std::size_t i = 0; i < m_children.size(); ++i) {
            auto link = std::make_shared<klSocketLink>(listener);
            link->setRecvTimeout(30.0);
            std::uint32_t rank = 0;
            link->recv(&rank, sizeof(rank));
            link->setRecvTimeout(0.0);
            m_linkOf[int(rank)] = link;
            links.push_back(link);
            senders.push_back(klNetLinkSender::create(link, {rank}));
        }
        master.setRank(kMaster);
        master.setSender(klNetMultiSender::create(senders));
        master.setReceiver(klNetMultiLinkReceiver::create(links));
    }

    void TearDown() override {
        for (const auto& [rank, link] : m_linkOf) {
            if (m_quit.count(rank) == 0) {
                try {
                    sendRequest(master, kQuit, rank);
                } catch (const klNetError&) {
                    // That node has gone already.
                }
            }
        }
        master.shutdown();
        // Reap every node within a bound; one that does not end is killed.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (std::size_t i = 0; i < m_children.size(); ++i) {
            int status = 0;
            while (::waitpid(m_children[i], &status, WNOHANG) == 0) {
                if (std::chrono::steady_clock::now() > deadline) {
                    ::kill(m_children[i], SIGKILL);
                    ADD_FAILURE() << "node " << kNodes[i] << " did not end";
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            if (m_quit.count(kNodes[i]) == 0) {
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
                    << "node " << kNodes[i] << " ended with status " << status;
            }
        }
    }

    // One message from each node, by rank.
    std::map<int, klNetMessage> collectReplies() {
        std::map<int, klNetMessage> replies;
        for (std::size_t i = 0; i < std::size(kNodes); ++i) {
            klNetMessage reply;
            master.recvMessage(reply);
            const int source = int(reply.getSource());
            EXPECT_EQ(0u, replies.count(source)) << "second reply from " << source;
            replies[source] = std::move(reply);
        }
        return replies;
    }

    klNetStream master;
    std::map<int, std::shared_ptr<klSocketLink>> m_linkOf;
    std::set<int> m_quit;
    // Started in the order of kNodes.
    std::vector<pid_t> m_children;
};

TEST_F(Cluster, ByteStreamValuesOfEveryTypeReachEveryNode) {
    Watchdog watchdog(master, std::chrono::seconds(60));
    const Values sent = sampleValues();
    sendRequest(master, kEchoValues, 0);
    writeValues(master, sent);
    master.flush();
    // Each node read the values and wrote them back: its reply holds exactly the bytes of the same
    // values written here.
    klNetMessage expected;
    writeValues(expected, sent);
    std::vector<std::shared_ptr<klNetBuffer>> expectedBuffers = expected.takeSendBuffers();
    expected.setRecvBuffers(expectedBuffers);
    const std::vector<unsigned char> expectedBytes = bytesOf(expected);
    for (auto& [rank, reply] : collectReplies()) {
        EXPECT_EQ(expectedBytes, bytesOf(reply)) << "from node " << rank;
    }
}

TEST_F(Cluster, DirectedAndMulticastMessagesArriveWhole) {
    Watchdog watchdog(master, std::chrono::seconds(60));
    const std::size_t sizes[] = {1, 131072, 131073, 1 << 20};
    for (std::size_t size : sizes) {
        const std::vector<unsigned char> bytes = pattern(size, unsigned(size));
        for (int rank : kNodes) {
            sendRequest(master, kEchoMessage, rank);
            klNetMessage data;
            data.putBytes(bytes.data(), bytes.size());
            master.sendMessage(data, rank);
            klNetMessage reply;
            master.recvMessage(reply);
            EXPECT_EQ(std::size_t(rank), reply.getSource());
            EXPECT_EQ(bytes, bytesOf(reply)) << size << " bytes to node " << rank;
        }
        sendRequest(master, kEchoMessage, 0);
        klNetMessage data;
        data.putBytes(bytes.data(), bytes.size());
        master.sendMessage(data, 0);
        for (auto& [rank, reply] : collectReplies()) {
            EXPECT_EQ(bytes, bytesOf(reply)) << size << " bytes multicast, from node " << rank;
        }
    }
}

TEST_F(Cluster, ResultsCarryRemoteExceptionTextsAndSyncPointsMeetEveryNode) {
    Watchdog watchdog(master, std::chrono::seconds(60));
    for (int rank : kNodes) {
        sendRequest(master, kSucceed, rank);
        EXPECT_NO_THROW(master.recvResult());
        sendRequest(master, kFail, rank);
        try {
            master.recvResult();
            ADD_FAILURE() << "node " << rank << " reported no failure";
        } catch (const klNetError& e) {
            EXPECT_EQ("node " + std::to_string(rank) + ": scene 'ß.kls' not found", e.what());
        }
    }
    for (int round = 1; round <= 3; ++round) {
        sendRequest(master, kSync, 0);
        master.sendSync(100 * round);
        const int answer = master.waitSync();
        EXPECT_TRUE(answer == 100 * round + 2 || answer == 100 * round + 3 ||
                    answer == 100 * round + 4)
            << answer;
    }
}

TEST_F(Cluster, WrongBufferTypeIsReportedAndTheStreamStaysUsable) {
    Watchdog watchdog(master, std::chrono::seconds(60));
    sendRequest(master, kWrongType, 3);
    std::int32_t value = 0;
    try {
        master >> value;
        ADD_FAILURE() << "a message buffer was read as stream data";
    } catch (const klNetError& e) {
        EXPECT_STREQ("Stream out of sync. Stream expected at 1 from 3 to 1", e.what());
    }
    master >> value;
    EXPECT_EQ(77, value);
}

TEST_F(Cluster, NodeKilledInTheMiddleOfAMessageClosesItsConnection) {
    Watchdog watchdog(master, std::chrono::seconds(60));
    sendRequest(master, kDieInMessage, 4);
    m_quit.insert(4);
    klNetMessage partial;
    EXPECT_THROW(master.recvMessage(partial), klConnectionClosed);
    // The other nodes are still there.
    sendRequest(master, kSucceed, 2);
    EXPECT_NO_THROW(master.recvResult());
}

TEST(klNetStreamAbort, WaitingForDataEndsWithAbortedWhenTheUserAborts) {
    const auto [client, server] = kltest::connectedPair();
    klNetStream quiet(client);

    klNetProgress::abort();
    EXPECT_THROW(
        {
            try {
                quiet.waitReadableOrAbort();
            } catch (const klNetError& e) {
                EXPECT_STREQ("Aborted", e.what());
                throw;
            }
        },
        klNetError);

    klNetProgress::reset();
    std::thread user([] { klNetProgress::abort(); });
    EXPECT_THROW(quiet.waitReadableOrAbort(), klNetError);
    user.join();
    klNetProgress::reset();

    const std::int32_t ready = 1;
    klNetStream talker(server);
    talker << ready << klNetStream::flush;
    EXPECT_NO_THROW(quiet.waitReadableOrAbort());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--cluster-node") == 0) {
        try {
            return runNode(std::atoi(argv[2]), std::atoi(argv[3]));
        } catch (const std::exception&) {
            return 3;
        }
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
