// The run: options, the SFF read indexes, then contig by contig the header line, the
// location index line and the read records.
#include "driver.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <string>
#include <memory>
#include <vector>

#include <sorvexa/ace.h>
#include <sorvexa/contig.h>
#include "output_file.h"
#include <sorvexa/read_lookup.h>
#include <sorvexa/sff.h>

const std::string PRG = "Sorvexa";
const std::string VERSION = "1.1";

namespace {

const char* const attribution = "flowgram and quality extractor for 454 assemblies";

void print_usage() {
    std::cout << "\nUsage: ./" << PRG << " [options] aceFile sffFile_1 [sffFile_2 ...]\n\n"
              << "..........................PARAMETERS..............................\n"
              << " aceFile  -- an genome assembly file in ACE format\n"
              << " sffFile* -- one or more binary 454 SFF files\n\n"
              << "............................OPTIONS...............................\n"
              << " -h       -- Print usage information and exit\n"
              << " -v       -- Print version information and exit\n"
              << " -f       -- Output flowgram indexes and values, default: NO\n"
              << "..................................................................\n"
              << "\n"
              << std::flush;
}

void print_version() {
    std::cout
        << PRG << " is an assistant program for Korvane. It extracts read information \n"
        << "        from one or more SFF files for all reads from the ACE file. There are two \n"
        << "        output files: <PREFIX>.krv and <PREFIX>.reads, where <PREFIX> is the\n"
        << "        basename of the input ACE file. <PREFIX>.reads contains all reads\n"
        << "        information, and <PREFIX>.krv is location index of the <PREFIX>.reads.\n"
        << "        Both files are optional input files for Korvane.\n"
        << "\n"
        << PRG << " (Version " << VERSION << ")\t" << attribution << "\n"
        << std::flush;
}

// Prints a reader's diagnostic where Sorvexa has always printed it, flushed at once, so that
// it keeps its place among the other lines of both streams.
void print_diagnostic(sorvexa::stream where, const std::string& line) {
    (where == sorvexa::stream::out ? std::cout : std::cerr) << line << std::endl;
}

// The message of a fatal input error, printed; the run then ends with status 1.
int input_error(const sorvexa::status& st) {
    std::cerr << st.message << std::endl;
    return 1;
}

// The SFF side of a run: the read index over every SFF file, and per contig the records of
// its reads, fetched file by file.
struct read_stage {
    read_lookup lookup;
    std::unique_ptr<read_fetcher> fetcher;
    std::vector<read_location> wanted;
    std::vector<const std::string*> wanted_names;
    int output_mode = 1;

    sorvexa::status index_files(int argc, char** argv, int first_sff) {
        lookup.diagnostics = print_diagnostic;
        sorvexa::status st =
            lookup.index_files(std::vector<std::string>(argv + first_sff, argv + argc));
        fetcher = std::make_unique<read_fetcher>(lookup);
        fetcher->diagnostics = print_diagnostic;
        return st;
    }

    // The records in file order, within a file in the contig's order of names; a read in no
    // file gets no record. The fetch stops at a failed write.
    sorvexa::status write_records(const contig& c, output_file& reads_file) {
        wanted.clear();
        for (const auto& entry : c.reads) wanted.push_back(lookup.locate(entry.first));
        seqRead read;
        return fetcher->fetch(wanted, false, [&](std::size_t, reader& rd, bool got) {
            // Emptied, not rebuilt: the same as a fresh one, without the allocations. A fetch
            // from a failed stream leaves it empty and the record's flowgram zero.
            read.name.clear();
            read.bases.clear();
            read.quality_scores.clear();
            read.flow_indexes.clear();
            if (got) read.assign(rd.cur_read);
            write_record(read, rd.cur_read, reads_file);
            return !reads_file.failed();
        });
    }

