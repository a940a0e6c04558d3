// Reading ACE assemblies contig by contig: the section order CO, BQ, AF, BS, RD, the lines
// passed over, and the messages that end the run on a file that breaks the grammar.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sorvexa/ace.h>
#include "run_tool.h"
#include "sff_builder.h"

namespace {

using fixture::temp_dir;

const std::string kSample =
    "AS 1 2\n\nCO ctg1 10 2 2 U\nACGT*ACG\nTA\n\nBQ\n20 20 20 20 20 20 20 20 20\n\n"
    "AF r1 U 1\nAF r2 C 4\nBS 1 5 r1\nBS 6 10 r2\n\n"
    "RD r1 5 0 0\nACGT*\n\nQA 1 5 1 5\nDS CHROMAT_FILE: r1\n\n"
    "RD r2 7 0 0\nT*ACGTA\n\nQA 1 7 2 7\nDS CHROMAT_FILE: r2\n\nCT{\nctg1 comment x 1 1\n}\n";

std::string co(const std::string& name, int reads) {
    return "CO " + name + " 4 " + std::to_string(reads) + " 1 U\nACGT\n\n";
}
const std::string kBQ = "BQ\n20 20 20 20\n\n";
const std::string kBS = "BS 1 4 r1\n\n";
std::string af(const std::string& read, int start = 1) {
    return "AF " + read + " U " + std::to_string(start) + "\n";
}
std::string rd(const std::string& read, const std::string& after_qa = "DS\n") {
    return "RD " + read + " 4 0 0\nACGT\n\nQA 1 4 1 4\n" + after_qa + "\n";
}

// An ACE file in a scratch directory, removed with it.
struct ace_file {
    temp_dir dir;
    std::string path = dir / "in.ace";
    explicit ace_file(const std::string& text) { fixture::write_file(path, text); }
};

// The contigs that next_contig fills (result 1) before its first 0.
std::vector<contig> read_all(const std::string& path) {
    aceReader reader(path);
    std::vector<contig> out;
    for (contig c; reader.next_contig(c) == 1; c = contig{}) out.push_back(c);
    return out;
}
std::vector<contig> contigs_in(const std::string& text) {
    ace_file f(text);
    return read_all(f.path);
}

std::string text(const std::vector<char>& v) {
    return {v.begin(), v.end()};
}
// name start length uncomplemented clip_start clip_end sequence
std::string describe(const READ& r) {
    std::ostringstream out;
    out << r.name << ' ' << r.start << ' ' << r.length << ' ' << r.uncomplemented << ' '
        << r.align_clip_start << ' ' << r.align_clip_end << ' ' << text(r.sequence);
    return out.str();
}

const std::string kOneRead = "AS 1 1\n\n" + co("c1", 1) + kBQ + af("r1") + kBS + rd("r1");

TEST(AceReader, ReadsTheSampleFileFieldByField) {
    ace_file f(kSample);
    aceReader reader(f.path);
    EXPECT_EQ(reader.num_contigs, 1);
    EXPECT_EQ(reader.total_reads, 2);
    contig c;
    ASSERT_EQ(reader.next_contig(c), 1);
    EXPECT_EQ(c.name, "ctg1");
    EXPECT_EQ(std::vector<int>({c.num_bases, c.num_reads, c.num_segments, c.uncomplemented}),
              std::vector<int>({10, 2, 2, 1}));
    EXPECT_EQ(text(c.consensus), "ACGT*ACGTA");
    ASSERT_EQ(c.reads.size(), 2u);
    EXPECT_EQ(describe(c.reads.at("r1")), "r1 1 5 1 1 5 ACGT*");
    EXPECT_EQ(describe(c.reads.at("r2")), "r2 4 7 0 2 7 T*ACGTA");
    contig rest;
    EXPECT_EQ(reader.next_contig(rest), 0);
    EXPECT_EQ(reader.next_contig(rest), 0);
}

TEST(AceReader, PassesOverTagBlocksBlankLinesAndReadOrder) {
    // Blocks between contigs and between sections, blocks holding section tags, RD records
    // in another order than the AF lines, and a non-DS line after the last QA line.
    const std::string second = co("c2", 2) + "RT{\nCO fake\n}\n" + kBQ + af("r2") + af("r1", 3) +
                               "WA{\nRD r9\n}\n" + kBS + rd("r1") + "CT{\nx\n}\n" + rd("r2");
    EXPECT_EQ(contigs_in("AS 2 3\n\nWA{\nprog 1\n}\n\n" + co("c1", 1) + kBQ + af("r1") + kBS +
                         rd("r1", "XX not a DS line\n") + "\n\nCT{\nc1 x\n}\n" + second)
                  .size(),
              2u);

    // Sequence lines joined; the QA line after blank lines; the line after it dropped.
    // AF lines taken by count whatever their tag; a repeated name keeps its later line.
    const auto c =
        contigs_in("AS 1 2\n\n" + co("c", 4) + kBQ + af("r1") + "BS r2 C 3\n" + af("r3") +
                   "AF r1 C 9\n" + kBS + rd("r1") +
                   "RD r2 5 0 0\nAC\nG*T\n\n\n\n\nQA 1 5 2 4\nQA 9 9 9 9\n" + rd("r3") + rd("r1"));
    ASSERT_EQ(c.size(), 1u);
    ASSERT_EQ(c[0].reads.size(), 3u);
    EXPECT_EQ(describe(c[0].reads.at("r1")), "r1 9 4 0 1 4 ACGT");
    EXPECT_EQ(describe(c[0].reads.at("r2")), "r2 3 5 0 2 4 ACG*T");
    EXPECT_EQ(describe(c[0].reads.at("r3")), "r3 1 4 1 1 4 ACGT");
}

TEST(AceReader, SignedAndOutOfRangeNumbers) {
    // AF start (32 bits), RD length and QA clips (16 bits): signs either way, values beyond the
    // field or beyond 64 bits held to the bound, digits taken as far as they go. A number that
    // fails leaves the rest of its line unread (the clip after it stays 0).
    const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
        {"-53", "+4", "-1 +3", "r1 -53 4 1 -1 3 ACGT"},
        {"+2147483647", "32767", "-32768 32767", "r1 2147483647 32767 1 -32768 32767 ACGT"},
        {"2147483648", "32768", "-32769 5", "r1 2147483647 32767 1 -32768 0 ACGT"},
        {"-2147483649", "-32769", "99999999999999999999 5", "r1 -2147483648 -32768 1 32767 0 ACGT"},
        {"-99999999999999999999", "-0", "+ 5", "r1 -2147483648 0 1 0 0 ACGT"},
        {"+-5", "-", "7x 5", "r1 0 0 1 7 0 ACGT"},
    };
    for (const auto& [start, length, clips, read] : rows) {
        const auto c =
            contigs_in("AS 1 1\n\n" + co("c1", 1) + kBQ + "AF r1 U " + start + "\n" + kBS +
                       "RD r1 " + length + " 0 0\nACGT\n\nQA 1 4 " + clips + "\nDS\n\n");
        ASSERT_EQ(c.size(), 1u) << read;
        EXPECT_EQ(describe(c[0].reads.at("r1")), read);
    }

