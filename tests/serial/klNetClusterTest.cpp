// A master (this process, rank 1) and three nodes (the same program started again with
// "--cluster-node <rank> <port>", ranks 2 to 4) exchange byte-stream data, messages, results and
// sync points over loopback. The master reaches the nodes through a multi sender over one link
// sender per node and reads them all through a multi-link receiver; each node talks to the master
// over its one link. Nodes act on requests: one-value messages from the master.
#include <support/klNetPipelineSupport.h>
#include <support/klNetProcessTestSupport.h>

#include <map>
#include <tuple>

using namespace kltest;

namespace {

constexpr int kMaster = 1;
constexpr int kNodes[] = {2, 3, 4};

enum Request : std::int32_t {
    kEchoValues = 1,  // read typed values from the byte stream, return them in a message
    kEchoMessage,     // return the bytes that follow the request code in a message
    kFail,            // answer with a remote exception naming the node
    kSync,            // wait for the master's sync value v, answer with v + 1
    kDieInMessage,    // send the first buffer of a three-buffer message, then die
    kQuit,
};

// Values of several types, among them long ones that straddle several buffers and the reader's
// growth steps.
using Values = std::tuple<std::int8_t, std::uint64_t, double, bool, std::string,
                          std::vector<std::int32_t>, std::vector<std::string>, std::vector<bool>>;

Values sampleValues() {
    const Bytes bytes = pattern(200000);
    return Values(-128, 0xFEDCBA9876543210ull, -3.25, true, std::string("scene\0with zero", 15),
                  std::vector<std::int32_t>(bytes.begin(), bytes.begin() + 70000),
                  std::vector<std::string>{"", std::string(bytes.begin(), bytes.end())},
                  std::vector<bool>{true, false, true});
}

template <class S>
void writeValues(S& s, const Values& values) {
    std::apply([&s](const auto&... value) { (s << ... << value); }, values);
}

// A message of the request code followed by bytes.
void sendRequest(klNetStream& stream, Request request, int destination, const Bytes& bytes = {}) {
    klNetMessage message;
    message << std::int32_t(request);
    message.putBytes(bytes.data(), bytes.size());
    stream.sendMessage(message, destination);
}

int runNode(int rank, int port) {
    auto link = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 10.0);
    const std::uint32_t announced = std::uint32_t(rank);
    link->send(&announced, sizeof(announced));
    klNetStream stream(link);
    stream.setRank(rank);
    stream.setSender(klNetLinkSender::create(link, {kMaster}));
    for (;;) {
        klNetMessage request, data;
        std::int32_t code = 0;
        stream.recvMessage(request);
        request >> code;
        switch (code) {
            case kEchoValues: {
                Values values;
                std::apply([&stream](auto&... value) { (stream >> ... >> value); }, values);
                writeValues(data, values);
                stream.sendMessage(data, kMaster);
                break;
            }
            case kEchoMessage: {  // the size counts the code's buffer whole
                const Bytes bytes = readBytes(request, request.getMessageSize() - 4);
                data.putBytes(bytes.data(), bytes.size());
                stream.sendMessage(data, kMaster);
                break;
            }
            case kFail:
                stream.sendException(std::runtime_error("node " + std::to_string(rank) +
                                                        ": scene 'ß.kls' not found"))
                    << klNetStream::flush;
                break;
            case kSync:
                stream.sendSync(stream.waitSync() + 1);
                break;
            case kDieInMessage:
                link->send(makeBuffer(pattern(131072), klNetMessageTypeMessage, unsigned(rank),
                                      kMaster, 0, 7, 3));
                ::raise(SIGKILL);
                return 1;
            default:
                return code == kQuit ? 0 : 2;
        }
    }
}

class Cluster : public testing::Test {
protected:
    void SetUp() override {
        klBoundSocketLink listener(0);
        const std::string port = std::to_string(listener.getAddress().getPort());
        for (int rank : kNodes) {
            m_nodes[rank] = std::make_unique<ChildProcess>(
                "/proc/self/exe",
                std::vector<std::string>{"--cluster-node", std::to_string(rank), port});
        }
        std::vector<std::shared_ptr<klNetLink>> links;
        std::vector<std::shared_ptr<klNetSender>> senders;
        for (std::size_t i = 0; i < std::size(kNodes); ++i) {
            auto link = std::make_shared<klSocketLink>(listener);
            link->setRecvTimeout(30.0);
            std::uint32_t rank = 0;
            link->recv(&rank, sizeof(rank));
            link->setRecvTimeout(0.0);
            links.push_back(link);
            senders.push_back(klNetLinkSender::create(link, {rank}));
        }
        master.setRank(kMaster);
        master.setSender(klNetMultiSender::create(senders));
        master.setReceiver(klNetMultiLinkReceiver::create(links));
    }

