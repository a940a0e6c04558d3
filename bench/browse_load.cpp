// Load for sorvexa-browse: times one pass over an ACE file with the library's reader, finds
// the contig with the most reads over a column on average, and has concurrent clients fetch
// random windows of it from a running server (127.0.0.1 only), reporting the server's own
// build times (its Server-Timing header) and the clients' round trips.
//
//   browse_load ACE_FILE                   the ACE pass alone: "ace_pass_s S"
//   browse_load --deep DIR DEPTH           writes DIR/deep.ace and DIR/deep.sff: one contig of
//                                          800 columns whose columns 201-400 lie under DEPTH
//                                          reads (random bases, 400 each)
//   browse_load --storm PORT PATH SECONDS  misbehaving clients (below) while PATH and / are
//                                          fetched every 100 ms, their round trips reported
//   browse_load ACE_FILE PORT [CLIENTS REQUESTS WIDTH]
//   browse_load --contig NAME COLUMNS PORT CLIENTS REQUESTS WIDTH
//                                          the same load on a contig named outright (a
//                                          reference of sorvexa-browse --bam), no ACE pass
//
// SORVEXA_LOAD_QUERY, when set, is appended to every window's query (e.g. "&view=signals").
#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sorvexa/ace.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ace_writer.h"
#include "sff_builder.h"

namespace {

struct target {
    std::string name;
    std::int64_t columns = 0;
    double depth = 0;
};

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const auto k = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(k, v.size() - 1)];
}

int connect_to(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

// True when the server has closed `fd` (or reset it); drains anything it sent.
bool closed_by_server(int fd) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 0) <= 0) return false;
    char buf[4096];
    return ::recv(fd, buf, sizeof buf, MSG_DONTWAIT) <= 0;
}

// Misbehaving clients, each kind on its own thread, until `stop`: 200 connections that send
// nothing, 50 that send a request's head one byte a second, and 4 that each declare a 300 MB
// body and send it as fast as the server takes it. A connection the server closes is opened
// again, so the pressure lasts. The counts say how often the server closed each kind.
struct storm {
    std::atomic<bool> stop{false};
    std::atomic<long> idle_closed{0}, slow_closed{0}, bodies_refused{0}, body_bytes{0};
    std::vector<std::thread> threads;

