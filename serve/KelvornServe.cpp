#include "serve/KelvornServe.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include "device/Listen.h"
#include "device/Session.h"
#include "jtag/Tap.h"
#include "os/SignalGate.h"
#include "serve/RemoteBitbang.h"
#include "serve/Xvc.h"
#include "xilinx/XilIntfC.h"

namespace serve {

namespace {

constexpr char kRemoteBitbang[] = "remote-bitbang";
constexpr char kXvc[] = "xvc";
constexpr char kRemoteBitbangPort[] = "3335";
constexpr char kXvcPort[] = "2542";
constexpr int kBacklog = 8;
constexpr size_t kReadSize = 65536;      // bytes per receive
constexpr size_t kAnswersToSend = 65536;  // answers pending that stop further reading until sent
constexpr int kReceiveRoom = 32 << 20;          // bytes a client may send ahead of the pins
constexpr unsigned kMaxStallSeconds = 3600;

// The ending signals stop the server the normal way: the pin work in
// progress finishes, the pins are released, status 0.
constexpr const auto& kStopSignals = Os::kEndingSignals;
constexpr size_t kStopSignalCount = Os::kEndingSignalCount;

volatile std::sig_atomic_t stopSignal = 0;
int wakeWriteFd = -1;

// Only a flag and a byte down the pipe that every poll watches: the pin
// work in progress finishes, and the loops see the flag.
void onStopSignal(int sig) {
    int saved = errno;
    stopSignal = sig;
    char byte = 0;
    if (::write(wakeWriteFd, &byte, 1) < 0) {
        // The pipe is full: a wake-up is pending anyway.
    }
    errno = saved;
}

// The stop signals' handlers and their pipe, for the life of a run() call.
class StopSignals {
  public:
    StopSignals() {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
            std::perror("kelvorn-serve: pipe");
            std::exit(1);
        }
        wakeFd = fds[0];
        wakeWriteFd = fds[1];
        stopSignal = 0;
        struct sigaction act = {};
        act.sa_handler = onStopSignal;
        act.sa_flags = SA_RESTART;  // the backends' own system calls go on
        sigemptyset(&act.sa_mask);
        for (size_t i = 0; i < kStopSignalCount; ++i) {
            ::sigaction(kStopSignals[i], nullptr, &previous_[i]);
            // A signal the process was started to ignore (nohup) stays ignored.
            if (previous_[i].sa_handler != SIG_IGN) ::sigaction(kStopSignals[i], &act, nullptr);
        }
    }
    ~StopSignals() {
        for (size_t i = 0; i < kStopSignalCount; ++i) ::sigaction(kStopSignals[i], &previous_[i], nullptr);
        ::close(wakeFd);
        ::close(wakeWriteFd);
        wakeWriteFd = -1;
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    int wakeFd;

  private:
    struct sigaction previous_[kStopSignalCount];
};

std::string signalName(int sig) {
    const char* abbrev = ::sigabbrev_np(sig);
    return abbrev ? std::string("SIG") + abbrev : "a signal";
}

std::string addressText(const sockaddr* sa, socklen_t length) {
    char host[NI_MAXHOST], port[NI_MAXSERV];
    if (::getnameinfo(sa, length, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "an unknown address";
    return sa->sa_family == AF_INET6 ? std::string("[") + host + "]:" + port : std::string(host) + ":" + port;
}

std::string errorText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }


// The listening socket systemd handed over (socket activation: LISTEN_PID
// names this process, LISTEN_FDS counts the sockets from fd 3 on), 0 when
// there is none, or -1 with *error saying why it cannot be used. The
// variables are taken out of the environment either way, so nothing this
// process starts takes the socket for its own.
int socketFromSystemd(std::string* where, std::string* error) {
    int n = ::sd_listen_fds(1);
    if (n == 0) return 0;
    *where = "the socket systemd handed over";
    if (n < 0) {
        *error = std::strerror(-n);
        return -1;
    }
    if (n > 1) {
        *error = std::to_string(n) + " sockets handed over; kelvorn-serve takes one";
        return -1;
    }
    const int fd = SD_LISTEN_FDS_START;
    if (::sd_is_socket(fd, AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
        *error = "not a listening stream socket";
        return -1;
    }
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0 || ::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
        *error = std::strerror(errno);
        return -1;
    }
    sockaddr_storage bound;
    socklen_t length = sizeof bound;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) == 0)
        *where = addressText(reinterpret_cast<sockaddr*>(&bound), length);
    return fd;
}

// A listening socket, or -1 with *error saying why; *where is the address
// as bound (the port the system chose, for port 0). A socket systemd
// handed over is used as it is, --listen aside.
int listenOn(const Options& o, std::string* where, std::string* error) {
    if (int fd = socketFromSystemd(where, error)) return fd;
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* ai = nullptr;
    const std::string port = o.port.empty() ? (o.protocol == kXvc ? kXvcPort : kRemoteBitbangPort) : o.port;
    *where = o.host + ":" + port;
    if (int rc = ::getaddrinfo(o.host.c_str(), port.c_str(), &hints, &ai)) {
        *error = ::gai_strerror(rc);
        return -1;
    }
    int fd = ::socket(ai->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1;
    if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(fd, kBacklog) != 0) {
        *error = std::strerror(errno);
        if (fd >= 0) ::close(fd);
        ::freeaddrinfo(ai);
        return -1;
    }
    ::freeaddrinfo(ai);
    sockaddr_storage bound;
    socklen_t length = sizeof bound;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) == 0)
        *where = addressText(reinterpret_cast<sockaddr*>(&bound), length);
    return fd;
}

