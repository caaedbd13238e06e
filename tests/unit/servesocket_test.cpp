// kelvorn-serve over real sockets on 127.0.0.1: the server runs in a child
// process on a simulated board (a PEX 8600 switch, the default chain on
// rotanMotub's pins) that logs every register write with the JTAG pins it
// moved. Clients read the chain's IDCODEs through either protocol, send
// what is wrong, stall, disconnect, crowd in; the test checks
// what they receive, the server's lines, that TCK, TMS and TDI are
// undriven at the end of every connection, and the exit status a signal
// leaves.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "serve/KelvornServe.h"
#include "sim/Board.h"

using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr char kDevice[] = "rotanMotub";
constexpr char kAddress[] = "0000:03:00.0";
constexpr uint32_t kIdcodes[] = {0x0a5c7035, 0x1b4d2093};  // the default chain, nearest TDO first
constexpr int kWaitSeconds = 60;

class Server {
  public:
    explicit Server(std::vector<std::string> args) {
        char path[] = "/tmp/kelvorn-serve-test-XXXXXX";
        int fd = ::mkstemp(path);
        logPath_ = path;
        args.insert(args.begin(), {"kelvorn-serve", "--listen", "127.0.0.1:0"});
        args.insert(args.end(), {kDevice, kAddress});
        pid_ = ::fork();
        if (pid_ == 0) run(fd, args);
        ::close(fd);
        EXPECT_TRUE(waitFor("listening on")) << log();
        const std::string listening = "listening on 127.0.0.1:";
        std::string text = log();
        size_t at = text.find(listening);
        if (at != std::string::npos) port_ = std::atoi(text.c_str() + at + listening.size());
    }
    ~Server() {
        if (pid_ > 0) stop(SIGKILL);
        ::unlink(logPath_.c_str());
    }

