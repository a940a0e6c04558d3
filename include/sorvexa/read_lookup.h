// Finding the SFF record of a read by name across several SFF files, and fetching records.
// One index per file, built by walking the file once; the first file named that holds a name
// serves it, and within a file the last record of a name. Every program looks reads up here,
// and fetches them through one read_fetcher, which keeps a reader open per file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <sorvexa/name_table.h>
#include <sorvexa/sff.h>
#include <sorvexa/status.h>

// The identity of a file when it was indexed: a fetch from a file that no longer matches is
// refused rather than read from a different file under the same name.
struct file_stamp {
    std::uint64_t device = 0, inode = 0;
    std::int64_t size = 0, mtime_ns = 0;
    bool operator==(const file_stamp&) const = default;
};
bool stamp_of(const std::string& path, file_stamp& out);

// Where a read's record lies: the file's number in the lookup and the record's byte offset.
struct read_location {
    int file = -1;
    std::int64_t pos = 0;
    bool found() const { return file >= 0; }
};

class read_lookup {
  public:
    using name_map = name_table;

    std::vector<std::string> sff_names;
    std::vector<file_stamp> stamps;      // each file as it was indexed
    std::vector<sff_header_p1> headers;  // each file's fixed header, in host byte order
    std::vector<std::string> flow_chars; // each file's flow order
    std::vector<std::string> keys;       // each file's key sequence
    // Runs only look names up, so a compact hash table serves in place of the ordered
    // read_index; the contents are the same.
    std::vector<name_map> indexes;

    // Options, set before index_files.
    // Step over the file's own index block where the header says it stands among the reads,
    // rather than reading it as records.
    bool skip_index_block = false;
    // Walk the files side by side, one thread each (diagnostics then come in no fixed order).
    bool parallel = false;
    // Where the walks' diagnostics go (none by default).
    sorvexa::diagnostic_sink diagnostics;

    // Opens every file and reads its header, in the order given, then indexes them. A file
    // that cannot be opened or is not SFF fails with the reader's message; a walk cut short by
    // the end of its file keeps the names read before.
    sorvexa::status index_files(const std::vector<std::string>& names);
    // The number of the first file whose index holds `name`, with the record's position in
    // `pos`; -1 when no file holds it.
    int find(const std::string& name, std::int64_t& pos) const;
    read_location locate(const std::string& name) const;
    // Distinct names over every file (a name in two files counted once).
    std::size_t size() const { return distinct_; }
    // Whether file k is still the file that was indexed.
    bool unchanged(std::size_t k) const;

  private:
    void count_distinct();
    std::size_t distinct_ = 0;
};

// Fetches records for a lookup, keeping one reader open per file across calls. Not for use
// by two threads at once: give each thread its own.
class read_fetcher {
  public:
    explicit read_fetcher(const read_lookup& lookup);
    ~read_fetcher();
    read_fetcher(const read_fetcher&) = delete;
    read_fetcher& operator=(const read_fetcher&) = delete;

    // Options.
    // Refuse to read from a file that changed since it was indexed (the fetch fails).
    bool check_stamps = false;
    sorvexa::diagnostic_sink diagnostics;

    // The reader of file k, positioned for fetching: opened on first use, its error state
    // cleared and its header read again on every call, as a freshly opened reader would be.
    // Null, with `error` set, when the file cannot be opened, is no SFF file or has changed.
    reader* open(std::size_t k, sorvexa::status& error);

    // Frees what its readers gathered for long sequential reads (read-ahead threads and
    // large buffers), keeping the files open: for a fetcher that waits between requests.
    void release();

    // Reads the whole record at `at` into the file's reader (reader::get_record) and returns
    // the reader; null when the file fails as for open or the record cannot be read. The
    // header is read once, when the file is first opened.
    reader* record(const read_location& at, sorvexa::status& error);

    // Fetches every wanted record, file by file in the lookup's order and, within a file, in
    // the order given; f(index into wanted, reader&) sees each with the record in cur_read.
    // `whole` reads every per-base value (get_record); otherwise only what a read's kept bases
    // need (get_read's pass). Wanted entries that are not found are passed over. f also gets
    // whether the fetch read the record: one from a stream that failed earlier in the same
    // call leaves cur_read empty with a zero flowgram (reader::get_read), and is still
    // passed. An f that returns bool stops the fetch by returning false.
    template <class F>
    sorvexa::status fetch(const std::vector<read_location>& wanted, bool whole, F f) {
        order_by_file(wanted);
        for (std::size_t k = 0; k < by_file_.size(); ++k) {
            if (by_file_[k].empty()) continue;
            sorvexa::status st;
            reader* rd = open(k, st);
            if (rd == nullptr) return st;
            for (std::size_t i : by_file_[k]) {
                const bool read =
                    whole ? rd->get_record(wanted[i].pos) : rd->get_kept(wanted[i].pos);
                if constexpr (std::is_same_v<decltype(f(i, *rd, read)), bool>) {
                    if (!f(i, *rd, read)) return {};
                } else {
                    f(i, *rd, read);
                }
            }
        }
        return {};
    }

  private:
    reader* open(std::size_t k, bool fresh, sorvexa::status& error);
    void order_by_file(const std::vector<read_location>& wanted);
    const read_lookup& lookup_;
    std::vector<std::unique_ptr<reader>> readers_;
    std::vector<std::vector<std::size_t>> by_file_;
};