class Server {
  public:
    Server(const Options& o, XilIntf* intf, Protocol* protocol, int listenFd, int wakeFd)
        : o_(o), intf_(intf), protocol_(protocol), listenFd_(listenFd), wakeFd_(wakeFd), in_(kReadSize) {
        out_.reserve(kAnswersToSend + o.maxVector + 64);
    }

    int run() {
        while (!stopSignal) {
            pollfd fds[] = {{listenFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 || stopSignal) continue;
            sockaddr_storage peer;
            socklen_t length = sizeof peer;
            int fd = ::accept4(listenFd_, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) continue;  // gone again before it was taken
            session(fd, addressText(reinterpret_cast<sockaddr*>(&peer), length));
            if (o_.once) break;
        }
        if (stopSignal) std::fprintf(stderr, "kelvorn-serve: stopped by %s\n", signalName(stopSignal).c_str());
        return kServeStopped;
    }

  private:
    struct Stats {
        uint64_t in = 0, out = 0;
    };

    void session(int fd, const std::string& peer) {
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        // A client may send far ahead of the pins: a remote_bitbang client
        // writes a long scan without TDO at network speed, and OpenOCD
        // 0.12 gives up when its socket would block. Room in the kernel for
        // that much input keeps it writing; as root the system's limit on
        // socket buffers does not apply.
        int room = kReceiveRoom;
        if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        auto start = std::chrono::steady_clock::now();
        // A stop signal ends the session through the loops, which then give the pins back here.
        device::SelectedDevice selected(intf_, o_.fpga, device::OnSignal::callerStops);
        XilIntf_tckPeriodIs(intf_, o_.ceilingNs());
        protocol_->begin();
        Stats stats;
        std::string problem = serveClient(fd, peer, &stats);
        selected.cleanup();
        ::close(fd);
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fflush(stdout);
        if (!problem.empty()) std::fprintf(stderr, "kelvorn-serve: %s: %s\n", peer.c_str(), problem.c_str());
        std::fprintf(stderr, "kelvorn-serve: %s done: %llu bytes in, %llu bytes out, %llu TCK cycles, %.3f s\n",
                     peer.c_str(), static_cast<unsigned long long>(stats.in),
                     static_cast<unsigned long long>(stats.out),
                     static_cast<unsigned long long>(protocol_->cycles()), seconds);
    }

    // Serves one client until it quits, closes, errs or stalls, or a stop
    // signal comes; returns what went wrong, empty when nothing did.
    std::string serveClient(int fd, const std::string& peer, Stats* stats) {
        for (;;) {
            const char* partial = protocol_->partial();
            pollfd fds[] = {{fd, POLLIN, 0}, {listenFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
            int ready = ::poll(fds, 3, partial ? stallMilliseconds() : -1);
            if (stopSignal) return "";
            if (ready < 0) continue;  // EINTR
            if (ready == 0) return std::string("stalled in the middle of ") + partial + " for " + stallText();
            std::string problem;
            if (fds[0].revents && !take(fd, stats, &problem)) return problem;
            // Only now: a client that connects as this one quits is served next.
            if (fds[1].revents & POLLIN) refuse(peer);
        }
    }

    // Everything the client has sent so far, then the answers in one go;
    // false when the session ends, with *problem what went wrong.
    bool take(int fd, Stats* stats, std::string* problem) {
        Verdict verdict = Verdict::more;
        bool closed = false;
        while (verdict == Verdict::more && !closed && out_.size() < kAnswersToSend && !stopSignal) {
            ssize_t n = ::recv(fd, in_.data(), in_.size(), 0);
            if (n > 0) {
                stats->in += static_cast<uint64_t>(n);
                verdict = protocol_->feed(in_.data(), static_cast<size_t>(n), &out_);
            } else if (n == 0) {
                closed = true;
            } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
                break;
            } else if (errno != EINTR) {
                *problem = errorText("cannot receive");
                closed = true;
            }
        }
        if (stopSignal || !sendAnswers(fd, stats, problem)) return false;
        if (verdict == Verdict::malformed) *problem = protocol_->error();
        const char* partial = protocol_->partial();
        if (closed && problem->empty() && partial) *problem = std::string("closed in the middle of ") + partial;
        return verdict == Verdict::more && !closed;
    }

    // Sends out_ whole; false (with *problem, unless a stop signal came)
    // when the client does not take it.
    bool sendAnswers(int fd, Stats* stats, std::string* problem) {
        size_t sent = 0;
        while (sent < out_.size()) {
            ssize_t n = ::send(fd, out_.data() + sent, out_.size() - sent, MSG_NOSIGNAL);
            if (n >= 0) {
                sent += static_cast<size_t>(n);
                continue;
            }
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                *problem = errorText("cannot send");
                break;
            }
            pollfd fds[] = {{fd, POLLOUT, 0}, {wakeFd_, POLLIN, 0}};
            int ready = ::poll(fds, 2, stallMilliseconds());
            if (stopSignal) break;
            if (ready == 0) {
                *problem = "left the answers unread for " + stallText();
                break;
            }
        }
        stats->out += sent;
        bool whole = sent == out_.size();
        out_.clear();
        return whole;
    }

    // A second client: closed at once, the first undisturbed.
    void refuse(const std::string& serving) {
        sockaddr_storage peer;
        socklen_t length = sizeof peer;
        int fd = ::accept4(listenFd_, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        if (fd < 0) return;
        ::close(fd);
        std::fprintf(stderr, "kelvorn-serve: refused %s: serving %s\n",
                     addressText(reinterpret_cast<sockaddr*>(&peer), length).c_str(), serving.c_str());
    }

    int stallMilliseconds() const { return static_cast<int>(o_.stallSeconds * 1000); }
    std::string stallText() const { return std::to_string(o_.stallSeconds) + " s"; }

    const Options& o_;
    XilIntf* intf_;
    Protocol* protocol_;
    int listenFd_, wakeFd_;
    std::vector<uint8_t> in_, out_;
};

}  // namespace

bool parseOptions(int argc, char** argv, Options* o, int* status) {
    CLI::App app{
        "Serves the JTAG pins of a logic device on this board to one network client at a time, over the\n"
        "remote_bitbang protocol (OpenOCD's remote_bitbang driver) or XVC 1.0 (Xilinx Virtual Cable).\n"
        "The device's lock is held while the server runs; its pins are driven only while a client is\n"
        "connected. SIGINT, SIGTERM, SIGHUP and SIGQUIT stop the server (status 0).\n\n"
        "  kelvorn-serve [options] <fpga> <pci address>\n",
        "kelvorn-serve"};
    app.set_version_flag("--version", "kelvorn-serve " KELVORN_VERSION);
    std::string listen;
    app.add_option("fpga", o->fpga, "the device name")->required();
    app.add_option("address", o->pciAddress, "the PCI address, dddd:bb:dd.f")
        ->required()
        ->check([o](const std::string& s) {
            return device::parsePciAddress(s.c_str(), &o->at)
                       ? std::string()
                       : std::string("wants a PCI address dddd:bb:dd.f, for example 0000:03:00.0");
        });
    app.add_option("--protocol", o->protocol, "remote-bitbang or xvc")
        ->capture_default_str()
        ->check(CLI::IsMember({kRemoteBitbang, kXvc}));
    app.add_option("--listen", listen,
                   "ADDRESS:PORT or :PORT to listen on (default 127.0.0.1, port 3335 for remote-bitbang, 2542 for "
                   "xvc; port 0: any free port); unused when systemd hands over the socket")
        ->check([o](const std::string& s) { return device::parseListen(s, &o->host, &o->port); });
    app.add_flag("--test-mode", o->testMode,
                 "the lock file and the register file of the backends that honour it under /tmp");
    app.add_option("--max-vector", o->maxVector, "xvc: the longest TMS or TDI vector a shift may carry, in bytes")
        ->capture_default_str()
        ->check(CLI::Range(1u, Xvc::kMaxVectorLimit));
    app.add_flag("--once", o->once, "serve one client, then exit");
    app.add_option("--stall-timeout", o->stallSeconds,
                   "seconds a client may pause in the middle of a command, or leave answers unread, before it is "
                   "dropped")
        ->capture_default_str()
        ->check(CLI::Range(1u, kMaxStallSeconds));
    app.add_option("--frequency", o->frequency,
                   "a ceiling on TCK in Hz, held on every edge for every client (xvc: settck may ask for slower)")
        ->type_name("HZ")
        ->check(CLI::Range(1.0, 1e12));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        *status = app.exit(e) == 0 ? 0 : kServeUsage;
        return false;
    }
    return true;
}

