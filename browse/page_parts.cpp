#include "page_parts.h"

#include <cctype>

#include "browse_assets.h"

namespace browse {

response page(std::string_view title, const html& body, const html& script) {
    response r;
    html out;
    out.reserve(body.size() + assets::style_css().size() + script.size() + 512);
    out.markup("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>")
        .text(title)
        .markup(" - sorvexa-browse</title>\n<style>");
    // The style sheet and the scripts are files of the source tree built into the program.
    out.append(assets::style_css())
        .markup("</style></head>\n<body>\n<header><a href=\"/\">sorvexa-browse</a><span>")
        .text(title)
        .markup(
            "</span><form class=\"search\" method=\"get\" action=\"/search\"><input "
            "name=\"q\" type=\"search\" placeholder=\"read name or its beginning\" "
            "aria-label=\"find a read\"> <button>find</button></form></header>\n<main>\n")
        .append(body)
        .markup("</main>\n");
    if (script.size() > 0) {
        r.nonce = new_nonce();
        out.open("script", {{"nonce", r.nonce}}).append(script);
        out.markup("</script>\n");
    }
    out.markup("</body></html>\n");
    r.body = out.take();
    return r;
}

response error_page(int status, std::string_view title, std::string_view message) {
    html b;
    b.element("h1", title).markup("\n");
    b.element("p", {{"class", "error"}}, message).markup("\n");
    b.markup("<p><a href=\"/\">Back to the contigs</a></p>\n");
    response r = page(title, b);
    r.status = status;
    return r;
}

response text_response(int status, std::string body) {
    response r;
    r.status = status;
    r.content_type = "text/plain; charset=utf-8";
    r.body = std::move(body);
    return r;
}

std::string contig_href(std::string_view name) {
    return "/contig/" + url_encoded(name);
}

std::string read_href(std::string_view name) {
    return "/read/" + url_encoded(name);
}

std::string window_href(std::string_view contig, std::int64_t from, int width,
                        std::int64_t rows_page) {
    std::string h =
        contig_href(contig) + "?from=" + std::to_string(from) + "&width=" + std::to_string(width);
    if (rows_page > 1) h += "&rows=" + std::to_string(rows_page);
    return h;
}

void fact(html& out, std::string_view term, std::string_view value) {
    out.element("dt", term).element("dd", value);
}

void fact(html& out, std::string_view term, const html& value) {
    out.element("dt", term).open("dd").append(value).close("dd");
}

void read_link(html& out, std::string_view name) {
    out.element("a", {{"href", read_href(name)}}, name);
}

bool parse_count(std::string_view text, std::int64_t& out) {
    if (text.empty() || text.size() > 9) return false;
    out = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9') return false;
        out = out * 10 + (ch - '0');
    }
    return true;
}

bool ends_with(std::string_view s, std::string_view tail) {
    return s.size() > tail.size() && s.substr(s.size() - tail.size()) == tail;
}

std::string file_name_for(std::string_view name) {
    std::string out;
    for (char ch : name)
        out += (std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-') ? ch : '_';
    return out.empty() ? "read" : out;
}

char tsv_char(char ch) {
    return ch == '\t' || ch == '\n' || ch == '\r' ? '?' : ch;
}

}  // namespace browse
