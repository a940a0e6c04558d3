#include <sorvexa/sff_sam.h>

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>

#include <sorvexa/flow_tags.h>

namespace {

char upper(char c) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

bool is_base(char c) {
    switch (upper(c)) {
    case 'A': case 'C': case 'G': case 'T': return true;
    default: return false;
    }
}

// A, C, G, T or N in either case.
struct base_table {
    bool ok[256] = {};
    constexpr base_table() {
        for (const char c : {'A', 'C', 'G', 'T', 'N', 'a', 'c', 'g', 't', 'n'})
            ok[static_cast<unsigned char>(c)] = true;
    }
    bool operator[](unsigned char c) const { return ok[c]; }
};
constexpr base_table base_or_n;

// What a SAM read name may hold: 1 to 254 characters of [!-?A-~].
bool sam_name(std::string_view name) {
    if (name.empty() || name.size() > 254) return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u >= '!' && u <= '~' && u != '@';
    });
}

// A name as a message shows it: printable ASCII kept, other bytes as \xHH, cut after 80.
std::string shown(std::string_view name) {
    std::string out;
    for (std::size_t i = 0; i < name.size() && i < 80; ++i) {
        const auto u = static_cast<unsigned char>(name[i]);
        if (u >= ' ' && u <= '~') {
            out += name[i];
        } else {
            static const char hex[] = "0123456789abcdef";
            out += "\\x";
            out += hex[u >> 4];
            out += hex[u & 15];
        }
    }
    if (name.size() > 80) out += "...";
    return out;
}

std::string base_name(const std::string& path) {
    std::string name = path;
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    if (const auto slash = name.rfind('/'); slash != std::string::npos && name.size() > 1)
        name.erase(0, slash + 1);
    if (name.size() >= 4) {
        std::string ext = name.substr(name.size() - 4);
        for (char& c : ext) c = upper(c);
        if (ext == ".SFF") name.resize(name.size() - 4);
    }
    for (char& c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (u < ' ' || u > '~') c = '_';
    }
    return name.empty() || name == "/" ? std::string("sff") : name;
}

}  // namespace

std::vector<std::string> sff_read_group_ids(const std::vector<std::string>& paths) {
    std::vector<std::string> wanted;
    for (const std::string& p : paths) wanted.push_back(base_name(p));
    // A name that any file would take as its own is never handed to another as a variant,
    // so a.sff, a.sff, a.2.sff give a, a.3 and a.2, not a clash.
    const std::set<std::string> own(wanted.begin(), wanted.end());
    std::set<std::string> taken;
    std::vector<std::string> ids;
    for (const std::string& w : wanted) {
        std::string id = w;
        for (int k = 2; taken.count(id) != 0 || (k > 2 && own.count(id) != 0); ++k)
            id = w + "." + std::to_string(k);
        taken.insert(id);
        ids.push_back(id);
    }
    return ids;
}

sff_records::sff_records(std::string path) : path_(std::move(path)) {}
sff_records::~sff_records() = default;

const sff_read& sff_records::read() const {
    return reader_->cur_read;
}

const reader& sff_records::file() const {
    return *reader_;
}

std::uint64_t sff_records::count() const {
    return reader_ ? reader_->reads_done : 0;
}

bool sff_records::fail(std::string message) {
    error_ = sorvexa::status::failure(path_ + ": " + std::move(message));
    return false;
}

