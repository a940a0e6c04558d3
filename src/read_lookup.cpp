#include <sorvexa/read_lookup.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace {

// The reads a file declares, as far as it can hold them (every record takes at least its
// 16-byte fixed part and its flowgram) and within reason: reserving that room up front spares
// the index its rehashes, a fifth of the indexing time, and an index that needs more than a
// few million grows as it fills, so a huge sparse file cannot ask for gigabytes up front.
std::size_t records_that_fit(const reader& rd, const std::string& path) {
    std::error_code ec;
    const std::uintmax_t size = std::filesystem::file_size(path, ec);
    const std::uintmax_t smallest = 16 + 2 * std::uintmax_t{rd.header_p1.number_of_flows_per_read};
    return static_cast<std::size_t>(std::min<std::uintmax_t>(
        {rd.header_p1.number_of_reads, ec ? 0 : size / smallest, std::uintmax_t{1} << 22}));
}

}  // namespace

bool stamp_of(const std::string& path, file_stamp& out) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return false;
    out.device = st.st_dev;
    out.inode = st.st_ino;
    out.size = st.st_size;
    out.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    return true;
}

sorvexa::status read_lookup::index_files(const std::vector<std::string>& names) {
    sff_names = names;
    const std::size_t n = names.size();
    stamps.assign(n, {});
    headers.assign(n, {});
    flow_chars.assign(n, {});
    keys.assign(n, {});
    indexes.assign(n, {});
    distinct_ = 0;
    // Each file is opened and its header read before any is walked, in the order given, so
    // that the first unusable file is the one reported.
    std::vector<std::unique_ptr<reader>> readers;
    for (std::size_t k = 0; k < n; ++k) {
        auto rd = std::make_unique<reader>(names[k]);
        rd->diagnostics = diagnostics;
        rd->skip_index_block = skip_index_block;
        if (!parallel) {
            // One file at a time, each walked as soon as its header is read.
            if (!rd->error.ok) return rd->error;
            rd->get_header();
            if (!rd->error.ok) return rd->error;
        } else {
            if (!rd->error.ok || (!rd->get_header() && !rd->error.ok)) return rd->error;
        }
        stamp_of(names[k], stamps[k]);
        headers[k] = rd->header_p1;
        flow_chars[k].assign(rd->header_p2.flow_chars.begin(), rd->header_p2.flow_chars.end());
        keys[k].assign(rd->header_p2.key_sequence.begin(), rd->header_p2.key_sequence.end());
        indexes[k].reserve(records_that_fit(*rd, names[k]));
        if (!parallel) {
            rd->build_read_index(indexes[k]);
        } else {
            readers.push_back(std::move(rd));
        }
    }
    if (parallel) {
        std::vector<std::thread> walks;
        for (std::size_t k = 0; k < n; ++k)
            walks.emplace_back([this, &readers, k] { readers[k]->build_read_index(indexes[k]); });
        for (std::thread& t : walks) t.join();
    }
    count_distinct();
    return {};
}

int read_lookup::find(const std::string& name, std::int64_t& pos) const {
    for (std::size_t k = 0; k < indexes.size(); ++k) {
        auto found = indexes[k].find(name);
        if (found == indexes[k].end()) continue;
        pos = found->second;
        return static_cast<int>(k);
    }
    return -1;
}

read_location read_lookup::locate(const std::string& name) const {
    read_location at;
    at.file = find(name, at.pos);
    return at;
}

// Counted once, when the files are indexed: a name in an earlier file is not counted again.
void read_lookup::count_distinct() {
    distinct_ = 0;
    for (std::size_t k = 0; k < indexes.size(); ++k) {
        for (const auto& entry : indexes[k]) {
            bool earlier = false;
            for (std::size_t j = 0; j < k && !earlier; ++j) earlier = indexes[j].contains(entry.first);
            if (!earlier) ++distinct_;
        }
    }
}

bool read_lookup::unchanged(std::size_t k) const {
    file_stamp now;
    return k < stamps.size() && stamp_of(sff_names[k], now) && now == stamps[k];
}

read_fetcher::read_fetcher(const read_lookup& lookup)
    : lookup_(lookup), readers_(lookup.sff_names.size()), by_file_(lookup.sff_names.size()) {}

read_fetcher::~read_fetcher() = default;

reader* read_fetcher::open(std::size_t k, sorvexa::status& error) {
    return open(k, true, error);
}

// A fresh start reads the header again, as a newly opened reader would: the check of a
// contig sees the file as it is then. A single record needs only the failed state cleared.
reader* read_fetcher::open(std::size_t k, bool fresh, sorvexa::status& error) {
    if (k >= readers_.size()) {
        error = sorvexa::status::failure("no SFF file number " + std::to_string(k));
        return nullptr;
    }
    if (check_stamps && !lookup_.unchanged(k)) {
        error = sorvexa::status::failure("the file " + lookup_.sff_names[k] +
                                         " changed after it was indexed");
        readers_[k].reset();
        return nullptr;
    }
    auto& rd = readers_[k];
    if (!rd) {
        rd = std::make_unique<reader>(lookup_.sff_names[k]);
        rd->diagnostics = diagnostics;
    }
    const bool opened = rd->header_known;
    rd->sff_file.clear();
    if ((fresh || !opened) && !rd->get_header() && !rd->error.ok) {
        error = rd->error;
        rd.reset();
        return nullptr;
    }
    return rd.get();
}

reader* read_fetcher::record(const read_location& at, sorvexa::status& error) {
    if (!at.found()) {
        error = sorvexa::status::failure("no such read");
        return nullptr;
    }
    reader* rd = open(static_cast<std::size_t>(at.file), false, error);
    if (rd == nullptr) return nullptr;
    if (!rd->get_record(at.pos)) {
        error = sorvexa::status::failure("the record at " + std::to_string(at.pos) + " of " +
                                         lookup_.sff_names[static_cast<std::size_t>(at.file)] +
                                         " cannot be read");
        return nullptr;
    }
    return rd;
}

void read_fetcher::release() {
    for (auto& rd : readers_)
        if (rd) rd->sff_file.release();
}

void read_fetcher::order_by_file(const std::vector<read_location>& wanted) {
    for (auto& list : by_file_) list.clear();
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (wanted[i].found() && static_cast<std::size_t>(wanted[i].file) < by_file_.size())
            by_file_[static_cast<std::size_t>(wanted[i].file)].push_back(i);
    }
}
