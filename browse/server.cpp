#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

#include "html.h"

namespace browse {

void send(const response& page, httplib::Response& res, double build_ms) {
    res.status = page.status;
    res.set_header("X-Content-Type-Options", "nosniff");
    res.set_header("Cache-Control", "no-store");
    // Only this page's own script runs (under the nonce drawn for this response; none when
    // the page has no script), and the page fetches nothing from anywhere else.
    res.set_header("Content-Security-Policy",
                   "default-src 'none'; style-src 'unsafe-inline'; img-src 'self'; "
                   "form-action 'self'; base-uri 'none'; script-src " +
                       (page.nonce.empty() ? std::string("'none'") : "'nonce-" + page.nonce + "'"));
    res.set_header("Server-Timing", "page;dur=" + fixed(build_ms, 3));
    if (!page.attachment.empty())
        res.set_header("Content-Disposition", "attachment; filename=\"" + page.attachment + "\"");
    res.set_content(page.body, page.content_type.c_str());
}

namespace {

// Pages are built by at most this many requests at once, however many connections are
// open: what a page build holds in memory is bounded, so this bounds the server's, and the
// two cores gain nothing from more.
std::counting_semaphore<>& page_builds() {
    static std::counting_semaphore<> slots(8);
    return slots;
}

struct build_slot {
    build_slot() { page_builds().acquire(); }
    ~build_slot() { page_builds().release(); }
    build_slot(const build_slot&) = delete;
    build_slot& operator=(const build_slot&) = delete;
};

template <class Build>
httplib::Server::Handler timed(Build build) {
    return [build](const httplib::Request& req, httplib::Response& res) {
        const build_slot slot;
        const auto t0 = std::chrono::steady_clock::now();
        const response page = build(req);
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - t0;
        send(page, res, took.count());
    };
}

// The path and query as the pages take them.
request request_of(const httplib::Request& req) {
    request r;
    r.path = req.path;
    for (const auto& [key, value] : req.params) r.params.emplace_back(key, value);
    return r;
}

bool parse_size(const std::string& text, std::size_t& out) {
    if (text.empty() || text.size() > 18) return false;
    std::size_t v = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9') return false;
        v = v * 10 + static_cast<std::size_t>(ch - '0');
    }
    out = v;
    return true;
}

}  // namespace

void add_routes(httplib::Server& server, const site& s) {
    // Which page answers a path is the pages' own business (routes.cpp).
    server.Get(R"(.*)",
               timed([&s](const httplib::Request& req) { return s.serve(request_of(req)); }));
}

namespace {

// One thread per connection, started when every running one is busy, up to a limit; past it
// connections wait in turn. Threads are kept once started, so a burst of connections costs
// its threads once.
class connection_threads {
  public:
    explicit connection_threads(std::size_t limit) : limit_(limit) {}
    ~connection_threads() { shutdown(); }
    connection_threads(const connection_threads&) = delete;
    connection_threads& operator=(const connection_threads&) = delete;

    void enqueue(std::function<void()> job) {
        std::unique_lock lock(mutex_);
        jobs_.push_back(std::move(job));
        if (stopping_ || waiting_ >= jobs_.size() || threads_.size() >= limit_) {
            lock.unlock();
            wake_.notify_one();
            return;
        }
        threads_.emplace_back([this] { work(); });
    }

    // Runs the jobs already queued, then joins every thread.
    void shutdown() {
        std::vector<std::thread> threads;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            threads.swap(threads_);
        }
        wake_.notify_all();
        for (std::thread& t : threads) t.join();
    }

  private:
    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            ++waiting_;
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            --waiting_;
            if (jobs_.empty()) return;
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    const std::size_t limit_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    std::vector<std::thread> threads_;
    std::size_t waiting_ = 0;
    bool stopping_ = false;
};

using steady = std::chrono::steady_clock;

int ms_until(steady::time_point t) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(t - steady::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// Waits until `fd` is ready for `events` or `ms` pass; false on time out, on an error and
// once the server is stopping.
bool wait_for(int fd, short events, int stop_fd, int ms) {
    pollfd p[2] = {{fd, events, 0}, {stop_fd, POLLIN, 0}};
    for (;;) {
        const int n = ::poll(p, 2, ms);
        if (n < 0 && errno == EINTR) continue;
        return n > 0 && p[1].revents == 0 && (p[0].revents & events) != 0;
    }
}

void address_of(int fd, bool peer, std::string& ip, int& port) {
    sockaddr_storage a{};
    socklen_t len = sizeof a;
    const int got = peer ? ::getpeername(fd, reinterpret_cast<sockaddr*>(&a), &len)
                         : ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    if (got != 0) return;
    char text[INET6_ADDRSTRLEN] = {};
    if (a.ss_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(&a);
        ::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
        port = ntohs(v4->sin_port);
    } else if (a.ss_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&a);
        ::inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
        port = ntohs(v6->sin6_port);
    }
    ip = text;
}

