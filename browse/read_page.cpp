// The read page: where the assembly places a read, and its SFF record (qualities and
// flowgram as charts and as TSV downloads).
#include "browse_assets.h"
#include "site.h"

namespace browse {

namespace {

char tsv_char(char ch) {
    return ch == '\t' || ch == '\n' || ch == '\r' ? '?' : ch;
}

response flows_tsv(const std::string& name, const record_view& rec) {
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

response bases_tsv(const std::string& name, const record_view& rec) {
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
void disputed_flows(html& h, const site& s, std::size_t k, const drawn_contig& b,
                    const std::string& read_name) {
    if (s.evidence == nullptr) return;
    h.markup("<h2>Flows the assembly counts otherwise</h2>");
    const std::map<std::string, tied_read> tied = s.sff.tie(b.c(), {read_name});
    const std::vector<disputed_flow> flows =
        tied.empty() ? std::vector<disputed_flow>{}
                     : disputed_flows(b.c(), read_name, tied.begin()->second);
    if (tied.empty() || flows.empty()) {
        h.fill("<p>{}</p>", tied.empty() ? "The read is not tied to its flows: its sequence in the "
                                           "assembly is not among its record's bases (edited or "
                                           "trimmed otherwise)."
                                         : "On every flow, the assembly gives the read the count "
                                           "its value rounds to.");
        return;
    }
    const std::string& contig = s.ace.contigs[k].name;
    h.markup(assets::read_flows_head);
    for (const disputed_flow& f : flows)
        h.fill(assets::read_flow_row,
               window_href(contig, std::max<std::int64_t>(1, f.column - 50), 100) + "&view=signals",
               f.column, base_class(f.letter), f.letter, f.count, fixed(f.value / 100.0, 2));
    h.markup("</tbody></table>");
}

void placement(html& h, const site& s, const std::string& read_name) {
    h.markup("<h2>Placement</h2>");
    if (s.bam != nullptr) {
        const auto& refs = s.bam->files.references();
        bool any = false;
        for (const auto& p : s.bam->survey.reads_named(read_name, 16))
            if (p.name == read_name) {
                const std::string& ref = refs[static_cast<std::size_t>(p.ref)].name;
                h.fill("<p>Aligned to <a href=\"{}\">{} at {}</a>.</p>",
                       window_href(ref, std::max<std::int64_t>(1, p.position - 20), 100), ref,
                       grouped(p.position));
                any = true;
            }
        if (!any && s.bam->survey.names_ready())
            h.markup("<p>No primary alignment of this read.</p>");
        else if (!any)
            h.markup("<p>The aligned reads' names are still being gathered.</p>");
        return;
    }
    const int k = s.ace.contig_of_read(read_name);
    if (k < 0) {
        h.markup("<p>Not placed in any contig of the assembly.</p>");
        return;
    }
    const contig_summary& sum = s.ace.contigs[static_cast<std::size_t>(k)];
    const std::shared_ptr<const drawn_contig> b = s.ace.load(static_cast<std::size_t>(k));
    const READ* rd = b != nullptr ? b->d.placed(read_name) : nullptr;
    if (rd == nullptr) {
        h.fill(assets::placement_lost, contig_href(sum.name), sum.name);
        return;
    }
    // A window that opens a little before the read, which a read starting before column 1
    // is drawn from column 1 of.
    const std::int64_t from = std::clamp<std::int64_t>(std::int64_t{rd->start} - 20, 1,
                                                       std::max<std::int64_t>(sum.columns, 1));
    h.fill(assets::placement, window_href(sum.name, from, default_width), sum.name,
           grouped(rd->start),
           rd->start < 1 ? " (before the consensus: windows draw the read from column 1 on)" : "",
           rd->length, grouped(std::int64_t{rd->start} + rd->length - 1),
           rd->uncomplemented != 0 ? "uncomplemented (U)" : "complemented (C)",
           rd->align_clip_start, rd->align_clip_end);
    disputed_flows(h, s, static_cast<std::size_t>(k), *b, read_name);
}

}  // namespace

response site::read(std::string_view path_name) const {
    std::string_view name = path_name;
    enum { page_of_read, flows, bases } kind = page_of_read;
    auto known = [&](std::string_view n) {
        return ace.contig_of_read(n) >= 0 || sff.holds(std::string(n)) ||
               (bam != nullptr && !bam->survey.reads_named(n, 1).empty() &&
                bam->survey.reads_named(n, 1)[0].name == n);
    };
    if (!known(name)) {
        if (name.ends_with(".flows.tsv") && name.size() > 10) {
            name.remove_suffix(10);
            kind = flows;
        } else if (name.ends_with(".bases.tsv") && name.size() > 10) {
            name.remove_suffix(10);
            kind = bases;
        }
        if (kind == page_of_read || !known(name))
            return not_found("There is no read named \"" + std::string(path_name) + "\".");
    }
    const std::string read_name(name);

    record_view rec;
    std::string file;
    const fetch_result fetched = fetch(sff, read_name, rec, file);
    if (kind != page_of_read) {
        if (fetched != fetch_result::ok)
            return not_found("No SFF record of read \"" + read_name + "\" can be read.");
        return kind == flows ? flows_tsv(read_name, rec) : bases_tsv(read_name, rec);
    }

    html h;
    h.fill("<h1>Read {}</h1>", read_name);
    placement(h, *this, read_name);
    if (fetched == fetch_result::unknown && bam != nullptr) {
        // A read no SFF file holds may carry its flowgram in its alignment (FZ).
        std::string why;
        for (const auto& p : bam->survey.reads_named(read_name, 16)) {
            const auto v =
                p.name == read_name ? bam->window(p.ref, p.position, p.position, why) : nullptr;
            const auto t = v != nullptr ? v->tied.find(read_name) : decltype(v->tied.end()){};
            if (v == nullptr || t == v->tied.end()) continue;
            rec.flowgram = t->second.flowgram;
            rec.flow_chars = t->second.flow_chars;
            return page(
                read_name,
                h.markup("<h2>Flowgram from the alignment (FZ)</h2>").append(flowgram_chart(rec)));
        }
    }
    h.markup("<h2>SFF record</h2>");
    if (fetched != fetch_result::ok)
        return page(read_name,
                    h.fill("<p>{}</p>", fetched == fetch_result::unknown
                                            ? "No SFF file given to the server holds this read."
                                            : "The SFF file holding this read changed since "
                                              "start-up; restart the server."));
    h.fill(assets::read_record, file, grouped(static_cast<std::int64_t>(rec.bases.size())),
           rec.kept_first, rec.kept_last, rec.clip_qual_left, rec.clip_qual_right,
           rec.clip_adapter_left, rec.clip_adapter_right,
           grouped(static_cast<std::int64_t>(rec.flowgram.size())), rec.key_length,
           read_href(read_name + ".flows.tsv"), read_href(read_name + ".bases.tsv"))
        .append(quality_chart(rec))
        .markup(assets::flowgram_head)
        .append(flowgram_chart(rec));
    return page(read_name, h);
}

}  // namespace browse
