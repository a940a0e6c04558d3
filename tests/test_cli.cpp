// The command line and whole runs of the binary, checked byte for byte on both output
// streams, the exit status and both output files.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ace_writer.h"
#include "run_tool.h"
#include "sff_builder.h"

namespace {

using namespace fixture;
using std::filesystem::exists;

// The usage and version texts as the tool prints them.
const std::string kUsage = read_file(SORVEXA_TEST_DATA "/usage.txt");
const std::string kVersion = read_file(SORVEXA_TEST_DATA "/version.txt");

// The attribution: what follows the tab on the version text's last line.
std::string version_attribution() {
    const std::size_t tab = kVersion.rfind('\t');
    return tab == std::string::npos ? "" : kVersion.substr(tab + 1, kVersion.size() - tab - 2);
}

// Reads for files with 12 flows TACG TACG TACG.
sff_read_layout flow_read(std::string name, std::string bases, std::vector<std::uint8_t> incs,
                          std::vector<std::uint8_t> quals, std::vector<std::uint16_t> flowgram,
                          std::uint16_t clip_qual_left = 0) {
    sff_read_layout r;
    r.name = name;
    r.bases = bases;
    r.flow_index_per_base = incs;
    r.quality = quals;
    r.flowgram = flowgram;
    r.clip_qual_left = clip_qual_left;
    return r;
}

void write_sff(const std::string& path, std::vector<sff_read_layout> reads,
               bool little_endian = false) {
    sff_file_layout f;
    f.little_endian = little_endian;
    f.number_of_flows_per_read = 12;
    f.reads = std::move(reads);
    ASSERT_TRUE(write_file(path, build_sff(f)));
}

const sff_read_layout kRdA =
    flow_read("rdA", "TCAGTTA", {1, 2, 3, 2, 1, 0, 1}, {20, 21, 22, 23, 35, 35, 28},
              {101, 3, 98, 5, 2, 103, 4, 99, 197, 102, 6, 3}, 5);
const sff_read_layout kRdC =
    flow_read("rdC", "GA", {4, 2}, {30, 30}, {0, 2, 4, 96, 3, 104, 1, 300, 2, 3, 4, 65535});

std::string summary(const std::string& prefix, const std::string& attribution) {
    return "Done! Two output files are:\n\n Korvane KRV file:\t" + prefix +
           ".krv\n Korvane READS file:\t" + prefix + ".reads\nSorvexa (1.1)\t" + attribution +
           "\n\n";
}

void expect_result(const run_result& r, int status, const std::string& out,
                   const std::string& err) {
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, err);
}

// Output files named after `prefix` (relative to the scratch directory).
struct outputs {
    std::string reads, krv;
};
outputs outputs_of(const temp_dir& d, const std::string& prefix) {
    return {read_file(d / (prefix + ".reads")), read_file(d / (prefix + ".krv"))};
}

TEST(Cli, OptionsDecideBetweenUsageVersionAndRun) {
    temp_dir d;
    write_file(d / "a.ace", ace_file_text({named_reads("c", {"rdA"})}));
    write_sff(d / "b.sff", {kRdA});
    const std::string bad = "Unreconized switch: ";
    // Arguments; whether the usage and the version texts are printed; standard error.
    const std::vector<std::tuple<std::vector<std::string>, bool, bool, std::string>> rows = {
        {{}, true, true, ""},
        {{"-h"}, true, true, ""},
        {{"-f", "a.ace"}, true, true, ""},
        {{"-fV"}, false, true, ""},
        {{"-H", "a.ace", "b.sff"}, true, false, ""},
        {{"-hv", "a.ace", "b.sff"}, true, true, ""},
        {{"-f", "-v", "a.ace", "b.sff"}, false, true, ""},
        {{"-v", "a.ace", "-h"}, false, true, ""},
        {{"-h", "-", "b.sff"}, true, false, ""},
        {{"-F", "a.ace", "b.sff"}, true, false, bad + "F\n"},
        {{"--", "a.ace", "b.sff"}, true, false, bad + "-\n"},
        {{"-xfy", "a.ace", "b.sff"}, true, false, bad + "x\n" + bad + "y\n"},
    };
    for (const auto& [args, usage, version, err] : rows) {
        SCOPED_TRACE(::testing::PrintToString(args));
        auto res = run_tool(args, d.path);
        EXPECT_EQ(res.status, 0);
        EXPECT_EQ(res.err, err);
        EXPECT_EQ(res.out, (usage ? kUsage : "") + (version ? kVersion : ""));
        EXPECT_FALSE(exists(d / "a.reads") || exists(d / "a.krv"));
    }
}

