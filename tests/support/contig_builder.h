// Small contigs assembled in code, the way the ACE reader would leave them, for the tests of
// the layout, flow-space and drawing operations.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <sorvexa/contig.h>

namespace fixture {

inline std::vector<char> chars(std::string_view text) {
    return {text.begin(), text.end()};
}

// Places a read at `start` with the given length; the sequence may differ from it in size.
inline void add_read(contig& c, const std::string& name, std::int32_t start, std::int16_t length,
                     std::string_view sequence = {}) {
    c.reads[name] = {.name = name, .start = start, .length = length, .sequence = chars(sequence)};
    c.num_reads = static_cast<std::int32_t>(c.reads.size());
}

struct placed_read {
    std::string name;
    std::int32_t start;
    std::string sequence;  // its length is the read's length
};

// A contig with the given padded consensus and reads; num_bases is the consensus length.
inline contig make_contig(std::string_view consensus, const std::vector<placed_read>& reads = {}) {
    contig c;
    c.name = "Contig1";
    c.consensus = chars(consensus);
    c.num_bases = static_cast<std::int32_t>(consensus.size());
    for (const placed_read& r : reads)
        add_read(c, r.name, r.start, static_cast<std::int16_t>(r.sequence.size()), r.sequence);
    return c;
}

}  // namespace fixture
