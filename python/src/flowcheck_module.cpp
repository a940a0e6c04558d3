// sorvexa.flowcheck: the homopolymer check of a whole assembly, made with the library's own
// steps in the order sorvexa-flowcheck takes them, so that its numbers are the program's.
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "ace.h"
#include "bindings.h"
#include "flowcheck.h"
#include "glue.h"
#include "read_lookup.h"

namespace sorvexa_py {

namespace {

struct run_call {
    std::string contig;
    hp_run run;
    bool applied = false;  // its edit made the polished sequence
};

struct contig_check {
    std::string name;
    std::string consensus;  // unpadded
    std::string polished;
    std::vector<run_call> calls;
    std::int64_t tested = 0;
};

struct check_result {
    std::vector<contig_check> contigs;
    tie_counts reads;
    std::int64_t tested = 0, called = 0;
    std::string vcf_records;
    std::string tsv;
    std::vector<vcf_contig> vcf_contigs;
};

struct check_options {
    flow_check check;
    bool all_runs = false;
};

void run_check(const std::string& ace_path, const std::vector<std::string>& sff_paths,
               check_options& o, check_result& out) {
    read_lookup lookup;
    lookup.index_files(sff_paths);
    aceReader ace(ace_path);
    flow_check& check = o.check;
    append_tsv_header(out.tsv);
    for (;;) {
        contig c;
        if (ace.next_contig(c) == 0) break;
        check.check_contig(c, lookup, out.reads);

        contig_check cc;
        cc.name = c.name;
        cc.consensus = unpadded_consensus(c);
        std::vector<consensus_edit> edits;
        check.edits(cc.consensus, edits);
        out.vcf_contigs.push_back(
            {c.name, static_cast<std::int64_t>(cc.consensus.size()), check.coverage()});
        append_vcf_records(out.vcf_records, c.name, cc.consensus, edits, check);

        std::vector<char> applied(check.runs.size(), 0);
        for (const consensus_edit& e : edits) applied[static_cast<std::size_t>(e.run)] = 1;
        for (std::size_t i = 0; i < check.runs.size(); ++i) {
            const hp_run& r = check.runs[i];
            if (check.tested(r)) ++cc.tested;
            if (!applied[i] && !(o.all_runs && check.tested(r))) continue;
            append_tsv_line(out.tsv, c.name, r, run_filter(check, r));
            cc.calls.push_back({c.name, r, applied[i] != 0});
        }
        cc.polished = apply_edits(cc.consensus, edits);
        out.tested += cc.tested;
        out.called += static_cast<std::int64_t>(edits.size());
        out.contigs.push_back(std::move(cc));
    }
}

std::vector<std::string> sff_path_list(py::handle given, std::vector<py::object>& originals) {
    std::vector<std::string> paths;
    const bool single = PyUnicode_Check(given.ptr()) || PyBytes_Check(given.ptr()) ||
                        py::hasattr(given, "__fspath__");
    if (single) {
        originals.push_back(py::reinterpret_borrow<py::object>(given));
    } else {
        for (auto item : py::iter(given))
            originals.push_back(py::reinterpret_borrow<py::object>(item));
    }
    if (originals.empty()) throw py::value_error("flowcheck needs at least one SFF file");
    for (const auto& o : originals) paths.push_back(fs_path(o));
    return paths;
}

py::object flowcheck(py::object ace, py::object sffs, std::int32_t min_signals, double min_score,
                     double sigma_base, double sigma_slope, bool all_runs) {
    if (min_signals < 1) throw py::value_error("min_signals must be at least 1");
    if (!(min_score >= 0) || !std::isfinite(min_score))
        throw py::value_error("min_score must be at least 0");
    if (!(sigma_base > 0) || !std::isfinite(sigma_base))
        throw py::value_error("sigma_base must be above 0");
    if (!(sigma_slope >= 0) || !std::isfinite(sigma_slope))
        throw py::value_error("sigma_slope must be at least 0");
    const std::string ace_path = fs_path(ace);
    std::vector<py::object> originals;
    const std::vector<std::string> sff_paths = sff_path_list(sffs, originals);
    check_readable(ace_path, ace);
    for (std::size_t k = 0; k < sff_paths.size(); ++k) check_readable(sff_paths[k], originals[k]);

    check_options o;
    o.check.min_signals = min_signals;
    o.check.min_score = min_score;
    o.check.model.sigma_base = sigma_base;
    o.check.model.sigma_slope = sigma_slope;
    o.all_runs = all_runs;
    auto result = std::make_unique<check_result>();
    const library_result r = call_library([&] { run_check(ace_path, sff_paths, o, *result); });
    raise_or_warn(r);
    return py::cast(std::move(result));
}

py::list calls_of(const std::vector<run_call>& calls) {
    py::list out;
    for (const auto& c : calls) out.append(py::cast(c));
    return out;
}

}  // namespace

void bind_flowcheck(py::module_& m) {
    py::class_<run_call>(m, "RunCall", R"doc(
A homopolymer run of a contig's consensus weighed against the flow values of the reads
over it: the columns sorvexa-flowcheck lists in its TSV file.
)doc")
        .def_property_readonly(
            "contig", [](const run_call& c) { return text(c.contig); }, "The contig's name.")
        .def_property_readonly(
            "column", [](const run_call& c) { return c.run.column; },
            "Padded column of the run's first base (the first pad column for a run the "
            "consensus lacks).")
        .def_property_readonly(
            "position", [](const run_call& c) { return c.run.position; },
            "Unpadded 1-based position of the run's first base (where it would start).")
        .def_property_readonly(
            "letter", [](const run_call& c) { return std::string(1, c.run.letter); },
            "The run's base, upper case.")
        .def_property_readonly(
            "consensus_length", [](const run_call& c) { return c.run.consensus_length; },
            "The run's length in the consensus.")
        .def_property_readonly(
            "called_length", [](const run_call& c) { return c.run.called_length; },
            "The length the flow values call.")
        .def_property_readonly(
            "signals", [](const run_call& c) { return c.run.signals; }, "Flow values weighed.")
        .def_property_readonly(
            "forward", [](const run_call& c) { return c.run.forward; },
            "Of those, values from reads placed forward.")
        .def_property_readonly(
            "reverse", [](const run_call& c) { return c.run.reverse(); },
            "Of those, values from complemented reads.")
        .def_property_readonly(
            "mean_signal", [](const run_call& c) { return c.run.mean_signal(); },
            "Mean flow value, in bases.")
        .def_property_readonly(
            "score", [](const run_call& c) { return c.run.score; },
            "Log-likelihood ratio (natural log) of the called length against the "
            "consensus length; 0 when they agree.")
        .def_readonly("applied", &run_call::applied,
                      "Whether the call changed the polished sequence.")
        .def("__repr__", [](const run_call& c) {
            return "<sorvexa.RunCall " + py::repr(text(c.contig)).cast<std::string>() + ":" +
                   std::to_string(c.run.position) + " " + std::string(1, c.run.letter) + "x" +
                   std::to_string(c.run.consensus_length) + " -> " +
                   std::to_string(c.run.called_length) + ">";
        });

    py::class_<contig_check>(m, "ContigCheck", "The check of one contig.")
        .def_property_readonly(
            "name", [](const contig_check& c) { return text(c.name); }, "The contig's name.")
        .def_property_readonly(
            "consensus", [](const contig_check& c) { return text(c.consensus); },
            "The consensus without pads.")
        .def_property_readonly(
            "polished", [](const contig_check& c) { return text(c.polished); },
            "The consensus without pads, with the calls applied.")
        .def_property_readonly(
            "calls", [](const contig_check& c) { return calls_of(c.calls); },
            "The RunCall objects listed for the contig (see flowcheck's all_runs).")
        .def_readonly("tested", &contig_check::tested, "Runs with enough signals to weigh.")
        .def("__repr__", [](const contig_check& c) {
            return "<sorvexa.ContigCheck " + py::repr(text(c.name)).cast<std::string>() + ", " +
                   std::to_string(c.calls.size()) + " listed>";
        });

    py::class_<check_result>(m, "FlowCheckResult", "What flowcheck() found.")
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
        .def_readonly("tested", &check_result::tested, "Runs weighed, over all contigs.")
        .def_readonly("called", &check_result::called, "Calls applied, over all contigs.")
        .def_property_readonly(
            "reads_tied", [](const check_result& r) { return r.reads.tied; },
            "Reads tied to their SFF records.")
        .def_property_readonly(
            "reads_untied", [](const check_result& r) { return r.reads.untied; },
            "Reads found in an SFF file whose sequence could not be tied to the record.")
        .def_property_readonly(
            "reads_not_found", [](const check_result& r) { return r.reads.not_found; },
            "Reads in no SFF file.")
        .def_property_readonly(
            "tsv", [](const check_result& r) { return text(r.tsv); },
            "The listed runs as sorvexa-flowcheck's TSV file.")
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
            "the FASTA file of the unpadded consensus.")
        .def("__repr__", [](const check_result& r) {
            return "<sorvexa.FlowCheckResult " + std::to_string(r.contigs.size()) + " contigs, " +
                   std::to_string(r.tested) + " runs tested, " + std::to_string(r.called) +
                   " called>";
        });

    const flow_check defaults;
    m.def("flowcheck", &flowcheck, py::arg("ace_path"), py::arg("sff_paths"), py::kw_only(),
          py::arg("min_signals") = defaults.min_signals, py::arg("min_score") = defaults.min_score,
          py::arg("sigma_base") = defaults.model.sigma_base,
          py::arg("sigma_slope") = defaults.model.sigma_slope, py::arg("all_runs") = false,
          R"doc(
Weighs every homopolymer run of an assembly's consensus against the flow values its 454
reads measured, as sorvexa-flowcheck does, with the same numbers.

ace_path is the ACE file; sff_paths one SFF path or a sequence of them (a read is taken
from the first file that holds it). A run is weighed when it has at least min_signals
values; a call stands when its score reaches min_score. Flow values of a run of length n
are modelled as normal with spread sigma_base + sigma_slope * n. The result lists the runs
whose call was applied, or with all_runs every weighed run. Runs without the GIL.
)doc");
}

}  // namespace sorvexa_py
