#include "sff_builder.h"

#include <algorithm>
#include <fstream>

namespace fixture {

namespace {

// Big-endian unless `little`; fixed widths keep the layout independent of the host.
void put(std::string& out, std::uint64_t value, int width, bool little) {
    for (int i = 0; i < width; ++i) {
        const int shift = little ? 8 * i : 8 * (width - 1 - i);
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

std::size_t round_up8(std::size_t n) {
    return (n + 7) / 8 * 8;
}

std::size_t read_header_size(const sff_read_layout& read) {
    return read.read_header_length != 0 ? read.read_header_length
                                        : round_up8(16 + read.name.size());
}

std::size_t read_data_size(const sff_read_layout& read) {
    return 2 * read.flowgram.size() + read.flow_index_per_base.size() + read.bases.size() +
           read.quality.size();
}

// ASCII only and locale-free: this runs for every flow of every generated read.
char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Calls `call(base, flow, increment)` for each base that the flows can call, in order, with
// increment 0 for a base that continues the run before it; returns the number of such bases.
template <typename Call>
std::size_t walk_flows(std::string_view bases, std::string_view flows, Call call) {
    std::size_t flow = 0;  // flow of the current run
    bool started = false;
    for (std::size_t i = 0; i < bases.size(); ++i) {
        const char b = upper(bases[i]);
        if (started && b == upper(bases[i - 1])) {
            call(i, flow, 0u);
            continue;
        }
        std::size_t f = started ? flow + 1 : 0;
        while (f < flows.size() && upper(flows[f]) != b) ++f;
        // The first base's increment is its 1-based flow number.
        const std::size_t increment = started ? f - flow : f + 1;
        if (f == flows.size() || increment > 255) return i;
        call(i, f, static_cast<unsigned>(increment));
        flow = f;
        started = true;
    }
    return bases.size();
}

using noise_source = splitmix64;

// A value below n from 16 random bits; multiplication is much cheaper than division here.
std::uint32_t scale16(std::uint64_t bits, std::uint32_t n) {
    return static_cast<std::uint32_t>(((bits & 0xFFFF) * n) >> 16);
}

}  // namespace

std::string tacg_flows(std::size_t count) {
    std::string flows(count, 'T');
    for (std::size_t i = 0; i < count; ++i) flows[i] = "TACG"[i % 4];
    return flows;
}

std::string build_sff_header(const sff_file_layout& file) {
    const bool le = file.little_endian;
    const std::string flows =
        file.flow_chars ? *file.flow_chars : tacg_flows(file.number_of_flows_per_read);
    const std::array<unsigned char, 4> magic =
        file.magic ? *file.magic
                   : (le ? std::array<unsigned char, 4>{0x66, 0x66, 0x73, 0x2E}
                         : std::array<unsigned char, 4>{0x2E, 0x73, 0x66, 0x66});
    const std::size_t header_length = file.header_length != 0
                                          ? file.header_length
                                          : round_up8(31 + flows.size() + file.key_sequence.size());

    std::string out;
    out.reserve(std::max<std::size_t>(header_length, 31 + flows.size() + file.key_sequence.size()));
    for (unsigned char c : magic) out.push_back(static_cast<char>(c));
    for (signed char c : file.version) out.push_back(static_cast<char>(c));
    put(out, file.index_offset, 8, le);
    put(out, file.index_length, 4, le);
    put(out, file.number_of_reads.value_or(static_cast<std::uint32_t>(file.reads.size())), 4, le);
    put(out, header_length, 2, le);
    put(out, file.key_length.value_or(static_cast<std::uint16_t>(file.key_sequence.size())), 2, le);
    put(out, file.number_of_flows_per_read, 2, le);
    out.push_back(static_cast<char>(file.flowgram_format_code));
    out += flows;
    out += file.key_sequence;
    // A header_length shorter than its contents is kept as a deliberately broken header.
    if (out.size() < header_length) out.append(header_length - out.size(), '\0');
    return out;
}

std::size_t sff_read_size(const sff_read_layout& read) {
    const std::size_t head = std::max(read_header_size(read), 16 + read.name.size());
    return head + round_up8(read_data_size(read));
}

void append_sff_read(std::string& out, const sff_read_layout& read, bool le) {
    const std::size_t begin = out.size();
    const std::size_t head = read_header_size(read);
    put(out, head, 2, le);
    put(out, read.name_length.value_or(static_cast<std::uint16_t>(read.name.size())), 2, le);
    put(out, read.number_of_bases.value_or(static_cast<std::uint32_t>(read.bases.size())), 4, le);
    put(out, read.clip_qual_left, 2, le);
    put(out, read.clip_qual_right, 2, le);
    put(out, read.clip_adapter_left, 2, le);
    put(out, read.clip_adapter_right, 2, le);
    out += read.name;
    if (out.size() - begin < head) {
        out.append(head - (out.size() - begin), static_cast<char>(read.header_pad_byte));
    }

    const std::size_t data_begin = out.size();
    for (std::uint16_t v : read.flowgram) put(out, v, 2, le);
    out.append(read.flow_index_per_base.begin(), read.flow_index_per_base.end());
    out += read.bases;
    out.append(read.quality.begin(), read.quality.end());
    // The read data is padded to a multiple of 8 bytes counted from its own start.
    const std::size_t data = out.size() - data_begin;
    out.append(round_up8(data) - data, static_cast<char>(read.data_pad_byte));
}

std::string build_sff(const sff_file_layout& file) {
    std::string out = build_sff_header(file);
    for (const sff_read_layout& read : file.reads) append_sff_read(out, read, file.little_endian);
    out += file.trailing_bytes;
    return out;
}

bool write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return static_cast<bool>(out);
}

std::size_t fitting_bases(std::string_view bases, std::string_view flow_chars) {
    return walk_flows(bases, flow_chars, [](std::size_t, std::size_t, unsigned) {});
}

sff_read_layout make_read(std::string name, std::string bases, std::string_view flow_chars,
                          std::vector<std::uint8_t> quality, std::uint64_t seed) {
    sff_read_layout read;
    read.name = std::move(name);

    std::vector<std::uint16_t> run_length(flow_chars.size(), 0);
    std::vector<std::uint8_t> increments;
    increments.reserve(bases.size());
    const std::size_t called =
        walk_flows(bases, flow_chars, [&](std::size_t, std::size_t flow, unsigned increment) {
            ++run_length[flow];
            increments.push_back(static_cast<std::uint8_t>(increment));
        });
    bases.resize(called);
    quality.resize(called, 30);

    noise_source noise{seed};
    read.flowgram.resize(flow_chars.size());
    for (std::size_t f = 0; f < flow_chars.size(); ++f) {
        const std::uint64_t r = noise.next();
        // Both candidates are computed and one is picked: whether a flow was called is
        // unpredictable, and a branch on it costs more than the arithmetic.
        const std::uint32_t run = run_length[f];
        // Longer runs are measured less precisely, but never so badly that the signal rounds
        // to a neighbouring run length.
        const std::uint32_t spread = std::min<std::uint32_t>(20 + 6u * run, 49);
        const std::uint32_t called =
            100u * run + scale16(r, spread + 1) + scale16(r >> 16, spread + 1) - spread;
        // Mostly small; now and then some cross-talk from neighbouring wells.
        const std::uint32_t quiet = scale16(r >> 32, 64) == 0
                                        ? 30 + scale16(r >> 48, 16)
                                        : scale16(r >> 16, 16) + scale16(r >> 48, 20);
        const std::uint32_t value = run > 0 ? called : quiet;
        read.flowgram[f] = static_cast<std::uint16_t>(std::min<std::uint32_t>(value, 0xFFFF));
    }

    read.flow_index_per_base = std::move(increments);
    read.bases = std::move(bases);
    read.quality = std::move(quality);
    return read;
}

}  // namespace fixture
