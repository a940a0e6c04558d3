// The pages of the browser, built from the assembly and the SFF files without any HTTP:
// the server hands every request to site::serve and sends what comes back.
//
// Each page lives in its own file (overview_page.cpp, contig_page.cpp, read_page.cpp) and is
// reached through the tables of routes.cpp: a page is added by writing its builder and
// naming it there, as a path prefix (`top_routes`) or as a view of one contig
// (`contig_views`: /contig/NAME.txt, /contig/NAME/run/COL, ...).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "assembly.h"
#include "read_source.h"

namespace browse {

class evidence_store;

struct response {
    int status = 200;
    std::string content_type = "text/html; charset=utf-8";
    std::string body;
    std::string attachment;  // a file name: the body is offered as a download
    // The token the page's script carries; the Content-Security-Policy allows no script
    // without it (none at all when it is empty). New for every response.
    std::string nonce;
};

// A request as the pages see it: the path, URL-decoded, and the query parameters.
struct request {
    std::string path;
    std::vector<std::pair<std::string, std::string>> params;
    // The first value of `name`, if given.
    std::optional<std::string> param(std::string_view name) const;
};

// The query of a contig window, as received (absent values take their defaults).
struct window_query {
    std::optional<std::string> from, width, rows;
};
window_query window_query_of(const request& r);

// A window checked against a contig: columns from..last are shown (last is cut at the
// contig's end), or `error` says why the query cannot be served. `rows_page` is the page of
// rows asked for, from 1 (checked against the window's pages when it is drawn).
struct window {
    std::int64_t from = 1, last = 0;
    int width = 100;
    std::int64_t rows_page = 1;
    std::string error;
};
window check_window(const window_query& q, std::int64_t columns);

constexpr int default_width = 100;
constexpr int max_width = 2000;

class site {
  public:
    assembly& ace;
    const read_source& sff;

    // The flow-signal evidence of the contigs, when the server keeps one (pages without it
    // show no evidence).
    evidence_store* evidence = nullptr;

    site(assembly& a, const read_source& s) : ace(a), sff(s) {}

    // Every GET request: routed by routes.cpp.
    response serve(const request& req) const;

    response overview() const;
    // `name` is the path after /contig/: a contig name, or one followed by a view's suffix.
    response contig(std::string_view name, const request& req) const;
    // `name` is the path after /read/: a read name, or one followed by ".flows.tsv" or
    // ".bases.tsv".
    response read(std::string_view name) const;
    response not_found(std::string_view what) const;

    // The contig window page and its text form, for contig `index`.
    response contig_window(std::size_t index, const request& req) const;
    response contig_text(std::size_t index, const request& req) const;
};

// Routes: a path prefix and its page, given the rest of the path.
struct top_route {
    std::string_view prefix;
    response (*serve)(const site&, std::string_view rest, const request&);
};
extern const std::vector<top_route> top_routes;

// Views of one contig: /contig/NAME followed by `key`. A `whole` key ends the path
// (".txt"); otherwise the rest after it is handed on ("/run/" + column).
struct contig_view {
    std::string_view key;
    bool whole;
    response (*serve)(const site&, std::size_t contig, std::string_view rest, const request&);
};
extern const std::vector<contig_view> contig_views;

}  // namespace browse
