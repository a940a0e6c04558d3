#include "driver.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string_view>
#include <vector>

#include "ace.h"
#include "contig.h"
#include "decimal.h"
#include "name_table.h"
#include "sff.h"

const std::string PRG = "Sorvexa";
const std::string VERSION = "1.1";

namespace {

const char* const attribution = "flowgram and quality extractor for 454 assemblies";

// A text output file with its own buffer. The byte count includes what is still buffered,
// so it is the file position at any time. Open files are flushed on every way out of the
// process (std::exit runs the handler below), a fatal error inside a reader included.
class output_file {
  public:
    explicit output_file(const std::string& path)
        : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
        if (fd_ < 0) return;
        // Not zero-filled: only the bytes written are ever touched.
        buf_ = std::make_unique_for_overwrite<char[]>(buffer_size);
        capacity_ = buffer_size;
        register_open(this);
    }
    ~output_file() { close(); }
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;

    bool is_open() const { return fd_ >= 0; }
    std::int64_t position() const { return flushed_ + static_cast<std::int64_t>(len_); }

    // Room for n more bytes; the caller writes there and hands the end back to commit().
    char* reserve(std::size_t n) {
        if (capacity_ - len_ < n) {
            flush();
            if (capacity_ < n) {
                buf_ = std::make_unique_for_overwrite<char[]>(n);
                capacity_ = n;
            }
        }
        return buf_.get() + len_;
    }
    void commit(const char* end) { len_ = static_cast<std::size_t>(end - buf_.get()); }
    void write(std::string_view s) {
        char* p = reserve(s.size());
        std::memcpy(p, s.data(), s.size());
        commit(p + s.size());
    }

    void flush() {
        std::size_t done = 0;
        while (done < len_) {
            ssize_t n = ::write(fd_, buf_.get() + done, len_ - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;  // a full disk: the rest is lost, as with any stream
            done += static_cast<std::size_t>(n);
        }
        flushed_ += static_cast<std::int64_t>(len_);
        len_ = 0;
    }
    void close() {
        if (fd_ < 0) return;
        flush();
        ::close(fd_);
        fd_ = -1;
        register_open(nullptr, this);
    }

  private:
    static constexpr std::size_t buffer_size = 1 << 20;

    static output_file*& open_slot(std::size_t k) {
        static output_file* open[2] = {nullptr, nullptr};
        return open[k];
    }
    static void flush_open() {
        for (std::size_t k = 0; k < 2; ++k)
            if (open_slot(k) != nullptr) open_slot(k)->flush();
    }
    // Keeps track of the (at most two) open files so that an exit can flush them.
    static void register_open(output_file* added, output_file* removed = nullptr) {
        static bool handler = std::atexit(flush_open) == 0;
        (void)handler;
        for (std::size_t k = 0; k < 2; ++k) {
            if (added != nullptr && open_slot(k) == nullptr) {
                open_slot(k) = added;
                return;
            }
            if (removed != nullptr && open_slot(k) == removed) open_slot(k) = nullptr;
        }
    }

    int fd_;
    std::unique_ptr<char[]> buf_;
    std::size_t capacity_ = 0;
    std::size_t len_ = 0;
    std::int64_t flushed_ = 0;
};

// Appends tab-separated numbers and line ends to an output file, formatting in place.
class line_writer {
  public:
    explicit line_writer(output_file& out) : out_(out) {}

    template <class T>
    void list(const T* values, std::size_t n) {
        char* p = out_.reserve(n * 7 + 1);  // a 16-bit number and its tab
        for (std::size_t k = 0; k < n; ++k) {
            if (k > 0) *p++ = '\t';
            p = put_decimal(p, values[k], 6);
        }
        *p++ = '\n';
        out_.commit(p);
    }
    void text(std::string_view s) { out_.write(s); }

  private:
    output_file& out_;
};

template <class T>
void append_number(std::string& out, T v) {
    char buf[24];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, res.ptr);
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
    // The run's read indexes; a hash table serves the lookups the run makes, in place of
    // the ordered map, with the same contents.
    std::vector<name_table> read_indexes;
    std::vector<std::vector<std::int64_t>> pending_positions;
    // Scratch of the lookups: the names of the contig in hand and their hashes.
    std::vector<std::string_view> names;
    std::vector<std::uint64_t> hashes;
    int output_mode = 1;

    void index_files(int argc, char** argv, int first_sff) {
        for (int k = first_sff; k < argc; ++k) sff_names.emplace_back(argv[k]);
        read_indexes.resize(sff_names.size());
        pending_positions.resize(sff_names.size());
        for (std::size_t k = 0; k < sff_names.size(); ++k) {
            reader rd(sff_names[k]);
            rd.get_header();
            // Room for the declared reads, as far as the file could hold them (every record
            // takes its 16-byte header and its flowgram) and within reason: a table that
            // needs more grows as it fills.
            const std::uint64_t smallest =
                16 + 2 * std::uint64_t{rd.header_p1.number_of_flows_per_read};
            const std::uint64_t fit =
                static_cast<std::uint64_t>(rd.sff_file.bytes_left()) / smallest;
            read_indexes[k].reserve(std::min<std::uint64_t>(
                {rd.header_p1.number_of_reads, fit, std::uint64_t{1} << 22}));
            rd.walk_read_index(
                [](void* table, std::string_view name, std::int64_t pos) {
                    static_cast<name_table*>(table)->set(name, pos);
                },
                &read_indexes[k]);
        }
    }

    // The first file whose index holds a name serves it; a read in no file gets no record.
    void write_records(const contig& c, output_file& reads_file) {
        look_up(c);
        for (std::size_t k = 0; k < sff_names.size(); ++k) {
            if (pending_positions[k].empty()) continue;
            reader rd(sff_names[k]);
            rd.get_header();
            seqRead read;
            for (std::int64_t pos : pending_positions[k]) {
                // Emptied, not rebuilt: the same as a fresh one, without the allocations.
                read.name.clear();
                read.bases.clear();
                read.quality_scores.clear();
                read.flow_indexes.clear();
                rd.get_read(pos, read);
                write_record(read, rd.cur_read, reads_file);
            }
            pending_positions[k].clear();
        }
    }

    // The lookups of a contig, in the order of its reads. The slots and entries of the names
    // a few places ahead are loaded meanwhile, so that the tables' cache misses overlap.
    void look_up(const contig& c) {
        constexpr std::size_t slot_ahead = 16, entry_ahead = 8;
        hashes.clear();
        names.clear();
        for (const auto& entry : c.reads) {
            names.push_back(entry.first);
            hashes.push_back(name_table::hash(entry.first));
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            for (name_table& table : read_indexes) {
                if (i + slot_ahead < names.size()) table.prefetch_slot(hashes[i + slot_ahead]);
                if (i + entry_ahead < names.size()) table.prefetch_entry(hashes[i + entry_ahead]);
            }
            for (std::size_t k = 0; k < read_indexes.size(); ++k) {
                const std::int64_t* pos = read_indexes[k].find(names[i], hashes[i]);
                if (pos == nullptr) continue;
                pending_positions[k].push_back(*pos);
                break;
            }
        }
    }

    void write_record(const seqRead& read, const sff_read& raw, output_file& reads_file) {
        line_writer out(reads_file);
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
    auto counts = [&](std::string& line) {
        line += '\t';
        append_number(line, c.reads.size());
        line += '\t';
        append_number(line, mode);
        line += '\n';
    };
    std::string line(1, '>');
    line += c.name;
    counts(line);
    reads_file.write(line);

    line.assign(c.name);
    line += '\t';
    append_number(line, reads_file.position());
    counts(line);
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
