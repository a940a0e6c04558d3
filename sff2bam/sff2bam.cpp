// sorvexa-sff2bam: every read of one or more SFF files, in file order, as an unmapped SAM,
// BAM or CRAM record that keeps its flowgram (FZ) and the flow of its first base (ZF), one
// read group per SFF file.
#include <htslib/hts.h>
#include <htslib/hts_log.h>
#include <htslib/sam.h>
#include <sorvexa/name_table.h>
#include <sorvexa/sff_sam.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "arguments.h"
#include "sff2bam_main.h"

const char* const sff2bam_version = SORVEXA_VERSION;

namespace {

const char* const program = "sorvexa-sff2bam";

const char* const usage_text =
    "Usage: sorvexa-sff2bam [options] -o OUT sffFile ...\n"
    "Writes every read of the SFF files, in file order, as an unmapped SAM, BAM or CRAM\n"
    "record with its bases and qualities, FZ its whole flowgram (B:S, hundredths) and ZF the\n"
    "flow of its first written base; one read group per SFF file (ID from the file name,\n"
    "PL:LS454, FO its flow characters, KS its key), RG:Z on every record.\n"
    "\n"
    "  -o OUT            output file; the format comes from its extension (.bam, .cram,\n"
    "                    .sam); '-' writes uncompressed BAM to standard output\n"
    "  -O FORMAT         bam, cram or sam, whatever the extension\n"
    "  -l LEVEL          compression level of BAM or CRAM, 0 (none) to 9 (default: htslib's,\n"
    "                    0 for standard output)\n"
    "  -u                uncompressed BAM (-l 0)\n"
    "  --untrimmed       every called base, not only the kept range of the clips\n"
    "  -@, --threads N   N more threads for compression (default 0)\n"
    "  -h, --help        print this help and exit\n"
    "  --version         print the version and exit\n";

struct options {
    std::string out;
    std::string format;  // bam, cram, sam; empty: from the extension
    bool untrimmed = false;
    int threads = 0;
    int level = -1;  // -1: htslib's default
    bool help = false, version = false;
    std::vector<std::string> inputs;
};

int usage_error(const std::string& why) {
    std::cerr << program << ": " << why << "\n" << usage_text << std::flush;
    return 2;
}

bool ends_with(std::string_view s, std::string_view end) {
    return s.size() >= end.size() && s.substr(s.size() - end.size()) == end;
}

int parse_options(int argc, char** argv, options& o) {
    bool have_out = false;
    argument_walk walk(argc, argv, "oO@l");  // -oOUT, -Obam, -@4, -l1
    for (argument a; walk.next(a);) {
        if (!a.option) {
            o.inputs.push_back(a.name);
            continue;
        }
        const std::string& arg = a.name;
        std::string& value = a.value;
        const bool inline_value = a.inline_value;
        const bool takes_value =
            arg == "-o" || arg == "-O" || arg == "-@" || arg == "--threads" || arg == "-l";
        if (!takes_value && inline_value) return usage_error("option " + arg + " takes no value");
        if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "--version") {
            o.version = true;
        } else if (arg == "--untrimmed") {
            o.untrimmed = true;
        } else if (arg == "-u") {
            o.level = 0;
        } else if (!takes_value) {
            return usage_error("unknown option " + arg);
        } else if (!walk.take_value(a)) {
            return usage_error("option " + arg + " needs a value");
        } else {
            if (arg == "-o") {
                if (value.empty()) return usage_error("option -o needs a file name");
                o.out = value;
                have_out = true;
            } else if (arg == "-O") {
                if (value != "bam" && value != "cram" && value != "sam" && value != "BAM" &&
                    value != "CRAM" && value != "SAM")
                    return usage_error("-O takes bam, cram or sam, not '" + value + "'");
                for (char& c : value)
                    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                o.format = value;
            } else if (arg == "-l") {
                if (value.size() != 1 || value[0] < '0' || value[0] > '9')
                    return usage_error("-l takes a compression level from 0 to 9, not '" + value +
                                       "'");
                o.level = value[0] - '0';
            } else {
                int n = -1;
                const auto [end, ec] =
                    std::from_chars(value.data(), value.data() + value.size(), n);
                if (ec != std::errc() || end != value.data() + value.size() || n < 0 || n > 1024)
                    return usage_error(arg + " takes a number of threads from 0 to 1024, not '" +
                                       value + "'");
                o.threads = n;
            }
        }
    }
    if (o.help || o.version) return 0;
    if (!have_out) return usage_error("needs an output file (-o OUT, or -o - for standard output)");
    if (o.inputs.empty()) return usage_error("needs at least one SFF file");
    if (o.format.empty() && o.out != "-") {
        std::string lower = o.out;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (ends_with(lower, ".bam"))
            o.format = "bam";
        else if (ends_with(lower, ".cram"))
            o.format = "cram";
        else if (ends_with(lower, ".sam"))
            o.format = "sam";
        else
            return usage_error("can not tell the format of " + o.out +
                               " (its name ends in none of .bam, .cram, .sam): give -O FORMAT");
    }
    if (o.format == "sam" && o.level >= 0)
        return usage_error("-l and -u set the compression of BAM and CRAM, not of SAM text");
    return 0;
}

