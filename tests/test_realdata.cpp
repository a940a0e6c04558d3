// Real SFF and ACE files written by other tools, read end to end: indexes, fetched reads and
// the contig operations must hold together on data that no fixture builder wrote.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <sorvexa/ace.h>
#include <sorvexa/flow_walk.h>
#include "run_tool.h"
#include <sorvexa/sff.h>

namespace {

std::vector<std::string> sample_files(const std::string& extension) {
    const auto dir = std::filesystem::path(__FILE__).parent_path() / "../../shared/realdata";
    std::vector<std::string> files;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
        if (entry.path().extension() == extension) files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

TEST(RealData, SffReadsFetchedThroughTheIndex) {
    const std::vector<std::string> files = sample_files(".sff");
    if (files.empty()) GTEST_SKIP() << "no sample SFF files";
    int well_formed = 0;
    for (const std::string& path : files) {
        SCOPED_TRACE(path);
        read_index index;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        reader walk(path);
        const bool complete = walk.build_read_index(index);
        testing::internal::GetCapturedStdout();
        testing::internal::GetCapturedStderr();
        // Where an index block stands in place of a read the walk ends early; what it indexed
        // there is fetched without checks.
        const bool whole = complete && index.size() == walk.header_p1.number_of_reads;
        well_formed += whole;
        reader r(path);
        ASSERT_TRUE(r.get_header());
        for (const auto& [name, pos] : index) {
            seqRead s;
            r.get_read(pos, s);
            if (!whole) continue;
            const std::string bases(s.bases.begin(), s.bases.end());
            EXPECT_EQ(s.name, name);
            EXPECT_TRUE(!bases.empty() && bases.find_first_not_of("ACGTN") == bases.npos) << name;
            EXPECT_EQ(s.quality_scores.size(), bases.size());
            ASSERT_EQ(s.flow_indexes.size(), bases.size());
            EXPECT_TRUE(std::is_sorted(s.flow_indexes.begin(), s.flow_indexes.end())) << name;
            EXPECT_GE(s.flow_indexes.front(), 0) << name;
            EXPECT_LT(s.flow_indexes.back(), r.header_p1.number_of_flows_per_read) << name;
            // A read that travels without its record finds its flows again from the bases,
            // the flowgram and the flow of its first base; an N ends that walk.
            std::vector<std::int32_t> walked;
            const std::string_view order(r.header_p2.flow_chars.data(),
                                         r.header_p2.flow_chars.size());
            const bool walks = walk_flows(bases, order, r.cur_read.flowgram_values,
                                          s.flow_indexes.front(), walked);
            EXPECT_EQ(walks, bases.find('N') == bases.npos) << name;
            const std::size_t sure = std::min(bases.find('N'), bases.size());
            for (std::size_t i = 0; i < sure; ++i)
                ASSERT_EQ(walked[i], s.flow_indexes[i]) << name << " base " << i;
        }
    }
    EXPECT_GT(well_formed, 0);
}

// Every contig operation over a few windows, the last two reaching past the consensus.
void exercise(contig& c) {
    c.create_print_map();
    c.create_flow_concensus();
    EXPECT_EQ(c.flow_index.size(), c.consensus.size());
    const auto length = static_cast<std::int32_t>(c.consensus.size());
    for (std::int32_t from : {1, length / 2, std::max(1, length - 20), length + 5}) {
        std::vector<std::vector<std::int16_t>> counts;
        std::vector<std::map<std::int32_t, fRead>> rows;
        c.align_flow(counts, rows, from, 60);
        EXPECT_EQ(rows.size(), c.print_map.size());
        std::string flow_map, align_map;
        std::vector<std::string> names;
        c.print_flow_map_plain(flow_map, names, from, 60);
        c.print_align_map_plain(align_map, names, from, 60);
        EXPECT_FALSE(flow_map.empty() || align_map.empty());
        std::vector<std::vector<char>> columns;
        std::vector<std::map<std::int32_t, std::string>> seq_rows;
        c.align_seq(columns, seq_rows, from, 60);
    }
}

TEST(RealData, AceContigsThroughEveryContigOperation) {
    const std::vector<std::string> files = sample_files(".ace");
    if (files.empty()) GTEST_SKIP() << "no sample ACE files";
    // A file that breaks the section order stops the reader with its message; the library
    // itself prints nothing.
    int complete = 0;
    for (const std::string& path : files) {
        SCOPED_TRACE(path);
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        aceReader ace(path);
        for (contig c; ace.next_contig(c) == 1; c = contig{}) {
            // One assembler lists a read twice in a contig; the later AF line wins.
            EXPECT_LE(c.reads.size(), static_cast<std::size_t>(c.num_reads));
            EXPECT_FALSE(c.reads.empty() || c.consensus.empty());
            if (!c.reads.empty() && !c.consensus.empty()) exercise(c);
        }
        if (ace.error) ++complete;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        // Another assembler writes no BS lines.
        EXPECT_TRUE(ace.error.ok ||
                    ace.error.message == "Error: tag 'RD' should be not in the ACE file!")
            << ace.error.message;
    }
    EXPECT_GT(complete, 0);
}

// The flow-signal check on every sample ACE file with every sample SFF file: it ends as the
// tool does (the files the ACE reader accepts run to the end, the one out of its grammar
// stops with its message), and a completed run says what became of every read.
TEST(RealData, FlowcheckEndsAsTheToolDoes) {
    const std::vector<std::string> aces = sample_files(".ace");
    const std::vector<std::string> sffs = sample_files(".sff");
    if (aces.empty() || sffs.empty()) GTEST_SKIP() << "no sample files";
    fixture::temp_dir d;
    int completed = 0;
    for (const std::string& path : aces) {
        SCOPED_TRACE(path);
        // A copy, since the tool writes beside its ACE file and the samples stay untouched.
        const std::string ace = d / std::filesystem::path(path).filename().string();
        std::filesystem::copy_file(path, ace, std::filesystem::copy_options::overwrite_existing);
        std::vector<std::string> args{ace};
        args.insert(args.end(), sffs.begin(), sffs.end());
        const fixture::run_result checked =
            fixture::run_binary(SORVEXA_FLOWCHECK_BIN, args, d.path);
        EXPECT_EQ(checked.status, fixture::run_tool(args, d.path).status);
        if (checked.status != 0) continue;
        ++completed;
        EXPECT_NE(checked.err.find(" in no SFF file\n"), std::string::npos) << checked.err;
    }
    EXPECT_GT(completed, 0);
}

}  // namespace