    int port() const { return port_; }
    std::string log() const {
        std::ifstream in(logPath_);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // Whether the log comes to hold count occurrences of text in time.
    bool waitFor(const std::string& text, size_t count = 1) const {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(kWaitSeconds);
        do {
            std::string l = log();
            size_t found = 0;
            for (size_t at = l.find(text); at != std::string::npos; at = l.find(text, at + 1)) ++found;
            if (found >= count) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        } while (std::chrono::steady_clock::now() < end);
        return false;
    }
    // Sends sig and returns the exit status, or -1 when the server did not exit by itself.
    int stop(int sig) {
        ::kill(pid_, sig);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    [[noreturn]] static void run(int logFd, std::vector<std::string> args) {
        ::dup2(logFd, 2);
        if (!std::freopen("/dev/null", "w", stdout)) std::_Exit(99);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        serve::Options options;
        int status;
        if (!serve::parseOptions(static_cast<int>(argv.size()), argv.data(), &options, &status)) std::_Exit(status);
        sim::BoardConfig config;
        config.device = kDevice;
        config.showWrites = true;
        auto* board = new sim::Board(config);  // lives until the process ends, like the interface
        board->install();
        std::exit(serve::run(options));
    }

    pid_t pid_ = -1;
    int port_ = 0;
    std::string logPath_;
};

int connectTo(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval timeout{kWaitSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    return fd;
}

// "127.0.0.1:<port>", as the server names this client.
std::string peerOf(int fd) {
    sockaddr_in a = {};
    socklen_t length = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    return "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
}

void sendAll(int fd, const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return;  // the server may have closed already
        at += static_cast<size_t>(n);
    }
}

// A client that has sent bytes; peers gets its name.
int client(int port, const std::string& bytes, std::vector<std::string>* peers) {
    int fd = connectTo(port);
    peers->push_back(peerOf(fd));
    sendAll(fd, bytes);
    return fd;
}

// Up to count bytes, fewer when the connection ends first.
std::string receive(int fd, size_t count = SIZE_MAX) {
    std::string got;
    char buf[4096];
    while (got.size() < count) {
        ssize_t n = ::recv(fd, buf, std::min(sizeof buf, count - got.size()), 0);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

// Whether the server has closed: the next read sees the end, not a byte.
bool closedByServer(int fd) { return receive(fd).empty(); }

// The IDCODE scan as TMS levels: Test-Logic-Reset, then Run-Test/Idle,
// Select-DR-Scan, Capture-DR and Shift-DR, then 64 bits of shifting. TDO
// before edge i, for i from kScanLead, is bit i - kScanLead of the chain.
const std::string kScanTms = "11111" "0100" + std::string(64, '0');
constexpr size_t kScanLead = 9;

std::vector<uint32_t> idcodesIn(const std::string& tdoLevels) {
    std::vector<uint32_t> ids(2);
    for (size_t i = 0; i < 64 && kScanLead + i < tdoLevels.size(); ++i)
        if (tdoLevels[kScanLead + i] == '1') ids[i / 32] |= 1u << (i % 32);
    return ids;
}

// remote_bitbang: each cycle TCK low with TMS and TDI (TDI high), TDO read, TCK high.
std::string bitbangScan() {
    std::string s;
    for (char tms : kScanTms) {
        char low = static_cast<char>('0' + 2 * (tms - '0') + 1);
        s += {low, 'R', static_cast<char>(low + 4)};
    }
    return s + "1";
}

std::vector<uint32_t> idcodesOverBitbang(int fd) {
    sendAll(fd, bitbangScan());
    return idcodesIn(receive(fd, kScanTms.size()));
}

std::vector<uint32_t> idcodesOverXvc(int fd) {
    size_t bits = kScanTms.size(), bytes = (bits + 7) / 8;
    std::string tms(bytes, '\0'), tdi(bytes, '\xff');
    for (size_t i = 0; i < bits; ++i)
        if (kScanTms[i] == '1') tms[i / 8] = static_cast<char>(tms[i / 8] | 1 << (i % 8));
    sendAll(fd, "shift:" + le(static_cast<uint32_t>(bits)) + tms + tdi);
    std::string tdo = receive(fd, bytes), levels;
    for (size_t i = 0; i < 8 * tdo.size(); ++i) levels += (tdo[i / 8] >> (i % 8)) & 1 ? '1' : '0';
    return idcodesIn(levels);
}

// TCK, TMS and TDI as the board's write log leaves them at each
// connection's end line: "TCK=z TMS=z TDI=z" when they are undriven.
std::vector<std::string> pinsAtEachEnd(const std::string& log) {
    std::vector<std::string> ends;
    std::string tck = "?", tms = "?", tdi = "?";
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, 5, "sim: ") == 0) {
            // "  TCK 0->z": the level after the arrow.
            for (auto [pin, label] : {std::pair{&tck, "  TCK "}, {&tms, "  TMS "}, {&tdi, "  TDI "}}) {
                size_t at = line.find(label);
                if (at != std::string::npos && line.compare(at + 7, 2, "->") == 0) *pin = line.substr(at + 9, 1);
            }
        } else if (line.find(" done: ") != std::string::npos) {
            ends.push_back("TCK=" + tck + " TMS=" + tms + " TDI=" + tdi);
        }
    }
    return ends;
}

// The server's own lines, without the board's write log; a duration as T.
std::vector<std::string> serverLines(const std::string& log) {
    std::vector<std::string> lines;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, 5, "sim: ") == 0) continue;
        if (line.find(" done: ") != std::string::npos) line = line.substr(0, line.rfind(", ") + 2) + "T s";
        lines.push_back(line);
    }
    return lines;
}

const char kReleased[] = "TCK=z TMS=z TDI=z";