// A program built beside Sorvexa in the same build tree; empty when it was not built.
std::string built_program(const std::string& relative_path) {
    const std::filesystem::path p =
        std::filesystem::path(SORVEXA_BIN).parent_path() / relative_path;
    return exists(p) ? p.string() : "";
}

// Help and version texts into a full device and into a file, for every program: a text
// that could not be written fails the program with one line, one that was written leaves
// the status and standard error as they were.
TEST(Cli, TextsThatCannotBeWrittenFailTheProgram) {
    temp_dir d;
    const std::string full = ": can not write standard output: No space left on device\n";
    struct row {
        std::string program, name;
        std::vector<std::string> args;
        std::string err;  // what the program says on standard error anyway
    };
    std::vector<row> rows = {
        {SORVEXA_BIN, "", {"-v"}, ""},
        {SORVEXA_BIN, "", {"-h"}, ""},
        {SORVEXA_BIN, "", {}, ""},
        // A bad switch prints the usage with status 0; its own message comes first.
        {SORVEXA_BIN, "", {"-q"}, "Unreconized switch: q\n"},
    };
    if (const std::string browse = built_program("browse/sorvexa-browse"); !browse.empty()) {
        rows.push_back({browse, "sorvexa-browse", {"--help"}, ""});
        rows.push_back({browse, "sorvexa-browse", {"--version"}, ""});
    }
    if (const std::string check = built_program("flowcheck/sorvexa-flowcheck"); !check.empty()) {
        rows.push_back({check, "sorvexa-flowcheck", {"--help"}, ""});
        rows.push_back({check, "sorvexa-flowcheck", {"--version"}, ""});
    }
    for (const row& r : rows) {
        SCOPED_TRACE(r.program + " " + ::testing::PrintToString(r.args));
        const run_result captured = run_binary(r.program, r.args, d.path);
        ASSERT_EQ(captured.status, 0);
        ASSERT_NE(captured.out, "");

        const run_result to_file = run_binary(r.program, r.args, d.path, stdout_to(d / "out"));
        expect_result(to_file, 0, "", r.err);
        EXPECT_EQ(read_file(d / "out"), captured.out);

        const run_result to_full = run_binary(r.program, r.args, d.path, stdout_to("/dev/full"));
        // Sorvexa's messages carry no program name.
        const std::string line = r.name.empty() ? full.substr(2) : r.name + full;
        expect_result(to_full, 1, "", r.err + line);
    }
}

TEST(Run, OutputsAreNamedAfterTheAcePath) {
    temp_dir d;
    write_sff(d / "s.sff", {kRdA});
    const std::string attribution = version_attribution();
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"dir/x.ace", "dir/x"},
        {"x.ace.bak", "x"},
        {"x.Ace", "x.Ace"},
        {"run1.ACE", "run1"},
        {"x.fasta", "x.fasta"},
        {"y.ace.ACE", "y"},
        {"d.ace/plain", "d"},
        {"-", "-"},
        {"dir.ace/x.ace", "dir.ace/x"},
        {"a.ace/b.ace.ace", "a.ace/b.ace"},
    };
    for (const auto& [ace, prefix] : rows) {
        SCOPED_TRACE(ace);
        std::filesystem::create_directories(std::filesystem::path(d / ace).parent_path());
        write_file(d / ace, ace_file_text({named_reads("c", {"rdA"})}));
        expect_result(run_tool({ace, "s.sff"}, d.path), 0, summary(prefix, attribution), "");
        auto o = outputs_of(d, prefix);
        EXPECT_EQ(o.reads, ">c\t1\t1\nrdA\t1\n35\t35\t28\n");
        EXPECT_EQ(o.krv, "c\t7\t1\t1\n");
    }
    // Lines ending in CR LF hide every contig: both outputs are still made, empty.
    const std::string lf =
        ace_file_text({named_reads("Contig1", {"rdA"}), named_reads("Contig2", {})});
    write_file(d / "w.ace", std::regex_replace(lf, std::regex("\n"), "\r\n"));
    expect_result(run_tool({"w.ace", "s.sff"}, d.path), 0, summary("w", attribution), "");
    ASSERT_TRUE(exists(d / "w.reads") && exists(d / "w.krv"));
    auto o = outputs_of(d, "w");
    EXPECT_EQ(o.reads + o.krv, "");
}