    // The AS counts are read across line ends, also where a number runs over a 64 KiB read.
    const std::tuple<std::string, int, std::int32_t> counts[] = {
        {"AS -1\n+2\n", -1, 2},
        {"AS 2147483648 -2147483649\n", 2147483647, INT32_MIN},
        {"AS +-1 7\n", 0, -1},  // the second number starts at the minus sign
        {std::string(65530, '\n') + "AS 123456 7\n", 123456, 7},
    };
    for (const auto& [as_line, contigs, reads] : counts) {
        ace_file f(as_line + "\n" + kOneRead.substr(8));
        aceReader reader(f.path);
        EXPECT_EQ(reader.num_contigs, contigs) << as_line.size();
        EXPECT_EQ(reader.total_reads, reads) << as_line.size();
    }
}

TEST(AceReader, EndsWithoutContig) {
    // No contigs declared, lines ending in CR LF (no line is ever empty), contigs cut short
    // before a QA line or in a BS section, a second RD record that never comes, a read count
    // far beyond the lines there are.
    std::string crlf;
    for (char ch : kOneRead) crlf += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
    const auto begin = std::chrono::steady_clock::now();
    for (std::string text :
         {kOneRead.substr(0, 3) + "0" + kOneRead.substr(4), crlf,
          kOneRead.substr(0, kOneRead.rfind("QA")), kOneRead.substr(0, kOneRead.find("BS") + 3),
          "AS 1 2\n\n" + co("c", 2) + kBQ + af("r1") + af("r2") + kBS + rd("r1"),
          "AS 1 1\n\n" + co("c", 2000000000) + kBQ + af("r1") + kBS + rd("r1")})
        EXPECT_TRUE(contigs_in(text).empty()) << text;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST(AceReader, BatchCallAppendsUpToCount) {
    ace_file f("AS 2 2\n\n" + kOneRead.substr(8) + "CO c2" + kOneRead.substr(13));
    aceReader reader(f.path);
    std::vector<contig> contigs(1);
    EXPECT_EQ(reader.next_contig(contigs, 0), 0);
    EXPECT_EQ(reader.next_contig(contigs, 5), 2);
    ASSERT_EQ(contigs.size(), 3u);
    EXPECT_EQ(contigs[1].name + contigs[2].name + contigs[2].reads.begin()->first, "c1c2r1");
    EXPECT_EQ(reader.next_contig(contigs, 5), 0);
}

TEST(AceReader, NoFileOpenIsReported) {
    aceReader idle;
    contig c;
    EXPECT_EQ(idle.next_contig(c), 0);
    EXPECT_EQ(idle.error.message, "Error: there is no ACE file open!");
}

// Reading stops at the fault with its message; the library prints nothing and the contigs
// before the fault stay read.
TEST(AceReader, MalformedFilesStopWithTheirMessage) {
    const std::string head = "AS 1 1\n\n" + co("c", 1);
    const std::string not_ace = "Error: the input file .*/in\\.ace does not like an ACE file";
    auto tag = [](const std::string& t) {
        return "Error: tag '" + t + "' should be not in the ACE file!";
    };
    const auto stops_with = [](const std::string& path, const std::string& message) {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        aceReader reader(path);
        contig c;
        while (reader.next_contig(c) == 1) c = contig{};
        EXPECT_EQ(reader.next_contig(c), 0);  // and stays stopped
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_FALSE(reader.error.ok);
        EXPECT_THAT(reader.error.message, testing::MatchesRegex(message));
    };
    const std::pair<std::string, std::string> cases[] = {
        {"", not_ace},
        {"  \n\n  XS 1 1\n", not_ace},
        {"ASX 1 1\n", not_ace},
        {head + kBQ + "WA{\nprog 1\n", tag("WA\\{")},   // block never closed
        {head + af("r1") + kBS + rd("r1"), tag("AF")},  // no BQ section
        {head + kBQ + af("r1") + rd("r1"), tag("RD")},  // no BS section
        {"AS 1 1 extra\n\n" + co("c", 1), tag("extra")},
        {"AS 1 3\n\n" + co("c", 3) + kBQ + af("r1") + af("r2") + af("r3") + af("r4") + kBS,
         tag("AF")},  // a fourth AF line where BS belongs
        {head + kBQ + af("r1") + kBS + rd("rX"), "Error: AF tag for read rX is missing"},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(text);
        ace_file f(text);
        stops_with(f.path, message);
    }
    temp_dir dir;
    stops_with(dir / "missing.ace", "The file: .*/missing\\.ace can not be opened");
    // A contig read before the fault is kept.
    ace_file two(kSample + "\n" + co("c2", 1) + kBQ + af("r1") + kBS + rd("rX"));
    aceReader reader(two.path);
    contig c;
    EXPECT_EQ(reader.next_contig(c), 1);
    EXPECT_TRUE(reader.error.ok);
    EXPECT_EQ(reader.next_contig(c), 0);
    EXPECT_EQ(reader.error.message, "Error: AF tag for read rX is missing");
}

}  // namespace

