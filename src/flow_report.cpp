// The texts that report the calls (VCF, TSV) and the consensus before and after them (FASTA).
#include <algorithm>
#include <charconv>

#include <sorvexa/flowcheck.h>

namespace {

void put(std::string& out, std::int64_t v) {
    char buf[24];
    out.append(buf, static_cast<std::size_t>(std::to_chars(buf, buf + sizeof buf, v).ptr - buf));
}

// Two decimals; a value that rounds to zero is written 0.00, never -0.00.
void put_fixed(std::string& out, double v) {
    if (v > -0.005 && v < 0.005) v = 0.0;
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, 2);
    out.append(buf, static_cast<std::size_t>(res.ptr - buf));
}

// A VCF record in the making: REF is unpadded[first, last], ALT its replacement.
struct vcf_record {
    std::int64_t first = 0, last = 0;
    std::string alt;
    std::vector<const hp_run*> runs;
    bool pass = true;
};

template <class Field>
void info_list(std::string& out, const char* key, const vcf_record& rec, Field field) {
    out += key;
    out += '=';
    for (std::size_t i = 0; i < rec.runs.size(); ++i) {
        if (i > 0) out += ',';
        field(*rec.runs[i]);
    }
}

void append_record(std::string& out, std::string_view contig_name, const std::string& unpadded,
                   const vcf_record& rec) {
    out += contig_name;
    out += '\t';
    put(out, rec.first + 1);
    out += "\t.\t";
    out.append(unpadded, static_cast<std::size_t>(rec.first),
               static_cast<std::size_t>(rec.last - rec.first + 1));
    out += '\t';
    out += rec.alt;
    // The record's runs were called together: it is as sure as its surest run, and filtered
    // when any of them is.
    double qual = 0.0;
    for (const hp_run* r : rec.runs) qual = std::max(qual, static_cast<double>(r->qual));
    out += '\t';
    put_fixed(out, qual);
    out += rec.pass ? "\tPASS\t" : "\tStrandConflict\t";
    info_list(out, "DP", rec, [&](const hp_run& r) { put(out, r.signals); });
    info_list(out, ";FWD", rec, [&](const hp_run& r) { put(out, r.forward); });
    info_list(out, ";REV", rec, [&](const hp_run& r) { put(out, r.reverse()); });
    info_list(out, ";CL", rec, [&](const hp_run& r) { put(out, r.consensus_length); });
    info_list(out, ";HL", rec, [&](const hp_run& r) { put(out, r.called_length); });
    info_list(out, ";SC", rec, [&](const hp_run& r) { put_fixed(out, r.score); });
    info_list(out, ";CQ", rec, [&](const hp_run& r) { put_fixed(out, r.confidence); });
    out += '\n';
}

}  // namespace

void append_fasta(std::string& out, std::string_view name, std::string_view sequence) {
    out += '>';
    out += name;
    out += '\n';
    for (std::size_t i = 0; i < sequence.size(); i += 60) {
        out += sequence.substr(i, 60);
        out += '\n';
    }
}

void append_vcf_header(std::string& out, std::string_view source, std::string_view reference,
                       const std::vector<vcf_contig>& contigs) {
    out += "##fileformat=VCFv4.2\n##source=";
    out += source;
    out += "\n##reference=file:";
    out += reference;
    out += '\n';
    for (const vcf_contig& c : contigs) {
        out += "##contig=<ID=";
        out += c.name;
        out += ",length=";
        put(out, c.length);
        out += ">\n";
    }
    // What the reads weighed of each contig, so that a contig without calls is not taken
    // for a clean one when it was hardly checked.
    for (const vcf_contig& c : contigs) {
        out += "##flowcheck_coverage=<ID=";
        out += c.name;
        out += ",Reads=";
        put(out, c.coverage.reads.tied + c.coverage.reads.untied + c.coverage.reads.not_found);
        out += ",Tied=";
        put(out, c.coverage.reads.tied);
        out += ",Untied=";
        put(out, c.coverage.reads.untied);
        out += ",NotFound=";
        put(out, c.coverage.reads.not_found);
        out += ",Runs=";
        put(out, c.coverage.runs);
        out += ",Tested=";
        put(out, c.coverage.tested);
        out += c.coverage.unchecked() ? ",Status=unchecked>\n" : ",Status=checked>\n";
    }
    out +=
        "##FILTER=<ID=PASS,Description=\"All filters passed\">\n"
        "##FILTER=<ID=StrandConflict,Description=\"Forward and complemented reads, each with "
        "enough signals, call different lengths\">\n";
    out +=
        "##INFO=<ID=DP,Number=.,Type=Integer,Description=\"Reads whose flows gave a signal for "
        "the run\">\n"
        "##INFO=<ID=FWD,Number=.,Type=Integer,Description=\"Signals from forward reads\">\n"
        "##INFO=<ID=REV,Number=.,Type=Integer,Description=\"Signals from complemented "
        "reads\">\n"
        "##INFO=<ID=CL,Number=.,Type=Integer,Description=\"Run length in the consensus\">\n"
        "##INFO=<ID=HL,Number=.,Type=Integer,Description=\"Run length the flow signals "
        "call\">\n"
        "##INFO=<ID=SC,Number=.,Type=Float,Description=\"Log-likelihood ratio (natural log) of "
        "the called length against the consensus length\">\n"
        "##INFO=<ID=CQ,Number=.,Type=Float,Description=\"Phred-scaled probability that the "
        "called length is wrong\">\n"
        "#CHROM\tPOS\tID\tREF\tALT\tQUAL\tFILTER\tINFO\n";
}