TEST(Run, TwoContigExampleInBothModes) {
    temp_dir d;
    write_file(d / "two.ace", ace_file_text({named_reads("Contig1", {"rdA", "rdB"}),
                                             named_reads("Contig2", {"rdC"})}));
    write_sff(d / "be.sff", {kRdC, kRdA});

    const std::string c1 =
        ">Contig1\t2\t3\nrdA\t1\n35\t35\t28\n8\t8\t9\n101\t3\t98\t5\t2\t103\t4\t99\t197\t102\t6\t3"
        "\n";
    const std::string c2 =
        ">Contig2\t1\t3\nrdC\t1\n30\t30\n3\t5\n0\t2\t4\t96\t3\t104\t1\t300\t2\t3\t4\t65535\n";
    const std::string krv3 =
        "Contig1\t13\t2\t3\nContig2\t" + std::to_string(c1.size() + 13) + "\t1\t3\n";
    EXPECT_EQ(run_tool({"-f", "two.ace", "be.sff"}, d.path).status, 0);
    auto o = outputs_of(d, "two");
    EXPECT_EQ(o.reads, c1 + c2);
    EXPECT_EQ(o.krv, krv3);
    // Shorter output over the longer one: the files are truncated, not overwritten in place.
    expect_result(run_tool({"two.ace", "be.sff"}, d.path), 0, summary("two", version_attribution()),
                  "");
    o = outputs_of(d, "two");
    EXPECT_EQ(o.reads, ">Contig1\t2\t1\nrdA\t1\n35\t35\t28\n>Contig2\t1\t1\nrdC\t1\n30\t30\n");
    EXPECT_EQ(o.krv, "Contig1\t13\t2\t1\nContig2\t41\t1\t1\n");
}

TEST(Run, RecordsAreGroupedBySffFileThenByName) {
    temp_dir d;
    auto fg = [](std::uint16_t value) { return std::vector<std::uint16_t>(12, value); };
    // Records out of name order in the file; rdB in both files with different scores.
    write_sff(
        d / "s1.sff",
        {flow_read("zz", "C", {3}, {14}, fg(10)), flow_read("rdB", "A", {2}, {11}, fg(20)),
         flow_read("mm", "TT", {1, 0}, {12, 13}, fg(30)), flow_read("e0", "", {}, {}, fg(40))});
    write_sff(
        d / "s2.sff",
        {flow_read("aa", "AC", {2, 1}, {15, 16}, fg(50)), flow_read("rdB", "G", {4}, {22}, fg(60))},
        true);
    write_file(d / "m.ace",
               ace_file_text({named_reads("Empty", {}), named_reads("Lost", {"gone1", "gone2"}),
                              named_reads("Mix", {"zz", "nope", "rdB", "aa", "mm", "e0"}),
                              named_reads("Tail", {"aa"})}));
    auto flow_line = [](std::uint16_t value) {
        const std::string v = std::to_string(value);
        std::string s = v;
        for (int k = 1; k < 12; ++k) s += "\t" + v;
        return s + "\n";
    };
    // Only the mode-3 form: the modes differ in the record lines alone, which the two-contig
    // example covers. A record is its name line, qualities, flow indexes and flowgram.
    const std::string aa = "aa\t1\n15\t16\n1\t2\n" + flow_line(50);
    const std::string reads =
        ">Empty\t0\t3\n>Lost\t2\t3\n>Mix\t6\t3\n" + ("e0\t1\n\n\n" + flow_line(40)) +
        ("mm\t1\n12\t13\n0\t0\n" + flow_line(30)) + ("rdB\t1\n11\n1\n" + flow_line(20)) +
        ("zz\t1\n14\n2\n" + flow_line(10)) + aa + ">Tail\t1\t3\n" + aa;
    EXPECT_EQ(run_tool({"-f", "m.ace", "s1.sff", "s2.sff"}, d.path).status, 0);
    auto o = outputs_of(d, "m");
    EXPECT_EQ(o.reads, reads);
    EXPECT_EQ(o.krv, "Empty\t11\t0\t3\nLost\t21\t2\t3\nMix\t30\t6\t3\nTail\t" +
                         std::to_string(reads.size() - aa.size()) + "\t1\t3\n");
}

