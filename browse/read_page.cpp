// The read page: where the assembly places a read, and its SFF record (qualities and
// flowgram as charts and as TSV downloads).
#include <algorithm>

#include "charts.h"
#include "evidence_pages.h"
#include "page_parts.h"

namespace browse {

namespace {

response flows_tsv(const std::string& name, const sff_record& rec) {
    response r;
    r.content_type = "text/tab-separated-values; charset=utf-8";
    r.attachment = file_name_for(name) + ".flows.tsv";
    r.body = "flow\tnucleotide\tvalue\n";
    for (std::size_t f = 0; f < rec.flowgram.size(); ++f)
        r.body += std::to_string(f) + '\t' +
                  tsv_char(f < rec.flow_chars.size() ? rec.flow_chars[f] : '?') + '\t' +
                  fixed(rec.flowgram[f] / 100.0, 2) + '\n';
    return r;
}

response bases_tsv(const std::string& name, const sff_record& rec) {
    response r;
    r.content_type = "text/tab-separated-values; charset=utf-8";
    r.attachment = file_name_for(name) + ".bases.tsv";
    r.body = "base\tnucleotide\tquality\tflow\tkept\n";
    for (std::size_t i = 0; i < rec.bases.size(); ++i) {
        const int base = static_cast<int>(i) + 1;
        const bool kept = base >= rec.kept_first && base <= rec.kept_last;
        r.body += std::to_string(base) + '\t' + tsv_char(rec.bases[i]) + '\t' +
                  std::to_string(rec.quality[i]) + '\t' + std::to_string(rec.flow_of_base[i]) +
                  '\t' + (kept ? "1" : "0") + '\n';
    }
    return r;
}

// The read's flows that the assembly counts otherwise than the read measured, with the
// windows they lie in.
void disputed_flows(html& h, const site& s, std::size_t k, const built_contig& b,
                    const std::string& read_name) {
    if (s.evidence == nullptr) return;
    h.element("h2", "Flows the assembly counts otherwise");
    std::vector<disputed_flow> flows;
    if (!read_disputed_flows(b, s.sff, read_name, flows)) {
        h.element("p",
                  "The read is not tied to its flows: its sequence in the assembly is not "
                  "among its record's bases (edited or trimmed otherwise).");
        return;
    }
    if (flows.empty()) {
        h.element("p", "On every flow, the assembly gives the read the count its value rounds to.");
        return;
    }
    const std::string& contig = s.ace.contigs[k].name;
    h.open("table", {{"class", "disputed"}});
    h.markup(
        "<thead><tr><th>column</th><th>flow</th><th>assembly</th><th>measured</th></tr>"
        "</thead><tbody>");
    for (const disputed_flow& f : flows) {
        h.open("tr").open("td");
        h.element("a",
                  {{"href", window_href(contig, std::max<std::int64_t>(1, f.column - 50), 100) +
                                "&view=signals"}},
                  std::to_string(f.column));
        h.close("td").open("td").element("span", {{"class", base_class(f.letter)}},
                                         std::string(1, f.letter));
        h.close("td");
        h.element("td", std::to_string(f.count));
        h.element("td", fixed(f.value / 100.0, 2));
        h.close("tr");
    }
    h.markup("</tbody>").close("table");
}

void placement(html& h, const site& s, const std::string& read_name) {
    h.element("h2", "Placement");
    const int k = s.ace.contig_of_read(read_name);
    if (k < 0) {
        h.element("p", "Not placed in any contig of the assembly.");
        return;
    }
    const contig_summary& sum = s.ace.contigs[static_cast<std::size_t>(k)];
    assembly::load_result loaded;
    std::shared_ptr<built_contig> b = s.ace.load(static_cast<std::size_t>(k), loaded);
    const READ* rd = b != nullptr ? b->placed(read_name) : nullptr;
    h.open("dl", {{"class", "facts"}});
    if (rd == nullptr) {
        html link;
        link.element("a", {{"href", contig_href(sum.name)}}, sum.name);
        fact(h, "contig", link);
        fact(h, "", "the ACE file changed since start-up; restart the server to see more");
        h.close("dl");
        return;
    }
    // A window that opens a little before the read, which a read starting before column 1
    // is drawn from column 1 of.
    const std::int64_t from = std::clamp<std::int64_t>(std::int64_t{rd->start} - 20, 1,
                                                       std::max<std::int64_t>(sum.columns, 1));
    html link;
    link.element("a", {{"href", window_href(sum.name, from, default_width)}}, sum.name);
    fact(h, "contig", link);
    std::string start = grouped(rd->start);
    if (rd->start < 1) start += " (before the consensus: windows draw the read from column 1 on)";
    fact(h, "start column", start);
    fact(h, "length",
         std::to_string(rd->length) + " columns (to column " +
             grouped(std::int64_t{rd->start} + rd->length - 1) + ")");
    fact(h, "direction", rd->uncomplemented != 0 ? "uncomplemented (U)" : "complemented (C)");
    fact(h, "alignment clip",
         std::to_string(rd->align_clip_start) + " to " + std::to_string(rd->align_clip_end));
    h.close("dl").markup("\n");
    disputed_flows(h, s, static_cast<std::size_t>(k), *b, read_name);
}

}  // namespace

response site::read(std::string_view path_name) const {
    std::string_view name = path_name;
    enum { page_of_read, flows, bases } kind = page_of_read;
    auto known = [&](std::string_view n) {
        return ace.contig_of_read(n) >= 0 || sff.file_of(n) >= 0;
    };
    if (!known(name)) {
        if (ends_with(name, ".flows.tsv")) {
            name.remove_suffix(10);
            kind = flows;
        } else if (ends_with(name, ".bases.tsv")) {
            name.remove_suffix(10);
            kind = bases;
        }
        if (kind == page_of_read || !known(name))
            return not_found("There is no read named \"" + std::string(path_name) + "\".");
    }
    const std::string read_name(name);

    sff_record rec;
    const read_source::fetch_result fetched = sff.fetch(read_name, rec);
    if (kind != page_of_read) {
        if (fetched != read_source::fetch_result::ok)
            return not_found("No SFF record of read \"" + read_name + "\" can be read.");
        return kind == flows ? flows_tsv(read_name, rec) : bases_tsv(read_name, rec);
    }

    html h;
    h.element("h1", "Read " + read_name);
    placement(h, *this, read_name);

    h.element("h2", "SFF record");
    if (fetched == read_source::fetch_result::unknown) {
        h.element("p", "No SFF file given to the server holds this read.");
    } else if (fetched == read_source::fetch_result::file_changed) {
        h.element("p",
                  "The SFF file holding this read changed since start-up; restart the server.");
    } else {
        h.open("dl", {{"class", "facts"}});
        fact(h, "file", rec.file);
        fact(h, "bases",
             grouped(static_cast<std::int64_t>(rec.bases.size())) + ", kept " +
                 std::to_string(rec.kept_first) + " to " + std::to_string(rec.kept_last));
        fact(h, "clips",
             "quality " + std::to_string(rec.clip_qual_left) + " to " +
                 std::to_string(rec.clip_qual_right) + ", adapter " +
                 std::to_string(rec.clip_adapter_left) + " to " +
                 std::to_string(rec.clip_adapter_right) + " (0: not set)");
        fact(h, "flows",
             grouped(static_cast<std::int64_t>(rec.flowgram.size())) + ", key " +
                 std::to_string(rec.key_length) + " bases");
        html downloads;
        downloads.element("a", {{"href", read_href(read_name + ".flows.tsv")}}, "flowgram (TSV)")
            .text(" \u00b7 ")
            .element("a", {{"href", read_href(read_name + ".bases.tsv")}},
                     "bases and qualities (TSV)");
        fact(h, "download", downloads);
        h.close("dl").markup("\n");
        h.element("h2", "Quality of the kept bases").append(quality_chart(rec));
        h.element("h2", "Flowgram")
            .open("p", {{"class", "note"}})
            .text("Bars coloured by the flow's nucleotide (")
            .element("span", {{"class", "bT"}}, "T")
            .text(" ")
            .element("span", {{"class", "bA"}}, "A")
            .text(" ")
            .element("span", {{"class", "bC"}}, "C")
            .text(" ")
            .element("span", {{"class", "bG"}}, "G")
            .text(
                "); the shaded flows carry the key, the band below marks the flows of the kept "
                "bases.")
            .close("p")
            .append(flowgram_chart(rec));
    }
    return page(read_name, h);
}

}  // namespace browse
