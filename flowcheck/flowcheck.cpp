// sorvexa-flowcheck: every homopolymer run of an assembly's consensus weighed against the
// flow values its 454 reads measured, reported as VCF and TSV, and applied to the consensus.
#include <htslib/hts_log.h>
#include <sorvexa/ace.h>
#include <sorvexa/alignment.h>
#include <sorvexa/contig.h>
#include <sorvexa/flowcheck.h>
#include <sorvexa/read_lookup.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "arguments.h"
#include "flowcheck_main.h"
#include "output_file.h"

namespace {

std::string fixed2(double v, int decimals) {
    char buf[32];
    const auto res = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, decimals);
    return std::string(buf, res.ptr);
}

const char* const program = "sorvexa-flowcheck";

// The alignment path cut before its last .bam, .cram or .sam, directory kept.
std::string alignment_prefix(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::size_t dot = path.rfind('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash + 1)) {
        const std::string ext = path.substr(dot);
        if (ext == ".bam" || ext == ".cram" || ext == ".sam") return path.substr(0, dot);
    }
    return path;
}

}  // namespace

const char* const flowcheck_version = SORVEXA_VERSION;

namespace {

// The defaults come from the library's own, so that the text cannot drift from them.
std::string usage_text() {
    const flow_check d;
    return "Usage: sorvexa-flowcheck [options] aceFile sffFile ...\n"
           "       sorvexa-flowcheck [options] --bam ALN --ref REF.fa [sffFile ...]\n"
           "Checks every homopolymer run of the assembly's consensus (or of the reference the\n"
           "reads are aligned to) against the flow values its reads measured, and writes\n"
           "PREFIX.flowcheck.vcf, PREFIX.flowcheck.tsv, PREFIX.flowcheck.model.tsv,\n"
           "PREFIX.consensus.fa and PREFIX.polished.fa. The flow values' spread per SFF file\n"
           "(read group) and run length is fitted to the assembly's own signals.\n"
           "\n"
           "  -o PREFIX          output prefix (default: the ACE path cut before its .ace, the\n"
           "                     alignment path before its .bam, .cram or .sam)\n"
           "  --bam ALN          alignments (SAM, BAM or CRAM, sorted by coordinate, indexed)\n"
           "                     in place of an ACE file; reads carry their flows in FZ/ZF or\n"
           "                     are found by name in the SFF files\n"
           "  --ref REF.fa       the reference the alignments are against (with --bam)\n"
           "  --min-mapq N       pass over alignments of a lower mapping quality (default 0)\n"
           "  --min-qual Q       lowest phred quality of a call, and of the length of a run\n"
           "                     that counts as tested (default " +
           fixed2(d.min_qual, 0) +
           ")\n"
           "  --min-signals N    fewest signals a run needs to be weighed (default " +
           std::to_string(d.min_signals) +
           ")\n"
           "  --min-score S      lowest log-likelihood ratio of a call (default " +
           fixed2(d.min_score, 0) +
           ")\n"
           "  --model FILE       use the model in FILE (a PREFIX.flowcheck.model.tsv) instead\n"
           "                     of fitting one\n"
           "  --sigma-base A     use the fixed model N(n, A + B n) instead of fitting one, with\n"
           "                     this spread at run length 0 (default " +
           fixed2(d.model.sigma_base, 2) +
           ")\n"
           "  --sigma-slope B    the fixed model's growth of the spread per base (default " +
           fixed2(d.model.sigma_slope, 2) +
           ")\n"
           "  --all              list every weighed run in the TSV, not only the calls\n"
           "  -h, --help         print this help and exit\n"
           "  --version          print the version and exit\n";
}

struct options {
    std::string prefix;
    std::string bam_path, ref_path;
    std::int32_t min_mapq = 0;
    std::string model_path;
    bool fixed_model = false;
    flow_check check;
    bool all = false;
    bool help = false, version = false;
    std::vector<std::string> operands;
};

// A bad command line: one line saying why, then the usage, status 2.
int usage_error(const std::string& why) {
    std::cerr << program << ": " << why << "\n" << usage_text() << std::flush;
    return 2;
}

bool parse_int(std::string_view s, std::int32_t& v) {
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    return ec == std::errc() && end == s.data() + s.size();
}

bool parse_double(std::string_view s, double& v) {
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    return ec == std::errc() && end == s.data() + s.size() && std::isfinite(v);
}

// Options may stand anywhere before a "--"; a value follows its option as the next argument
// or after "=". Returns 0 when the run may go on, else the exit status.
int parse_options(int argc, char** argv, options& o) {
    argument_walk walk(argc, argv);
    for (argument a; walk.next(a);) {
        if (!a.option) {
            o.operands.push_back(a.name);
            continue;
        }
        const std::string& arg = a.name;
        const std::string& value = a.value;
        const bool inline_value = a.inline_value;
        auto take_value = [&] { return walk.take_value(a); };
        const bool takes_value = arg == "-o" || arg == "--min-signals" || arg == "--min-score" ||
                                 arg == "--min-qual" || arg == "--model" || arg == "--sigma-base" ||
                                 arg == "--sigma-slope" || arg == "--bam" || arg == "--ref" ||
                                 arg == "--min-mapq";
        if (!takes_value && inline_value) return usage_error("option " + arg + " takes no value");
        if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "--version") {
            o.version = true;
        } else if (arg == "--all") {
            o.all = true;
        } else if (!takes_value) {
            return usage_error("unknown option " + arg);
        } else if (!take_value()) {
            return usage_error("option " + arg + " needs a value");
        } else if (arg == "-o") {
            if (value.empty()) return usage_error("option -o needs a non-empty prefix");
            o.prefix = value;
        } else if (arg == "--min-signals") {
            if (!parse_int(value, o.check.min_signals) || o.check.min_signals < 1)
                return usage_error("--min-signals takes a whole number of at least 1, not '" +
                                   value + "'");
        } else if (arg == "--min-score") {
            if (!parse_double(value, o.check.min_score) || o.check.min_score < 0)
                return usage_error("--min-score takes a number of at least 0, not '" + value + "'");
        } else if (arg == "--min-qual") {
            if (!parse_double(value, o.check.min_qual) || o.check.min_qual < 0)
                return usage_error("--min-qual takes a number of at least 0, not '" + value + "'");
        } else if (arg == "--bam" || arg == "--ref") {
            if (value.empty()) return usage_error("option " + arg + " needs a file name");
            (arg == "--bam" ? o.bam_path : o.ref_path) = value;
        } else if (arg == "--min-mapq") {
            if (!parse_int(value, o.min_mapq) || o.min_mapq < 0)
                return usage_error("--min-mapq takes a whole number of at least 0, not '" + value +
                                   "'");
        } else if (arg == "--model") {
            if (value.empty()) return usage_error("option --model needs a file name");
            o.model_path = value;
        } else if (arg == "--sigma-base") {
            o.fixed_model = true;
            if (!parse_double(value, o.check.model.sigma_base) || o.check.model.sigma_base <= 0)
                return usage_error("--sigma-base takes a number above 0, not '" + value + "'");
        } else {
            o.fixed_model = true;
            if (!parse_double(value, o.check.model.sigma_slope) || o.check.model.sigma_slope < 0)
                return usage_error("--sigma-slope takes a number of at least 0, not '" + value +
                                   "'");
        }
    }
    if (o.help || o.version) return 0;
    // A missing --ref is the alignment reader's to report: it says what a CRAM file needs.
    if (!o.bam_path.empty()) {
    } else if (!o.ref_path.empty() || o.min_mapq != 0) {
        return usage_error("--ref and --min-mapq go with --bam");
    } else if (o.operands.size() < 2) {
        return usage_error("needs an ACE file and at least one SFF file");
    }
    if (o.fixed_model && !o.model_path.empty())
        return usage_error("--model and the fixed model's --sigma options exclude each other");
    return 0;
}

