// The library's own answers for the Python tests to compare with, as length-framed blocks
// ("KEY LENGTH\n" + LENGTH bytes + "\n"):
//
//   sorvexa_py_reference ace FILE    per contig: layout, flow consensus and flow ranges,
//                                    and over four windows every flow and drawing operation
//   sorvexa_py_reference sff FILE    per indexed name: its offset and the kept read that a
//                                    run fetches there
//
// A file the library refuses ends it with status 1, as it ends the tools.
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <sorvexa/ace.h>
#include <sorvexa/contig.h>
#include <sorvexa/read_lookup.h>
#include <sorvexa/sff.h>

namespace {

void block(const std::string& key, const std::string& value) {
    std::cout << key << ' ' << value.size() << '\n' << value << '\n';
}

template <class T>
std::string numbers(const std::vector<T>& v) {
    std::string out;
    for (const T& x : v) out += std::to_string(x) + ' ';
    return out;
}

const color_map_t colours = {{'A', "#1a9850"}, {'C', "#2166ac"}, {'G', "#222222"},
                             {'T', "#d73027"}, {'a', "#1a9850"}, {'c', "#2166ac"},
                             {'g', "#222222"}, {'t', "#d73027"}};

void window(contig& c, std::int32_t from, int width) {
    const std::string w = std::to_string(from) + ":" + std::to_string(width) + ":";
    std::vector<std::vector<std::int16_t>> counts;
    std::vector<std::map<std::int32_t, fRead>> flow_rows;
    c.align_flow(counts, flow_rows, from, width);
    std::string grid;
    for (const auto& column : counts) {
        for (std::size_t r = 0; r < flow_rows.size(); ++r)
            grid += std::to_string(r < column.size() ? column[r] : -1) + ' ';
        grid += '\n';
    }
    block(w + "align_flow.counts", grid);
    std::string rows;
    for (const auto& row : flow_rows) {
        for (const auto& [end, f] : row)
            rows += f.name + ',' + std::to_string(f.flow_start) + ',' + std::to_string(f.flow_end) +
                    ' ';
        rows += '\n';
    }
    block(w + "align_flow.rows", rows);

    std::vector<std::vector<char>> columns;
    std::vector<std::map<std::int32_t, std::string>> seq_rows;
    c.align_seq(columns, seq_rows, from, width);
    std::string cells;
    for (const auto& column : columns) cells += std::string(column.begin(), column.end()) + '\n';
    block(w + "align_seq.columns", cells);
    rows.clear();
    for (const auto& row : seq_rows) {
        for (const auto& [last, name] : row) rows += std::to_string(last) + ',' + name + ' ';
        rows += '\n';
    }
    block(w + "align_seq.rows", rows);

    auto map = [&](const std::string& key, auto draw) {
        std::string out;
        std::vector<std::string> names;
        draw(out, names);
        block(w + key, out);
        std::string joined;
        for (const auto& n : names) joined += n + '\n';
        block(w + key + ".names", joined);
    };
    map("flow_map",
        [&](auto& out, auto& names) { c.print_flow_map_plain(out, names, from, width); });
    map("flow_map.html", [&](auto& out, auto& names) {
        color_map_t m = colours;
        c.print_flow_map_html(out, names, m, from, width);
    });
    map("flow_map.spaced", [&](auto& out, auto& names) {
        color_map_t m = colours;
        c.print_flow_map_html_space(out, names, m, from, width);
    });
    map("align_map",
        [&](auto& out, auto& names) { c.print_align_map_plain(out, names, from, width); });
    map("align_map.html", [&](auto& out, auto& names) {
        color_map_t m = colours;
        c.print_align_map_html(out, names, m, from, width);
    });
}

int ace(const std::string& path) {
    aceReader reader(path);
    for (;;) {
        contig c;
        if (reader.next_contig(c) != 1) break;
        block("contig", c.name);
        c.create_print_map();
        std::string rows;
        for (const auto& row : c.print_map) {
            for (const auto& [start, name] : row) rows += std::to_string(start) + ',' + name + ' ';
            rows += '\n';
        }
        block("layout", rows);
        c.create_flow_concensus();
        block("flow_consensus", std::string(c.flow_consensus.begin(), c.flow_consensus.end()));
        std::string ranges;
        const auto length = static_cast<std::int32_t>(c.consensus.size());
        for (std::int32_t col = 0; col <= length + 1; ++col)
            ranges += std::to_string(c.getFlowIdx_start(col - 1)) + ',' +
                      std::to_string(c.getFlowIdx_end(col - 1)) + ' ';
        block("flow_range", ranges);
        std::ostringstream whole, whole_html;
        c.print_align_map(whole);
        color_map_t m = colours;
        c.print_align_map_html(whole_html, m);
        block("full_align_map", whole.str());
        block("full_align_map.html", whole_html.str());
        for (std::int32_t from : {1, length / 2, std::max(1, length - 20), length + 5})
            window(c, from, 60);
    }
    return reader.error ? 0 : 1;
}

int sff(const std::string& path) {
    read_lookup lookup;
    lookup.skip_index_block = true;
    if (!lookup.index_files({path})) return 1;
    std::vector<std::pair<std::string, std::int64_t>> entries(lookup.indexes[0].begin(),
                                                              lookup.indexes[0].end());
    std::sort(entries.begin(), entries.end());
    reader rd(path);
    rd.get_header();
    for (const auto& [name, pos] : entries) {
        seqRead read;
        // Each fetch on its own, as the module makes them: one that ran past the end of the
        // file does not fail the next.
        rd.sff_file.clear();
        rd.get_read(pos, read);
        block("name", name);
        block("offset", std::to_string(pos));
        block("kept.name", read.name);
        block("kept.bases", std::string(read.bases.begin(), read.bases.end()));
        block("kept.qualities", numbers(read.quality_scores));
        block("kept.flows", numbers(read.flow_indexes));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc == 3 ? argv[1] : "";
    if (mode == "ace") return ace(argv[2]);
    if (mode == "sff") return sff(argv[2]);
    std::cerr << "usage: sorvexa_py_reference ace|sff FILE\n";
    return 2;
}
