// Sequence reads: the kept bases of an SFF read with their qualities and absolute flow numbers.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include <sorvexa/sff.h>

namespace {

// Seven bases T C A G T T A with flow increments 1 2 3 2 1 0 1 and qualities 250, 240, ...
sff_read make(std::uint16_t qual_left = 0, std::uint16_t qual_right = 0,
              std::uint16_t adapter_right = 0, std::size_t count = 7) {
    const std::string bases = std::string("TCAGTTA").substr(0, count);
    sff_read r;
    r.name_length = 4;
    r.number_of_bases = static_cast<std::uint32_t>(bases.size());
    r.set_read_space();
    r.name = {'r', 'e', 'a', 'd'};
    r.bases.assign(bases.begin(), bases.end());
    for (std::size_t k = 0; k < bases.size(); ++k) {
        r.flow_index_per_base[k] = std::vector<std::uint8_t>{1, 2, 3, 2, 1, 0, 1}[k];
        r.quality_scores[k] = static_cast<std::uint8_t>(250 - k * 10);
    }
    r.clip_qual_left = qual_left;
    r.clip_qual_right = qual_right;
    r.clip_adapter_right = adapter_right;
    return r;
}

// "name bases qualities flow-indexes", a NUL base shown as '.'.
std::string describe(const seqRead& s) {
    std::ostringstream out;
    out << s.name << ' ';
    for (char b : s.bases) out << (b == 0 ? '.' : b);
    for (const auto* v : {&s.quality_scores, &s.flow_indexes}) {
        out << ' ';
        for (std::size_t k = 0; k < v->size(); ++k) out << (k ? "," : "") << (*v)[k];
    }
    return out.str();
}

TEST(SeqRead, KeptRangeWithAbsoluteFlowNumbers) {
    // Qualities above 127 stay positive; flows count from the read's first base.
    EXPECT_EQ(describe(seqRead(make())), "read TCAGTTA 250,240,230,220,210,200,190 0,2,5,7,8,8,9");
    EXPECT_EQ(describe(seqRead(make(5))), "read TTA 210,200,190 8,8,9");
    EXPECT_EQ(describe(seqRead(make(2, 6, 4))), "read CAG 240,230,220 2,5,7");
    EXPECT_EQ(describe(seqRead(make(5, 5))), "read T 210 8");
    // A right clip past the last base leaves a zero tail; only the smaller clip counts.
    EXPECT_EQ(describe(seqRead(make(0, 6, 7, 3))), "read TCA... 250,240,230,0,0,0 0,2,5,0,0,0");
    EXPECT_EQ(describe(seqRead(make(0, 6, 0, 3))), "read TCA 250,240,230 0,2,5");
    // A left clip beyond 32767 wraps to a negative start: the bases land two slots in.
    EXPECT_EQ(describe(seqRead(make(65535))),
              "read ..TCAGTTA 0,0,250,240,230,220,210,200,190 0,0,0,2,5,7,8,8,9");
}

TEST(SeqRead, EmptyOrNegativeKeptRangeGivesNameOnly) {
    for (const sff_read& r : {make(5, 3), make(9), make(6, 5), make(0, 0, 0, 0)}) {
        seqRead s(make());
        s.assign(r);
        EXPECT_EQ(describe(s), "read   ");
    }
}

TEST(SeqRead, AssignResizesInPlace) {
    // Elements that the walk does not reach keep what the reused object held.
    seqRead s(make());
    s.assign(make(0, 6, 6, 3));
    EXPECT_EQ(describe(s), "read TCAGTT 250,240,230,220,210,200 0,2,5,7,8,8");
    s.assign(make(1, 2));
    EXPECT_EQ(describe(s), "read TC 250,240 0,2");
}

}  // namespace
