// The kept bases of an SFF file's reads as FASTQ whose comments carry the read's flows as SAM
// tags (RG:Z, FZ:B:S the whole flowgram, ZF:i the flow of the first kept base), for an aligner
// that copies comments into its records (minimap2 -y); the read group's @RG line, with the
// flow order (FO) and the key (KS), goes to RG_FILE.
//
//   sff_fastq [--no-flows] GROUP RG_FILE IN.sff > OUT.fastq
//
// --no-flows leaves FZ and ZF out, for reads to be tied by name through the SFF file.
#include <sorvexa/sff.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    const bool flows = !(argc == 5 && std::string(argv[1]) == "--no-flows");
    if (argc != (flows ? 4 : 5)) {
        std::cerr << "usage: sff_fastq [--no-flows] GROUP RG_FILE IN.sff > OUT.fastq\n";
        return 2;
    }
    const std::string group = argv[argc - 3], rg_path = argv[argc - 2];
    reader in(argv[argc - 1]);
    if (!in.get_header()) {
        std::cerr << "sff_fastq: " << in.error.message << "\n";
        return 1;
    }
    std::string out;
    while (in.get_next_read()) {
        const sff_read& r = in.cur_read;
        const std::size_t first = static_cast<std::size_t>(r.get_base_start()) - 1;
        const auto end = static_cast<std::size_t>(r.get_base_end());
        if (end <= first || end > r.bases.size()) continue;
        out = "@" + std::string(r.name.begin(), r.name.end()) + " RG:Z:" + group;
        if (flows) {
            out += "\tFZ:B:S";
            for (std::size_t f = 0; f < r.numOfFlows && f < r.flowgram_values.size(); ++f)
                out += "," + std::to_string(r.flowgram_values[f]);
            int flow = -1;
            for (std::size_t i = 0; i <= first; ++i) flow += r.flow_index_per_base[i];
            out += "\tZF:i:" + std::to_string(flow);
        }
        out += "\n" +
               std::string(r.bases.begin() + static_cast<std::ptrdiff_t>(first),
                           r.bases.begin() + static_cast<std::ptrdiff_t>(end)) +
               "\n+\n";
        for (std::size_t i = first; i < end; ++i)
            out += static_cast<char>(33 + std::min<int>(r.quality_scores[i], 93));
        out += '\n';
        if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size()) return 1;
    }
    if (!in.error) {
        std::cerr << "sff_fastq: " << in.error.message << "\n";
        return 1;
    }
    std::ofstream rg(rg_path);
    rg << "@RG\tID:" << group << "\tPL:LS454\tFO:"
       << std::string(in.header_p2.flow_chars.begin(), in.header_p2.flow_chars.end())
       << "\tKS:" << std::string(in.header_p2.key_sequence.begin(), in.header_p2.key_sequence.end())
       << "\n";
    rg.close();
    return rg && std::fflush(stdout) == 0 ? 0 : 1;
}
