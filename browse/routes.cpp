// Which page answers which path. A new page is one more entry in a table below.
#include <string>

#include "site.h"

namespace browse {

namespace {

response serve_overview(const site& s, std::string_view rest, const request&) {
    if (!rest.empty()) return s.not_found("Nothing is served at /" + std::string(rest) + ".");
    return s.overview();
}

response serve_contig(const site& s, std::string_view rest, const request& req) {
    return s.contig(rest, req);
}

response serve_read(const site& s, std::string_view rest, const request&) {
    return s.read(rest);
}

response serve_window(const site& s, std::size_t contig, std::string_view, const request& req) {
    return s.contig_window(contig, req);
}

response serve_text(const site& s, std::size_t contig, std::string_view, const request& req) {
    return s.contig_text(contig, req);
}

}  // namespace

// Longest prefixes first: the first entry whose prefix starts the path serves it.
const top_route top_routes[] = {
    {"/contig/", serve_contig},
    {"/read/", serve_read},
    {"/search", search_page},
    {"/", serve_overview},
};

// The window itself is the view with the empty key.
const contig_view contig_views[] = {
    {"", true, serve_window},  {".txt", true, serve_text}, {".vcf", true, calls_vcf},
    {".tsv", true, calls_tsv}, {"/run/", false, run_page},
};

std::optional<std::string> request::param(std::string_view name) const {
    for (const auto& [key, value] : params)
        if (key == name) return value;
    return std::nullopt;
}

response site::serve(const request& req) const {
    for (const top_route& r : top_routes) {
        if (req.path.starts_with(r.prefix))
            return r.serve(*this, std::string_view(req.path).substr(r.prefix.size()), req);
    }
    return not_found("Nothing is served at " + req.path + ".");
}

// A contig name may itself hold a view's key ("a.txt" can be a contig), so the name is
// tried whole first, then each view whose key follows a contig name.
response site::contig(std::string_view path_name, const request& req) const {
    for (const contig_view& v : contig_views) {
        if (v.whole) {
            if (!path_name.ends_with(v.key) || path_name.size() == v.key.size()) continue;
            const int index =
                ace.contig_index(path_name.substr(0, path_name.size() - v.key.size()));
            if (index >= 0) return v.serve(*this, static_cast<std::size_t>(index), {}, req);
            continue;
        }
        for (std::size_t at = path_name.rfind(v.key); at != std::string_view::npos && at > 0;
             at = path_name.rfind(v.key, at - 1)) {
            const int index = ace.contig_index(path_name.substr(0, at));
            if (index >= 0)
                return v.serve(*this, static_cast<std::size_t>(index),
                               path_name.substr(at + v.key.size()), req);
        }
    }
    return not_found("There is no contig named \"" + std::string(path_name) + "\".");
}

response site::not_found(std::string_view what) const {
    return error_response(404, "Not found", what);
}

}  // namespace browse