// The VCF records of a run, in an unnamed temporary file until the header can be written.
class vcf_body {
  public:
    ~vcf_body() {
        if (file_ != nullptr) std::fclose(file_);
    }
    bool open() {
        file_ = std::tmpfile();
        error_ = file_ == nullptr ? errno : 0;
        return file_ != nullptr;
    }
    bool write(std::string_view text) {
        if (text.empty()) return true;
        if (std::fwrite(text.data(), 1, text.size(), file_) == text.size()) return true;
        error_ = errno;
        return false;
    }
    // Hands the records back in pieces; false when reading them failed or `take` said stop.
    template <class F>
    bool copy_to(F take) {
        if (std::fflush(file_) != 0 || std::fseek(file_, 0, SEEK_SET) != 0) {
            error_ = errno;
            return false;
        }
        char buf[1 << 16];
        for (;;) {
            const std::size_t n = std::fread(buf, 1, sizeof buf, file_);
            if (n > 0 && !take(std::string_view(buf, n))) return false;
            if (n < sizeof buf) break;
        }
        if (std::ferror(file_)) {
            error_ = errno;
            return false;
        }
        return true;
    }
    std::string why() const { return std::strerror(error_); }

  private:
    std::FILE* file_ = nullptr;
    int error_ = 0;
};