// Clients one after another; one more while a client is served is refused
// and the served one goes on; a stop signal ends the served one's
// connection, releasing its pins, before the server.
TEST(ServeSocket, RemoteBitbangClientsOneAfterAnother) {
    Server server({});
    std::vector<std::string> peers;
    int a = client(server.port(), "", &peers);
    EXPECT_THAT(idcodesOverBitbang(a), ElementsAre(kIdcodes[0], kIdcodes[1]));
    sendAll(a, "Q");
    EXPECT_TRUE(closedByServer(a));
    ::close(a);
    int b = client(server.port(), "R0x4R", &peers);
    EXPECT_EQ(receive(b), "1");  // answered up to the bad symbol, then closed
    ::close(b);

    int c = client(server.port(), "R", &peers);
    EXPECT_EQ(receive(c, 1), "1");  // being served
    int d = client(server.port(), "", &peers);
    EXPECT_TRUE(closedByServer(d));
    ASSERT_TRUE(server.waitFor("refused"));
    EXPECT_THAT(idcodesOverBitbang(c), ElementsAre(kIdcodes[0], kIdcodes[1]));  // its pins left driven

    ASSERT_TRUE(server.waitFor(" done: ", 2));
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_TRUE(closedByServer(c));
    std::string log = server.log();
    EXPECT_THAT(pinsAtEachEnd(log), ElementsAre(kReleased, kReleased, kReleased));
    std::string p = "kelvorn-serve: ", scanIn = std::to_string(bitbangScan().size() + 1) + " bytes in, ";
    EXPECT_THAT(serverLines(log),
                ElementsAre(p + "listening on 127.0.0.1:" + std::to_string(server.port()) +
                                " (remote-bitbang) for rotanMotub at 0000:03:00.0",
                            p + peers[0] + " done: " + scanIn + "73 bytes out, 73 TCK cycles, T s",
                            p + peers[1] + ": unknown remote_bitbang symbol 'x'",
                            p + peers[1] + " done: 5 bytes in, 1 bytes out, 0 TCK cycles, T s",
                            p + "refused " + peers[3] + ": serving " + peers[2],
                            p + peers[2] + " done: " + scanIn + "74 bytes out, 73 TCK cycles, T s",
                            p + "stopped by SIGTERM"));
    ::close(c);
    ::close(d);
}

TEST(ServeSocket, XvcRefusalsEndOnlyTheirOwnConnection) {
    Server server({"--protocol", "xvc", "--max-vector", "16", "--stall-timeout", "1"});
    std::vector<std::string> peers;
    int fd = client(server.port(), "shift:" + le(129), &peers);  // 17 bytes a vector: refused before any vector byte
    EXPECT_TRUE(closedByServer(fd));
    ::close(fd);
    fd = client(server.port(), "shift:" + le(64) + std::string(10, '\x55'), &peers);  // goes mid-vector
    ::close(fd);
    ASSERT_TRUE(server.waitFor(" done: ", 2));
    fd = client(server.port(), "getinfo:shift:" + le(8) + "\x01", &peers);  // stalls mid-vector
    EXPECT_EQ(receive(fd, 18), "xvcServer_v1.0:16\n");
    auto stalled = std::chrono::steady_clock::now();
    EXPECT_TRUE(closedByServer(fd));
    EXPECT_GE(std::chrono::steady_clock::now() - stalled, std::chrono::milliseconds(500));
    ::close(fd);
    fd = client(server.port(), "getinfo:bogus", &peers);
    EXPECT_EQ(receive(fd), "xvcServer_v1.0:16\n");
    ::close(fd);
    fd = client(server.port(), "getinfo:", &peers);
    EXPECT_EQ(receive(fd, 18), "xvcServer_v1.0:16\n");
    EXPECT_THAT(idcodesOverXvc(fd), ElementsAre(kIdcodes[0], kIdcodes[1]));  // stays connected

    ASSERT_TRUE(server.waitFor(" done: ", 4));
    EXPECT_EQ(server.stop(SIGINT), 0);
    EXPECT_TRUE(closedByServer(fd));
    ::close(fd);
    std::string log = server.log();
    EXPECT_THAT(pinsAtEachEnd(log), ElementsAre(kReleased, kReleased, kReleased, kReleased, kReleased));
    std::string p = "kelvorn-serve: ";
    EXPECT_THAT(serverLines(log),
                ElementsAre(HasSubstr("listening on"),
                            p + peers[0] + ": shift of 129 bits: longer than the 16-byte maximum vector",
                            p + peers[0] + " done: 10 bytes in, 0 bytes out, 0 TCK cycles, T s",
                            p + peers[1] + ": closed in the middle of shift",
                            p + peers[1] + " done: 20 bytes in, 0 bytes out, 0 TCK cycles, T s",
                            p + peers[2] + ": stalled in the middle of shift for 1 s",
                            p + peers[2] + " done: 19 bytes in, 18 bytes out, 0 TCK cycles, T s",
                            p + peers[3] + ": unknown XVC command 'b'",
                            p + peers[3] + " done: 13 bytes in, 18 bytes out, 0 TCK cycles, T s",
                            p + peers[4] + " done: 38 bytes in, 28 bytes out, 73 TCK cycles, T s",
                            "kelvorn-serve: stopped by SIGINT"));
}

}  // namespace
