// Every access of the browser to the SFF files: the read index built at start-up and the
// fetch of one read record. A reader is opened for each fetch (readers are not shared
// between threads), after checking that the file is still the one indexed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <sorvexa/sff.h>

namespace browse {

// One read record as the read page shows it.
struct sff_record {
    std::string file;  // the SFF file it came from
    std::string name;
    std::string flow_chars;  // the file's flow order, one letter per flow
    int key_length = 0;
    std::uint16_t clip_qual_left = 0, clip_qual_right = 0;
    std::uint16_t clip_adapter_left = 0, clip_adapter_right = 0;
    int kept_first = 0, kept_last = 0;       // 1-based kept bases (first > last: none)
    std::vector<std::uint16_t> flowgram;     // every flow, in hundredths
    std::string bases;                       // every base of the record
    std::vector<std::uint8_t> quality;       // per base
    std::vector<std::int32_t> flow_of_base;  // 0-based flow that called each base
};

// The record `r` last read (cur_read), every base of it, with the kept range and the flow of
// each base as the library's reads have them.
void from_record(const reader& r, sff_record& out);

// The identity of a file when it was indexed; a fetch from a file that no longer matches
// is refused rather than read.
struct file_stamp {
    std::uint64_t device = 0, inode = 0;
    std::int64_t size = 0, mtime_ns = 0;
    bool operator==(const file_stamp&) const = default;
};
bool stamp_of(const std::string& path, file_stamp& out);

class read_source {
  public:
    struct sff_file {
        std::string path;
        file_stamp stamp;
        std::size_t reads = 0;  // names indexed in this file
    };
    // One read name: the first file (in the order given) that holds it, and the record's
    // byte offset there. Sorted by name.
    struct entry {
        std::string name;
        std::int64_t pos;
        std::uint32_t file;
    };
    std::vector<sff_file> files;
    std::vector<entry> entries;

    // Opens every file and reads its header first, in the order given (a file that cannot be
    // opened or is no SFF file ends the process with the reader's message), then indexes the
    // files side by side.
    explicit read_source(const std::vector<std::string>& paths);

    const entry* find(std::string_view name) const;
    // The index of the file that holds `name`, or -1.
    int file_of(std::string_view name) const;
    std::size_t indexed_reads() const { return entries.size(); }

    enum class fetch_result { ok, unknown, file_changed };
    fetch_result fetch(std::string_view name, sff_record& out) const;
};

}  // namespace browse
