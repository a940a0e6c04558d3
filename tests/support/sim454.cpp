// Simulated 454 reads from a random genome, for trying the ACE files of real assemblers:
// the same reads once as an SFF file (for Sorvexa) and once as FASTQ (for the assembler or
// the aligner), plus the genome as FASTA (the aligner's reference).
//
//   sim454 --out DIR [--prefix NAME] [--genome BASES] [--reads N] [--seed S]
//
// writes DIR/NAME.sff, DIR/NAME.fastq and DIR/NAME_genome.fasta. Each read is a stretch of
// either strand with 454-like errors (homopolymer runs called one too long or too short,
// now and then a substituted base), behind the key TCAG. The SFF record keeps the key and
// clips it with clip_qual_left 5; the FASTQ record holds the kept bases only, under the same
// 14-character name, so that the names an assembler writes into its ACE file are the names
// the SFF file holds.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "sff_builder.h"

namespace {

constexpr std::uint16_t kFlows = 256;
constexpr std::string_view kKey = "TCAG";

struct options {
    std::string out;
    std::string prefix = "sim";
    std::uint32_t genome = 2000;
    std::uint32_t reads = 80;
    std::uint64_t seed = 1;
};

bool parse_number(std::string_view text, std::uint64_t& value) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size();
}

bool parse_options(int argc, char** argv, options& o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view key = argv[i];
        const std::string_view value = argv[i + 1];
        std::uint64_t n = 0;
        if (key == "--out") {
            o.out = value;
        } else if (key == "--prefix") {
            o.prefix = value;
        } else if (key == "--seed" && parse_number(value, n)) {
            o.seed = n;
        } else if (key == "--genome" && parse_number(value, n) && n >= 500 && n <= 1'000'000) {
            o.genome = static_cast<std::uint32_t>(n);
        } else if (key == "--reads" && parse_number(value, n) && n >= 1 && n <= 100'000) {
            o.reads = static_cast<std::uint32_t>(n);
        } else {
            return false;
        }
    }
    return argc % 2 == 1 && !o.out.empty();
}

char complement(char b) {
    switch (b) {
        case 'A': return 'T';
        case 'C': return 'G';
        case 'G': return 'C';
        default: return 'A';
    }
}

// A 454 well name: run prefix, region 01, five characters for the well.
std::string well_name(fixture::splitmix64& rng) {
    static constexpr std::string_view digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string name = "GSVXSIM01";
    for (int i = 0; i < 5; ++i) name += digits[rng.below(36)];
    return name;
}

// Copies `tmpl` with 454-like errors: a homopolymer run one base longer or shorter (1 run
// in 40), a substitution (1 base in 400).
std::string with_errors(const std::string& tmpl, fixture::splitmix64& rng) {
    std::string out;
    for (std::size_t i = 0; i < tmpl.size();) {
        std::size_t run = 1;
        while (i + run < tmpl.size() && tmpl[i + run] == tmpl[i]) ++run;
        std::size_t called = run;
        if (rng.chance(1, 40)) called = rng.chance(1, 2) || run == 1 ? run + 1 : run - 1;
        for (std::size_t k = 0; k < called; ++k)
            out += rng.chance(1, 400) ? "ACGT"[rng.below(4)] : tmpl[i];
        i += run;
    }
    return out;
}

// Quality falls along the read and at the end of long homopolymer runs.
std::vector<std::uint8_t> qualities(std::string_view bases, fixture::splitmix64& rng) {
    std::vector<std::uint8_t> q(bases.size());
    for (std::size_t i = 0; i < bases.size(); ++i) {
        int v = 40 - static_cast<int>(i / 25) - static_cast<int>(rng.below(6));
        std::size_t run = 1;
        while (run <= i && bases[i - run] == bases[i]) ++run;
        if (run >= 3) v -= 4 * static_cast<int>(run);
        q[i] = static_cast<std::uint8_t>(std::max(v, 8));
    }
    return q;
}

}  // namespace

int main(int argc, char** argv) {
    options o;
    if (!parse_options(argc, argv, o)) {
        std::cerr << "usage: sim454 --out DIR [--prefix NAME] [--genome BASES] [--reads N] "
                     "[--seed S]\n";
        return 2;
    }
    fixture::splitmix64 rng{o.seed};
    std::string genome(o.genome, 'A');
    for (char& b : genome) b = "ACGT"[rng.below(4)];

    const std::string flows = fixture::tacg_flows(kFlows);
    fixture::sff_file_layout sff;
    sff.number_of_flows_per_read = kFlows;
    sff.flow_chars = flows;
    sff.key_sequence = std::string(kKey);
    std::string fastq;
    std::set<std::string> names;
    for (std::uint32_t n = 0; n < o.reads; ++n) {
        std::string name = well_name(rng);
        while (!names.insert(name).second) name = well_name(rng);
        // Longer than 256 flows can call, so every read runs to the last flow.
        const std::uint32_t length = 200 + rng.below(60);
        const std::uint32_t start = rng.below(o.genome - length + 1);
        std::string tmpl = genome.substr(start, length);
        if (rng.chance(1, 2)) {
            tmpl.assign(tmpl.rbegin(), tmpl.rend());
            for (char& b : tmpl) b = complement(b);
        }
        const std::string called = std::string(kKey) + with_errors(tmpl, rng);
        fixture::sff_read_layout read =
            fixture::make_read(name, called, flows, qualities(called, rng), rng.next());
        read.clip_qual_left = static_cast<std::uint16_t>(kKey.size() + 1);
        read.clip_qual_right = static_cast<std::uint16_t>(read.bases.size());

        fastq += '@' + name + '\n' + read.bases.substr(kKey.size()) + "\n+\n";
        for (std::size_t i = kKey.size(); i < read.quality.size(); ++i)
            fastq += static_cast<char>('!' + read.quality[i]);
        fastq += '\n';
        sff.reads.push_back(std::move(read));
    }

    std::string fasta = ">genome\n";
    for (std::size_t i = 0; i < genome.size(); i += 60) fasta += genome.substr(i, 60) + '\n';

    std::filesystem::create_directories(o.out);
    const std::string base = o.out + "/" + o.prefix;
    if (!fixture::write_file(base + ".sff", fixture::build_sff(sff)) ||
        !fixture::write_file(base + ".fastq", fastq) ||
        !fixture::write_file(base + "_genome.fasta", fasta)) {
        std::cerr << "sim454: cannot write under " << o.out << "\n";
        return 1;
    }
    std::cout << o.reads << " reads of a " << o.genome << "-base genome in " << base
              << ".{sff,fastq}\n";
    return 0;
}
