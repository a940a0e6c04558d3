// sorvexa-sff2bam: SFF reads written as unmapped SAM, BAM and CRAM records and read back with
// htslib, read by read against the SFF files themselves (bases, qualities, flowgram, the flow
// of every base); read groups, duplicate names, bad input and failed writes.
#include <gtest/gtest.h>

#include <htslib/sam.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <sorvexa/flow_tags.h>
#include <sorvexa/flow_walk.h>
#include <sorvexa/sff.h>
#include <sorvexa/sff_sam.h>
#include "run_tool.h"
#include "sff2bam_main.h"
#include "sff_builder.h"

namespace {

using namespace fixture;

// One record as written, or as the SFF file says it should be.
struct read_record {
    std::string name;
    int flag = 0;
    std::string bases;
    std::vector<std::uint8_t> qualities;
    std::vector<std::uint16_t> flowgram;
    std::int32_t first_flow = -1;  // ZF; -1 when absent
    std::string group;
    std::vector<std::int32_t> flows;  // the flow of every base (expected side only)
    bool operator==(const read_record& o) const {
        return name == o.name && flag == o.flag && bases == o.bases && qualities == o.qualities &&
               flowgram == o.flowgram && first_flow == o.first_flow && group == o.group;
    }
};

std::ostream& operator<<(std::ostream& out, const read_record& r) {
    return out << r.name << " flag " << r.flag << " " << r.bases << " ZF " << r.first_flow
               << " FZ[" << r.flowgram.size() << "] RG " << r.group;
}

struct bam_file {
    bool opened = false;
    std::vector<read_group_flows> groups;
    std::string header;
    std::vector<read_record> reads;
    // Per record: whether a tag of another platform's flows came along.
    bool other_flow_tags = false;
};

// Reads a SAM, BAM or CRAM file back through htslib.
bam_file read_back(const std::string& path) {
    bam_file out;
    samFile* fp = sam_open(path.c_str(), "r");
    if (fp == nullptr) return out;
    sam_hdr_t* h = sam_hdr_read(fp);
    if (h == nullptr) {
        sam_close(fp);
        return out;
    }
    out.opened = true;
    out.groups = read_groups(h);
    out.header.assign(sam_hdr_str(h), sam_hdr_length(h));
    bam1_t* b = bam_init1();
    while (sam_read1(fp, h, b) >= 0) {
        read_record r;
        r.name = bam_get_qname(b);
        r.flag = b->core.flag;
        const std::uint8_t* seq = bam_get_seq(b);
        for (int i = 0; i < b->core.l_qseq; ++i) r.bases += seq_nt16_str[bam_seqi(seq, i)];
        const std::uint8_t* q = bam_get_qual(b);
        r.qualities.assign(q, q + b->core.l_qseq);
        record_flowgram(b, r.flowgram);
        r.first_flow = record_first_flow(b);
        if (const std::uint8_t* rg = bam_aux_get(b, "RG"); rg != nullptr) r.group = bam_aux2Z(rg);
        // Ion Torrent's flows (ZM, FZ's counterpart in signed hundredths) and PacBio's kinetics.
        for (const char* tag : {"ZM", "ZP", "ip", "pw", "fi", "ri"})
            if (bam_aux_get(b, tag) != nullptr) out.other_flow_tags = true;
        out.reads.push_back(std::move(r));
    }
    bam_destroy1(b);
    sam_hdr_destroy(h);
    sam_close(fp);
    return out;
}

// What the converter must write for every read of `path`, from the library's own reader:
// the kept range (seqRead) or every called base, and the flow of each base.
std::vector<read_record> expected(const std::string& path, const std::string& group,
                                  bool untrimmed) {
    std::vector<read_record> out;
    reader r(path);
    r.skip_index_block = true;
    if (!r.get_header()) return out;
    while (r.get_next_read()) {
        const sff_read& s = r.cur_read;
        read_record e;
        e.name.assign(s.name.begin(), s.name.end());
        e.flag = 4;
        e.flowgram = s.flowgram_values;
        e.group = group;
        if (untrimmed) {
            e.bases.assign(s.bases.begin(), s.bases.end());
            e.qualities = s.quality_scores;
            std::int32_t flow = -1;
            for (std::uint8_t step : s.flow_index_per_base) e.flows.push_back(flow += step);
        } else {
            const seqRead kept(s);
            e.bases.assign(kept.bases.begin(), kept.bases.end());
            for (std::int16_t q : kept.quality_scores) e.qualities.push_back(static_cast<std::uint8_t>(q));
            e.flows.assign(kept.flow_indexes.begin(), kept.flow_indexes.end());
        }
        if (!e.flows.empty()) e.first_flow = e.flows.front();
        out.push_back(std::move(e));
    }
    return out;
}

// Checks a written file against its SFF files, read by read: every record equal, and for
// every read without an N, walk_flows over the written bases, FO, FZ and ZF gives the flow
// of every base that the SFF file gives. Returns the number of reads walked.
std::size_t check_round_trip(const std::string& written, const std::vector<std::string>& sffs,
                             const std::vector<std::string>& ids, bool untrimmed) {
    const bam_file back = read_back(written);
    EXPECT_TRUE(back.opened) << written;
    EXPECT_FALSE(back.other_flow_tags);
    EXPECT_EQ(back.groups.size(), sffs.size());
    std::vector<read_record> want;
    for (std::size_t k = 0; k < sffs.size(); ++k) {
        reader r(sffs[k]);
        EXPECT_TRUE(r.get_header()) << sffs[k];
        if (k < back.groups.size()) {
            EXPECT_EQ(back.groups[k].id, ids[k]);
            EXPECT_EQ(back.groups[k].flow_chars,
                      std::string(r.header_p2.flow_chars.begin(), r.header_p2.flow_chars.end()));
            EXPECT_EQ(back.groups[k].key, std::string(r.header_p2.key_sequence.begin(),
                                                      r.header_p2.key_sequence.end()));
        }
        for (read_record& e : expected(sffs[k], ids[k], untrimmed)) want.push_back(std::move(e));
    }
    EXPECT_NE(back.header.find("\tPL:LS454"), std::string::npos);
    EXPECT_EQ(back.reads.size(), want.size());
    std::size_t walked = 0;
    for (std::size_t i = 0; i < std::min(back.reads.size(), want.size()); ++i) {
        const read_record& got = back.reads[i];
        const read_record& e = want[i];
        EXPECT_EQ(got, e) << "record " << i;
        if (got.bases.find('N') != std::string::npos) continue;
        const auto group = std::find_if(back.groups.begin(), back.groups.end(),
                                        [&](const read_group_flows& g) { return g.id == got.group; });
        if (group == back.groups.end()) {
            ADD_FAILURE() << "no read group " << got.group;
            continue;
        }
        std::vector<std::int32_t> flows;
        EXPECT_TRUE(walk_flows(got.bases, group->flow_chars, got.flowgram, got.first_flow, flows))
            << got.name;
        EXPECT_EQ(flows, e.flows) << got.name;
        ++walked;
    }
    return walked;
}

run_result sff2bam(const std::vector<std::string>& args, const std::string& cwd,
                   const run_limits& limits = {}) {
    return run_binary(SORVEXA_SFF2BAM_BIN, args, cwd, limits);
}

const std::string kFlows = tacg_flows(200);

// A read of "TCAG" + random bases, its quality falling along it, clipped after the key and
// (when `right` > 0) before its end.
sff_read_layout fixture_read(const std::string& name, std::uint64_t seed, std::size_t length,
                             std::uint16_t right = 0, std::uint16_t adapter_right = 0) {
    splitmix64 rng{seed};
    std::string bases = "TCAG";
    for (std::size_t i = 0; i < length; ++i) bases += "ACGT"[rng.below(4)];
    std::vector<std::uint8_t> q;
    for (std::size_t i = 0; i < bases.size(); ++i) q.push_back(static_cast<std::uint8_t>(40 - i / 8));
    sff_read_layout r = make_read(name, bases, kFlows, q, seed);
    r.clip_qual_left = 5;
    r.clip_qual_right = right;
    r.clip_adapter_right = adapter_right;
    return r;
}

sff_file_layout fixture_file(bool little_endian, const std::string& prefix, int reads,
                             std::uint64_t seed) {
    sff_file_layout f;
    f.little_endian = little_endian;
    f.number_of_flows_per_read = static_cast<std::uint16_t>(kFlows.size());
    f.flow_chars = kFlows;
    for (int i = 0; i < reads; ++i) {
        const std::uint16_t right = i % 3 == 1 ? static_cast<std::uint16_t>(40 + i) : 0;
        const std::uint16_t adapter = i % 4 == 2 ? static_cast<std::uint16_t>(50 + i) : 0;
        f.reads.push_back(fixture_read(prefix + std::to_string(i), seed + i, 60 + 7 * i, right, adapter));
    }
    // A read whose kept range holds an N (called where a C was) and one clipped to nothing.
    sff_read_layout n = fixture_read(prefix + "N", seed + 100, 40);
    n.bases[10] = 'N';
    f.reads.push_back(n);
    sff_read_layout empty = fixture_read(prefix + "empty", seed + 101, 30);
    empty.clip_qual_left = 20;
    empty.clip_qual_right = 10;
    f.reads.push_back(empty);
    return f;
}

// Two files in either byte order, with an index block standing among the second's reads.
void write_fixtures(const temp_dir& d) {
    ASSERT_TRUE(write_file(d / "a.sff", build_sff(fixture_file(false, "a", 12, 1))));
    sff_file_layout b = fixture_file(true, "b", 9, 50);
    const std::string header = build_sff_header(b);
    std::string body;
    for (std::size_t i = 0; i < 4; ++i) append_sff_read(body, b.reads[i], true);
    b.index_offset = header.size() + body.size();
    b.index_length = 20;
    const std::string with_index = build_sff_header(b);
    std::string bytes = with_index + body + std::string(24, '\x7f');
    for (std::size_t i = 4; i < b.reads.size(); ++i) append_sff_read(bytes, b.reads[i], true);
    ASSERT_TRUE(write_file(d / "b.sff", bytes));
}

std::vector<std::string> files_in(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST(ReadGroups, IdsFromFileNamesMadeDistinct) {
    EXPECT_EQ(sff_read_group_ids({"run1.sff", "/x/y/run2.SFF", "plain", "dir/.sff"}),
              (std::vector<std::string>{"run1", "run2", "plain", "sff"}));
    EXPECT_EQ(sff_read_group_ids({"a/run.sff", "b/run.sff", "run.sff"}),
              (std::vector<std::string>{"run", "run.2", "run.3"}));
    // A variant never takes another file's own name.
    EXPECT_EQ(sff_read_group_ids({"a.sff", "x/a.sff", "a.2.sff"}),
              (std::vector<std::string>{"a", "a.3", "a.2"}));
    EXPECT_EQ(sff_read_group_ids({"tab\there.sff"}), (std::vector<std::string>{"tab_here"}));
}

TEST(RoundTrip, FixturesInEveryFormat) {
    temp_dir d;
    write_fixtures(d);
    const std::vector<std::string> sffs = {d / "a.sff", d / "b.sff"};
    for (const std::string out : {"out.bam", "out.sam", "out.cram"}) {
        SCOPED_TRACE(out);
        const run_result res = sff2bam({"-o", out, "a.sff", "b.sff"}, d.path);
        EXPECT_EQ(res.status, 0) << res.err;
        EXPECT_EQ(res.out, "");
        EXPECT_EQ(res.err, "sorvexa-sff2bam: 25 reads from 2 SFF files written to " + out + "\n");
        // The N read is not walked; the empty one walks trivially.
        EXPECT_EQ(check_round_trip(d / out, sffs, {"a", "b"}, false), 23u);
    }
    // The empty read: no bases, no ZF, its whole flowgram.
    const bam_file back = read_back(d / "out.bam");
    ASSERT_EQ(back.reads.size(), 25u);
    EXPECT_EQ(back.reads[13].name, "aempty");
    EXPECT_EQ(back.reads[13].bases, "");
    EXPECT_EQ(back.reads[13].first_flow, -1);
    EXPECT_EQ(back.reads[13].flowgram.size(), kFlows.size());
    EXPECT_NE(back.header.find("@RG\tID:a\tPL:LS454\tFO:TACG"), std::string::npos);
    EXPECT_NE(back.header.find("\tKS:TCAG\n"), std::string::npos);
    EXPECT_NE(back.header.find("@PG\tID:sorvexa-sff2bam\tPN:sorvexa-sff2bam\tVN:1.1\tCL:"),
              std::string::npos);
    // The file is compressed BGZF, the SAM file text.
    EXPECT_EQ(read_file(d / "out.bam").substr(0, 4), "\x1f\x8b\x08\x04");
    EXPECT_EQ(read_file(d / "out.sam").substr(0, 4), "@HD\t");
    EXPECT_EQ(read_file(d / "out.cram").substr(0, 4), "CRAM");
    EXPECT_EQ(files_in(d.path), (std::vector<std::string>{"a.sff", "b.sff", "out.bam", "out.cram",
                                                          "out.sam"}));

    // Standard output: uncompressed BAM unless -O says otherwise; threads change nothing.
    const run_result piped = sff2bam({"-o", "-", "a.sff", "b.sff"}, d.path, stdout_to(d / "piped"));
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.err, "sorvexa-sff2bam: 25 reads from 2 SFF files written to standard output\n");
    EXPECT_EQ(check_round_trip(d / "piped", sffs, {"a", "b"}, false), 23u);
    const run_result sam = sff2bam({"-O", "sam", "-o", "-", "a.sff", "b.sff"}, d.path,
                                   stdout_to(d / "piped.txt"));
    EXPECT_EQ(sam.status, 0) << sam.err;
    // The same text but for the command line in @PG.
    const auto past_pg = [](const std::string& text) { return text.substr(text.find("\n", text.find("@PG\t"))); };
    EXPECT_TRUE(past_pg(read_file(d / "piped.txt")) == past_pg(read_file(d / "out.sam")));
    const run_result threads = sff2bam({"-@", "2", "-o", "t.bam", "a.sff", "b.sff"}, d.path);
    EXPECT_EQ(threads.status, 0) << threads.err;
    EXPECT_EQ(check_round_trip(d / "t.bam", sffs, {"a", "b"}, false), 23u);
    const run_result named = sff2bam({"--threads=2", "-Obam", "-o", "t.out", "a.sff"}, d.path);
    EXPECT_EQ(named.status, 0) << named.err;
    EXPECT_EQ(check_round_trip(d / "t.out", {d / "a.sff"}, {"a"}, false), 13u);
    // Compression levels: -u and -l 0 store the records, -l 9 and the default compress them.
    for (const std::vector<std::string>& level :
         {std::vector<std::string>{"-u"}, {"-l", "0"}, {"-l9"}}) {
        std::vector<std::string> args = level;
        args.insert(args.end(), {"-o", "l.bam", "a.sff", "b.sff"});
        const run_result res = sff2bam(args, d.path);
        EXPECT_EQ(res.status, 0) << res.err;
        EXPECT_EQ(check_round_trip(d / "l.bam", sffs, {"a", "b"}, false), 23u);
        const auto size = std::filesystem::file_size(d / "l.bam");
        if (level[0] == "-l9")
            EXPECT_LE(size, std::filesystem::file_size(d / "t.bam"));
        else
            EXPECT_GT(size, std::filesystem::file_size(d / "t.bam"));
    }
}

TEST(RoundTrip, UntrimmedWritesEveryCalledBase) {
    temp_dir d;
    write_fixtures(d);
    const run_result res = sff2bam({"--untrimmed", "-o", "all.bam", "a.sff", "b.sff"}, d.path);
    EXPECT_EQ(res.status, 0) << res.err;
    EXPECT_EQ(check_round_trip(d / "all.bam", {d / "a.sff", d / "b.sff"}, {"a", "b"}, true), 23u);
    const bam_file back = read_back(d / "all.bam");
    ASSERT_FALSE(back.reads.empty());
    EXPECT_EQ(back.reads[0].bases.substr(0, 4), "TCAG");  // the key comes along
    EXPECT_EQ(back.reads[0].first_flow, 0);
    EXPECT_EQ(back.reads[13].bases.size(), 34u);  // the read clipped to nothing, whole
}

TEST(RoundTrip, BundledSimulatedReads) {
    const std::string sim = std::string(SORVEXA_TEST_DATA) + "/sim454.sff";
    temp_dir d;
    for (const bool untrimmed : {false, true}) {
        std::vector<std::string> args = {"-o", "sim.bam", sim};
        if (untrimmed) args.insert(args.begin(), "--untrimmed");
        const run_result res = sff2bam(args, d.path);
        EXPECT_EQ(res.status, 0) << res.err;
        EXPECT_EQ(check_round_trip(d / "sim.bam", {sim}, {"sim454"}, untrimmed), 60u);
    }
}

std::vector<std::string> sample_sff_files() {
    const auto dir = std::filesystem::path(__FILE__).parent_path() / "../../shared/realdata";
    std::vector<std::string> files;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
        if (entry.path().extension() == ".sff") files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

TEST(RoundTrip, RealSffFiles) {
    const std::vector<std::string> files = sample_sff_files();
    if (files.empty()) GTEST_SKIP() << "no sample SFF files";
    temp_dir d;
    int converted = 0;
    std::size_t walked = 0;
    for (const std::string& path : files) {
        SCOPED_TRACE(path);
        const std::string name = std::filesystem::path(path).filename().string();
        const std::string id = name.substr(0, name.size() - 4);
        for (const bool untrimmed : {false, true}) {
            std::vector<std::string> args = {"-o", "real.bam", path};
            if (untrimmed) args.insert(args.begin(), "--untrimmed");
            const run_result res = sff2bam(args, d.path);
            if (name.rfind("invalid_", 0) == 0) {
                // Two SFF files joined into one: refused, nothing written.
                EXPECT_EQ(res.status, 1);
                EXPECT_EQ(lines(res.err), 1u) << res.err;
                EXPECT_NE(res.err.find("bytes after its last read"), std::string::npos) << res.err;
                EXPECT_FALSE(std::filesystem::exists(d / "real.bam"));
                continue;
            }
            EXPECT_EQ(res.status, 0) << res.err;
            walked += check_round_trip(d / "real.bam", {path}, {id}, untrimmed);
            ++converted;
            std::filesystem::remove(d / "real.bam");
        }
    }
    EXPECT_GT(converted, 0);
    EXPECT_GT(walked, 0u);
    // All of them at once: read groups in command-line order, every read in file order.
    std::vector<std::string> valid, ids;
    for (const std::string& path : files) {
        const std::string name = std::filesystem::path(path).filename().string();
        if (name.rfind("invalid_", 0) == 0) continue;
        valid.push_back(path);
        ids.push_back(name.substr(0, name.size() - 4));
    }
    std::vector<std::string> args = {"-o", "all.cram"};
    args.insert(args.end(), valid.begin(), valid.end());
    const run_result all = sff2bam(args, d.path);
    EXPECT_EQ(all.status, 0) << all.err;
    // The E3MFGYR02 files hold the same ten reads: every one is found again, and kept.
    EXPECT_NE(all.err.find("of a read name found before, every one kept"), std::string::npos);
    check_round_trip(d / "all.cram", valid, ids, false);
}

TEST(DuplicateNames, BothRecordsKeptAndTold) {
    temp_dir d;
    write_fixtures(d);
    std::filesystem::create_directory(d / "x");
    std::filesystem::copy_file(d / "a.sff", d / "x/a.sff");
    const run_result res = sff2bam({"-o", "dup.bam", "a.sff", "x/a.sff"}, d.path);
    EXPECT_EQ(res.status, 0) << res.err;
    // Ten named, then the count.
    EXPECT_EQ(lines(res.err), 12u) << res.err;
    EXPECT_EQ(res.err.substr(0, res.err.find('\n')),
              "sorvexa-sff2bam: read a0 found again in x/a.sff (first in a.sff); both records kept");
    EXPECT_NE(res.err.find("\nsorvexa-sff2bam: 14 records of a read name found before, every one "
                           "kept (the first 10 named above)\n"),
              std::string::npos);
    EXPECT_EQ(check_round_trip(d / "dup.bam", {d / "a.sff", d / "x/a.sff"}, {"a", "a.2"}, false),
              26u);

    // Within one file.
    sff_file_layout f = fixture_file(false, "c", 3, 7);
    f.reads[2].name = "c0";
    ASSERT_TRUE(write_file(d / "c.sff", build_sff(f)));
    const run_result one = sff2bam({"-o", "c.bam", "c.sff"}, d.path);
    EXPECT_EQ(one.status, 0);
    EXPECT_EQ(one.err,
              "sorvexa-sff2bam: read c0 found again in c.sff (first in c.sff); both records kept\n"
              "sorvexa-sff2bam: 1 record of a read name found before, every one kept\n"
              "sorvexa-sff2bam: 5 reads from 1 SFF file written to c.bam\n");
    EXPECT_EQ(read_back(d / "c.bam").reads.size(), 5u);
}

// Broken inputs, each with the message that must name it.
struct broken_case {
    std::string label;
    std::string bytes;
    std::string message;  // the whole line after "sorvexa-sff2bam: bad.sff: "
};

std::vector<broken_case> broken_cases() {
    std::vector<broken_case> cases;
    const sff_file_layout good = fixture_file(false, "g", 3, 3);
    const std::string bytes = build_sff(good);
    const std::size_t first_read = build_sff_header(good).size();
    cases.push_back({"cut in a record", bytes.substr(0, bytes.size() - 30),
                     "cut short in read 5 of 5 (" + std::to_string(bytes.size() - 30) + " bytes)"});
    cases.push_back({"cut between records",
                     bytes.substr(0, first_read + sff_read_size(good.reads[0])),
                     "cut short in read 2 of 5 (" +
                         std::to_string(first_read + sff_read_size(good.reads[0])) + " bytes)"});
    cases.push_back({"header cut", bytes.substr(0, 20), "its header is cut short (20 bytes)"});
    cases.push_back({"not SFF", "ACGT\nnot a flowgram file at all\n",
                     "not an SFF file (no .sff magic number)"});
    cases.push_back({"joined", bytes + bytes,
                     std::to_string(bytes.size()) +
                         " bytes after its last read (5 declared) that are no index block: two SFF "
                         "files joined into one?"});
    sff_file_layout more = good;
    more.number_of_reads = 6;
    cases.push_back({"fewer reads than declared", build_sff(more),
                     "cut short in read 6 of 6 (" + std::to_string(bytes.size()) + " bytes)"});
    sff_file_layout format = good;
    format.flowgram_format_code = 2;
    cases.push_back({"flowgram format", build_sff(format),
                     "flowgram format 2 (only format 1, flow values in hundredths, is known)"});
    sff_file_layout chars = good;
    chars.flow_chars = "TACX" + kFlows.substr(4);
    cases.push_back({"flow characters", build_sff(chars),
                     "its flow characters hold 'X', not a base A, C, G or T"});
    sff_file_layout name = good;
    name.reads[1].name = "two words";
    cases.push_back({"name", build_sff(name),
                     "read 2 of 5: read name 'two words' cannot be a SAM read name (1 to 254 "
                     "characters, printable, no space or @)"});
    sff_file_layout base = good;
    base.reads[2].bases[7] = 'X';
    cases.push_back({"base", build_sff(base), "read 3 of 5: read g2: base 8 is 'X', not A, C, G, T or N"});
    sff_file_layout quality = good;
    quality.reads[0].quality[6] = 94;
    cases.push_back({"quality", build_sff(quality),
                     "read 1 of 5: read g0: quality 94 of base 7 is above 93"});
    sff_file_layout flows = good;
    flows.reads[0].flow_index_per_base.back() = 255;
    cases.push_back({"flow past the flowgram", build_sff(flows), ""});
    return cases;
}

TEST(BadInput, OneLineStatusOneAndNothingWritten) {
    temp_dir d;
    write_fixtures(d);
    for (const broken_case& c : broken_cases()) {
        SCOPED_TRACE(c.label);
        ASSERT_TRUE(write_file(d / "bad.sff", c.bytes));
        for (const std::string out : {"new.bam", "old.bam", "-"}) {
            SCOPED_TRACE(out);
            ASSERT_TRUE(write_file(d / "old.bam", "what was there"));
            // The good file first: its reads would be written before the bad one is reached.
            const run_result res =
                sff2bam({"-o", out, "a.sff", "bad.sff"}, d.path, stdout_to(d / "stdout"));
            EXPECT_EQ(res.status, 1);
            EXPECT_EQ(lines(res.err), 1u) << res.err;
            if (c.message.empty())
                EXPECT_EQ(res.err.rfind("sorvexa-sff2bam: bad.sff: read 1 of 5: read g0: ", 0), 0u)
                    << res.err;
            else
                EXPECT_EQ(res.err, "sorvexa-sff2bam: bad.sff: " + c.message + "\n");
            EXPECT_EQ(read_file(d / "old.bam"), "what was there");
            EXPECT_EQ(read_file(d / "stdout"), "");
            EXPECT_EQ(files_in(d.path), (std::vector<std::string>{"a.sff", "b.sff", "bad.sff",
                                                                  "old.bam", "stdout"}));
        }
    }
    // Names found twice before the bad file are not told: the one line says why the run failed.
    ASSERT_TRUE(write_file(d / "bad.sff", broken_cases()[0].bytes));
    const run_result twice = sff2bam({"-o", "x.bam", "a.sff", "a.sff", "bad.sff"}, d.path);
    EXPECT_EQ(twice.status, 1);
    EXPECT_EQ(twice.err, "sorvexa-sff2bam: bad.sff: " + broken_cases()[0].message + "\n");
    EXPECT_FALSE(std::filesystem::exists(d / "x.bam"));
    struct row {
        std::vector<std::string> args;
        std::string err;
    };
    for (const row& r : std::vector<row>{
             {{"-o", "x.bam", "missing.sff"},
              "sorvexa-sff2bam: missing.sff: No such file or directory\n"},
             {{"-o", "x.bam", "."}, "sorvexa-sff2bam: .: is a directory\n"},
             {{"-o", "a.sff", "-O", "bam", "a.sff"},
              "sorvexa-sff2bam: the output a.sff is the input a.sff\n"},
             {{"-o", "no/such/dir/x.bam", "a.sff"},
              "sorvexa-sff2bam: can not create a file beside no/such/dir/x.bam: No such file or "
              "directory\n"},
         }) {
        const run_result res = sff2bam(r.args, d.path);
        EXPECT_EQ(res.status, 1);
        EXPECT_EQ(res.err, r.err);
    }
    std::filesystem::create_directory(d / "out.bam");
    EXPECT_EQ(sff2bam({"-o", "out.bam", "a.sff"}, d.path).err,
              "sorvexa-sff2bam: can not write out.bam: it is a directory\n");
    EXPECT_EQ(std::filesystem::file_size(d / "a.sff"), read_file(d / "a.sff").size());
}

TEST(BadInput, FailedWritesAndClosesAreReported) {
    temp_dir d;
    write_fixtures(d);
    // htslib 1.16 leaves its file's buffers behind when the last flush of a close fails (the
    // process ends right after): no leak check for these runs.
    run_limits no_leak_check;
    no_leak_check.environment = {"ASAN_OPTIONS=halt_on_error=1:detect_leaks=0"};
    const run_result full =
        sff2bam({"-o", "/dev/full", "-O", "bam", "a.sff"}, d.path, no_leak_check);
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "sorvexa-sff2bam: can not write /dev/full: No space left on device\n");
    run_limits full_stdout = stdout_to("/dev/full");
    full_stdout.environment = no_leak_check.environment;
    const run_result full_out = sff2bam({"-o", "-", "a.sff", "b.sff"}, d.path, full_stdout);
    EXPECT_EQ(full_out.status, 1);
    EXPECT_EQ(lines(full_out.err), 1u) << full_out.err;
    EXPECT_EQ(full_out.err.rfind("sorvexa-sff2bam: can not write standard output: ", 0), 0u);

    // A file-size limit: the write fails, the temporary file goes.
    run_limits small = no_leak_check;
    small.file_size = 2000;
    const run_result limited = sff2bam({"-o", "out.sam", "a.sff", "b.sff"}, d.path, small);
    EXPECT_EQ(limited.status, 1);
    EXPECT_EQ(limited.err, "sorvexa-sff2bam: can not write out.sam: File too large\n");
    EXPECT_EQ(files_in(d.path), (std::vector<std::string>{"a.sff", "b.sff"}));

    // A close that fails (as NFS reports a failed write back), on the temporary file.
    run_limits preload;
    preload.environment = {std::string("LD_PRELOAD=") + SORVEXA_CLOSE_FAILS_LIB,
                           "SORVEXA_CLOSE_FAILS=.tmp",
                           "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"};
    const run_result closed = sff2bam({"-o", "out.bam", "a.sff"}, d.path, preload);
    EXPECT_EQ(closed.status, 1);
    EXPECT_EQ(closed.err, "sorvexa-sff2bam: can not write out.bam: Input/output error\n");
    EXPECT_EQ(files_in(d.path), (std::vector<std::string>{"a.sff", "b.sff"}));
    preload.environment[1] = "SORVEXA_CLOSE_FAILS=no-such-file";
    EXPECT_EQ(sff2bam({"-o", "out.bam", "a.sff"}, d.path, preload).status, 0);
}

TEST(CommandLine, UsageErrorsHelpAndVersion) {
    temp_dir d;
    write_fixtures(d);
    struct row {
        std::vector<std::string> args;
        std::string first_line;
    };
    for (const row& r : std::vector<row>{
             {{"a.sff"}, "sorvexa-sff2bam: needs an output file (-o OUT, or -o - for standard output)"},
             {{"-o", "x.bam"}, "sorvexa-sff2bam: needs at least one SFF file"},
             {{"-o", "x.txt", "a.sff"},
              "sorvexa-sff2bam: can not tell the format of x.txt (its name ends in none of .bam, "
              ".cram, .sam): give -O FORMAT"},
             {{"-O", "fastq", "-o", "x.bam", "a.sff"},
              "sorvexa-sff2bam: -O takes bam, cram or sam, not 'fastq'"},
             {{"-@", "x", "-o", "x.bam", "a.sff"},
              "sorvexa-sff2bam: -@ takes a number of threads from 0 to 1024, not 'x'"},
             {{"--frobnicate", "-o", "x.bam", "a.sff"}, "sorvexa-sff2bam: unknown option --frobnicate"},
             {{"--untrimmed=yes", "-o", "x.bam", "a.sff"},
              "sorvexa-sff2bam: option --untrimmed takes no value"},
             {{"a.sff", "-o"}, "sorvexa-sff2bam: option -o needs a value"},
             {{"-l", "10", "-o", "x.bam", "a.sff"},
              "sorvexa-sff2bam: -l takes a compression level from 0 to 9, not '10'"},
             {{"-u", "-o", "x.sam", "a.sff"},
              "sorvexa-sff2bam: -l and -u set the compression of BAM and CRAM, not of SAM text"},
         }) {
        const run_result res = sff2bam(r.args, d.path);
        EXPECT_EQ(res.status, 2) << r.args[0];
        EXPECT_EQ(res.err.substr(0, res.err.find('\n')), r.first_line);
        EXPECT_NE(res.err.find("\nUsage: sorvexa-sff2bam"), std::string::npos);
        EXPECT_FALSE(std::filesystem::exists(d / "x.bam"));
    }
    const run_result help = sff2bam({"--help"}, d.path);
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: sorvexa-sff2bam [options] -o OUT sffFile ...\n", 0), 0u);
    EXPECT_EQ(sff2bam({"--version"}, d.path).out, "sorvexa-sff2bam 1.1\n");
}

TEST(InProcess, TheProgramRunsAsAFunction) {
    temp_dir d;
    write_fixtures(d);
    const std::string out = d / "in.bam";
    std::vector<std::string> args = {"sorvexa-sff2bam", "-o", out, d / "a.sff"};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    testing::internal::CaptureStderr();
    const int status = sff2bam_main(static_cast<int>(argv.size()), argv.data());
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, 0) << err;
    EXPECT_EQ(check_round_trip(out, {d / "a.sff"}, {"a"}, false), 13u);
}

}  // namespace
