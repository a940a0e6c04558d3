// SFF record layouts: decoding, byte order, kept base range, flow runs and text dumps.
#include <sorvexa/sff.h>

#include <algorithm>
#include <cstring>

#include "byte_order.h"

void sff_header_p1::load(const unsigned char* b) {
    std::memcpy(magic_number, b, 4);
    std::memcpy(version, b + 4, 4);
    byte_order::load(index_offset, b + 8);
    byte_order::load(index_length, b + 16);
    byte_order::load(number_of_reads, b + 20);
    byte_order::load(header_length, b + 24);
    byte_order::load(key_length, b + 26);
    byte_order::load(number_of_flows_per_read, b + 28);
    byte_order::load(flowgram_format_code, b + 30);
}

void sff_header_p1::var_endian_swap() {
    byte_order::reverse_all(index_offset, index_length, number_of_reads, header_length, key_length,
                            number_of_flows_per_read);
}

void sff_header_p1::print(std::ostream& out) const {
    out.write(reinterpret_cast<const char*>(magic_number), 4);
    out << '\t';
    for (signed char v : version) out << static_cast<int>(v);
    out << '\t' << index_offset << '\t' << index_length << '\t' << number_of_reads << '\t'
        << header_length << '\t' << key_length << '\t' << number_of_flows_per_read << '\t'
        << static_cast<int>(flowgram_format_code) << std::endl;
}

void sff_header_p2::alloc_space(std::int16_t flow_count, std::int16_t key_len) {
    flow_chars = std::vector<char>(static_cast<std::uint16_t>(flow_count));
    key_sequence = std::vector<char>(static_cast<std::uint16_t>(key_len));
}

void sff_header_p2::print(std::ostream& out, std::int16_t flow_count, std::int16_t key_len) const {
    auto put = [&out](const std::vector<char>& chars, std::int16_t n) {
        if (n > 0) out.write(chars.data(), std::min<std::streamsize>(n, chars.size()));
        out << std::endl;
    };
    put(flow_chars, flow_count);
    put(key_sequence, key_len);
}

sff_read::sff_read()
    : name(1), flowgram_values(1), flow_index_per_base(1), bases(1), quality_scores(1) {}

sff_read::sff_read(std::uint16_t flow_count)
    : numOfFlows(flow_count),
      name(1),
      flowgram_values(flow_count),
      flow_index_per_base(1),
      bases(1),
      quality_scores(1) {}

void sff_read::load_header(const unsigned char* b) {
    byte_order::load(read_header_length, b);
    byte_order::load(name_length, b + 2);
    byte_order::load(number_of_bases, b + 4);
    byte_order::load(clip_qual_left, b + 8);
    byte_order::load(clip_qual_right, b + 10);
    byte_order::load(clip_adapter_left, b + 12);
    byte_order::load(clip_adapter_right, b + 14);
}

void sff_read::set_numOfFlows(std::uint16_t flow_count) {
    numOfFlows = flow_count;
    flowgram_values = std::vector<std::uint16_t>(flow_count);
}

void sff_read::set_read_space() {
    set_read_space(UINT64_MAX);
}

// The buffers keep their storage from record to record; every byte of them is then filled
// from the file (or zeroed where the file ends), so nothing of the previous record remains.
void sff_read::set_read_space(std::uint64_t limit, std::uint64_t base_limit) {
    const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(name_length, limit));
    const auto b =
        static_cast<std::size_t>(std::min<std::uint64_t>({number_of_bases, limit, base_limit}));
    name.resize(n);
    flow_index_per_base.resize(b);
    bases.resize(b);
    quality_scores.resize(b);
}

void sff_read::free_space() {
    name = {};
    flow_index_per_base = {};
    bases = {};
    quality_scores = {};
}

void sff_read::var_endian_swap() {
    byte_order::reverse_all(read_header_length, name_length, number_of_bases, clip_qual_left,
                            clip_qual_right, clip_adapter_left, clip_adapter_right);
}

std::size_t sff_read::bases_held() const {
    return std::min({static_cast<std::size_t>(number_of_bases), flow_index_per_base.size(),
                     bases.size(), quality_scores.size()});
}

// The kept range starts at the larger of the two left clips (0 and 1 both mean the first
// base) and ends at the smaller of the two right clips (0 meaning the last base). Positions
// are 16-bit signed, so clips beyond 32767 wrap.
std::int16_t sff_read::get_base_start() const {
    std::uint16_t left = std::max(clip_qual_left, clip_adapter_left);
    return static_cast<std::int16_t>(left <= 1 ? 1 : left);
}

std::int16_t sff_read::get_base_end() const {
    std::uint32_t a = clip_adapter_right != 0 ? clip_adapter_right : number_of_bases;
    std::uint32_t b = clip_qual_right != 0 ? clip_qual_right : number_of_bases;
    return static_cast<std::int16_t>(std::min(a, b));
}

// A zero increment before any called base has no run to join and is passed over.
void sff_read::map_flow_num(std::vector<std::int16_t>& flow_nums,
                            std::vector<std::int16_t>& run_lengths) const {
    const std::size_t n = std::min<std::size_t>(number_of_bases, flow_index_per_base.size());
    flow_nums.assign(n, 0);
    run_lengths.assign(n, 0);
    std::int16_t flow = -1;
    std::size_t runs = 0;
    for (std::size_t i = 0; i < n; ++i) {
        std::uint8_t v = flow_index_per_base[i];
        if (v != 0) {
            flow = static_cast<std::int16_t>(flow + v);
            flow_nums[runs] = flow;
            run_lengths[runs] = 1;
            ++runs;
        } else if (runs > 0) {
            run_lengths[runs - 1] = static_cast<std::int16_t>(run_lengths[runs - 1] + 1);
        }
    }
}

void sff_read::print_header(std::ostream& out) const {
    out << read_header_length << '\t' << name_length << '\t' << number_of_bases << '\t'
        << clip_qual_left << '\t' << clip_qual_right << '\t' << clip_adapter_left << '\t'
        << clip_adapter_right << std::endl;
}

void sff_read::print_read(std::ostream& out) const {
    out.write(name.data(),
              static_cast<std::streamsize>(std::min<std::size_t>(name_length, name.size())));
    out << std::endl;
    const std::size_t flows = std::min<std::size_t>(numOfFlows, flowgram_values.size());
    for (std::size_t k = 0; k < flows; ++k) out << flowgram_values[k] << '\t';
    out << std::endl;
    const std::size_t n = bases_held();
    for (std::size_t k = 0; k < n; ++k)
        out << static_cast<unsigned>(flow_index_per_base[k]) << '\t';
    out << std::endl;
    out.write(bases.data(), static_cast<std::streamsize>(n));
    out << std::endl;
    for (std::size_t k = 0; k < n; ++k) out << static_cast<unsigned>(quality_scores[k]) << '\t';
    out << std::endl;
}