// A contig read again from the offset tell() gave before it: the same contig, whatever
// stands between contigs, in any order of the calls.
TEST(AceReader, ReadsAContigAgainFromItsOffset) {
    ace_file f(kSample + "\n" + co("c2", 1) + kBQ + af("r1", 2) + kBS + rd("r1") +
               "WA{\nx\n}\n" + co("c3", 1) + kBQ + af("r7") + kBS + rd("r7"));
    aceReader reader(f.path);
    std::vector<std::int64_t> offsets;
    std::vector<contig> first;
    for (;;) {
        offsets.push_back(reader.tell());
        contig c;
        if (reader.next_contig(c) == 0) break;
        first.push_back(c);
    }
    ASSERT_EQ(first.size(), 3u);
    aceReader again(f.path);
    for (std::size_t k : {2u, 0u, 1u, 2u}) {
        contig c;
        ASSERT_EQ(again.next_contig_at(offsets[k], c), 1);
        EXPECT_EQ(c.name, first[k].name);
        EXPECT_EQ(text(c.consensus), text(first[k].consensus));
        ASSERT_EQ(c.reads.size(), first[k].reads.size());
        for (const auto& [name, r] : first[k].reads) EXPECT_EQ(describe(c.reads.at(name)), describe(r));
    }
    contig none;
    EXPECT_EQ(again.next_contig_at(offsets[3], none), 0);  // the end of the file
    EXPECT_EQ(again.next_contig_at(-1, none), 0);
}
