// Flowgrams in SAM, BAM and CRAM records: the FZ tag holds a read's flow values in
// hundredths (B:S, the whole flowgram, on the read's original strand), ZF the zero-based flow
// of its first stored base on that strand (i), and the read group's FO and KS fields the flow
// order and the key. Part of the htslib side of the library (Sorvexa::hts).
#pragma once

#include <htslib/sam.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// A read group's flows, as its header line gives them.
struct read_group_flows {
    std::string id;
    std::string flow_chars;  // FO, upper case; empty when the group has none
    std::string key;         // KS
};

// Every @RG line of the header, in header order.
std::vector<read_group_flows> read_groups(const sam_hdr_t* header);

// The record's FZ values; false (and `out` empty) when it has no FZ tag of unsigned 16-bit
// values.
bool record_flowgram(const bam1_t* record, std::vector<std::uint16_t>& out);
// The record's ZF, or -1 when it has none or it is not a non-negative integer.
std::int32_t record_first_flow(const bam1_t* record);
// Sets FZ and ZF on the record; false when htslib cannot grow it.
bool set_record_flows(bam1_t* record, std::span<const std::uint16_t> flowgram,
                      std::int32_t first_flow);
// Appends FZ and, unless `first_flow` is negative, ZF to a record that has neither, without
// looking for them first: the same tags as set_record_flows (ZF in the smallest integer type
// that holds it, as htslib chooses), for a writer that builds each record afresh. Writes in
// place when the record has room (bam_set1's l_aux can reserve it:
// record_flows_size(flowgram.size()) bytes); false when htslib cannot grow it.
bool append_record_flows(bam1_t* record, std::span<const std::uint16_t> flowgram,
                         std::int32_t first_flow);
// The bytes append_record_flows adds for a flowgram of `flows` values, ZF included.
inline constexpr std::size_t record_flows_size(std::size_t flows) {
    return 3 + 1 + 4 + 2 * flows + 3 + 4;
}
