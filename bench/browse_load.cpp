// Load for sorvexa-browse: times one pass over an ACE file with the library's reader, finds
// the contig with the most reads over a column on average, and has concurrent clients fetch
// random windows of it from a running server (127.0.0.1 only), reporting the server's own
// build times (its Server-Timing header) and the clients' round trips.
//
//   browse_load ACE_FILE                   the ACE pass alone: "ace_pass_s S"
//   browse_load ACE_FILE PORT [CLIENTS REQUESTS WIDTH]
//
// SORVEXA_LOAD_QUERY, when set, is appended to every window's query (e.g. "&view=signals").
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ace.h"
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

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3 && argc != 6) {
        std::fprintf(stderr, "usage: browse_load ACE_FILE [PORT [CLIENTS REQUESTS WIDTH]]\n");
        return 2;
    }
    const auto t0 = std::chrono::steady_clock::now();
    target deepest;
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