uint32_t Options::ceilingNs() const {
    return jtag::tckPeriodNs(frequency);
}

int run(const Options& o) {
    StopSignals signals;
    XilIntf* intf = device::openDevice("kelvorn-serve", o.fpga, o.at, o.testMode);
    if (!intf) return kServeNoInterface;
    std::string where, error;
    int listenFd = listenOn(o, &where, &error);
    if (listenFd < 0) {
        std::fprintf(stderr, "kelvorn-serve: cannot listen on %s: %s\n", where.c_str(), error.c_str());
        return kServeCannotListen;
    }
    std::unique_ptr<Protocol> protocol;
    if (o.protocol == kXvc)
        protocol = std::make_unique<Xvc>(intf, o.maxVector, &stopSignal, o.ceilingNs());
    else
        protocol = std::make_unique<RemoteBitbang>(intf);
    std::fprintf(stderr, "kelvorn-serve: listening on %s (%s) for %s at %s\n", where.c_str(), o.protocol.c_str(),
                 o.fpga.c_str(), o.pciAddress.c_str());
    int status = Server(o, intf, protocol.get(), listenFd, signals.wakeFd).run();
    ::close(listenFd);
    return status;
}

}  // namespace serve

int kelvornServeMain(int argc, char** argv) {
    serve::Options options;
    int status;
    if (!serve::parseOptions(argc, argv, &options, &status)) return status;
    return serve::run(options);
}
