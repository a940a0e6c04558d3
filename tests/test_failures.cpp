// Failures that must not pass silently: output files that cannot be written (a full disk, a
// file-size limit, a failing last flush), and a record that claims far more data than the
// run needs, whose cost must stay bounded by what its output holds.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "ace_writer.h"
#include "run_tool.h"
#include "sff_builder.h"

namespace {

using namespace fixture;

// Reads with 12 flows. `count` reads of wide flowgram values make a mode-3 output of about
// 80 bytes per read, so 15,000 of them overflow the 1 MiB output buffer and the first write
// happens mid-run.
void write_reads(const temp_dir& d, std::size_t count) {
    sff_file_layout f;
    f.number_of_flows_per_read = 12;
    std::vector<std::string> names;
    for (std::size_t k = 0; k < count; ++k) {
        sff_read_layout r;
        r.name = "read" + std::to_string(100000 + k);
        r.bases = "TACG";
        r.flow_index_per_base = {1, 1, 1, 1};
        r.quality = {30, 31, 32, 33};
        r.flowgram.assign(12, static_cast<std::uint16_t>(60000 + k % 5000));
        f.reads.push_back(r);
        names.push_back(r.name);
    }
    ASSERT_TRUE(write_file(d / "run.sff", build_sff(f)));
    ASSERT_TRUE(write_file(d / "run.ace", ace_file_text({named_reads("Contig1", names)})));
}

run_result run_mode3(const temp_dir& d, const run_limits& limits = {}) {
    return run_tool({"-f", "run.ace", "run.sff"}, d.path, limits);
}

TEST(WriteFailure, FullDiskEndsTheRunWithOneMessageAndNoSummary) {
    struct row {
        const char* full;  // the output file that is a link to /dev/full
        std::size_t reads;
        const char* what;
    };
    for (const row& r : {row{"run.reads", 3, "reads file, failing at its last flush"},
                         row{"run.krv", 3, "location index, failing at its last flush"},
                         row{"run.reads", 15000, "reads file, failing at a write mid-run"}}) {
        SCOPED_TRACE(r.what);
        temp_dir good, full;
        write_reads(good, r.reads);
        write_reads(full, r.reads);
        ASSERT_EQ(run_mode3(good).status, 0);
        std::filesystem::create_symlink("/dev/full", full / r.full);

        const run_result res = run_mode3(full);
        EXPECT_EQ(res.status, 1);
        EXPECT_EQ(res.out, "");
        EXPECT_EQ(res.err, std::string("can not write file ") + r.full + "\n");
        // The other file keeps everything written before the failure: the whole reads file
        // when the index failed at the end, the contig's index line when the reads failed.
        const std::string other = std::string(r.full) == "run.reads" ? "run.krv" : "run.reads";
        EXPECT_EQ(read_file(full / other), read_file(good / other));
    }
}

TEST(WriteFailure, FileSizeLimitIsReportedInsteadOfKillingTheRun) {
    temp_dir d;
    write_reads(d, 15000);
    const long long limit = 100000;
    const run_result res = run_mode3(d, {limit, {}, {}});
    EXPECT_EQ(res.status, 1);  // not killed by SIGXFSZ
    EXPECT_EQ(res.out, "");
    EXPECT_EQ(res.err, "can not write file run.reads\n");
    EXPECT_EQ(std::filesystem::file_size(d / "run.reads"), static_cast<std::uintmax_t>(limit));
}

// The summary, the last thing a run writes to standard output: a run whose summary could
// not be written fails after its output files are complete. A run that already failed
// keeps its status and its one message.
TEST(WriteFailure, SummaryThatCannotBeWrittenFailsTheRun) {
    temp_dir d;
    write_reads(d, 3);
    const run_result done = run_mode3(d);
    ASSERT_EQ(done.status, 0);
    const std::string reads = read_file(d / "run.reads"), krv = read_file(d / "run.krv");

    const run_result to_file = run_mode3(d, stdout_to(d / "summary"));
    EXPECT_EQ(to_file.status, 0);
    EXPECT_EQ(to_file.err, "");
    EXPECT_EQ(read_file(d / "summary"), done.out);

    std::filesystem::remove(d / "run.reads");
    std::filesystem::remove(d / "run.krv");
    const run_result to_full = run_mode3(d, stdout_to("/dev/full"));
    EXPECT_EQ(to_full.status, 1);
    EXPECT_EQ(to_full.err, "can not write standard output: No space left on device\n");
    EXPECT_EQ(read_file(d / "run.reads"), reads);
    EXPECT_EQ(read_file(d / "run.krv"), krv);

    struct row {
        std::vector<std::string> args;
        std::string err;
    };
    std::filesystem::create_symlink("/dev/full", d / "full.krv");
    std::filesystem::copy_file(d / "run.ace", d / "full.ace");
    for (const row& r : {row{{"run.ace", "run.sff", "nope.sff"}, "fail to open file nope.sff\n"},
                         row{{"full.ace", "run.sff"}, "can not write file full.krv\n"}}) {
        SCOPED_TRACE(r.err);
        const run_result failed = run_tool(r.args, d.path, stdout_to("/dev/full"));
        EXPECT_EQ(failed.status, 1);
        EXPECT_EQ(failed.err, r.err);
    }
}

// Two reads, 12 flows. The first read's kept range is its first 100 bases; the second read
// follows it. In the sparse file the first read claims 1,600,000,000 bases whose 4.8 GB of
// per-base values are a hole; in the dense file it has its 100 bases, all zero, as the hole
// reads. Both give the same output.
constexpr std::uint32_t sparse_bases = 1600000000;

sff_read_layout first_read(std::uint32_t bases) {
    sff_read_layout r;
    r.name = "sparse01";
    r.flowgram = {101, 3, 98, 5, 2, 103, 4, 99, 197, 102, 6, 3};
    r.clip_qual_right = 100;
    if (bases == sparse_bases) {
        r.number_of_bases = bases;  // the per-base values are left to the hole
    } else {
        r.flow_index_per_base.assign(bases, 0);
        r.bases.assign(bases, '\0');
        r.quality.assign(bases, 0);
    }
    return r;
}

sff_read_layout second_read() {
    sff_read_layout r;
    r.name = "after01";
    r.bases = "TCAG";
    r.flow_index_per_base = {1, 2, 3, 2};
    r.quality = {35, 36, 37, 38};
    r.flowgram = {101, 3, 98, 5, 2, 103, 4, 99, 197, 102, 6, 3};
    return r;
}

void write_two_read_sff(const std::string& path, std::uint32_t first_bases) {
    sff_file_layout f;
    f.number_of_flows_per_read = 12;
    f.number_of_reads = 2;
    std::string head = build_sff_header(f);
    append_sff_read(head, first_read(first_bases), false);
    std::string tail;
    append_sff_read(tail, second_read(), false);
    // The hole: the per-base values the first read claims (a multiple of 8 with its flowgram,
    // so no padding follows).
    const off_t hole = first_bases == sparse_bases ? 3 * static_cast<off_t>(sparse_bases) : 0;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    const auto at = static_cast<off_t>(head.size());
    EXPECT_EQ(::pwrite(fd, head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
    EXPECT_EQ(::pwrite(fd, tail.data(), tail.size(), at + hole), static_cast<ssize_t>(tail.size()));
    ::close(fd);
}

TEST(RecordBounds, SparseRecordCostsNoMoreThanItsOutput) {
    temp_dir sparse, dense;
    write_two_read_sff(sparse / "run.sff", sparse_bases);
    write_two_read_sff(dense / "run.sff", 100);
    for (const temp_dir* d : {&sparse, &dense})
        ASSERT_TRUE(write_file(*d / "run.ace",
                               ace_file_text({named_reads("Contig1", {"sparse01", "after01"})})));
    ASSERT_GT(std::filesystem::file_size(sparse / "run.sff"), 4800000000u);

    const run_result s = run_mode3(sparse);
    const run_result n = run_mode3(dense);
    ASSERT_EQ(s.status, 0) << s.err;
    ASSERT_EQ(n.status, 0) << n.err;
    EXPECT_LT(s.max_rss_kib, 64 * 1024);
    const std::string reads = read_file(sparse / "run.reads");
    EXPECT_EQ(reads, read_file(dense / "run.reads"));
    EXPECT_EQ(read_file(sparse / "run.krv"), read_file(dense / "run.krv"));
    // 100 kept bases, all of quality 0, then the read after the hole in full.
    EXPECT_NE(reads.find("sparse01\t1\n0\t0\t"), std::string::npos);
    EXPECT_NE(reads.find("after01\t1\n35\t36\t37\t38\n0\t2\t5\t7\n"), std::string::npos);
}

// Three reads fetched in name order from a file holding rec_c, rec_a, then rec_b cut four
// bytes short inside its qualities. rec_a is fetched whole; rec_b runs into the end of the
// file, which leaves the reader unable to position itself; so the fetch of rec_c fails.
TEST(FetchFailure, FailedFetchAfterGoodOnesWritesTheEmptyRecord) {
    temp_dir d;
    sff_file_layout f;
    f.number_of_flows_per_read = 12;
    auto read = [](const std::string& name, std::uint8_t q0) {
        sff_read_layout r;
        r.name = name;
        r.bases = "TACGTACG";
        r.flow_index_per_base = {1, 1, 1, 1, 1, 1, 1, 1};
        for (std::uint8_t k = 0; k < 8; ++k) r.quality.push_back(static_cast<std::uint8_t>(q0 + k));
        r.flowgram.assign(12, 100);  // 24 + 24 data bytes: no padding
        return r;
    };
    f.reads = {read("rec_c", 10), read("rec_a", 20), read("rec_b", 40)};
    const std::string bytes = build_sff(f);
    ASSERT_TRUE(write_file(d / "run.sff", bytes.substr(0, bytes.size() - 4)));
    ASSERT_TRUE(write_file(d / "run.ace",
                           ace_file_text({named_reads("Contig1", {"rec_a", "rec_b", "rec_c"})})));

    const run_result mode1 = run_tool({"run.ace", "run.sff"}, d.path);
    ASSERT_EQ(mode1.status, 0) << mode1.err;
    EXPECT_EQ(read_file(d / "run.reads"),
              ">Contig1\t3\t1\n"
              "rec_a\t1\n20\t21\t22\t23\t24\t25\t26\t27\n"
              "rec_b\t1\n40\t41\t42\t43\t0\t0\t0\t0\n"
              "\t1\n\n");
    const run_result mode3 = run_mode3(d);
    ASSERT_EQ(mode3.status, 0) << mode3.err;
    const std::string reads = read_file(d / "run.reads");
    const std::string empty = "\t1\n\n\n0\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\n";
    ASSERT_GE(reads.size(), empty.size());
    EXPECT_EQ(reads.substr(reads.size() - empty.size()), empty) << reads;
}

// A close that fails (as NFS reports a write it could not make) must fail the run like any
// write. The shim makes close() of the index file return EIO.
TEST(WriteFailure, FailingCloseOfTheIndexFileFailsTheRun) {
    temp_dir d;
    write_reads(d, 3);
    run_limits preload;
    preload.environment = {std::string("LD_PRELOAD=") + SORVEXA_CLOSE_FAILS_LIB,
                           "SORVEXA_CLOSE_FAILS=run.krv",
                           // The shim comes before the sanitizer runtime in a sanitized build.
                           "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"};
    const run_result res = run_tool({"-f", "run.ace", "run.sff"}, d.path, preload);
    EXPECT_EQ(res.status, 1);
    EXPECT_EQ(res.out, "");
    EXPECT_EQ(res.err, "can not write file run.krv\n");

    // The shim leaves every other close alone.
    preload.environment[1] = "SORVEXA_CLOSE_FAILS=no-such-file";
    const run_result other = run_tool({"-f", "run.ace", "run.sff"}, d.path, preload);
    EXPECT_EQ(other.status, 0) << other.err;
}

}  // namespace
