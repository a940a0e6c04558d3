// Finding the SFF record of a read by name across several SFF files: one index per file,
// built by walking the file once; the first file named that holds a name serves it.
#pragma once

#include <cstdint>
#include <memory_resource>
#include <string>
#include <unordered_map>
#include <vector>

class read_lookup {
  public:
    std::vector<std::string> sff_names;
    // Runs only look names up, so a hash map serves in place of the ordered read_index; the
    // contents are the same. The indexes live as long as the lookup, so their nodes come
    // from one growing buffer, packed in file order, with no allocation of their own.
    std::pmr::monotonic_buffer_resource node_memory;
    std::vector<std::pmr::unordered_map<std::string, std::int64_t>> indexes;

    // Indexes each file in turn; a file that cannot be opened or is not SFF ends the process
    // with the reader's message.
    void index_files(const std::vector<std::string>& names);
    // The number of the first file whose index holds `name`, with the record's position in
    // `pos`; -1 when no file holds it.
    int find(const std::string& name, std::int64_t& pos) const;
};