// The message of a failed run: one line, status 1.
int fail(const std::string& message) {
    std::cerr << program << ": " << message << std::endl;
    return 1;
}

std::string errno_text(int e) {
    return e != 0 ? std::strerror(e) : "unknown error";
}

// The @HD, @RG and @PG lines.
std::string header_text(const std::vector<std::unique_ptr<sff_records>>& files,
                        const std::vector<std::string>& ids, int argc, char** argv) {
    std::string text = "@HD\tVN:1.6\tSO:unsorted\n";
    for (std::size_t k = 0; k < files.size(); ++k)
        text += sff_read_group_line(ids[k], files[k]->file()) + "\n";
    std::string cl;
    for (int i = 0; i < argc; ++i) {
        if (i > 0) cl += ' ';
        for (const char* p = argv[i]; *p != '\0'; ++p) {
            const auto u = static_cast<unsigned char>(*p);
            cl += u < ' ' || u > '~' ? ' ' : *p;
        }
    }
    text += std::string("@PG\tID:") + program + "\tPN:" + program + "\tVN:" + sff2bam_version +
            "\tCL:" + cl + "\n";
    return text;
}

// Where the records go: the output itself, or a temporary file beside it that takes the
// output's name only once everything is written and closed.
class destination {
  public:
    ~destination() {
        if (!temp_.empty()) ::unlink(temp_.c_str());
    }

    // Refuses an output that is a directory or one of the inputs; otherwise picks the path
    // to open. A regular file (or a name not yet taken) is written as a temporary file in
    // the same folder; standard output and a path that exists as another kind of file (a
    // device such as /dev/null, a FIFO) are written directly.
    bool prepare(const std::string& out, const std::vector<std::string>& inputs,
                 std::string& error) {
        out_ = out;
        if (out == "-") {
            path_ = "-";
            return true;
        }
        struct stat st {};
        if (::stat(out.c_str(), &st) == 0) {
            if (S_ISDIR(st.st_mode)) {
                error = "can not write " + out + ": it is a directory";
                return false;
            }
            for (const std::string& in : inputs) {
                struct stat si {};
                if (::stat(in.c_str(), &si) == 0 && si.st_dev == st.st_dev &&
                    si.st_ino == st.st_ino) {
                    error = "the output " + out + " is the input " + in;
                    return false;
                }
            }
            if (!S_ISREG(st.st_mode)) {
                path_ = out;
                return true;
            }
        }
        const std::size_t slash = out.rfind('/');
        const std::string dir = slash == std::string::npos ? "" : out.substr(0, slash + 1);
        const std::string base = slash == std::string::npos ? out : out.substr(slash + 1);
        std::string name = dir + "." + base + ".XXXXXX.tmp";
        const int fd = ::mkstemps(name.data(), 4);
        if (fd < 0) {
            error = "can not create a file beside " + out + ": " + errno_text(errno);
            return false;
        }
        temp_ = name;
        // The permissions a newly created output would have, not mkstemp's 0600.
        const mode_t mask = ::umask(0);
        ::umask(mask);
        const bool ok = ::fchmod(fd, 0666 & ~mask) == 0;
        const int e = errno;
        ::close(fd);
        if (!ok) {
            error = "can not create a file beside " + out + ": " + errno_text(e);
            return false;
        }
        path_ = temp_;
        return true;
    }

    const std::string& path() const { return path_; }
    bool is_stdout() const { return out_ == "-"; }
    std::string shown() const { return is_stdout() ? "standard output" : out_; }

    // Gives the written file the output's name.
    bool commit(std::string& error) {
        if (temp_.empty()) return true;
        if (::rename(temp_.c_str(), out_.c_str()) != 0) {
            error = "can not write " + out_ + ": " + errno_text(errno);
            return false;
        }
        temp_.clear();
        return true;
    }

  private:
    std::string out_, path_, temp_;
};

struct hts_output {
    samFile* fp = nullptr;
    sam_hdr_t* header = nullptr;
    ~hts_output() {
        if (fp != nullptr) sam_close(fp);
        if (header != nullptr) sam_hdr_destroy(header);
    }
    // Closes the file; false when the close (its last writes) failed.
    bool close() {
        samFile* f = fp;
        fp = nullptr;
        return f == nullptr || sam_close(f) == 0;
    }
};

struct bam_record {
    bam1_t* b = bam_init1();
    ~bam_record() { bam_destroy1(b); }
};

// Names seen so far over every file, each with the number of the first file that held it.
// Names found again are told on standard error once every record is written (a run that
// fails says only why): the first few one by one, then a count.
class duplicate_names {
  public:
    void see(std::string_view name, std::size_t file, const std::vector<std::string>& paths) {
        const auto it = names_.find(name);
        if (it == names_.end()) {
            names_[name] = static_cast<std::int64_t>(file);
            return;
        }
        if (++found_ <= shown_)
            lines_ += std::string(program) + ": read " + std::string(name) + " found again in " +
                      paths[file] + " (first in " + paths[static_cast<std::size_t>(it->second)] +
                      "); both records kept\n";
    }
    void summary() const {
        if (found_ == 0) return;
        std::cerr << lines_ << program << ": " << found_ << " record" << (found_ == 1 ? "" : "s")
                  << " of a read name found before, every one kept";
        if (found_ > shown_) std::cerr << " (the first " << shown_ << " named above)";
        std::cerr << std::endl;
    }

