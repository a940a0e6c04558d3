// ACE files written from a short description: each contig with its consensus and its reads
// (start column and padded sequence), in the section order the reader insists on.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace fixture {

struct ace_read {
    std::string name;
    std::int32_t start;
    std::string sequence;  // its length is the read's length
    char direction = 'U';
};

struct ace_contig {
    std::string name;
    std::string consensus;
    std::vector<ace_read> reads;
};

inline std::string ace_file_text(const std::vector<ace_contig>& contigs) {
    std::size_t total = 0;
    for (const ace_contig& c : contigs) total += c.reads.size();
    std::string t = "AS " + std::to_string(contigs.size()) + " " + std::to_string(total) + "\n\n";
    for (const ace_contig& c : contigs) {
        t += "CO " + c.name + " " + std::to_string(c.consensus.size()) + " " +
             std::to_string(c.reads.size()) + " 1 U\n";
        for (std::size_t at = 0; at < c.consensus.size(); at += 60)
            t += c.consensus.substr(at, 60) + "\n";
        t += "\nBQ\n20\n\n";
        for (const ace_read& r : c.reads)
            t += "AF " + r.name + " " + r.direction + " " + std::to_string(r.start) + "\n";
        if (c.reads.empty()) t += "AF\n";
        t += "BS 1 " + std::to_string(c.consensus.size()) + " x\n\n";
        for (const ace_read& r : c.reads) {
            t += "RD " + r.name + " " + std::to_string(r.sequence.size()) + " 0 0\n";
            for (std::size_t at = 0; at < r.sequence.size(); at += 60)
                t += r.sequence.substr(at, 60) + "\n";
            t += "\nQA 1 " + std::to_string(r.sequence.size()) + " 2 " +
                 std::to_string(r.sequence.size()) + "\nDS CHROMAT_FILE: " + r.name + "\n\n";
        }
        if (c.reads.empty()) t += "RD\n\n";
    }
    return t;
}

// A contig whose reads only need names (runs take everything else from the SFF files).
inline ace_contig named_reads(std::string name, const std::vector<std::string>& reads) {
    ace_contig c{std::move(name), "ACGT*CGT", {}};
    for (const std::string& r : reads) c.reads.push_back({r, 1, "ACGT"});
    return c;
}

}  // namespace fixture
