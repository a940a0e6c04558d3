// The pages and page parts that show the flow-signal evidence: the run page, a contig's
// disputed runs and its calls as VCF and TSV, the signals view of the flow map, the
// differences-only alignment map, read search, and a read's disputed flows.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "evidence.h"
#include "html.h"
#include "pages.h"
#include "window_view.h"

namespace browse {

// /contig/NAME/run/COL.
response run_page(const site& s, std::size_t contig, std::string_view rest, const request& req);
// /contig/NAME.vcf and /contig/NAME.tsv: the contig's calls as sorvexa-flowcheck writes them.
response calls_vcf(const site& s, std::size_t contig, std::string_view rest, const request& req);
response calls_tsv(const site& s, std::size_t contig, std::string_view rest, const request& req);
// /search?q=TEXT: a read's page for its full name, else the placed reads whose names begin
// with TEXT (at most max_search_results of them).
constexpr std::int64_t max_search_results = 100;
response search_page(const site& s, std::string_view rest, const request& req);

// How much of a contig the reads weighed, and a visible mark when that is too little for an
// absence of calls to mean anything.
void coverage_note(html& out, const contig_coverage& c);
// The table of the contig's disputed runs, highest score first.
void disputed_table(html& out, std::string_view contig, const contig_evidence& e);
// The disputed runs with a column in from..last, each linking to its run page.
void disputed_marks(html& out, std::string_view contig, const contig_evidence& e, std::int64_t from,
                    std::int64_t last);

// The flow map with the value each read measured on each flow: names column and map, one
// line per row of the view, under a consensus line with the consensus length of each flow's
// run (and the call where the flowgrams call another).
void signals_map_html(const built_contig& b, const window_view& v, const contig_evidence& e,
                      const read_source& sff, html& names, html& map);
void signals_legend(html& out);
// The value of one cell: one decimal, or "u" for a read not tied, blank for no read.
std::string signal_text(std::int32_t value);

// Bases equal to the consensus drawn as '.' ('","' on complemented reads).
void differences_only(window_view& v);

// The flows of read `name` that the assembly counts otherwise than the read measured.
struct disputed_flow {
    std::int32_t column = 0;  // the first column of the flow's bases (or where they would be)
    char letter = 'A';
    std::int16_t count = 0;  // what the assembly gives the flow
    std::int32_t value = 0;  // what the read measured (hundredths)
};
// False when the read is not tied to its flows.
bool read_disputed_flows(const built_contig& b, const read_source& sff, const std::string& name,
                         std::vector<disputed_flow>& out);

// The signals of run `run` of the evidence, read by read: the reads of the display copy over
// the run tied again (their bases before column 1, cut there, never give a signal).
std::vector<run_signal> signals_of_run(const built_contig& b, const read_source& sff,
                                       const contig_evidence& e, std::int32_t run,
                                       std::vector<std::string>& names);

}  // namespace browse
