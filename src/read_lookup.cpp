#include <sorvexa/read_lookup.h>

#include <algorithm>
#include <filesystem>

#include <sorvexa/sff.h>

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

void read_lookup::index_files(const std::vector<std::string>& names) {
    sff_names = names;
    for (std::size_t k = 0; k < sff_names.size(); ++k) indexes.emplace_back(&node_memory);
    for (std::size_t k = 0; k < sff_names.size(); ++k) {
        reader rd(sff_names[k]);
        rd.get_header();
        indexes[k].reserve(records_that_fit(rd, sff_names[k]));
        rd.build_read_index(indexes[k]);
    }
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