    explicit storm(int port) {
        threads.emplace_back([this, port] {
            std::vector<int> fds(200, -1);
            while (!stop) {
                for (int& fd : fds) {
                    if (fd >= 0 && closed_by_server(fd)) {
                        ::close(fd);
                        fd = -1;
                        ++idle_closed;
                    }
                    if (fd < 0) fd = connect_to(port);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            for (int fd : fds)
                if (fd >= 0) ::close(fd);
        });
        threads.emplace_back([this, port] {
            const std::string head =
                "GET / HTTP/1.1\r\nHost: x\r\nX-Slow: aaaaaaaaaaaaaaaaaaaaaaaa";
            std::vector<int> fds(50, -1);
            std::vector<std::size_t> sent(50, 0);
            while (!stop) {
                for (std::size_t k = 0; k < fds.size(); ++k) {
                    if (fds[k] >= 0 && closed_by_server(fds[k])) {
                        ::close(fds[k]);
                        fds[k] = -1;
                        ++slow_closed;
                    }
                    if (fds[k] < 0) {
                        fds[k] = connect_to(port);
                        sent[k] = 0;
                    }
                    if (fds[k] >= 0)
                        ::send(fds[k], &head[sent[k]++ % head.size()], 1, MSG_NOSIGNAL);
                }
                for (int t = 0; t < 20 && !stop; ++t)
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            for (int fd : fds)
                if (fd >= 0) ::close(fd);
        });
        for (int b = 0; b < 4; ++b) {
            threads.emplace_back([this, port] {
                const std::string chunk(1 << 20, 'x');
                while (!stop) {
                    const int fd = connect_to(port);
                    if (fd < 0) continue;
                    const std::string head =
                        "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 300000000\r\n\r\n";
                    ::send(fd, head.data(), head.size(), MSG_NOSIGNAL);
                    for (long total = 0; !stop && total < 300000000;) {
                        const ssize_t n = ::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL);
                        if (n <= 0) break;
                        total += n;
                        body_bytes += n;
                    }
                    ++bodies_refused;
                    ::close(fd);
                }
            });
        }
    }
    ~storm() {
        stop = true;
        for (std::thread& t : threads) t.join();
    }
};

int write_deep(const std::string& dir, int depth) {
    fixture::splitmix64 rng{7};
    std::string consensus;
    for (int k = 0; k < 800; ++k) consensus += "ACGT"[rng.below(4)];
    const std::string flows = fixture::tacg_flows(800);
    fixture::sff_file_layout f;
    f.number_of_flows_per_read = 800;
    fixture::ace_contig c{"Deep1", consensus, {}};
    for (int k = 0; k < depth; ++k) {
        const std::uint32_t start = rng.below(200);
        char name[32];
        std::snprintf(name, sizeof name, "DEEP%06d", k);
        f.reads.push_back(fixture::make_read(name, consensus.substr(start, 400), flows, {},
                                             static_cast<std::uint64_t>(k) + 1));
        c.reads.push_back({name, static_cast<std::int32_t>(start) + 1, f.reads.back().bases});
    }
    if (!fixture::write_file(dir + "/deep.sff", fixture::build_sff(f)) ||
        !fixture::write_file(dir + "/deep.ace", fixture::ace_file_text({c}))) {
        std::fprintf(stderr, "browse_load: cannot write into %s\n", dir.c_str());
        return 1;
    }
    return 0;
}

int run_storm(int port, const std::string& path, int seconds) {
    std::vector<double> page_ms, overview_ms;
    int errors = 0;
    {
        storm s(port);
        std::this_thread::sleep_for(std::chrono::seconds(1));  // let every kind connect
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < end) {
            for (const std::string& p : {path, std::string("/")}) {
                httplib::Client client("127.0.0.1", port);
                client.set_read_timeout(30, 0);
                const auto t0 = std::chrono::steady_clock::now();
                auto r = client.Get(p);
                const std::chrono::duration<double, std::milli> took =
                    std::chrono::steady_clock::now() - t0;
                if (!r || r->status != 200)
                    ++errors;
                else
                    (p == "/" ? overview_ms : page_ms).push_back(took.count());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        std::printf("storm idle_closed %ld slow_closed %ld bodies_refused %ld body_mb_sent %.0f\n",
                    s.idle_closed.load(), s.slow_closed.load(), s.bodies_refused.load(),
                    static_cast<double>(s.body_bytes.load()) / 1048576.0);
    }
    std::printf("storm_requests %zu errors %d\n", page_ms.size() + overview_ms.size(), errors);
    std::printf("storm_page_ms median %.2f max %.2f\n", percentile(page_ms, 0.5),
                percentile(page_ms, 1.0));
    std::printf("storm_overview_ms median %.2f max %.2f\n", percentile(overview_ms, 0.5),
                percentile(overview_ms, 1.0));
    return errors == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--deep")
        return write_deep(argv[2], std::atoi(argv[3]));
    if (argc == 5 && std::string(argv[1]) == "--storm")
        return run_storm(std::atoi(argv[2]), argv[3], std::atoi(argv[4]));
    target deepest;
    if (argc == 8 && std::string(argv[1]) == "--contig") {
        deepest = {argv[2], std::atoll(argv[3]), 0};
        argv += 2;  // PORT CLIENTS REQUESTS WIDTH where the ACE form has them
        argc -= 2;
    } else {
        if (argc != 2 && argc != 3 && argc != 6) {
            std::fprintf(stderr, "usage: browse_load ACE_FILE [PORT [CLIENTS REQUESTS WIDTH]]\n");
            return 2;
        }
        const auto t0 = std::chrono::steady_clock::now();
        aceReader ace(argv[1]);
        for (;;) {
            contig c;
            if (ace.next_contig(c) == 0) break;
            double bases = 0;
            for (const auto& [name, r] : c.reads) bases += r.length;
            const double depth =
                c.consensus.empty() ? 0 : bases / static_cast<double>(c.consensus.size());
            if (depth > deepest.depth)
                deepest = {c.name, static_cast<std::int64_t>(c.consensus.size()), depth};
        }
        const std::chrono::duration<double> pass = std::chrono::steady_clock::now() - t0;
        std::printf("ace_pass_s %.3f\n", pass.count());
        if (argc == 2) return 0;
    }
    const int port = std::atoi(argv[2]);
    const int clients = argc == 6 ? std::atoi(argv[3]) : 8;
    const int requests = argc == 6 ? std::atoi(argv[4]) : 2000;
    const int width = argc == 6 ? std::atoi(argv[5]) : 200;
    std::printf("contig %s columns %lld depth %.1f\n", deepest.name.c_str(),
                static_cast<long long>(deepest.columns), deepest.depth);

    std::vector<std::vector<double>> server(static_cast<std::size_t>(clients)),
        round_trip(static_cast<std::size_t>(clients));
    std::vector<int> errors(static_cast<std::size_t>(clients), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < clients; ++t) {
        threads.emplace_back([&, t] {
            httplib::Client client("127.0.0.1", port);
            client.set_read_timeout(60, 0);
            fixture::splitmix64 rng{static_cast<std::uint64_t>(t) + 1};
            const char* const extra = std::getenv("SORVEXA_LOAD_QUERY");
            const std::string extra_query = extra != nullptr ? extra : "";
            const auto span =
                static_cast<std::uint32_t>(std::max<std::int64_t>(deepest.columns - width + 1, 1));
            const auto k = static_cast<std::size_t>(t);
            for (int i = t; i < requests; i += clients) {
                const std::string path = "/contig/" + deepest.name +
                                         "?from=" + std::to_string(1 + rng.below(span)) +
                                         "&width=" + std::to_string(width) + extra_query;
                const auto s = std::chrono::steady_clock::now();
                auto r = client.Get(path);
                const std::chrono::duration<double, std::milli> took =
                    std::chrono::steady_clock::now() - s;
                if (!r || r->status != 200) {
                    ++errors[k];
                    continue;
                }
                round_trip[k].push_back(took.count());
                const std::string timing = r->get_header_value("Server-Timing");
                const auto at = timing.find("dur=");
                if (at != std::string::npos)
                    server[k].push_back(std::atof(timing.c_str() + at + 4));
            }
        });
    }
    for (std::thread& t : threads) t.join();
    std::vector<double> all_server, all_trip;
    int all_errors = 0;
    for (int t = 0; t < clients; ++t) {
        const auto k = static_cast<std::size_t>(t);
        all_server.insert(all_server.end(), server[k].begin(), server[k].end());
        all_trip.insert(all_trip.end(), round_trip[k].begin(), round_trip[k].end());
        all_errors += errors[k];
    }
    std::printf("requests %zu errors %d\n", all_trip.size() + static_cast<std::size_t>(all_errors),
                all_errors);
    std::printf("server_ms median %.2f p99 %.2f max %.2f\n", percentile(all_server, 0.5),
                percentile(all_server, 0.99), percentile(all_server, 1.0));
    std::printf("round_trip_ms median %.2f p99 %.2f max %.2f\n", percentile(all_trip, 0.5),
                percentile(all_trip, 0.99), percentile(all_trip, 1.0));
    return all_errors == 0 ? 0 : 1;
}
