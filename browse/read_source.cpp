#include "read_source.h"

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <thread>

namespace browse {

bool stamp_of(const std::string& path, file_stamp& out) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return false;
    out.device = st.st_dev;
    out.inode = st.st_ino;
    out.size = st.st_size;
    out.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    return true;
}

read_source::read_source(const std::vector<std::string>& paths) {
    std::vector<std::unique_ptr<reader>> readers;
    for (const std::string& path : paths) {
        readers.push_back(std::make_unique<reader>(path));  // ends the process when unopenable
        readers.back()->get_header();                       // ... or when no SFF file
        files.push_back({path, {}, 0});
        stamp_of(path, files.back().stamp);
    }
    // Each file is walked by its own reader, one thread per file.
    std::vector<read_index> indexes(paths.size());
    std::vector<std::thread> walks;
    for (std::size_t i = 0; i < paths.size(); ++i)
        walks.emplace_back([&readers, &indexes, i] { readers[i]->build_read_index(indexes[i]); });
    for (std::thread& t : walks) t.join();
    readers.clear();

    // One sorted list from the sorted indexes; of equal names the earliest file's is kept.
    std::size_t total = 0;
    for (std::size_t i = 0; i < indexes.size(); ++i) {
        files[i].reads = indexes[i].size();
        total += indexes[i].size();
    }
    entries.reserve(total);
    std::vector<read_index::iterator> at;
    for (read_index& index : indexes) at.push_back(index.begin());
    for (;;) {
        std::size_t best = indexes.size();
        for (std::size_t i = 0; i < indexes.size(); ++i)
            if (at[i] != indexes[i].end() &&
                (best == indexes.size() || at[i]->first < at[best]->first))
                best = i;
        if (best == indexes.size()) break;
        const std::string& name = at[best]->first;
        if (entries.empty() || entries.back().name != name)
            entries.push_back({name, at[best]->second, static_cast<std::uint32_t>(best)});
        ++at[best];
    }
    entries.shrink_to_fit();
}

const read_source::entry* read_source::find(std::string_view name) const {
    auto it = std::lower_bound(
        entries.begin(), entries.end(), name,
        [](const entry& e, std::string_view n) { return std::string_view(e.name) < n; });
    return it != entries.end() && it->name == name ? &*it : nullptr;
}

int read_source::file_of(std::string_view name) const {
    const entry* e = find(name);
    return e == nullptr ? -1 : static_cast<int>(e->file);
}

read_source::fetch_result read_source::fetch(std::string_view name, sff_record& out) const {
    const entry* e = find(name);
    if (e == nullptr) return fetch_result::unknown;
    const sff_file& f = files[e->file];
    file_stamp now;
    if (!stamp_of(f.path, now) || !(now == f.stamp)) return fetch_result::file_changed;

    reader r(f.path);
    if (!r.get_header()) return fetch_result::file_changed;
    seqRead kept;
    r.get_read(e->pos, kept);

    const sff_read& rd = r.cur_read;
    out = sff_record{};
    out.file = f.path;
    out.name.assign(rd.name.begin(), rd.name.end());
    out.flow_chars.assign(r.header_p2.flow_chars.begin(), r.header_p2.flow_chars.end());
    out.key_length = r.header_p1.key_length;
    out.clip_qual_left = rd.clip_qual_left;
    out.clip_qual_right = rd.clip_qual_right;
    out.clip_adapter_left = rd.clip_adapter_left;
    out.clip_adapter_right = rd.clip_adapter_right;
    out.flowgram.assign(rd.flowgram_values.begin(),
                        rd.flowgram_values.begin() +
                            std::min<std::size_t>(rd.numOfFlows, rd.flowgram_values.size()));
    const std::size_t n = std::min({static_cast<std::size_t>(rd.number_of_bases), rd.bases.size(),
                                    rd.quality_scores.size(), rd.flow_index_per_base.size()});
    out.bases.assign(rd.bases.begin(), rd.bases.begin() + static_cast<std::ptrdiff_t>(n));
    out.quality.assign(rd.quality_scores.begin(),
                       rd.quality_scores.begin() + static_cast<std::ptrdiff_t>(n));
    std::int32_t flow = -1;
    for (std::size_t i = 0; i < n; ++i) {
        flow += rd.flow_index_per_base[i];
        out.flow_of_base.push_back(flow);
    }
    // The kept bases lie between the larger left clip and the smaller right clip; a clip of 0
    // is not set.
    const int bases = static_cast<int>(rd.number_of_bases);
    out.kept_first = std::max({1, int{rd.clip_qual_left}, int{rd.clip_adapter_left}});
    out.kept_last = std::min({rd.clip_qual_right != 0 ? int{rd.clip_qual_right} : bases,
                              rd.clip_adapter_right != 0 ? int{rd.clip_adapter_right} : bases,
                              static_cast<int>(n)});
    return fetch_result::ok;
}

}  // namespace browse
