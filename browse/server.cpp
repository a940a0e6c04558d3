#include "server.h"

#include <chrono>

#include "html.h"

namespace browse {

void send(const response& page, httplib::Response& res, double build_ms) {
    res.status = page.status;
    res.set_header("X-Content-Type-Options", "nosniff");
    res.set_header("Cache-Control", "no-store");
    // Only this page's own script runs, and the page fetches nothing from anywhere else.
    res.set_header("Content-Security-Policy",
                   "default-src 'none'; style-src 'unsafe-inline'; img-src 'self'; "
                   "form-action 'self'; base-uri 'none'; script-src 'nonce-" +
                       script_nonce() + "'");
    res.set_header("Server-Timing", "page;dur=" + fixed(build_ms, 3));
    if (!page.attachment.empty())
        res.set_header("Content-Disposition", "attachment; filename=\"" + page.attachment + "\"");
    res.set_content(page.body, page.content_type.c_str());
}

namespace {

template <class Build>
httplib::Server::Handler timed(Build build) {
    return [build](const httplib::Request& req, httplib::Response& res) {
        const auto t0 = std::chrono::steady_clock::now();
        const response page = build(req);
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - t0;
        send(page, res, took.count());
    };
}

window_query query_of(const httplib::Request& req) {
    window_query q;
    if (req.has_param("from")) q.from = req.get_param_value("from");
    if (req.has_param("width")) q.width = req.get_param_value("width");
    return q;
}

}  // namespace

void add_routes(httplib::Server& server, const site& s) {
    server.Get("/", timed([&s](const httplib::Request&) { return s.overview(); }));
    server.Get(R"(/contig/(.+))", timed([&s](const httplib::Request& req) {
                   return s.contig(req.matches[1].str(), query_of(req));
               }));
    server.Get(R"(/read/(.+))",
               timed([&s](const httplib::Request& req) { return s.read(req.matches[1].str()); }));
    server.Get(R"(.*)", timed([&s](const httplib::Request& req) {
                   return s.not_found("Nothing is served at " + req.path + ".");
               }));
}

}  // namespace browse
