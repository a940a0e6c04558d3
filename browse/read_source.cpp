#include "read_source.h"

#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <thread>

namespace browse {

namespace {

// The index walk's target: each name and position appended, in the order of the walk.
struct entry_list {
    std::vector<read_source::entry>& out;
    std::uint32_t file;
    std::int64_t& operator[](const std::string& name) {
        out.push_back({name, 0, file});
        return out.back().pos;
    }
};

}  // namespace

void from_record(const reader& r, sff_record& out) {
    const sff_read& rd = r.cur_read;
    out = sff_record{};
    out.name.assign(rd.name.begin(),
                    rd.name.begin() + static_cast<std::ptrdiff_t>(
                                          std::min<std::size_t>(rd.name_length, rd.name.size())));
    out.flow_chars.assign(r.header_p2.flow_chars.begin(), r.header_p2.flow_chars.end());
    out.key_length = r.header_p1.key_length;
    out.clip_qual_left = rd.clip_qual_left;
    out.clip_qual_right = rd.clip_qual_right;
    out.clip_adapter_left = rd.clip_adapter_left;
    out.clip_adapter_right = rd.clip_adapter_right;
    out.flowgram.assign(
        rd.flowgram_values.begin(),
        rd.flowgram_values.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(
                                         rd.numOfFlows, rd.flowgram_values.size())));
    // Every base the record holds, through the library's rule for a read's bases and flows:
    // the same record with no clip set keeps them all.
    sff_read whole = rd;
    whole.clip_qual_left = whole.clip_qual_right = 0;
    whole.clip_adapter_left = whole.clip_adapter_right = 0;
    const seqRead all(whole);
    out.bases.assign(all.bases.begin(), all.bases.end());
    out.quality.assign(all.quality_scores.begin(), all.quality_scores.end());
    out.flow_of_base.assign(all.flow_indexes.begin(), all.flow_indexes.end());
    out.kept_first = rd.get_base_start();
    out.kept_last = std::min<int>(rd.get_base_end(), static_cast<int>(out.bases.size()));
}

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
    // Each file is walked by its own reader, one thread per file, straight into a list: a
    // sorted list serves the lookups, and filling it costs less than an ordered map.
    std::vector<std::vector<entry>> walked(paths.size());
    std::vector<std::thread> walks;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        walks.emplace_back([&readers, &walked, i] {
            entry_list list{walked[i], static_cast<std::uint32_t>(i)};
            readers[i]->build_read_index(list);
        });
    }
    for (std::thread& t : walks) t.join();
    readers.clear();

    std::size_t total = 0;
    for (const auto& list : walked) total += list.size();
    entries.reserve(total);
    for (auto& list : walked) {
        std::move(list.begin(), list.end(), std::back_inserter(entries));
        std::vector<entry>().swap(list);
    }
    // By name, then file, then position: a walk only moves forward, so within a file the
    // larger position is the later record. Of one name the first file's entry wins, and
    // within that file the last record of the name. Each file counts the distinct names it
    // holds. (Sorted in place: the list is the largest thing the browser holds.)
    std::sort(entries.begin(), entries.end(), [](const entry& x, const entry& y) {
        if (x.name != y.name) return x.name < y.name;
        return x.file != y.file ? x.file < y.file : x.pos < y.pos;
    });
    std::size_t kept = 0;
    for (std::size_t i = 0; i < entries.size();) {
        std::size_t j = i + 1;
        while (j < entries.size() && entries[j].name == entries[i].name &&
               entries[j].file == entries[i].file)
            ++j;
        ++files[entries[i].file].reads;
        std::size_t next = j;
        while (next < entries.size() && entries[next].name == entries[i].name) {
            const std::uint32_t file = entries[next].file;
            ++files[file].reads;
            while (next < entries.size() && entries[next].name == entries[i].name &&
                   entries[next].file == file)
                ++next;
        }
        if (kept != j - 1) entries[kept] = std::move(entries[j - 1]);
        ++kept;
        i = next;
    }
    entries.resize(kept);
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
    if (!r.get_header() || !r.get_record(e->pos)) return fetch_result::file_changed;
    from_record(r, out);
    out.file = f.path;
    return fetch_result::ok;
}

}  // namespace browse
