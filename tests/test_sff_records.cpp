// SFF record classes: decoding from file byte order, kept base range, flow runs and the text
// dumps.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "byte_order.h"
#include <sorvexa/sff.h>
#include "sff_builder.h"

namespace {

const unsigned char kReadHeader[16] = {0x00, 0x20, 0x00, 0x0E, 0x00, 0x00, 0x01, 0x0A,
                                       0x00, 0x05, 0x00, 0xF0, 0x00, 0x00, 0x00, 0x00};

template <class Record>
std::string header_line(const Record& record) {
    std::ostringstream out;
    if constexpr (std::is_same_v<Record, sff_read>)
        record.print_header(out);
    else
        record.print(out);
    return out.str();
}

TEST(SffRecords, ReadHeaderFromBigEndianBytes) {
    sff_read r;
    r.load_header(kReadHeader);
    r.var_endian_swap();
    EXPECT_EQ(header_line(r), "32\t14\t266\t5\t240\t0\t0\n");
}

// Big-endian only: the reader tests read whole files in both byte orders.
TEST(SffRecords, CommonHeaderFromBigEndianBytes) {
    fixture::sff_file_layout layout;
    layout.index_offset = 0x0102030405060708ULL;
    layout.index_length = 0x0A0B0C0D;
    layout.number_of_reads = 70000;
    layout.number_of_flows_per_read = 300;
    layout.flowgram_format_code = -2;
    sff_header_p1 h;
    h.load(reinterpret_cast<const unsigned char*>(fixture::build_sff_header(layout).data()));
    h.var_endian_swap();
    EXPECT_EQ(header_line(h), ".sff\t0001\t72623859790382856\t168496141\t70000\t336\t4\t300\t-2\n");
}

// Flowgrams of every length around the four-values-a-step swap: each value turned once,
// the tail included.
TEST(SffRecords, FlowgramByteSwapEveryLength) {
    for (std::size_t n = 0; n <= 9; ++n) {
        std::vector<std::uint16_t> values(n), expected(n);
        for (std::size_t k = 0; k < n; ++k) {
            values[k] = static_cast<std::uint16_t>(0x0102 + 0x0202 * k);
            expected[k] = static_cast<std::uint16_t>(0x0201 + 0x0202 * k);
        }
        byte_order::reverse_each(values);
        EXPECT_EQ(values, expected) << n << " values";
    }
}

TEST(SffRecords, KeptBaseRange) {
    // clip_qual_left, clip_qual_right, clip_adapter_left, clip_adapter_right; start, end of 250
    const std::uint16_t cases[][6] = {{0, 0, 0, 0, 1, 250},   {5, 240, 0, 0, 5, 240},
                                      {0, 0, 0, 230, 1, 230}, {1, 0, 0, 0, 1, 250},
                                      {5, 0, 9, 0, 9, 250},   {0, 240, 0, 200, 1, 200},
                                      {0, 100, 0, 0, 1, 100}, {0, 100, 0, 300, 1, 100}};
    for (const auto& c : cases) {
        sff_read r;
        r.number_of_bases = 250;
        std::tie(r.clip_qual_left, r.clip_qual_right, r.clip_adapter_left, r.clip_adapter_right) =
            std::tie(c[0], c[1], c[2], c[3]);
        EXPECT_EQ(r.get_base_start(), c[4]) << c[0] << ' ' << c[2];
        EXPECT_EQ(r.get_base_end(), c[5]) << c[1] << ' ' << c[3];
    }
}

TEST(SffRecords, FlowRuns) {
    sff_read r;
    r.number_of_bases = 4;
    r.flow_index_per_base = {3, 0, 2, 1};
    std::vector<std::int16_t> flows{7, 7, 7, 7, 7, 7}, runs{7};
    r.map_flow_num(flows, runs);
    EXPECT_EQ(flows, std::vector<std::int16_t>({2, 4, 5, 0}));
    EXPECT_EQ(runs, std::vector<std::int16_t>({2, 1, 1, 0}));

    r.number_of_bases = 0;
    r.map_flow_num(flows, runs);
    EXPECT_TRUE(flows.empty());
    EXPECT_TRUE(runs.empty());
}

TEST(SffRecords, TextDumps) {
    sff_header_p2 h2;
    h2.flow_chars = {'T', 'A', 'C', 'G'};
    h2.key_sequence = {'T', 'C', 'A', 'G'};
    std::ostringstream out;
    h2.print(out, 0, 4);
    h2.print(out, 3, -1);
    EXPECT_EQ(out.str(), "\nTCAG\nTAC\n\n");

    sff_read r(3);
    r.name_length = 2;
    r.number_of_bases = 3;
    r.name = {'r', '1'};
    r.flowgram_values = {0, 65535, 101};
    r.flow_index_per_base = {1, 128, 255};
    r.bases = {'A', 'c', 'N'};
    r.quality_scores = {40, 200, 0};
    std::ostringstream dump;
    r.print_read(dump);
    EXPECT_EQ(dump.str(), "r1\n0\t65535\t101\t\n1\t128\t255\t\nAcN\n40\t200\t0\t\n");
}

}  // namespace
