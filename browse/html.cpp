#include "html.h"

#include <cstdio>
#include <random>

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

std::string escaped(std::string_view text) {
    std::string out;
    append_escaped(out, text);
    return out;
}

std::string url_encoded(std::string_view text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~') {
            out += c;
        } else {
            out += '%';
            out += hex[u >> 4];
            out += hex[u & 15];
        }
    }
    return out;
}

std::string grouped(std::int64_t n) {
    std::string digits = std::to_string(n < 0 ? -n : n);
    std::string out;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return n < 0 ? "-" + out : out;
}

std::string fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

const std::string& script_nonce() {
    static const std::string nonce = [] {
        std::random_device device;
        std::string hex;
        for (int i = 0; i < 4; ++i) {
            char part[9];
            std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(device()));
            hex += part;
        }
        return hex;
    }();
    return nonce;
}

namespace {

constexpr std::string_view style_sheet = R"css(
body{font-family:system-ui,sans-serif;margin:0;color:#222;background:#fff}
header{background:#243447;color:#fff;padding:.5em 1.5em;display:flex;gap:1.5em;align-items:baseline}
header a{color:#fff;text-decoration:none;font-weight:600}
main{padding:1em 1.5em}
h1{font-size:1.35em;margin:.2em 0 .6em}
h2{font-size:1.1em;margin:1.2em 0 .4em}
a{color:#1f5fa8}
table.data{border-collapse:collapse;font-size:.92em}
table.data th,table.data td{padding:.25em .7em;border-bottom:1px solid #e3e3e3;text-align:right}
table.data th{background:#f2f4f7;cursor:pointer;user-select:none;white-space:nowrap}
table.data td:first-child,table.data th:first-child{text-align:left}
table.data th.asc::after{content:" \25B2"}table.data th.desc::after{content:" \25BC"}
dl.facts{display:grid;grid-template-columns:max-content auto;gap:.2em 1em;margin:0}
dl.facts dt{color:#666}dl.facts dd{margin:0}
.nav{display:flex;flex-wrap:wrap;gap:.6em;align-items:center;margin:.6em 0}
.nav a,.nav span.off{padding:.15em .6em;border:1px solid #c8ced6;border-radius:4px;text-decoration:none}
.nav span.off{color:#aaa}.nav a.cur{background:#243447;color:#fff}
.map{display:flex;border:1px solid #ddd;background:#fafafa;max-height:70vh;overflow:auto}
.map pre{margin:0;padding:.5em;font:13px/1.3 monospace}
.map pre.names{border-right:1px solid #ddd;background:#f2f4f7;position:sticky;left:0}
.note{color:#666;font-size:.9em}
svg{display:block;max-width:100%;height:auto}
svg.depth{cursor:crosshair}
input{font:inherit}
)css";

}  // namespace

std::string page(std::string_view title, std::string_view body, std::string_view script) {
    std::string out = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>";
    append_escaped(out, title);
    out += " - sorvexa-browse</title>\n<style>";
    out += style_sheet;
    out += "</style></head>\n<body>\n<header><a href=\"/\">sorvexa-browse</a><span>";
    append_escaped(out, title);
    out += "</span></header>\n<main>\n";
    out += body;
    out += "</main>\n";
    if (!script.empty()) {
        out += "<script nonce=\"" + script_nonce() + "\">";
        out += script;
        out += "</script>\n";
    }
    out += "</body></html>\n";
    return out;
}

}  // namespace browse
