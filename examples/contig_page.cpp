// Writes one standalone HTML page for a window of a contig: the coloured alignment map and
// the spaced flow map, with a legend of the colours.
//
//   contig_page ACE_FILE CONTIG_NAME FROM WIDTH OUT.html
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include <sorvexa/ace.h>
#include <sorvexa/contig.h>

namespace {

void escape_names(std::string& out, const std::vector<std::string>& names) {
    for (const std::string& n : names) {
        for (char ch : n) {
            if (ch == '<')
                out += "&lt;";
            else if (ch == '>')
                out += "&gt;";
            else if (ch == '&')
                out += "&amp;";
            else
                out += ch;
        }
        out += '\n';
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: contig_page ACE_FILE CONTIG_NAME FROM WIDTH OUT.html\n";
        return 2;
    }
    const std::string wanted = argv[2];
    const long from = std::strtol(argv[3], nullptr, 10);
    const long width = std::strtol(argv[4], nullptr, 10);
    if (from < 1 || width < 1 || width > 100000) {
        std::cerr << "contig_page: FROM and WIDTH must be positive\n";
        return 2;
    }

    aceReader ace(argv[1]);
    contig c;
    bool found = false;
    while (!found) {
        contig next;
        if (ace.next_contig(next) == 0) break;
        if (next.name == wanted) {
            c = next;
            found = true;
        }
    }
    if (!found) {
        std::cerr << "contig_page: no contig named " << wanted << "\n";
        return 1;
    }

    color_map_t colors = {{'A', "#1a9850"}, {'C', "#2166ac"}, {'G', "#222222"}, {'T', "#d73027"},
                          {'a', "#1a9850"}, {'c', "#2166ac"}, {'g', "#222222"}, {'t', "#d73027"}};
    std::string align, flows;
    std::vector<std::string> align_names, flow_names;
    c.print_align_map_html(align, align_names, colors, static_cast<std::int32_t>(from),
                           static_cast<int>(width));
    c.print_flow_map_html_space(flows, flow_names, colors, static_cast<std::int32_t>(from),
                                static_cast<int>(width));

    std::string page =
        "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + c.name +
        " window</title>\n<style>body{font-family:sans-serif;margin:2em}"
        "pre{font-family:monospace;font-size:14px;line-height:1.25;background:#fafafa;"
        "padding:1em;border:1px solid #ddd;overflow-x:auto}"
        ".cols{display:flex;gap:1em}.legend span{margin-right:1.5em}</style></head>\n<body>\n";
    page += "<h1>" + c.name + ", columns " + std::to_string(from) + " to " +
            std::to_string(from + width - 1) + "</h1>\n";
    page += "<p class=\"legend\">";
    for (char base : std::string("ACGT"))
        page += "<span><font color=" + colors[base] + "><b>" + base + "</b></font></span>";
    page += "<span>* pad</span><span>digits and letters: bases per flow (A = 10)</span></p>\n";
    page += "<h2>Alignment</h2>\n<div class=\"cols\"><pre>" + align + "</pre><pre>consensus\n";
    escape_names(page, align_names);
    page +=
        "</pre></div>\n<h2>Flows</h2>\n<div class=\"cols\"><pre>" + flows + "</pre><pre>flows\n";
    escape_names(page, flow_names);
    page += "</pre></div>\n</body></html>\n";

    std::ofstream out(argv[5], std::ios::binary);
    out << page;
    if (!out) {
        std::cerr << "contig_page: cannot write " << argv[5] << "\n";
        return 1;
    }
    return 0;
}
