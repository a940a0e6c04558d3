// The pages of the browser, built from the assembly and the SFF files without any HTTP:
// the server only routes a request here and sends what comes back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "assembly.h"
#include "read_source.h"

namespace browse {

struct response {
    int status = 200;
    std::string content_type = "text/html; charset=utf-8";
    std::string body;
    std::string attachment;  // a file name: the body is offered as a download
};

// The query of a contig page, as received (absent values take their defaults).
struct window_query {
    std::optional<std::string> from, width;
};

// A window checked against a contig: columns from..last are shown (last is cut at the
// contig's end), or `error` says why the query cannot be served.
struct window {
    std::int64_t from = 1, last = 0;
    int width = 100;
    std::string error;
};
window check_window(const window_query& q, std::int64_t columns);

constexpr int default_width = 100;
constexpr int max_width = 2000;

class site {
  public:
    assembly& ace;
    const read_source& sff;

    site(assembly& a, const read_source& s) : ace(a), sff(s) {}

    response overview() const;
    // `name` is the path after /contig/: a contig name, or one followed by ".txt".
    response contig(std::string_view name, const window_query& q) const;
    // `name` is the path after /read/: a read name, or one followed by ".flows.tsv" or
    // ".bases.tsv".
    response read(std::string_view name) const;
    response not_found(std::string_view what) const;
};

}  // namespace browse