sorvexa::status sff_records::open() {
    error_ = {};
    struct stat st {};
    if (::stat(path_.c_str(), &st) != 0)
        return sorvexa::status::failure(path_ + ": " + std::strerror(errno));
    if (!S_ISREG(st.st_mode)) {
        fail(S_ISDIR(st.st_mode) ? "is a directory" : "is not a regular file");
        return error_;
    }
    size_ = st.st_size;
    errno = 0;
    reader_ = std::make_unique<reader>(path_);
    reader_->skip_index_block = true;
    if (!reader_->error.ok) {
        fail(errno != 0 ? std::strerror(errno) : "can not open it");
        return error_;
    }
    if (!reader_->get_header()) {
        if (!reader_->error.ok)
            fail("not an SFF file (no .sff magic number)");
        else
            fail("its header is cut short (" + std::to_string(size_) + " bytes)");
        return error_;
    }
    const sff_header_p1& h = reader_->header_p1;
    if (h.flowgram_format_code != 1) {
        fail("flowgram format " + std::to_string(h.flowgram_format_code) +
             " (only format 1, flow values in hundredths, is known)");
        return error_;
    }
    if (h.number_of_flows_per_read == 0) {
        fail("its header gives no flows");
        return error_;
    }
    // seqRead's flow numbers are 16-bit signed, as the library's read records are.
    if (h.number_of_flows_per_read > 32767) {
        fail("its header gives " + std::to_string(h.number_of_flows_per_read) +
             " flows per read, more than 32767");
        return error_;
    }
    if (static_cast<std::int64_t>(h.header_length) > size_ ||
        static_cast<std::uint64_t>(h.header_length) <
            sff_header_p1::size + h.number_of_flows_per_read + h.key_length) {
        fail("its header length " + std::to_string(h.header_length) +
             " does not hold its flow characters and key");
        return error_;
    }
    for (char c : reader_->header_p2.flow_chars)
        if (!is_base(c)) {
            fail("its flow characters hold '" + shown(std::string_view(&c, 1)) +
                 "', not a base A, C, G or T");
            return error_;
        }
    for (char c : reader_->header_p2.key_sequence)
        if (!is_base(c) && upper(c) != 'N') {
            fail("its key holds '" + shown(std::string_view(&c, 1)) +
                 "', not a base A, C, G, T or N");
            return error_;
        }
    return error_;
}

bool sff_records::next() {
    if (!reader_ || !error_.ok || !reader_->header_known) return false;
    reader& r = *reader_;
    const std::uint64_t before = r.reads_done;
    const std::uint32_t declared = r.header_p1.number_of_reads;
    if (before >= declared) return check_end();
    if (!r.get_next_read() || r.sff_file.fail())
        return fail("cut short in read " + std::to_string(before + 1) + " of " +
                    std::to_string(declared) + " (" + std::to_string(size_) + " bytes)");
    return true;
}

// After the declared reads: the file must end there, or after the index block that
// stands there, up to the padding to a multiple of 8 bytes.
bool sff_records::check_end() {
    reader& r = *reader_;
    std::int64_t at = r.sff_file.tell();
    const std::uint64_t index_at = r.header_p1.index_offset;
    // The index may follow the last read's data with or without its padding.
    const bool index_here = r.header_p1.index_length > 0 && at >= 0 &&
                            index_at < static_cast<std::uint64_t>(size_) &&
                            static_cast<std::int64_t>(index_at) > at - 8 &&
                            static_cast<std::int64_t>(index_at) < at + 8;
    if (index_here)
        at = static_cast<std::int64_t>(
            std::min<std::uint64_t>(index_at + r.header_p1.index_length, static_cast<std::uint64_t>(size_)));
    if (at >= 0 && size_ - at >= 8)
        return fail(std::to_string(size_ - at) + " bytes after its last read (" +
                    std::to_string(r.header_p1.number_of_reads) +
                    " declared) that are no index block: two SFF files joined into one?");
    return false;
}

std::string sff_read_group_line(const std::string& id, const reader& file) {
    std::string line = "@RG\tID:" + id + "\tPL:LS454\tFO:";
    for (char c : file.header_p2.flow_chars) line += upper(c);
    if (!file.header_p2.key_sequence.empty()) {
        line += "\tKS:";
        for (char c : file.header_p2.key_sequence) line += upper(c);
    }
    return line;
}