TEST(Run, FatalErrorsEndTheRun) {
    temp_dir d;
    const std::string good = ace_file_text({named_reads("c", {"rdA"})});
    write_file(d / "a.ace", good);
    write_sff(d / "b.sff", {kRdA});
    write_file(d / "n.ace", "\n  ZZ 1 1\n");
    // Inputs that cannot be opened end the run before any output.
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        // Options end at the first operand, so "-f" here names an SFF file.
        {{"a.ace", "-f", "b.sff"}, "fail to open file -f\n"},
        // Every SFF file is indexed before the ACE file is looked at.
        {{"nope.ace", "b.sff", "nope.sff"}, "fail to open file nope.sff\n"},
        {{"n.ace", "b.sff"}, "Error: the input file n.ace does not like an ACE file\n"},
    };
    for (const auto& [args, err] : rows) {
        SCOPED_TRACE(::testing::PrintToString(args));
        expect_result(run_tool(args, d.path), 1, "", err);
        for (const char* f : {"a.reads", "a.krv", "nope.reads", "nope.krv", "n.reads"})
            EXPECT_FALSE(exists(d / f)) << f;
    }
    // Given a file of that name, "-f" is read as SFF data and the run stays in mode 1.
    write_sff(d / "-f", {});
    EXPECT_EQ(run_tool({"a.ace", "-f", "b.sff"}, d.path).status, 0);
    EXPECT_EQ(read_file(d / "a.reads"), ">c\t1\t1\nrdA\t1\n35\t35\t28\n");

    // A malformed contig after a good one: the output written so far is kept.
    std::string bad = ace_file_text({named_reads("Contig1", {"rdA"}), named_reads("Bad", {"rdX"})});
    bad.replace(bad.find("RD rdX"), 6, "RD rdY");
    write_file(d / "x.ace", bad);
    expect_result(run_tool({"x.ace", "b.sff"}, d.path), 1, "",
                  "Error: AF tag for read rdY is missing\n");
    auto o = outputs_of(d, "x");
    EXPECT_EQ(o.reads, ">Contig1\t1\t1\nrdA\t1\n35\t35\t28\n");
    EXPECT_EQ(o.krv, "Contig1\t13\t1\t1\n");

    // An output path taken by a directory. The location index is opened before the reads
    // file is checked, so it exists even when the reads file is the one that failed.
    for (const char* taken : {"y.reads", "z.krv"}) {
        SCOPED_TRACE(taken);
        const std::string prefix(taken, 1);
        write_file(d / (prefix + ".ace"), good);
        std::filesystem::create_directory(d / taken);
        expect_result(run_tool({prefix + ".ace", "b.sff"}, d.path), 1, "",
                      std::string("can not open file ") + taken + "\n");
        EXPECT_TRUE(exists(d / (prefix + ".reads")) && exists(d / (prefix + ".krv")));
    }
}

}  // namespace
