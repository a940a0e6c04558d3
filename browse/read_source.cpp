#include "read_source.h"

#include <sys/stat.h>

#include <algorithm>

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
    files.reserve(paths.size());
    for (const std::string& path : paths) {
        sff_file f;
        f.path = path;
        reader r(path);  // ends the process when the file cannot be opened
        r.build_read_index(f.index);
        stamp_of(path, f.stamp);
        files.push_back(std::move(f));
    }
}

int read_source::file_of(const std::string& name) const {
    for (std::size_t i = 0; i < files.size(); ++i)
        if (files[i].index.count(name) != 0) return static_cast<int>(i);
    return -1;
}

std::size_t read_source::indexed_reads() const {
    std::size_t n = 0;
    for (const sff_file& f : files) n += f.index.size();
    return n;
}

read_source::fetch_result read_source::fetch(const std::string& name, sff_record& out) const {
    const int k = file_of(name);
    if (k < 0) return fetch_result::unknown;
    const sff_file& f = files[static_cast<std::size_t>(k)];
    file_stamp now;
    if (!stamp_of(f.path, now) || !(now == f.stamp)) return fetch_result::file_changed;

    reader r(f.path);
    if (!r.get_header()) return fetch_result::file_changed;
    seqRead kept;
    r.get_read(f.index.at(name), kept);

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
