// The one SFF record decoder: the index walk, the sequential read and the positioned fetch
// all read a record here, differing only in their record_pass.
#include <algorithm>

#include "byte_order.h"
#include <sorvexa/sff.h>

namespace {

// The read data is padded to a multiple of 8 bytes, counted from its own start.
std::int64_t padding(std::int64_t data) {
    return data % 8 == 0 ? 0 : 8 - data % 8;
}

// A skip that would move backwards (a read header length below 16 plus the name) is not
// made: the reader never steps back into the record it is reading.
std::int64_t forward(std::int64_t skip) {
    return skip > 0 ? skip : 0;
}

}  // namespace

// Reads one record from the current position. False, with nothing read, when a walk has
// reached number_of_reads or the end of the file, or when its fixed part is cut short.
bool reader::decode_record(const record_pass& pass, std::int64_t& pos, std::string* key) {
    if (pass.walk) {
        if (reads_done >= header_p1.number_of_reads) return false;
        if (skip_index_block) step_over_index_block();
        if (sff_file.eof()) {
            if (diagnostics)
                diagnostics(sorvexa::stream::err, "reach end of file while read more data");
            return false;
        }
    }
    pos = sff_file.tell();
    unsigned char fixed[sff_read::header_size];
    if (pass.walk) {
        if (!read_fixed(fixed, sizeof fixed)) return false;
    } else {
        sff_file.read(fixed, sizeof fixed);  // a fetch reads on, into zeros
    }
    cur_read.load_header(fixed);
    if (swap_bytes) cur_read.var_endian_swap();

    const std::int64_t data = 3 * static_cast<std::int64_t>(cur_read.number_of_bases) +
                              2 * static_cast<std::int64_t>(cur_read.numOfFlows);
    const std::int64_t pad = pass.walk ? padding(data) : 0;
    if (pass.read_data) {
        read_name_and_data(pass);
        sff_file.seek_relative(pad);
    } else {
        // The key ends at the first NUL byte of the name.
        key->resize(cur_read.name_length);
        sff_file.read(key->data(), key->size());
        key->resize(
            static_cast<std::size_t>(std::find(key->begin(), key->end(), '\0') - key->begin()));
        const std::int64_t rest =
            static_cast<std::int64_t>(cur_read.read_header_length) - cur_read.name_length - 16;
        sff_file.seek_relative(forward(rest) + data + pad);
    }
    if (pass.walk) ++reads_done;
    return true;
}

// The block starts at index_offset and is padded to a multiple of 8 bytes like a record.
void reader::step_over_index_block() {
    const std::uint64_t at = header_p1.index_offset;
    if (header_p1.index_length == 0 || at > static_cast<std::uint64_t>(INT64_MAX)) return;
    if (sff_file.tell() != static_cast<std::int64_t>(at)) return;
    std::uint64_t end = at + header_p1.index_length;
    end += (8 - end % 8) % 8;
    if (end > static_cast<std::uint64_t>(INT64_MAX)) return;
    sff_file.seek(static_cast<std::int64_t>(end));
}

// The name, the read header's padding and the read data. The buffers are bounded by the
// bytes left in the file, so a corrupt count cannot make them larger than the file, and for
// a fetch by what the kept range reaches; what a short read does not reach is zero.
void reader::read_name_and_data(const record_pass& pass) {
    cur_read.set_read_space(static_cast<std::uint64_t>(sff_file.bytes_left()),
                            pass.kept_only ? seqRead::bases_used(cur_read) : UINT64_MAX);
    sff_file.read(cur_read.name.data(), cur_read.name.size(), cur_read.name_length);
    sff_file.seek_relative(forward(
        static_cast<std::int16_t>(cur_read.read_header_length - cur_read.name_length - 16)));

    auto& flows = cur_read.flowgram_values;
    sff_file.read(flows.data(), flows.size() * 2,
                  2 * static_cast<std::size_t>(cur_read.numOfFlows));
    const std::size_t b = cur_read.number_of_bases;
    sff_file.read(cur_read.flow_index_per_base.data(), cur_read.flow_index_per_base.size(), b);
    sff_file.read(cur_read.bases.data(), cur_read.bases.size(), b);
    sff_file.read(cur_read.quality_scores.data(), cur_read.quality_scores.size(), b);
    if (swap_bytes) byte_order::reverse_each(flows);
}
