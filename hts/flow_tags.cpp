#include <sorvexa/flow_tags.h>

#include <htslib/hts_endian.h>

#include <cctype>
#include <cstring>
#include <limits>

namespace {

// The value of field `tag` of the header line `line` (tab-separated TAG:value fields).
std::string field(const std::string& line, const char tag[2]) {
    std::size_t at = 0;
    while ((at = line.find('\t', at)) != std::string::npos) {
        ++at;
        if (line.compare(at, 2, tag, 2) == 0 && at + 2 < line.size() && line[at + 2] == ':') {
            const std::size_t end = line.find('\t', at + 3);
            return line.substr(at + 3, end == std::string::npos ? std::string::npos : end - at - 3);
        }
    }
    return {};
}

}  // namespace

std::vector<read_group_flows> read_groups(const sam_hdr_t* header) {
    std::vector<read_group_flows> out;
    // htslib's header API wants a non-const header for its lookups (it may parse lazily).
    auto* h = const_cast<sam_hdr_t*>(header);
    const int n = sam_hdr_count_lines(h, "RG");
    kstring_t line = KS_INITIALIZE;
    for (int i = 0; i < n; ++i) {
        if (sam_hdr_find_line_pos(h, "RG", i, &line) != 0) continue;
        const std::string text(line.s ? line.s : "", line.l);
        read_group_flows g;
        g.id = field(text, "ID");
        g.flow_chars = field(text, "FO");
        for (char& c : g.flow_chars)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        g.key = field(text, "KS");
        out.push_back(std::move(g));
    }
    ks_free(&line);
    return out;
}

bool record_flowgram(const bam1_t* record, std::vector<std::uint16_t>& out) {
    out.clear();
    const std::uint8_t* fz = bam_aux_get(record, "FZ");
    if (fz == nullptr || fz[0] != 'B' || fz[1] != 'S') return false;
    const std::uint32_t n = bam_auxB_len(fz);
    out.resize(n);
    // The values stand little-endian after the type and the count: read directly, since
    // bam_auxB2i checks the type of every value again and costs as much as the tie itself.
    const std::uint8_t* v = fz + 6;
    for (std::uint32_t i = 0; i < n; ++i)
        out[i] = static_cast<std::uint16_t>(v[2 * i] | v[2 * i + 1] << 8);  // maybe unaligned
    return true;
}

std::int32_t record_first_flow(const bam1_t* record) {
    const std::uint8_t* zf = bam_aux_get(record, "ZF");
    if (zf == nullptr) return -1;
    const char type = static_cast<char>(zf[0]);
    if (std::strchr("cCsSiI", type) == nullptr) return -1;
    const std::int64_t v = bam_aux2i(zf);
    return v < 0 || v > std::numeric_limits<std::int32_t>::max() ? -1
                                                                 : static_cast<std::int32_t>(v);
}

bool set_record_flows(bam1_t* record, std::span<const std::uint16_t> flowgram,
                      std::int32_t first_flow) {
    if (bam_aux_update_array(record, "FZ", 'S', static_cast<std::uint32_t>(flowgram.size()),
                             const_cast<std::uint16_t*>(flowgram.data())) != 0)
        return false;
    return bam_aux_update_int(record, "ZF", first_flow) == 0;
}

bool append_record_flows(bam1_t* record, std::span<const std::uint16_t> flowgram,
                         std::int32_t first_flow) {
    const auto n = static_cast<std::uint32_t>(flowgram.size());
    const std::size_t need = record_flows_size(flowgram.size());
    if (record->l_data < 0 || record->m_data < static_cast<std::size_t>(record->l_data) + need) {
        // No room reserved: htslib's own appends, which grow the record.
        if (bam_aux_update_array(record, "FZ", 'S', n, const_cast<std::uint16_t*>(flowgram.data())) != 0)
            return false;
        return first_flow < 0 || bam_aux_update_int(record, "ZF", first_flow) == 0;
    }
    std::uint8_t* p = record->data + record->l_data;
    *p++ = 'F';
    *p++ = 'Z';
    *p++ = 'B';
    *p++ = 'S';
    u32_to_le(n, p);
    p += 4;
    for (std::uint16_t v : flowgram) {
        u16_to_le(v, p);
        p += 2;
    }
    if (first_flow >= 0) {
        *p++ = 'Z';
        *p++ = 'F';
        const auto v = static_cast<std::uint32_t>(first_flow);
        if (v <= std::numeric_limits<std::uint8_t>::max()) {
            *p++ = 'C';
            *p++ = static_cast<std::uint8_t>(v);
        } else if (v <= std::numeric_limits<std::uint16_t>::max()) {
            *p++ = 'S';
            u16_to_le(static_cast<std::uint16_t>(v), p);
            p += 2;
        } else {
            *p++ = 'I';
            u32_to_le(v, p);
            p += 4;
        }
    }
    record->l_data = static_cast<int>(p - record->data);
    return true;
}
