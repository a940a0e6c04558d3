// Small ACE files for end-to-end tests: contigs whose reads are named by the test, in the
// section order the reader insists on.
#pragma once

#include <string>
#include <vector>

namespace fixture {

struct ace_contig {
    std::string name;
    std::vector<std::string> reads;
};

// One contig in the section order the reader insists on. A contig without reads still
// needs its AF, BS and RD tag lines.
inline std::string contig_text(const ace_contig& c) {
    std::string t = "CO " + c.name + " 8 " + std::to_string(c.reads.size()) +
                    " 1 U\nACGT*CGT\n\nBQ\n20 20 20 20 20 20 20\n\n";
    for (const auto& r : c.reads) t += "AF " + r + " U 1\n";
    if (c.reads.empty()) t += "AF\n";
    t += "BS 1 8 " + (c.reads.empty() ? std::string("x") : c.reads.front()) + "\n\n";
    for (const auto& r : c.reads)
        t += "RD " + r + " 4 0 0\nAC\nGT\n\nQA 1 4 1 4\nDS CHROMAT_FILE: " + r + "\n\n";
    if (c.reads.empty()) t += "RD\n\n";
    return t;
}

inline std::string ace_text(const std::vector<ace_contig>& contigs, const std::string& extra = "") {
    std::string t = "AS " + std::to_string(contigs.size()) + " 9\n\n";
    for (const auto& c : contigs) t += contig_text(c);
    return t + extra;
}

}  // namespace fixture
