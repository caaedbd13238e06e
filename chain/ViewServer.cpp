#include "chain/ViewServer.h"

#include <sys/random.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <httplib.h>
#include <mutex>
#include <optional>
#include <thread>

#include "chain/ViewAssets.h"

namespace chain {

namespace {

using jtag::Json;
using Clock = std::chrono::steady_clock;

constexpr size_t kMaxStreams = 128;          // event streams open at once; more are answered 503
constexpr size_t kThreads = kMaxStreams + 16;  // a stream holds its thread: the API keeps some of its own
constexpr size_t kKept = 256;                // events a slow stream may fall behind before it gets a snapshot
constexpr auto kPing = std::chrono::seconds(1);  // a stream's keep-alive, and how soon a closed one is found
constexpr size_t kLargestBody = 4096;        // a drive's request is a few dozen bytes
constexpr time_t kReadTimeoutS = 5;

// 128 random bits as hex: the part of the URL that lets a client in.
std::string randomToken() {
    unsigned char bytes[16];
    size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t n = ::getrandom(bytes + got, sizeof bytes - got, 0);
        if (n > 0) got += static_cast<size_t>(n);
        else if (errno != EINTR) break;
    }
    static const char digits[] = "0123456789abcdef";
    std::string token;
    for (unsigned char b : bytes) {
        token += digits[b >> 4];
        token += digits[b & 15];
    }
    return token;
}

// Status of a failed chain command as an HTTP status.
int httpStatus(int chainStatus) {
    switch (chainStatus) {
    case jtag::kChainUsage: return 400;
    case jtag::kChainDriveRefused: return 403;
    default: return 409;  // a file or a device that cannot do it
    }
}

}  // namespace

struct ViewServer::Impl {
    explicit Impl(jtag::LiveView& v) : view(v), token(randomToken()), start(Clock::now()) {}

    jtag::LiveView& view;
    httplib::Server server;
    std::string token, host;
    int port = 0;
    std::thread thread;
    const Clock::time_point start;

    // The events since the streams began, the last kKept of them.
    std::mutex lock;
    std::condition_variable moved;
    uint64_t seq = 0;
    std::deque<std::pair<uint64_t, std::string>> events;
    bool closed = false;
    std::atomic<size_t> streams{0};

    double seconds() const { return std::chrono::duration<double>(Clock::now() - start).count(); }

    void push(const std::string& name, Json data) {
        std::lock_guard<std::mutex> hold(lock);
        Json event{{"seq", ++seq}};
        event.update(data);
        events.emplace_back(seq, "event: " + name + "\ndata: " + jtag::jsonText(event) + "\n\n");
        if (events.size() > kKept) events.pop_front();
        moved.notify_all();
    }

    Json snapshot(uint64_t at) const {
        return Json{{"seq", at}, {"t", seconds()}, {"levels", view.levelsValue()}, {"driving", view.drivingValue()}};
    }

    static void answer(httplib::Response& res, int status, const Json& body) {
        res.status = status;
        res.set_content(jtag::jsonText(body) + "\n", "application/json");
    }

    void routes();
    void stream(httplib::Response& res);
};

void ViewServer::Impl::stream(httplib::Response& res) {
    if (++streams > kMaxStreams) {
        --streams;
        answer(res, 503, Json{{"status", jtag::kChainUsage}, {"error", "too many event streams"}});
        return;
    }
    // Where this stream is in the events; none until its first snapshot.
    auto at = std::make_shared<std::optional<uint64_t>>();
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, at](size_t, httplib::DataSink& sink) {
            std::string out;
            {
                std::unique_lock<std::mutex> hold(lock);
                if (*at) moved.wait_for(hold, kPing, [&] { return closed || seq > **at; });
                if (closed) return false;
                if (!*at || (!events.empty() && events.front().first > **at + 1)) {
                    // New, or so far behind that events were dropped: the whole state again.
                    *at = seq;
                    hold.unlock();
                    out = "event: levels\ndata: " + jtag::jsonText(snapshot(**at)) + "\n\n";
                } else if (seq == **at) {
                    out = ": ping\n\n";
                } else {
                    for (const auto& [n, text] : events)
                        if (n > **at) out += text;
                    *at = seq;
                }
            }
            return sink.write(out.data(), out.size());
        },
        [this](bool) { --streams; });
}