struct totals {
    std::int64_t contigs = 0, runs = 0, tested = 0, called = 0, passed = 0;
    tie_counts reads;
};

// While standard error is a terminal, a line that says how far the run has come, redrawn a
// few times a second.
struct progress {
    bool shown = isatty(STDERR_FILENO) == 1;
    std::chrono::steady_clock::time_point next = std::chrono::steady_clock::now();

    void update(const totals& t) {
        if (!shown) return;
        const auto now = std::chrono::steady_clock::now();
        if (now < next) return;
        next = now + std::chrono::milliseconds(250);
        std::cerr << "\r" << program << ": " << t.contigs << " contigs, "
                  << t.reads.tied + t.reads.untied << " reads" << std::flush;
    }
    void clear() {
        if (shown) std::cerr << "\r\033[K" << std::flush;
    }
};

}  // namespace

int flowcheck_main(int argc, char** argv) {
    options opt;
    if (const int status = parse_options(argc, argv, opt); status != 0) return status;
    if (opt.help) std::cout << usage_text() << std::flush;
    if (opt.version) std::cout << program << " " << flowcheck_version << "\n" << std::flush;
    if (opt.help || opt.version) return 0;

    const bool aligned = !opt.bam_path.empty();
    const std::string& ace_path = aligned ? opt.bam_path : opt.operands[0];
    const std::string prefix = !opt.prefix.empty() ? opt.prefix
                               : aligned           ? alignment_prefix(opt.bam_path)
                                                   : output_prefix(ace_path);
    const auto input_error = [](const sorvexa::status& st) {
        std::cerr << program << ": " << st.message << std::endl;
        return 1;
    };
    read_lookup lookup;
    lookup.skip_index_block = true;
    if (const sorvexa::status st = lookup.index_files(
            std::vector<std::string>(opt.operands.begin() + (aligned ? 0 : 1), opt.operands.end()));
        !st)
        return input_error(st);
    read_fetcher fetcher(lookup);
    flow_check& check = opt.check;
    std::string model_note;
    const model_origin origin = !opt.model_path.empty() ? model_origin::table
                                : opt.fixed_model       ? model_origin::fixed
                                                        : model_origin::fitted;
    // Every input is checked before the first output file is made.
    alignment_file alignments;
    alignments.options.min_mapq = opt.min_mapq;
    std::optional<aceReader> ace;
    if (aligned) {
        // htslib's own log lines would come before the program's one line about the same fault.
        hts_set_log_level(HTS_LOG_OFF);
        if (const sorvexa::status st =
                open_for_check(alignments, opt.bam_path, opt.ref_path, lookup, check, origin,
                               opt.model_path, model_note);
            !st)
            return input_error(st);
    } else {
        if (const sorvexa::status st =
                choose_models(check, origin, ace_path, opt.model_path, lookup, fetcher, model_note);
            !st)
            return input_error(st);
        ace.emplace(ace_path);
        if (!ace->error) return input_error(ace->error);
    }
    // The next contig's report: from the ACE file, or a reference checked window by window.
    contig_report report;
    std::size_t next_ref = 0;
    const auto next_report = [&](sorvexa::status& st) {
        if (!aligned) {
            contig c;
            if (ace->next_contig(c) == 0) return false;
            st = check.check(c, lookup, fetcher, opt.all, report);
            return true;
        }
        if (next_ref >= alignments.references().size()) return false;
        st = check_reference(check, alignments, next_ref++, opt.all, report);
        return true;
    };

    const std::string vcf_path = prefix + ".flowcheck.vcf", tsv_path = prefix + ".flowcheck.tsv";
    const std::string model_path = prefix + ".flowcheck.model.tsv";
    const std::string consensus_path = prefix + ".consensus.fa";
    const std::string polished_path = prefix + ".polished.fa";
    // A smaller buffer than the default: these files take a contig's text at a time.
    constexpr std::size_t buffer = 64 << 10;
    output_file vcf(vcf_path, buffer), tsv(tsv_path, buffer), model_tsv(model_path, buffer),
        consensus_fa(consensus_path, buffer), polished_fa(polished_path, buffer);
    const std::vector<output_file*> outputs{&vcf, &tsv, &model_tsv, &consensus_fa, &polished_fa};
    const std::vector<const std::string*> paths{&vcf_path, &tsv_path, &model_path, &consensus_path,
                                                &polished_path};
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        if (outputs[i]->is_open()) continue;
        std::cerr << "can not open file " << *paths[i] << std::endl;
        return 1;
    }
    const auto write_failed = [&] {
        for (const output_file* f : outputs)
            if (f->failed()) return true;
        return false;
    };
    // The VCF header names every contig before the first record, so the records wait in a
    // temporary file rather than in memory: a draft most reads dispute has millions.
    vcf_body records;
    if (!records.open()) {
        std::cerr << program << ": can not create a temporary file: " << records.why() << std::endl;
        return 1;
    }

    totals t;
    progress shown;
    std::vector<vcf_contig> contigs;
    std::string text;
    check.models.append_tsv(text);
    model_tsv.text(text);
    text.clear();
    append_tsv_header(text);
    tsv.text(text);
    std::vector<std::string> unchecked;
    for (;;) {
        sorvexa::status st;
        if (!next_report(st)) break;
        if (!st) return input_error(st);
        const contig_report& c = report;
        t.reads += report.coverage.reads;
        contigs.push_back(
            {c.name, static_cast<std::int64_t>(report.unpadded.size()), report.coverage});
        text.clear();
        append_vcf_records(text, report);
        if (!records.write(text)) {
            std::cerr << program << ": can not write a temporary file: " << records.why()
                      << std::endl;
            return 1;
        }
        if (report.coverage.unchecked()) unchecked.push_back(c.name);
        t.runs += report.coverage.runs;
        t.tested += report.coverage.tested;
        t.called += report.called;
        t.passed += report.passed;

        text.clear();
        append_tsv_report(text, report);
        tsv.text(text);
        text.clear();
        append_fasta(text, c.name, report.unpadded);
        consensus_fa.text(text);
        text.clear();
        append_fasta(text, c.name, report.polished);
        polished_fa.text(text);
        if (write_failed()) return 1;
        ++t.contigs;
        shown.update(t);
    }
    shown.clear();
    if (ace && !ace->error) return input_error(ace->error);

    text.clear();
    const std::size_t slash = consensus_path.rfind('/');
    append_vcf_header(
        text, std::string(program) + " " + flowcheck_version,
        slash == std::string::npos ? consensus_path : consensus_path.substr(slash + 1), contigs);
    vcf.text(text);
    if (!records.copy_to([&](std::string_view part) {
            vcf.text(part);
            return !vcf.failed();
        })) {
        if (!vcf.failed())
            std::cerr << program << ": can not read a temporary file: " << records.why()
                      << std::endl;
        return 1;
    }
    bool closed = true;
    for (output_file* f : outputs) closed = f->close() && closed;
    if (!closed) return 1;

    std::cerr << program << ": " << t.contigs << " contigs (" << unchecked.size() << " unchecked), "
              << t.tested << " of " << t.runs << " runs tested, " << t.called
              << " called different (" << t.passed << " pass); reads: " << t.reads.tied << " tied, "
              << t.reads.untied << " untied, " << t.reads.not_found << " in no SFF file\n";
    if (!unchecked.empty()) {
        // A long list would bury the summary; the TSV names every contig's coverage.
        constexpr std::size_t kNamed = 10;
        std::cerr << program << ": unchecked (under half the reads tied or the runs tested):";
        for (std::size_t i = 0; i < std::min(kNamed, unchecked.size()); ++i)
            std::cerr << ' ' << unchecked[i];
        if (unchecked.size() > kNamed) std::cerr << " and " << unchecked.size() - kNamed << " more";
        std::cerr << '\n';
    }
    std::cerr << program << ": model " << model_note << std::endl;
    return 0;
}