// An edit is anchored on the base before it (on the base after it at the contig's start).
// When the next edit's anchor is the last base of the record so far, it joins the record.
void append_vcf_records(std::string& out, const contig_report& report) {
    const std::string& unpadded = report.unpadded;
    const std::string_view contig_name = report.name;
    const auto size = static_cast<std::int64_t>(unpadded.size());
    // Every edited run is a row of the report.
    std::vector<std::pair<std::int32_t, const hp_run*>> edited;
    for (const report_row& row : report.rows)
        if (row.edited) edited.emplace_back(row.index, &row.run);
    const auto run_of = [&](std::int32_t index) {
        return std::lower_bound(edited.begin(), edited.end(), std::make_pair(index, nullptr),
                                [](const auto& x, const auto& y) { return x.first < y.first; })
            ->second;
    };
    vcf_record rec;
    bool open = false;
    for (const consensus_edit& e : report.edits) {
        // A filtered call never joins a passing one: applying the passing records must give
        // the polished consensus.
        if (open && e.begin - 1 == rec.last && e.pass == rec.pass) {
            rec.alt += e.bases;
            rec.last = std::max(rec.last, e.end - 1);
            rec.runs.push_back(run_of(e.run));
            continue;
        }
        if (open) append_record(out, contig_name, unpadded, rec);
        open = true;
        rec.runs.assign(1, run_of(e.run));
        rec.pass = e.pass;
        if (e.begin > 0) {
            rec.first = e.begin - 1;
            rec.last = e.end - 1;
            rec.alt = unpadded.substr(static_cast<std::size_t>(rec.first), 1) + e.bases;
        } else if (e.end < size) {
            rec.first = e.begin;
            rec.last = e.end;
            rec.alt = e.bases + unpadded.substr(static_cast<std::size_t>(e.end), 1);
        } else {
            open = false;  // the whole contig is the run: there is no base to anchor on
        }
    }
    if (open) append_record(out, contig_name, unpadded, rec);
}

void append_tsv_header(std::string& out) {
    out +=
        "contig\tcolumn\tposition\tletter\tconsensus_length\tcalled_length\tsignals\tforward\t"
        "reverse\tmean_signal\tscore\tqual\tconfidence\tfilter\n";
}

void append_tsv_line(std::string& out, std::string_view contig_name, const hp_run& r,
                     std::string_view filter) {
    out += contig_name;
    for (std::int64_t v : {std::int64_t{r.column}, std::int64_t{r.position}}) {
        out += '\t';
        put(out, v);
    }
    out += '\t';
    out += r.letter;
    for (std::int64_t v :
         {r.consensus_length, r.called_length, r.signals, r.forward, r.reverse()}) {
        out += '\t';
        put(out, v);
    }
    out += '\t';
    put_fixed(out, r.mean_signal());
    out += '\t';
    put_fixed(out, r.score);
    out += '\t';
    put_fixed(out, r.qual);
    out += '\t';
    put_fixed(out, r.confidence);
    out += '\t';
    out += filter;
    out += '\n';
}

std::string describe_coverage(const contig_coverage& c) {
    std::string out;
    put(out, c.reads.tied + c.reads.untied + c.reads.not_found);
    out += " reads (";
    put(out, c.reads.tied);
    out += " tied, ";
    put(out, c.reads.untied);
    out += " untied, ";
    put(out, c.reads.not_found);
    out += " in no SFF file), ";
    put(out, c.tested);
    out += " of ";
    put(out, c.runs);
    out += c.unchecked() ? " runs tested: unchecked" : " runs tested: checked";
    return out;
}

void append_tsv_coverage(std::string& out, std::string_view contig_name, const contig_coverage& c) {
    out += "# ";
    out += contig_name;
    out += ": ";
    out += describe_coverage(c);
    out += '\n';
}

void append_tsv_report(std::string& out, const contig_report& report) {
    append_tsv_coverage(out, report.name, report.coverage);
    for (const report_row& row : report.rows) append_tsv_line(out, report.name, row.run, row.filter);
}

std::string_view run_filter(const flow_check& check, const hp_run& r) {
    if (!check.differs(r)) return ".";
    return check.passes(r) ? "PASS" : "StrandConflict";
}
