// sorvexa.flowcheck: an assembly's homopolymer check in sorvexa-flowcheck's steps (the model
// fitted, read or fixed, then each contig checked), with the program's numbers and texts.
#include <pybind11/stl.h>
#include <sorvexa/ace.h>
#include <sorvexa/alignment.h>
#include <sorvexa/flowcheck.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "glue.h"

namespace sorvexa_py {

namespace {

// A run as the TSV lists it, with what the check made of it.
struct listed_run : hp_run {
    std::string contig, filter;  // filter: PASS, StrandConflict or "."
    bool applied = false;        // its edit passed and made the polished sequence
};

// The check of a contig as ContigCheck shows it.
struct contig_check {
    std::string name, consensus, polished;  // the consensus without pads, before and after
    contig_coverage coverage;
    std::vector<listed_run> calls;
};

struct check_result {
    std::vector<contig_check> contigs;
    contig_coverage coverage;  // summed over the contigs
    std::int64_t called = 0, passed = 0;
    flow_models model;
    std::string vcf_records, tsv;
    std::vector<vcf_contig> vcf_contigs;
};

// flowcheck() of sorvexa/__init__.py, once it has taken its options apart: the library's
// steps in the program's order, failing in the program's words when an input cannot serve.
py::object flowcheck(py::object ace, const py::list& sffs, std::int32_t min_signals,
                     double min_score, double min_qual, py::object model,
                     std::optional<double> sigma_base, std::optional<double> sigma_slope,
                     bool all_runs, py::object reference) {
    flow_check check;
    check.min_signals = min_signals;
    check.min_score = min_score;
    check.min_qual = min_qual;
    if (sigma_base) check.model.sigma_base = *sigma_base;
    if (sigma_slope) check.model.sigma_slope = *sigma_slope;
    const model_origin origin = !model.is_none()            ? model_origin::table
                                : sigma_base || sigma_slope ? model_origin::fixed
                                                            : model_origin::fitted;
    const std::string ace_path = fs_path(ace);
    check_readable(ace_path, ace);
    std::vector<std::string> sff_paths;
    for (py::handle given : sffs) {
        sff_paths.push_back(fs_path(given));
        check_readable(sff_paths.back(), given);
    }
    std::string model_path, ref_path;
    if (!model.is_none()) check_readable(model_path = fs_path(model), model);
    if (!reference.is_none()) check_readable(ref_path = fs_path(reference), reference);
    auto out = std::make_unique<check_result>();
    diagnostics said;
    call(nullptr, said, [&] {
        read_lookup lookup;
        lookup.skip_index_block = true;
        lookup.diagnostics = said.sink();
        if (sorvexa::status indexed = lookup.index_files(sff_paths); !indexed) return indexed;
        read_fetcher fetcher(lookup);
        fetcher.diagnostics = said.sink();
        std::string note;
        const bool ace_file = ref_path.empty();  // else alignments, each reference a contig
        alignment_file bam;
        if (sorvexa::status chosen =
                ace_file ? choose_models(check, origin, ace_path, model_path, lookup, fetcher, note)
                         : open_for_check(bam, ace_path, ref_path, lookup, check, origin,
                                          model_path, note);
            !chosen)
            return chosen;
        out->model = check.models;
        aceReader assembly(ace_file ? ace_path : "/dev/null");
        append_tsv_header(out->tsv);
        contig_report report;
        for (contig c; ace_file ? assembly.next_contig(c) == 1
                                : out->contigs.size() < bam.references().size();
             c = {}) {
            const sorvexa::status checked =
                ace_file ? check.check(c, lookup, fetcher, all_runs, report)
                         : check_reference(check, bam, out->contigs.size(), all_runs, report);
            if (!checked) return checked;
            const contig_coverage& cover = report.coverage;
            out->vcf_contigs.push_back(
                {report.name, static_cast<std::int64_t>(report.unpadded.size()), cover});
            append_vcf_records(out->vcf_records, report);
            append_tsv_report(out->tsv, report);
            contig_check& cc = out->contigs.emplace_back(
                contig_check{report.name, report.unpadded, report.polished, cover, {}});
            for (const report_row& row : report.rows)
                cc.calls.push_back({row.run, report.name, std::string(row.filter), row.applied});
            out->coverage += cover;
            out->called += report.called;
            out->passed += report.passed;
        }
        return ace_file ? assembly.error : sorvexa::status{};
    });
    return py::cast(std::move(out));
}

// What a ContigCheck and a FlowCheckResult tell of how much was weighed.
template <class T>
void coverage_of(py::class_<T>& c) {
    c.def_property_readonly(
         "reads_tied", [](const T& t) { return t.coverage.reads.tied; },
         "Reads tied to their SFF records.")
        .def_property_readonly(
            "reads_untied", [](const T& t) { return t.coverage.reads.untied; },
            "Reads found whose bases their flows (SFF record, or FZ/ZF tags) do not call.")
        .def_property_readonly(
            "reads_not_found", [](const T& t) { return t.coverage.reads.not_found; },
            "Reads in no SFF file (from alignments: nor with FZ tags).")
        .def_property_readonly(
            "runs", [](const T& t) { return t.coverage.runs; },
            "Runs of at least one base in the consensus.")
        .def_property_readonly(
            "tested", [](const T& t) { return t.coverage.tested; },
            "Of those, runs whose length enough signals name with confidence.");
}

py::list model_lines(const flow_models& m) {
    py::list out;
    auto lines = [&](std::string_view file, const std::vector<length_model>& t) {
        for (std::size_t n = 0; n < t.size(); ++n)
            out.append(py::dict(py::arg("file") = text(file), py::arg("length") = n,
                                py::arg("signals") = t[n].signals, py::arg("centre") = t[n].centre,
                                py::arg("spread") = t[n].spread,
                                py::arg("outlier_rate") = t[n].outlier,
                                py::arg("source") = source_name(t[n].source)));
    };
    // In the table's order, file names as it writes them.
    for (std::size_t f = 0; f < m.models.size(); ++f)
        lines(f < m.files.size() ? std::string_view(m.files[f]) : std::string_view(), m.models[f]);
    lines("*", m.pooled);
    return out;
}

}  // namespace

void bind_flowcheck(py::module_& m) {
    py::class_<listed_run>(m, "RunCall", R"doc(
A homopolymer run of a contig's consensus weighed against the flow values of the reads
over it: a line of sorvexa-flowcheck's TSV file.
)doc")
        .def_property_readonly(
            "contig", [](const listed_run& c) { return text(c.contig); }, "The contig's name.")
        .def_readonly("column", &listed_run::column,
                      "Padded column of the run's first base (the first pad column for a run "
                      "the consensus lacks).")
        .def_readonly("position", &listed_run::position,
                      "Unpadded 1-based position of the run's first base (where it would start).")
        .def_property_readonly(
            "letter", [](const listed_run& c) { return std::string(1, c.letter); },
            "The run's base, upper case.")
        .def_readonly("consensus_length", &listed_run::consensus_length,
                      "The run's length in the consensus.")
        .def_readonly("called_length", &listed_run::called_length,
                      "The most probable length under the model.")
        .def_readonly("signals", &listed_run::signals, "Flow values weighed.")
        .def_readonly("forward", &listed_run::forward,
                      "Of those, values from reads placed forward.")
        .def_property_readonly("reverse", &listed_run::reverse,
                               "Of those, values from complemented reads.")
        .def_property_readonly("mean_signal", &listed_run::mean_signal,
                               "Mean flow value, in bases.")
        .def_readonly("score", &listed_run::score,
                      "Log-likelihood ratio (natural log) of the called length against the "
                      "consensus length; 0 when they agree.")
        .def_readonly("qual", &listed_run::qual,
                      "Phred-scaled probability that the consensus length is right (high when "
                      "the reads speak against it), at most 99; the VCF record's QUAL.")
        .def_readonly("confidence", &listed_run::confidence,
                      "Phred-scaled probability that the called length is wrong, at most 99.")
        .def_readonly("filter", &listed_run::filter,
                      "'PASS' for a call that passes, 'StrandConflict' for one whose forward and "
                      "complemented reads call different lengths, '.' for a run that is no call.")
        .def_readonly("applied", &listed_run::applied,
                      "Whether the call changed the polished sequence (it passed and no "
                      "stronger call claimed its bases).");

    py::class_<contig_check> contig_class(m, "ContigCheck", R"doc(
The check of one contig: its sequence before and after the calls, the listed runs, and
how much of it the reads weighed.
)doc");
    contig_class
        .def_property_readonly(
            "name", [](const contig_check& c) { return text(c.name); }, "The contig's name.")
        .def_property_readonly(
            "consensus", [](const contig_check& c) { return text(c.consensus); },
            "The consensus without pads.")
        .def_property_readonly(
            "polished", [](const contig_check& c) { return text(c.polished); },
            "The consensus without pads, with the passing calls applied.")
        .def_readonly("calls", &contig_check::calls,
                      "The RunCall objects listed for the contig (see flowcheck's all_runs).")
        .def_property_readonly(
            "unchecked", [](const contig_check& c) { return c.coverage.unchecked(); },
            "Whether under half of the reads were tied or under half of the runs tested: "
            "a contig without calls is then no clean bill.");
    coverage_of(contig_class);

    py::class_<check_result> result_class(m, "FlowCheckResult", R"doc(
What flowcheck() found: the contigs' checks, the model the calls were made under, and the
texts sorvexa-flowcheck writes (tsv, model_tsv, vcf()).
)doc");
    coverage_of(result_class);
    result_class
        .def_property_readonly(
            "contigs",
            [](py::handle self) {
                py::list out;
                for (auto& c : self.cast<check_result&>().contigs)
                    out.append(py::cast(&c, py::return_value_policy::reference_internal, self));
                return out;
            },
            "A ContigCheck per contig, in file order.")
        .def_property_readonly(
            "calls",
            [](const check_result& r) {
                py::list out;
                for (const auto& c : r.contigs)
                    for (const auto& call : c.calls) out.append(py::cast(call));
                return out;
            },
            "Every contig's RunCall objects, in file order.")
        .def_readonly("called", &check_result::called,
                      "Calls reported (in the VCF), filtered ones included.")
        .def_readonly("passed", &check_result::passed,
                      "Of those, calls that passed and were applied.")
        .def_property_readonly(
            "model", [](const check_result& r) { return model_lines(r.model); },
            "The model the calls were made under, a dict per line of model_tsv (file, "
            "length, signals, centre, spread, outlier_rate, source), numbers unrounded.")
        .def_property_readonly(
            "model_tsv",
            [](const check_result& r) {
                std::string out;
                r.model.append_tsv(out);
                return text(out);
            },
            "The model as sorvexa-flowcheck's model table (PREFIX.flowcheck.model.tsv), "
            "which flowcheck's model option reads back.")
        .def_property_readonly(
            "tsv", [](const check_result& r) { return text(r.tsv); },
            "The listed runs, each contig's opened by a coverage line, as sorvexa-flowcheck's "
            "TSV file.")
        .def(
            "vcf",
            [](const check_result& r, const std::string& reference, const std::string& source) {
                std::string out;
                append_vcf_header(out, source, reference, r.vcf_contigs);
                out += r.vcf_records;
                return text(out);
            },
            py::arg("reference") = "consensus.fa",
            py::arg("source") = std::string("sorvexa ") + SORVEXA_VERSION,
            "The calls as VCF text, as sorvexa-flowcheck writes it; `reference` names "
            "the FASTA file of the unpadded consensus.");

    const flow_check defaults;
    m.attr("_flowcheck_defaults") = py::dict(
        py::arg("min_signals") = defaults.min_signals, py::arg("min_score") = defaults.min_score,
        py::arg("min_qual") = defaults.min_qual, py::arg("sigma_base") = defaults.model.sigma_base,
        py::arg("sigma_slope") = defaults.model.sigma_slope);
    m.def("_flowcheck", &flowcheck);
}

}  // namespace sorvexa_py