void ViewServer::Impl::routes() {
    const std::string root = "/" + token + "/";
    // The token first: nothing else is looked at without it.
    server.set_pre_routing_handler([root](const httplib::Request& req, httplib::Response& res) {
        if (req.path.compare(0, root.size(), root) == 0) {
            // Two lengths for one body: which bytes are the request is a guess
            // (the next request's may be taken for this one's), so none is acted on.
            if (req.get_header_value_count("Content-Length") > 1 ||
                (req.has_header("Content-Length") && req.has_header("Transfer-Encoding"))) {
                res.set_header("Connection", "close");
                answer(res, 400, Json{{"status", jtag::kChainUsage}, {"error", "a request with two body lengths"}});
                return httplib::Server::HandlerResponse::Handled;
            }
            return httplib::Server::HandlerResponse::Unhandled;
        }
        if (req.path + "/" == root) {
            res.set_redirect(root);
            return httplib::Server::HandlerResponse::Handled;
        }
        answer(res, 403, Json{{"status", 403}, {"error", "forbidden: the URL the view printed carries its token"}});
        return httplib::Server::HandlerResponse::Handled;
    });
    for (const ViewAsset& a : viewAssets()) {
        std::string path = root + (std::string(a.name) == "index.html" ? "" : a.name);
        server.Get(path, [a](const httplib::Request&, httplib::Response& res) {
            res.set_header("Cache-Control", "no-store");
            res.set_content(reinterpret_cast<const char*>(a.data), a.size, a.type);
        });
    }
    server.Get(root + "api/chain", [this](const httplib::Request&, httplib::Response& res) {
        answer(res, 200, view.chainValue());
    });
    server.Get(root + R"(api/devices/(\d{1,4}))", [this](const httplib::Request& req, httplib::Response& res) {
        Json pins;
        unsigned p = static_cast<unsigned>(std::stoul(req.matches[1]));
        if (!view.pinsValue(p, &pins))
            return answer(res, 404, Json{{"status", jtag::kChainBadBsdl},
                                         {"error", "no boundary register known at position " + std::to_string(p)}});
        answer(res, 200, pins);
    });
    server.Get(root + "api/levels", [this](const httplib::Request&, httplib::Response& res) {
        uint64_t at;
        {
            std::lock_guard<std::mutex> hold(lock);
            at = seq;
        }
        answer(res, 200, snapshot(at));
    });
    server.Get(root + "api/test", [this](const httplib::Request&, httplib::Response& res) {
        answer(res, 200, view.marksValue());
    });
    server.Get(root + "api/events", [this](const httplib::Request&, httplib::Response& res) { stream(res); });
    server.Post(root + "api/drive", [this](const httplib::Request& req, httplib::Response& res) {
        Json q = Json::parse(req.body, nullptr, false);
        const char* wants = "wants a JSON object: position (a number), port (a name), level (0, 1 or z, as a string)";
        if (!q.is_object() || !q.contains("position") || !q["position"].is_number_unsigned() ||
            !q.contains("port") || !q["port"].is_string() || !q.contains("level") || !q["level"].is_string())
            return answer(res, 400, Json{{"status", jtag::kChainUsage}, {"error", wants}});
        std::string level = q["level"];
        if (level != "0" && level != "1" && level != "z" && level != "Z")
            return answer(res, 400, Json{{"status", jtag::kChainUsage}, {"error", wants}});
        uint64_t position = q["position"];
        jtag::CommandResult r =
            position > 0xffff ? jtag::CommandResult{jtag::kChainUsage, "no device at position " + std::to_string(position)}
                              : view.drive(static_cast<unsigned>(position), q["port"], static_cast<char>(std::tolower(level[0])));
        if (!r.ok()) return answer(res, httpStatus(r.status), Json{{"status", r.status}, {"error", r.error}});
        Json driving = view.drivingValue();
        push("driving", Json{{"t", seconds()}, {"driving", driving}});
        answer(res, 200, Json{{"driving", driving}});
    });
    server.Post(root + "api/release", [this](const httplib::Request&, httplib::Response& res) {
        view.release();
        push("driving", Json{{"t", seconds()}, {"driving", Json::object()}});
        answer(res, 200, Json{{"driving", Json::object()}});
    });
}

ViewServer::ViewServer(jtag::LiveView& view) : impl_(std::make_unique<Impl>(view)) {
    httplib::Server& s = impl_->server;
    s.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    s.set_payload_max_length(kLargestBody);
    s.set_read_timeout(kReadTimeoutS, 0);
    s.set_write_timeout(kReadTimeoutS, 0);
    s.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
        Impl::answer(res, 500, Json{{"status", 500}, {"error", "the request could not be answered"}});
    });
    impl_->routes();
}

ViewServer::~ViewServer() { stop(); }

bool ViewServer::bind(const std::string& host, const std::string& port, std::string* error) {
    httplib::Server& s = impl_->server;
    errno = 0;
    int p = port == "0" ? s.bind_to_any_port(host) : (s.bind_to_port(host, std::stoi(port)) ? std::stoi(port) : -1);
    if (p <= 0) {
        *error = errno ? std::strerror(errno) : "the address cannot be bound";
        return false;
    }
    impl_->host = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    impl_->port = p;
    return true;
}

std::string ViewServer::url() const {
    return "http://" + impl_->host + ":" + std::to_string(impl_->port) + "/" + impl_->token + "/";
}

void ViewServer::start() {
    impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
    // stop() before the server runs would be missed by it.
    while (!impl_->server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void ViewServer::publish(const std::vector<jtag::LiveView::Change>& changes) {
    if (changes.empty()) return;
    Json list = Json::array();
    for (const jtag::LiveView::Change& c : changes)
        list.push_back(Json{{"position", c.position}, {"port", c.port}, {"level", c.level ? 1 : 0}});
    impl_->push("change", Json{{"t", impl_->seconds()}, {"changes", std::move(list)}});
}

void ViewServer::stop() {
    if (!impl_->thread.joinable()) return;
    {
        std::lock_guard<std::mutex> hold(impl_->lock);
        impl_->closed = true;
        impl_->moved.notify_all();
    }
    impl_->server.stop();
    impl_->thread.join();
}

}  // namespace chain