  private:
    static constexpr std::uint64_t shown_ = 10;
    name_table names_;
    std::uint64_t found_ = 0;
    std::string lines_;
};

}  // namespace

int sff2bam_main(int argc, char** argv) {
    options opt;
    if (const int status = parse_options(argc, argv, opt); status != 0) return status;
    if (opt.help) std::cout << usage_text << std::flush;
    if (opt.version) std::cout << program << " " << sff2bam_version << "\n" << std::flush;
    if (opt.help || opt.version) return 0;

    // A file-size limit shows as a failed write, not as a killed process; htslib's own
    // messages would add lines to the one this program prints.
    std::signal(SIGXFSZ, SIG_IGN);
    hts_set_log_level(HTS_LOG_OFF);

    // Every file is opened and its header checked before anything is written.
    const std::vector<std::string> ids = sff_read_group_ids(opt.inputs);
    const auto open_all = [&](std::vector<std::unique_ptr<sff_records>>& files) {
        files.clear();
        for (const std::string& path : opt.inputs) {
            files.push_back(std::make_unique<sff_records>(path));
            if (const sorvexa::status st = files.back()->open(); !st) return st;
        }
        return sorvexa::status{};
    };
    std::vector<std::unique_ptr<sff_records>> files;
    if (const sorvexa::status st = open_all(files); !st) return fail(st.message);

    destination dest;
    std::string error;
    if (!dest.prepare(opt.out, opt.inputs, error)) return fail(error);

    sff_record_writer writer({opt.untrimmed});
    bam_record record;
    // Every record of every file through the writer; `write` takes each. Standard output
    // cannot be taken back, so there every file is read through once before the first byte
    // is written: bad input then writes nothing at all.
    std::uint64_t reads = 0;
    const auto convert = [&](auto write) -> int {
        constexpr bool check_only = std::is_same_v<decltype(write), std::nullptr_t>;
        reads = 0;
        for (std::size_t k = 0; k < files.size(); ++k) {
            sff_records& f = *files[k];
            while (f.next()) {
                const sorvexa::status st =
                    check_only ? writer.check(f.read()) : writer.fill(f.read(), ids[k], record.b);
                if (!st)
                    return fail(f.path() + ": read " + std::to_string(f.count()) + " of " +
                                std::to_string(f.file().header_p1.number_of_reads) + ": " +
                                st.message);
                if constexpr (!check_only)
                    if (const int status = write(k); status != 0) return status;
                ++reads;
            }
            if (!f.error()) return fail(f.error().message);
            files[k].reset();  // its file closed, its buffers freed
        }
        return 0;
    };
    if (dest.is_stdout()) {
        if (const int status = convert(nullptr); status != 0) return status;
        if (const sorvexa::status st = open_all(files); !st) return fail(st.message);
    }

    // Standard output without -O: BAM, uncompressed unless -l says otherwise.
    std::string mode = opt.format == "cram" ? "wc" : opt.format == "sam" ? "w" : "wb";
    const int level = opt.format.empty() && opt.level < 0 ? 0 : opt.level;
    if (level >= 0) mode += static_cast<char>('0' + level);
    hts_output out;
    const std::string text = header_text(files, ids, argc, argv);
    out.header = sam_hdr_parse(text.size(), text.c_str());
    if (out.header == nullptr) return fail("htslib refuses the header it was given");
    errno = 0;
    out.fp = sam_open(dest.path().c_str(), mode.c_str());
    if (out.fp == nullptr) return fail("can not write " + dest.shown() + ": " + errno_text(errno));
    if (opt.threads > 0 && hts_set_threads(out.fp, opt.threads) != 0)
        return fail("can not start " + std::to_string(opt.threads) + " threads");
    const auto write_failed = [&]() {
        return fail("can not write " + dest.shown() + ": " + errno_text(errno));
    };
    errno = 0;
    if (sam_hdr_write(out.fp, out.header) < 0) return write_failed();

    duplicate_names names;
    const int status = convert([&](std::size_t k) {
        names.see(bam_get_qname(record.b), k, opt.inputs);
        errno = 0;
        return sam_write1(out.fp, out.header, record.b) < 0 ? write_failed() : 0;
    });
    if (status != 0) return status;
    errno = 0;
    if (!out.close()) return write_failed();
    if (!dest.commit(error)) return fail(error);
    names.summary();
    std::cerr << program << ": " << reads << " read" << (reads == 1 ? "" : "s") << " from "
              << opt.inputs.size() << " SFF file" << (opt.inputs.size() == 1 ? "" : "s")
              << " written to " << dest.shown() << std::endl;
    return 0;
}