    void TearDown() override {
        for (const auto& [rank, node] : m_nodes) {
            if (m_killed.count(rank) == 0) {
                outcome([&, rank = rank] { sendRequest(master, kQuit, rank); });
            }
        }
        master.shutdown();
        for (const auto& [rank, node] : m_nodes) {
            EXPECT_EQ(m_killed.count(rank) ? 128 + SIGKILL : 0, node->exitStatus(30.0))
                << "node " << rank;
        }
    }

    // The node a reply came from. A reply of several buffers shows its first buffer's header only
    // once reading has begun: a copy, sharing the buffers, reads one byte.
    static std::size_t sourceOf(klNetMessage reply) {
        if (reply.getSource() == 0) {
            readBytes(reply, 1);
        }
        return reply.getSource();
    }

    // One message from each node, by rank.
    std::map<int, klNetMessage> collectReplies() {
        std::map<int, klNetMessage> replies;
        for (std::size_t i = 0; i < std::size(kNodes); ++i) {
            klNetMessage reply;
            master.recvMessage(reply);
            const int source = int(sourceOf(reply));
            EXPECT_EQ(0u, replies.count(source)) << "second reply";
            replies[source] = std::move(reply);
        }
        return replies;
    }

    klNetStream master;
    std::map<int, std::unique_ptr<ChildProcess>> m_nodes;
    std::set<int> m_killed;
    // A fault ends in a failed test rather than a hang.
    Watchdog m_watchdog{[this] { master.shutdown(); }, std::chrono::seconds(60)};
};

TEST_F(Cluster, ByteStreamValuesAndMessagesOfEverySizeReachEveryNode) {
    // Each node reads the values and writes them back: its reply holds exactly the bytes of the
    // same values written here.
    const Values sent = sampleValues();
    sendRequest(master, kEchoValues, 0);
    writeValues(master, sent);
    master.flush();
    klNetMessage expected;
    writeValues(expected, sent);
    const Bytes expectedBytes = concatPayloads(expected.takeSendBuffers());
    for (auto& [rank, reply] : collectReplies()) {
        EXPECT_EQ(expectedBytes, readBytes(reply)) << "from node " << rank;
    }

    for (std::size_t size : {1, 131068, 131069, 1 << 20}) {  // with the code: 1 and 2 buffers
        Bytes bytes = pattern(size);
        bytes[0] = static_cast<unsigned char>(size);
        for (int rank : kNodes) {
            sendRequest(master, kEchoMessage, rank, bytes);
            klNetMessage reply;
            master.recvMessage(reply);
            EXPECT_EQ(std::size_t(rank), sourceOf(reply));
            EXPECT_EQ(bytes, readBytes(reply)) << size << " bytes to node " << rank;
        }
        sendRequest(master, kEchoMessage, 0, bytes);
        for (auto& [rank, reply] : collectReplies()) {
            EXPECT_EQ(bytes, readBytes(reply)) << size << " bytes multicast, from node " << rank;
        }
    }
}

TEST_F(Cluster, ResultsAndSyncPointsMeetEveryNodeAndALostNodeClosesOnlyItsConnection) {
    for (int round = 1; round <= 3; ++round) {
        sendRequest(master, kSync, 0);
        master.sendSync(100 * round);
        // Every node answers alike, so that the last answer is known whichever node gives it.
        EXPECT_EQ(100 * round + 1, master.waitSync());
    }
    // A node killed in the middle of a message closes its connection; the others stay.
    sendRequest(master, kDieInMessage, 4);
    m_killed.insert(4);
    klNetMessage partial;
    EXPECT_THROW(master.recvMessage(partial), klConnectionClosed);
    for (int rank : {2, 3}) {
        sendRequest(master, kFail, rank);
        EXPECT_EQ("node " + std::to_string(rank) + ": scene 'ß.kls' not found",
                  outcome([&] { master.recvResult(); }));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--cluster-node") {
        try {
            return runNode(std::atoi(argv[2]), std::atoi(argv[3]));
        } catch (const std::exception&) {
            return 3;
        }
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
