// Which page answers which path. A new page is one more entry in a table below.
#include "site.h"

namespace browse {

namespace {

// A path prefix and its page, given the rest of the path. Longest prefixes first: the first
// entry whose prefix starts the path serves it.
struct top_route {
    std::string_view prefix;
    response (*serve)(const site&, std::string_view rest, const request&);
};
const top_route top_routes[] = {
    {"/contig/",
     [](const site& s, std::string_view rest, const request& q) { return s.contig(rest, q); }},
    {"/read/", [](const site& s, std::string_view rest, const request&) { return s.read(rest); }},
    {"/search", search_page},
    {"/",
     [](const site& s, std::string_view rest, const request&) {
         if (rest.empty() && s.bam != nullptr) return s.reference_overview();
         return rest.empty() ? s.overview()
                             : s.not_found("Nothing is served at /" + std::string(rest) + ".");
     }},
};

// The views of one contig, /contig/NAME then `key`: a `whole` key ends the path (".txt"), else
// the rest is handed on ("/run/" + column). The window itself is the view with the empty key.
struct contig_view {
    std::string_view key;
    bool whole;
    response (*serve)(const site&, std::size_t contig, std::string_view rest, const request&);
};
const contig_view contig_views[] = {
    {"", true,
     [](const site& s, std::size_t k, std::string_view, const request& q) {
         return s.contig_window(k, q);
     }},
    {".txt", true,
     [](const site& s, std::size_t k, std::string_view, const request& q) {
         return s.contig_text(k, q);
     }},
    {".vcf", true, calls_vcf},
    {".tsv", true, calls_tsv},
    {"/run/", false, run_page},
};

}  // namespace

std::optional<std::string> request::param(std::string_view name) const {
    for (const auto& [key, value] : params)
        if (key == name) return value;
    return std::nullopt;
}

response site::serve(const request& req) const {
    for (const top_route& r : top_routes)
        if (req.path.starts_with(r.prefix))
            return r.serve(*this, std::string_view(req.path).substr(r.prefix.size()), req);
    return not_found("Nothing is served at " + req.path + ".");
}

// A contig name may itself hold a view's key ("a.txt" can be a contig), so the name is
// tried whole first, then each view whose key follows a contig name.
response site::contig(std::string_view path_name, const request& req) const {
    if (bam != nullptr) {
        const int ref = bam->files.reference_index(std::string(path_name));
        if (ref >= 0) return reference_window(static_cast<std::size_t>(ref), req);
        const std::size_t at = path_name.rfind("/run/");
        const int of = at == path_name.npos
                           ? -1
                           : bam->files.reference_index(std::string(path_name.substr(0, at)));
        if (of >= 0) return reference_run(static_cast<std::size_t>(of), path_name.substr(at + 5));
        return not_found("There is no reference named \"" + std::string(path_name) + "\".");
    }
    for (const contig_view& v : contig_views) {
        if (path_name.size() < v.key.size()) continue;
        for (std::size_t at = path_name.size() - v.key.size(); at > 0 && at != path_name.npos;
             at = v.whole ? 0 : path_name.rfind(v.key, at - 1)) {
            if (path_name.substr(at, v.key.size()) != v.key) continue;
            if (const int index = ace.contig_index(path_name.substr(0, at)); index >= 0)
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