    void write_record(const seqRead& read, const sff_read& raw, output_file& out) const {
        out.text(read.name);
        out.text("\t1\n");
        out.list(read.quality_scores.data(), read.quality_scores.size());
        if (output_mode == 3) {
            out.list(read.flow_indexes.data(), read.flow_indexes.size());
            out.list(raw.flowgram_values.data(),
                     std::min<std::size_t>(raw.numOfFlows, raw.flowgram_values.size()));
        }
    }
};

// The contig header line, then the contig's location index line with the position just
// after it: where the contig's first read record will start.
void contig_lines(const contig& c, int mode, output_file& reads_file, output_file& krv_file) {
    auto counts = [&](output_file& out) {
        out.text("\t");
        out.number(c.reads.size());
        out.text("\t");
        out.number(mode);
        out.text("\n");
    };
    reads_file.text(">");
    reads_file.text(c.name);
    counts(reads_file);
    if (reads_file.failed()) return;
    krv_file.text(c.name);
    krv_file.text("\t");
    krv_file.number(reads_file.position());
    counts(krv_file);
}
struct options {
    bool show_usage = false, show_version = false, output_flowgram = false;
    int first_operand = 1;
};

// Options come only from the leading arguments; a lone "-" is an operand.
options parse_options(int argc, char** argv) {
    options o;
    if (argc <= 1 || argv[1][0] != '-' || argv[1][1] == '\0') return o;
    for (;;) {
        for (const char* p = argv[o.first_operand] + 1; *p != '\0'; ++p) {
            if (*p == 'h' || *p == 'H') {
                o.show_usage = true;
            } else if (*p == 'v' || *p == 'V') {
                o.show_version = true;
            } else if (*p == 'f') {
                o.output_flowgram = true;
            } else {
                std::cerr << "Unreconized switch: " << *p << std::endl;
                o.show_usage = true;
            }
        }
        ++o.first_operand;
        const char* next = o.first_operand < argc ? argv[o.first_operand] : nullptr;
        if (next == nullptr || next[0] != '-' || next[1] == '\0') return o;
    }
}

// The usage and version texts in place of a run; true when either was printed. A run needs
// the ACE file and one SFF file; without them the version text is shown too.
bool print_texts(options o, int argc) {
    const bool too_few = argc < o.first_operand + 2;
    if (o.show_usage || (too_few && !o.show_version)) print_usage();
    if (o.show_version || too_few) print_version();
    return o.show_usage || o.show_version || too_few;
}

}  // namespace

int sorvexa_main(int argc, char** argv) {
    const options opt = parse_options(argc, argv);
    if (print_texts(opt, argc)) return 0;

    const std::string ace_path = argv[opt.first_operand];
    const std::string prefix = output_prefix(ace_path);
    read_stage stage;
    sorvexa::status st = stage.index_files(argc, argv, opt.first_operand + 1);
    if (!st) return input_error(st);

    aceReader ace(ace_path);
    if (!ace.error) return input_error(ace.error);
    const std::string reads_path = prefix + ".reads";
    const std::string krv_path = prefix + ".krv";
    output_file reads_file(reads_path);
    output_file krv_file(krv_path);
    if (!reads_file.is_open() || !krv_file.is_open()) {
        std::cerr << "can not open file " << (reads_file.is_open() ? krv_path : reads_path)
                  << std::endl;
        return 1;
    }
    stage.output_mode = opt.output_flowgram ? 3 : 1;

    for (;;) {
        contig c;
        if (ace.next_contig(c) == 0) break;
        contig_lines(c, stage.output_mode, reads_file, krv_file);
        if (reads_file.failed() || krv_file.failed()) return 1;
        st = stage.write_records(c, reads_file);
        if (!st) return input_error(st);
        if (reads_file.failed()) return 1;
    }
    if (!ace.error) return input_error(ace.error);
    if (!reads_file.close() || !krv_file.close()) return 1;

    std::cout << "Done! Two output files are:\n\n"
              << " Korvane KRV file:\t" << krv_path << "\n"
              << " Korvane READS file:\t" << reads_path << "\n"
              << PRG << " (" << VERSION << ")\t" << attribution << "\n"
              << "\n"
              << std::flush;
    return 0;
}