// One connection as the library reads and writes it. Reads are buffered (the library reads
// a request's head a byte at a time) and counted per request: past the request's allowance
// or its deadline the stream reports an error, and the library gives the request up.
class connection_stream final : public httplib::Stream {
  public:
    connection_stream(int fd, int stop_fd, const server_limits& limits)
        : fd_(fd), stop_fd_(stop_fd), limits_(limits) {}

    // Between requests: true when a request has begun to arrive within the idle time.
    bool wait_for_request() {
        return len_ > at_ || wait_for(fd_, POLLIN, stop_fd_, limits_.idle_ms);
    }
    void start_request() {
        allowance_ = limits_.max_head + limits_.max_body;
        deadline_ = steady::now() + std::chrono::milliseconds(limits_.request_ms);
    }

    bool is_readable() const override {
        return len_ > at_ ||
               wait_for(fd_, POLLIN, stop_fd_, std::min(limits_.read_ms, ms_until(deadline_)));
    }
    bool is_writable() const override { return wait_for(fd_, POLLOUT, stop_fd_, limits_.write_ms); }

    ssize_t read(char* ptr, size_t size) override {
        if (allowance_ == 0) return -1;
        if (at_ == len_) {
            if (!is_readable()) return -1;
            ssize_t got;
            do {
                got = ::recv(fd_, buf_, sizeof buf_, 0);
            } while (got < 0 && errno == EINTR);
            if (got <= 0) return got;
            at_ = 0;
            len_ = static_cast<std::size_t>(got);
        }
        const std::size_t n = std::min({size, len_ - at_, allowance_});
        std::memcpy(ptr, buf_ + at_, n);
        at_ += n;
        allowance_ -= n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char* ptr, size_t size) override {
        if (!is_writable()) return -1;
        ssize_t sent;
        do {
            sent = ::send(fd_, ptr, size, MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        return sent;
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        address_of(fd_, true, ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        address_of(fd_, false, ip, port);
    }
    socket_t socket() const override { return fd_; }

    bool close_after = false;  // set when a request was refused without reading its body

  private:
    int fd_, stop_fd_;
    const server_limits& limits_;
    char buf_[4096];
    std::size_t at_ = 0, len_ = 0;
    std::size_t allowance_ = 0;
    steady::time_point deadline_;
};

// The connection whose request the calling thread is handling (the pre-routing handler
// marks it to be closed).
thread_local connection_stream* current_connection = nullptr;

}  // namespace

http_server::http_server(const server_limits& limits) : limits_(limits) {
    if (::pipe2(stop_pipe_, O_CLOEXEC) != 0) stop_pipe_[0] = stop_pipe_[1] = -1;
    set_payload_max_length(limits.max_body);
    // Decided from the request line and headers alone, before a body would be read.
    const std::size_t max_body = limits.max_body;
    set_pre_routing_handler([max_body](const httplib::Request& req, httplib::Response& res) {
        using handled = httplib::Server::HandlerResponse;
        auto refused = [&res](int status, const std::string& text) {
            // The body, if any, is left unread, so the connection cannot carry another request.
            if (current_connection != nullptr) current_connection->close_after = true;
            res.status = status;
            res.set_header("X-Content-Type-Options", "nosniff");
            res.set_header("Cache-Control", "no-store");
            res.set_header("Connection", "close");
            res.set_content(text, "text/plain; charset=utf-8");
            return handled::Handled;
        };
        std::size_t length = 0;
        if (req.has_header("Transfer-Encoding") ||
            (req.has_header("Content-Length") &&
             (!parse_size(req.get_header_value("Content-Length"), length) || length > max_body)))
            return refused(413, "Request bodies are limited to " + std::to_string(max_body) +
                                    " bytes, and no page takes one.\n");
        if (req.method != "GET" && req.method != "HEAD") {
            res.set_header("Allow", "GET, HEAD");
            return refused(405, "Only GET and HEAD are served.\n");
        }
        if (length > 0) return refused(400, "A GET request carries no body.\n");
        return handled::Unhandled;
    });
}

http_server::~http_server() {
    if (listen_fd_ >= 0) ::close(listen_fd_);
    for (int fd : stop_pipe_)
        if (fd >= 0) ::close(fd);
}

int http_server::bind(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return -1;
    for (addrinfo* a = found; a != nullptr && listen_fd_ < 0; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) continue;
        const int yes = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        // A browser opens several connections at once, and every idle client holds a place
        // until it is accepted: a long queue keeps new ones from being dropped and retried.
        if (::bind(fd, a->ai_addr, a->ai_addrlen) == 0 && ::listen(fd, SOMAXCONN) == 0)
            listen_fd_ = fd;
        else
            ::close(fd);
    }
    ::freeaddrinfo(found);
    if (listen_fd_ < 0 || stop_pipe_[0] < 0) return -1;
    std::string ip;
    int bound = -1;
    address_of(listen_fd_, false, ip, bound);
    return bound;
}

bool http_server::serve() {
    if (listen_fd_ < 0) return false;
    bool ok = true;
    {
        connection_threads threads(limits_.connections);
        for (;;) {
            pollfd p[2] = {{listen_fd_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
            if (::poll(p, 2, -1) < 0) {
                if (errno == EINTR) continue;
                ok = false;
                break;
            }
            if (p[1].revents != 0) break;
            const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                // Out of descriptors, or a connection gone before it was accepted: go on.
                if (errno == EMFILE || errno == ENFILE)
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                continue;
            }
            threads.enqueue([this, fd] { serve_connection(fd); });
        }
    }
    return ok;
}

void http_server::stop() {
    if (stop_pipe_[1] < 0) return;
    const char byte = 1;
    while (::write(stop_pipe_[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

void http_server::serve_connection(int fd) {
    connection_stream stream(fd, stop_pipe_[0], limits_);
    for (int k = 1; k <= limits_.requests_per_connection; ++k) {
        if (!stream.wait_for_request()) break;
        stream.start_request();
        bool closed = false;
        current_connection = &stream;
        const bool ok = process_request(stream, k == limits_.requests_per_connection, closed,
                                        [](httplib::Request&) {});
        current_connection = nullptr;
        if (!ok || closed || stream.close_after) break;
    }
    ::close(fd);
}

namespace {

bool ends_in_strand(std::string_view name) {
    return name.size() > 2 && name[name.size() - 2] == '.' &&
           (name.back() == 'f' || name.back() == 'r');
}

// The path as one shell word.
std::string quoted(const std::string& path) {
    std::string out = "'";
    for (char ch : path) out += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    return out + "'";
}

}  // namespace

std::string placement_hint(const assembly& ace, const read_source& sff) {
    if (ace.reads_found != 0 || ace.placements.empty() || sff.indexed_reads() == 0) return {};
    for (const auto& [name, contig] : ace.placements)
        if (!ends_in_strand(name)) return {};
    // Said only when dropping the suffix does find reads.
    bool found = false;
    for (const auto& [name, contig] : ace.placements) {
        if (sff.find(std::string_view(name).substr(0, name.size() - 2)) != nullptr) {
            found = true;
            break;
        }
    }
    if (!found) return {};
    return "No read of the assembly is in the SFF files: every read name ends in .f or .r, as "
           "gap5 writes them. Drop the suffixes from the AF and RD lines and start again on the "
           "new file:\n  sed -E 's/^(AF|RD) ([^ ]+)\\.[fr] /\\1 \\2 /' " +
           quoted(ace.ace_path) + " > fixed.ace\n";
}

std::string refused_file_hint(const std::string& ace_path) {
    std::ifstream in(ace_path, std::ios::binary);
    std::string line;
    // 0: looking for a QA line; 1: after one; 2: after a QA line and an empty line.
    int state = 0;
    bool shape = false;
    while (!shape && std::getline(in, line)) {
        if (state == 2 && line.rfind("DS", 0) == 0) shape = true;
        state = line.rfind("QA ", 0) == 0 ? 1 : (state == 1 && line.empty() ? 2 : 0);
    }
    if (!shape) return {};
    return "An empty line stands between a read's QA and DS lines, as MIRA writes them. Drop "
           "it and start again on the new file:\n  sed '/^QA /{n;/^$/{N;s/^\\nDS /DS /}}' " +
           quoted(ace_path) + " > fixed.ace\n";
}

}  // namespace browse