sorvexa::status sff_record_writer::check(const sff_read& read) {
    const std::string_view name(read.name.data(),
                                std::min<std::size_t>(read.name_length, read.name.size()));
    if (!sam_name(name))
        return sorvexa::status::failure(
            "read name '" + shown(name) +
            "' cannot be a SAM read name (1 to 254 characters, printable, no space or @)");
    const auto bad_read = [&](const std::string& why) {
        return sorvexa::status::failure("read " + std::string(name) + ": " + why);
    };

    // Every called base must be sound, whichever are written: a base SAM holds as it is, a
    // quality FASTQ can carry, a flow inside the flowgram. One pass over the raw arrays.
    const std::size_t flows = std::min<std::size_t>(read.numOfFlows, read.flowgram_values.size());
    const std::size_t held = std::min<std::size_t>(read.number_of_bases, read.bases_held());
    const char* bases = read.bases.data();
    const std::uint8_t* quality = read.quality_scores.data();
    const std::uint8_t* step = read.flow_index_per_base.data();
    std::uint64_t last_flow = 0;  // one-based
    bool bad_base = false;
    std::uint8_t top_quality = 0;
    for (std::size_t i = 0; i < held; ++i) {
        last_flow += step[i];
        bad_base |= !base_or_n[static_cast<unsigned char>(bases[i])];
        top_quality = std::max(top_quality, quality[i]);
    }
    if (held > 0 && (step[0] == 0 || last_flow > flows))
        return bad_read("the flows of its bases (" + std::to_string(static_cast<int>(step[0]) - 1) +
                        " to " + std::to_string(static_cast<std::int64_t>(last_flow) - 1) +
                        ") leave its flowgram of " + std::to_string(flows) + " flows");
    if (bad_base || top_quality > 93)
        for (std::size_t i = 0; i < held; ++i) {
            const char b = bases[i];
            if (!base_or_n[static_cast<unsigned char>(b)])
                return bad_read("base " + std::to_string(i + 1) + " is '" +
                                shown(std::string_view(&b, 1)) + "', not A, C, G, T or N");
            if (quality[i] > 93)
                return bad_read("quality " + std::to_string(quality[i]) + " of base " +
                                std::to_string(i + 1) + " is above 93");
        }
    return {};
}

// The written bases, their qualities and the flow of the first (zero-based): every called
// base, or the kept range as seqRead cuts it.
void sff_record_writer::take_bases(const sff_read& read) {
    first_flow_ = -1;
    if (options_.untrimmed) {
        length_ = std::min<std::size_t>(read.number_of_bases, read.bases_held());
        bases_ = read.bases.data();
        qualities_ = reinterpret_cast<const char*>(read.quality_scores.data());
        if (length_ > 0) first_flow_ = read.flow_index_per_base[0] - 1;
        return;
    }
    kept_.assign(read);
    length_ = kept_.bases.size();
    bases_ = kept_.bases.data();
    kept_qualities_.resize(length_);
    // seqRead holds the read's own bytes in 16 bits.
    std::transform(kept_.quality_scores.begin(), kept_.quality_scores.end(),
                   kept_qualities_.begin(), [](std::int16_t q) { return static_cast<char>(q); });
    qualities_ = kept_qualities_.data();
    if (length_ > 0) first_flow_ = kept_.flow_indexes[0];
}

sorvexa::status sff_record_writer::fill(const sff_read& read, std::string_view read_group,
                                        bam1_t* out) {
    if (sorvexa::status st = check(read); !st) return st;
    take_bases(read);
    const std::size_t name_length = std::min<std::size_t>(read.name_length, read.name.size());
    const std::size_t flows = std::min<std::size_t>(read.numOfFlows, read.flowgram_values.size());
    const std::size_t aux = record_flows_size(flows) + 3 + read_group.size() + 1;
    // bam_set1 wants the name as a C string.
    text_.assign(read.name.data(), name_length);
    if (bam_set1(out, name_length, text_.c_str(), BAM_FUNMAP, -1, -1, 0, 0, nullptr, -1, -1,
                 0, length_, length_ > 0 ? bases_ : nullptr, length_ > 0 ? qualities_ : nullptr,
                 aux) < 0 ||
        !append_record_flows(out, std::span(read.flowgram_values.data(), flows), first_flow_))
        return sorvexa::status::failure("read " + text_ + ": htslib cannot make its record");
    text_.assign(read_group);
    if (bam_aux_append(out, "RG", 'Z', static_cast<int>(text_.size() + 1),
                       reinterpret_cast<const std::uint8_t*>(text_.c_str())) != 0)
        return sorvexa::status::failure("htslib cannot add RG to a record");
    return {};
}
