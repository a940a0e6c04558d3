// The writer, and what every page shares: its frame, error answers, addresses.
#include "html.h"

#include <cctype>
#include <cstdio>
#include <random>

#include "browse_assets.h"
#include "site.h"

namespace browse {

void append_escaped(std::string& out, std::string_view text) {
    for (char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n')
                    out += "\xEF\xBF\xBD";
                else
                    out += c;
        }
    }
}

std::string url_encoded(std::string_view text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isalnum(u) || c == '-' || c == '.' || c == '_' || c == '~')
            out += c;
        else
            out += {'%', hex[u >> 4], hex[u & 15]};
    }
    return out;
}

std::string grouped(std::int64_t n) {
    const std::string digits = std::to_string(n < 0 ? -n : n);
    std::string out = n < 0 ? "-" : "";
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

std::string fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

std::string new_nonce() {
    // Straight from the system's entropy: a seeded generator would let a client that saw
    // enough nonces predict the next.
    thread_local std::random_device device;
    char hex[33];
    std::snprintf(hex, sizeof hex, "%08x%08x%08x%08x", device(), device(), device(), device());
    return hex;
}

std::string_view base_class(char letter) {
    static const std::string_view classes[] = {"bA", "bC", "bG", "bT"};
    const auto at = std::string_view("ACGT").find(
        static_cast<char>(std::toupper(static_cast<unsigned char>(letter))));
    return at == std::string_view::npos ? std::string_view() : classes[at];
}

response page(std::string_view title, const html& body, const html& script) {
    response r;
    html out;
    out.fill(assets::page_head, title)
        .append(assets::style_css())
        .fill(assets::page_top, title)
        .append(body)
        .markup("</main>\n");
    if (script.size() > 0) {
        r.nonce = new_nonce();
        out.fill("<script nonce=\"{}\">", r.nonce).append(script).markup("</script>\n");
    }
    r.body = out.markup("</body></html>\n").take();
    return r;
}

response error_response(int status, std::string_view title, std::string_view message, bool text) {
    if (text)
        return text_response(status, (title.empty() ? std::string() : std::string(title) + ": ") +
                                         std::string(message) + "\n");
    html b;
    b.fill("<h1>{}</h1>\n<p class=\"error\">{}</p>\n<p><a href=\"/\">Back to the contigs</a></p>\n",
           title, message);
    response r = page(title, b);
    r.status = status;
    return r;
}

response ace_changed(bool text) {
    return error_response(
        500, "ACE file changed",
        "The ACE file is no longer the file read at start-up; restart the server.", text);
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
    return contig_href(contig) + "?from=" + std::to_string(from) +
           "&width=" + std::to_string(width) +
           (rows_page > 1 ? "&rows=" + std::to_string(rows_page) : "");
}

void fact(html& out, std::string_view term, std::string_view value) {
    out.fill("<dt>{}</dt><dd>{}</dd>", term, value);
}

void read_link(html& out, std::string_view name) {
    out.fill("<a href=\"{}\">{}</a>", read_href(name), name);
}

bool parse_count(std::string_view text, std::int64_t& out) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != text.npos)
        return false;
    out = std::stoll(std::string(text));
    return true;
}

std::string file_name_for(std::string_view name) {
    std::string out;
    for (char ch : name)
        out += (std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-') ? ch : '_';
    return out.empty() ? "read" : out;
}

}  // namespace browse
