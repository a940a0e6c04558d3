// The overview: the files, the counts, and the table of contigs.
#include "browse_assets.h"
#include "site.h"

namespace browse {

response site::overview() const {
    html b;
    b.markup("<h1>Assembly</h1><dl class=\"facts\">");
    fact(b, "ACE file", ace.ace_path);
    for (std::size_t k = 0; k < sff.lookup.sff_names.size(); ++k)
        fact(b, "SFF file",
             sff.lookup.sff_names[k] + " (" + grouped(static_cast<std::int64_t>(sff.reads_in(k))) +
                 " reads)");
    if (sff.lookup.sff_names.empty()) fact(b, "SFF files", "none");
    fact(b, "contigs", grouped(static_cast<std::int64_t>(ace.contigs.size())));
    fact(b, "reads placed", grouped(ace.reads_placed));
    fact(b, "reads found in the SFF files", grouped(ace.reads_found));
    fact(b, "consensus columns", grouped(ace.columns));
    if (evidence != nullptr) {
        std::string origin;
        const std::shared_ptr<const flow_models> m = evidence->models_if_ready(&origin);
        fact(b, "flow model",
             m == nullptr ? std::string("being fitted to this assembly's signals")
                          : origin + (m->models.empty() ? "" : " (" + describe_models(*m) + ")"));
    }
    b.markup("</dl>\n");
    if (!ace.start_up_hint.empty()) b.fill("<p class=\"hint\">{}</p>", ace.start_up_hint);
    b.fill(assets::contigs_head, ace.contigs.size());
    for (std::size_t k = 0; k < ace.contigs.size(); ++k) {
        const contig_summary& s = ace.contigs[k];
        auto v = [](double x) { return fixed(x, 2); };
        b.fill(assets::contig_row, s.name, contig_href(s.name), s.name, v(s.columns),
               grouped(s.columns), v(s.reads), grouped(s.reads), v(s.found), grouped(s.found),
               v(s.min_len), s.min_len, v(s.avg_len), fixed(s.avg_len, 0), v(s.max_len), s.max_len,
               v(s.rows), grouped(s.rows));
        auto cell = [&b](double x, const std::string& shown) {
            b.fill("<td data-v=\"{}\">{}</td>", fixed(x, 2), shown);
        };
        // "..." until the background count has come by; "unchecked" where too little was
        // weighed for no call to mean a clean bill.
        const std::optional<contig_tally> t =
            evidence != nullptr ? evidence->tally(k) : std::nullopt;
        if (!t) {
            b.markup(
                "<td data-v=\"-1\">...</td><td data-v=\"-1\">...</td><td data-v=\"-1\">...</td>");
        } else {
            const contig_coverage& c = t->coverage;
            cell(static_cast<double>(c.reads.tied), grouped(c.reads.tied) + " / " +
                                                        grouped(c.reads.untied) + " / " +
                                                        grouped(c.reads.not_found));
            cell(static_cast<double>(c.tested), grouped(c.tested) + " of " + grouped(c.runs));
            if (c.unchecked())
                b.fill("<td data-v=\"-1\" class=\"unchecked\">{}<strong>unchecked</strong></td>",
                       t->disputed > 0 ? grouped(t->disputed) + ", " : "");
            else
                cell(t->disputed, grouped(t->disputed));
        }
        b.markup("</tr>\n");
    }
    b.markup("</tbody></table>\n");
    return page("Assembly", b, assets::overview_js());
}

}  // namespace browse
