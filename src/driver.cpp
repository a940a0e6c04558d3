#include "driver.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <vector>

#include "ace.h"
#include "contig.h"
#include "sff.h"

const std::string PRG = "Sorvexa";
const std::string VERSION = "1.1";

namespace {

const char* const attribution = "flowgram and quality extractor for 454 assemblies";

// A text output file that counts the bytes handed to it, buffered ones included, so that
// the count is the file position at any time. The C stream flushes its buffer on every
// way out of the process, a fatal error inside the ACE reader included.
class output_file {
  public:
    explicit output_file(const std::string& path) : file_(std::fopen(path.c_str(), "w")) {
        if (file_ != nullptr) std::setvbuf(file_, nullptr, _IOFBF, 1 << 20);
    }
    ~output_file() { close(); }
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;

    bool is_open() const { return file_ != nullptr; }
    std::int64_t position() const { return written_; }
    void write(const std::string& s) {
        std::fwrite(s.data(), 1, s.size(), file_);
        written_ += static_cast<std::int64_t>(s.size());
    }
    void close() {
        if (file_ != nullptr) std::fclose(file_);
        file_ = nullptr;
    }

  private:
    std::FILE* file_;
    std::int64_t written_ = 0;
};

template <class T>
void append_number(std::string& out, T v) {
    char buf[24];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, res.ptr);
}

// A tab-separated list; an empty list is an empty line.
template <class T>
void append_list(std::string& out, const std::vector<T>& values) {
    for (std::size_t k = 0; k < values.size(); ++k) {
        if (k > 0) out += '\t';
        append_number(out, values[k]);
    }
    out += '\n';
}

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

// The ACE path cut before its last ".ace", else before its last ".ACE".
std::string output_prefix(const std::string& ace_path) {
    std::size_t cut = ace_path.rfind(".ace");
    if (cut == std::string::npos) cut = ace_path.rfind(".ACE");
    return cut == std::string::npos ? ace_path : ace_path.substr(0, cut);
}

// The SFF side of a run: one read index per SFF file, and per contig the records of its
// reads, fetched file by file.
struct read_stage {
    std::vector<std::string> sff_names;
    std::vector<read_index> read_indexes;
    std::vector<std::vector<std::int64_t>> pending_positions;
    int output_mode = 1;
    std::string record;

    void index_files(int argc, char** argv, int first_sff) {
        for (int k = first_sff; k < argc; ++k) sff_names.emplace_back(argv[k]);
        read_indexes.resize(sff_names.size());
        pending_positions.resize(sff_names.size());
        for (std::size_t k = 0; k < sff_names.size(); ++k) {
            reader rd(sff_names[k]);
            rd.get_header();
            rd.build_read_index(read_indexes[k]);
        }
    }

    // The first file whose index holds a name serves it; a read in no file gets no record.
    void write_records(const contig& c, output_file& reads_file) {
        for (const auto& entry : c.reads) {
            for (std::size_t k = 0; k < read_indexes.size(); ++k) {
                auto it = read_indexes[k].find(entry.first);
                if (it == read_indexes[k].end()) continue;
                pending_positions[k].push_back(it->second);
                break;
            }
        }
        for (std::size_t k = 0; k < sff_names.size(); ++k) {
            if (pending_positions[k].empty()) continue;
            reader rd(sff_names[k]);
            rd.get_header();
            for (std::int64_t pos : pending_positions[k]) {
                seqRead read;
                rd.get_read(pos, read);
                write_record(read, rd.cur_read, reads_file);
            }
            pending_positions[k].clear();
        }
    }

    void write_record(const seqRead& read, const sff_read& raw, output_file& reads_file) {
        record.clear();
        record += read.name;
        record += "\t1\n";
        append_list(record, read.quality_scores);
        if (output_mode == 3) {
            append_list(record, read.flow_indexes);
            const std::size_t flows =
                std::min<std::size_t>(raw.numOfFlows, raw.flowgram_values.size());
            for (std::size_t k = 0; k < flows; ++k) {
                if (k > 0) record += '\t';
                append_number(record, raw.flowgram_values[k]);
            }
            record += '\n';
        }
        reads_file.write(record);
    }
};

void contig_lines(const contig& c, int mode, output_file& reads_file, output_file& krv_file) {
    std::string line = ">" + c.name + "\t";
    append_number(line, c.reads.size());
    line += '\t';
    append_number(line, mode);
    line += '\n';
    reads_file.write(line);

    line = c.name + "\t";
    append_number(line, reads_file.position());
    line += '\t';
    append_number(line, c.reads.size());
    line += '\t';
    append_number(line, mode);
    line += '\n';
    krv_file.write(line);
}

}  // namespace

int sorvexa_main(int argc, char** argv) {
    bool show_usage = false, show_version = false, output_flowgram = false;
    int first = 1;
    if (argc > 1 && argv[1][0] == '-' && argv[1][1] != '\0') {
        for (;;) {
            for (const char* p = argv[first] + 1; *p != '\0'; ++p) {
                switch (*p) {
                    case 'h':
                    case 'H':
                        show_usage = true;
                        break;
                    case 'v':
                    case 'V':
                        show_version = true;
                        break;
                    case 'f':
                        output_flowgram = true;
                        break;
                    default:
                        std::cerr << "Unreconized switch: " << *p << std::endl;
                        show_usage = true;
                }
            }
            ++first;
            if (first >= argc || argv[first][0] != '-' || argv[first][1] == '\0') break;
        }
    }

    const bool too_few = argc < first + 2;
    const bool version_option = show_version;
    if (too_few && !show_version) show_version = true;
    if (show_usage || (too_few && !version_option)) print_usage();
    if (show_version) print_version();
    if (show_usage || show_version) return 0;

    const std::string ace_path = argv[first];
    const std::string prefix = output_prefix(ace_path);

    read_stage stage;
    stage.index_files(argc, argv, first + 1);

    aceReader ace(ace_path);
    const std::string reads_path = prefix + ".reads";
    const std::string krv_path = prefix + ".krv";
    output_file reads_file(reads_path);
    output_file krv_file(krv_path);
    if (!reads_file.is_open()) {
        std::cerr << "can not open file " << reads_path << std::endl;
        return 1;
    }
    if (!krv_file.is_open()) {
        std::cerr << "can not open file " << krv_path << std::endl;
        return 1;
    }
    stage.output_mode = output_flowgram ? 3 : 1;

    for (;;) {
        contig c;
        if (ace.next_contig(c) == 0) break;
        contig_lines(c, stage.output_mode, reads_file, krv_file);
        stage.write_records(c, reads_file);
    }
    reads_file.close();
    krv_file.close();

    std::cout << "Done! Two output files are:\n\n"
              << " Korvane KRV file:\t" << krv_path << "\n"
              << " Korvane READS file:\t" << reads_path << "\n"
              << PRG << " (" << VERSION << ")\t" << attribution << "\n"
              << "\n"
              << std::flush;
    return 0;
}
