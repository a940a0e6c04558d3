// The SFF reader: byte order from the magic number, the read index walk, whole-record reads
// one after another or by position, and the reports on files that end too early.

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "run_tool.h"
#include <sorvexa/read_lookup.h>
#include <sorvexa/sff.h>
#include "sff_builder.h"

namespace {

using namespace fixture;
using namespace std::string_literals;

// A read of `bases` bases, one per flow, with 400 flowgram values whose two bytes differ.
sff_read_layout plain_read(const std::string& name, std::size_t bases) {
    sff_read_layout r;
    r.name = name;
    for (std::uint16_t k = 0; k < 400; ++k) r.flowgram.push_back(0x0100 + k);
    r.flow_index_per_base.assign(bases, 1);
    r.bases = tacg_flows(bases);
    for (std::size_t k = 0; k < bases; ++k) r.quality.push_back(static_cast<std::uint8_t>(k));
    return r;
}

sff_file_layout file_of(std::vector<sff_read_layout> reads,
                        std::optional<std::uint32_t> declared = {}, bool little = false) {
    sff_file_layout layout;
    layout.little_endian = little;
    layout.reads = std::move(reads);
    layout.number_of_reads = declared;
    return layout;
}

// An SFF file in a scratch directory; the common header takes 440 bytes.
struct sff_file {
    temp_dir dir;
    std::string path = dir / "in.sff";
    explicit sff_file(const std::string& bytes) { write_file(path, bytes); }
    explicit sff_file(const sff_file_layout& layout) : sff_file(build_sff(layout)) {}
};

// The result of a call on reader `r` and the diagnostic lines it gave for standard output
// and for standard error; the library itself writes to neither.
using outcome = std::tuple<bool, std::string, std::string>;
template <class Call>
outcome run(reader& r, Call call) {
    std::string lines[2];
    r.diagnostics = [&](sorvexa::stream where, const std::string& line) {
        lines[where == sorvexa::stream::out ? 0 : 1] += line + "\n";
    };
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool result = call();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    r.diagnostics = nullptr;
    return {result, lines[0], lines[1]};
}

std::string text(const std::vector<char>& v) {
    return {v.begin(), v.end()};
}

const std::string kA = "FLOWREAD000001", kB = "FLOWREAD000002", kC = "FLOWREAD000003";

TEST(SffReader, IndexesAndReadsBothByteOrders) {
    for (bool little : {false, true}) {
        SCOPED_TRACE(little ? "little-endian" : "big-endian");
        // 266 bases: 1598 data bytes and 2 of padding; 264 bases: 1592 bytes, no padding.
        // Every clip of kC differs in its two bytes, so a clip read in the wrong byte order
        // moves the kept range.
        sff_read_layout clipped = plain_read(kC, 10);
        clipped.clip_adapter_left = 3;
        clipped.clip_qual_left = 2;
        clipped.clip_adapter_right = 8;
        clipped.clip_qual_right = 9;
        sff_file f(file_of({plain_read(kA, 266), plain_read(kB, 264), clipped}, {}, little));
        reader r(f.path);
        read_index index;
        ASSERT_TRUE(r.build_read_index(index));
        EXPECT_EQ(r.swap_bytes, !little);
        EXPECT_EQ(r.reads_done, 3u);
        EXPECT_EQ(text(r.header_p2.key_sequence), "TCAG");
        EXPECT_EQ(index, (read_index{{kA, 440}, {kB, 440 + 1632}, {kC, 440 + 1632 + 1624}}));

        seqRead s;
        r.get_read(index[kB], s);
        EXPECT_EQ(s.name, kB);
        EXPECT_EQ(text(s.bases), tacg_flows(264));
        EXPECT_EQ(s.flow_indexes.at(263), 263);
        EXPECT_EQ(s.quality_scores.at(200), 200);
        EXPECT_EQ(r.cur_read.flowgram_values.at(399), 0x0100 + 399);
        r.get_read(index[kC], s);
        EXPECT_EQ(s.name + text(s.bases), kC + tacg_flows(10).substr(2, 6));
        EXPECT_EQ(s.flow_indexes, (std::vector<std::int16_t>{2, 3, 4, 5, 6, 7}));
        EXPECT_EQ(r.reads_done, 3u);
    }
}

TEST(SffReader, IndexEntries) {
    sff_file none(file_of({}));
    reader empty(none.path);
    read_index index{{"kept", 7}};
    EXPECT_EQ(run(empty, [&] { return empty.build_read_index(index); }), (outcome{true, "", ""}));
    EXPECT_EQ(run(empty, [&] { return empty.get_next_read(index); }), (outcome{false, "", ""}));
    EXPECT_EQ(index, (read_index{{"kept", 7}}));

    // Of two records named alike the later one stays.
    sff_file twice(file_of({plain_read("a", 4), plain_read("b", 4), plain_read("a", 4)}));
    reader r(twice.path);
    index.clear();
    ASSERT_TRUE(r.build_read_index(index));
    const auto size = static_cast<std::int64_t>(sff_read_size(plain_read("a", 4)));
    EXPECT_EQ(index, (read_index{{"a", 440 + 2 * size}, {"b", 440 + size}}));

    // The walk keys a name up to a NUL byte, a whole-record read keys every name byte.
    const std::string nul_name("ab\0cd", 5);
    sff_file nul(file_of({plain_read(nul_name, 4)}));
    reader walk(nul.path), whole(nul.path);
    read_index by_walk, by_read;
    ASSERT_TRUE(walk.build_read_index(by_walk) && whole.get_header());
    ASSERT_TRUE(whole.get_next_read(by_read));
    EXPECT_EQ(by_walk, (read_index{{"ab", 440}}));
    EXPECT_EQ(by_read, (read_index{{nul_name, 440}}));

    // A record without a name is indexed under the empty name (this once handed a null
    // pointer to a C string function).
    sff_file unnamed(file_of({plain_read("", 4)}));
    reader bare(unnamed.path);
    read_index by_empty;
    ASSERT_TRUE(bare.build_read_index(by_empty));
    EXPECT_EQ(by_empty, (read_index{{"", 440}}));
}

TEST(SffReader, FilesEndingEarlyAreReported) {
    sff_file tiny("0123456789"s);
    reader header(tiny.path);
    const std::string error = "Error ocurred while reading file ";
    EXPECT_EQ(run(header, [&] { return header.get_header(); }),
              (outcome{false, "Only got 10 bytes while 31 is need\n", error + tiny.path + "\n"}));

    // Three records declared, two present.
    sff_file f(file_of({plain_read(kA, 20), plain_read(kB, 30)}, 3));
    const outcome report{false, "Only got 0 bytes while 16 is need\n", error + f.path + "\n"};
    reader r(f.path);
    read_index index;
    EXPECT_EQ(run(r, [&] { return r.build_read_index(index); }), report);
    EXPECT_EQ(index.size(), 2u);
    EXPECT_EQ(r.reads_done, 2u);
    seqRead s;  // the stream is usable again after the report
    r.get_read(index[kA], s);
    EXPECT_EQ(s.name + text(s.bases), kA + tacg_flows(20));

    reader walk(f.path);
    ASSERT_TRUE(walk.get_header() && walk.get_next_read() && walk.get_next_read());
    EXPECT_EQ(run(walk, [&] { return walk.get_next_read(); }), report);

    // Cut inside the second record's name, with a third record declared.
    const auto first = plain_read(kA, 8);
    sff_file cut(build_sff(file_of({first, plain_read(kB, 8)}, 3))
                     .substr(0, 440 + sff_read_size(first) + 16 + 5));
    reader inside(cut.path);
    index.clear();
    EXPECT_EQ(run(inside, [&] { return inside.build_read_index(index); }),
              (outcome{false, "", "reach end of file while read more data\n"}));
    EXPECT_EQ(index.count(kA), 1u);
    EXPECT_EQ(inside.reads_done, 2u);
}

TEST(SffReader, ImpossibleBaseCountStaysWithinTheFile) {
    sff_read_layout huge = plain_read(kA, 12);
    huge.number_of_bases = 4000000000u;
    sff_file f(file_of({huge, plain_read(kB, 4)}));
    reader r(f.path);
    read_index index;
    run(r, [&] {
        r.build_read_index(index);
        return r.get_header() && r.get_next_read();
    });
    EXPECT_EQ(index.count(kA), 1u);
    EXPECT_EQ(text(r.cur_read.name), kA);
    EXPECT_LE(r.cur_read.bases.size() + r.cur_read.quality_scores.size(),
              2 * read_file(f.path).size());
    // That read ran into the end of the file: a fetch can no longer position the stream,
    // leaves its read as it was and holds nothing of the read before.
    seqRead kept;
    kept.name = "kept";
    r.get_read(index[kA], kept);
    EXPECT_EQ(kept.name, "kept");
    EXPECT_EQ(r.cur_read.bases_held(), 0u);
    EXPECT_EQ(r.cur_read.flowgram_values, std::vector<std::uint16_t>(400, 0));

    // The kept range ends at the count's low 16 bits (10,240); what the file does not hold
    // of it is zero.
    reader fetch(f.path);
    ASSERT_TRUE(fetch.get_header());
    fetch.get_read(index[kA], kept);
    EXPECT_EQ(kept.name, kA);
    EXPECT_EQ(kept.quality_scores.size(), 10240u);
    EXPECT_EQ(kept.quality_scores.back(), 0);
}

// A read header length below 16 plus the name is taken as no header padding: the walks carry
// on right after the name, and the index walk, which skips the read data, ends up where the
// record-by-record walk does.
TEST(SffReader, ShortReadHeaderLengthNeverStepsBack) {
    sff_read_layout odd = plain_read("ODDHEADER00001", 6);
    odd.read_header_length = 8;
    const sff_read_layout after = plain_read(kB, 4), last = plain_read(kC, 7);
    sff_file f(file_of({odd, after, last}));
    const auto at_after = static_cast<std::int64_t>(440 + sff_read_size(odd));
    const auto at_last = at_after + static_cast<std::int64_t>(sff_read_size(after));

    reader walk(f.path), whole(f.path);
    read_index by_walk, by_read;
    ASSERT_TRUE(walk.build_read_index(by_walk));
    ASSERT_TRUE(whole.get_header());
    while (whole.get_next_read(by_read)) {
    }
    const read_index expected{{"ODDHEADER00001", 440}, {kB, at_after}, {kC, at_last}};
    EXPECT_EQ(by_walk, expected);
    EXPECT_EQ(by_read, expected);
    seqRead s;
    walk.get_read(by_walk[kC], s);
    EXPECT_EQ(s.name + text(s.bases), kC + tacg_flows(7));
}

TEST(SffReader, UnusableFilesGiveTheirMessage) {
    sff_file_layout layout = file_of({plain_read(kA, 4)});
    layout.magic = {0x2E, 0x73, 0x66, 0x67};
    sff_file wrong(layout);
    reader not_sff(wrong.path);
    EXPECT_TRUE(not_sff.error.ok);
    EXPECT_FALSE(not_sff.get_header());
    EXPECT_EQ(not_sff.error.message, "The input file " + wrong.path + " is not a SFF file");
    temp_dir dir;
    reader missing(dir / "none.sff");
    EXPECT_EQ(missing.error.message, "fail to open file " + (dir / "none.sff"));
    EXPECT_FALSE(missing.get_header());
}

// The name table behind the index: through its growth every name keeps its own offset, a
// later insertion of a name overwrites it, and iteration gives each name once.
TEST(NameTable, GrowsAndKeepsEveryName) {
    name_table t;
    EXPECT_TRUE(t.find("x") == t.end());
    for (int k = 0; k < 5000; ++k) t["read" + std::to_string(k)] = k;
    for (int k = 0; k < 5000; k += 2) t["read" + std::to_string(k)] = -k;
    t[""] = 7;
    t[std::string(70000, 'n')] = 8;  // held to the 16-bit length a record's name has
    EXPECT_EQ(t.size(), 5002u);
    for (int k = 0; k < 5000; ++k) {
        const auto found = t.find("read" + std::to_string(k));
        ASSERT_TRUE(found != t.end()) << k;
        EXPECT_EQ(found->second, k % 2 == 0 ? -k : k);
    }
    EXPECT_EQ(t.find("")->second, 7);
    EXPECT_EQ(t.find(std::string(65535, 'n'))->second, 8);
    EXPECT_FALSE(t.contains("read5000") || t.contains("rea"));
    std::set<std::string> seen;
    for (const auto& [name, pos] : t) seen.insert(std::string(name));
    EXPECT_EQ(seen.size(), 5002u);
}

// The index over several files: the first file that holds a name serves it, within a file
// the last record of the name; an index block among the records is stepped over when asked;
// one fetcher serves every request with a reader per file and refuses a changed file.
TEST(ReadLookup, FirstFileWinsLastRecordWithinAFile) {
    temp_dir dir;
    sff_read_layout a1 = plain_read(kA, 5), a2 = plain_read(kA, 7), b = plain_read(kB, 9);
    ASSERT_TRUE(write_file(dir / "one.sff", build_sff(file_of({a1, b, a2}))));
    sff_read_layout a3 = plain_read(kA, 11), c = plain_read(kC, 13);
    // The second file holds an index block before its last record.
    sff_file_layout two = file_of({a3});
    std::string bytes = build_sff(two);
    const std::string block = ".mft1.00" + std::string(12, '\x01') + std::string(4, '\0');
    two.index_offset = bytes.size();
    two.index_length = static_cast<std::uint32_t>(block.size() - 4);
    two.number_of_reads = 2;
    bytes = build_sff(two) + block;
    append_sff_read(bytes, c, false);
    ASSERT_TRUE(write_file(dir / "two.sff", bytes));

    for (bool skip : {false, true}) {
        for (bool parallel : {false, true}) {
            read_lookup lookup;
            lookup.skip_index_block = skip;
            lookup.parallel = parallel;
            ASSERT_TRUE(lookup.index_files({dir / "one.sff", dir / "two.sff"}).ok);
            EXPECT_EQ(lookup.locate(kA).file, 0);
            EXPECT_EQ(lookup.locate(kB).file, 0);
            EXPECT_EQ(lookup.locate(kC).found(), skip) << "skip " << skip;
            EXPECT_EQ(lookup.flow_chars[1], tacg_flows(400));
            read_fetcher fetcher(lookup);
            sorvexa::status st;
            reader* rd = fetcher.record(lookup.locate(kA), st);
            ASSERT_NE(rd, nullptr);
            EXPECT_EQ(rd->cur_read.bases.size(), 7u);  // the later record of the name
            if (skip) {
                rd = fetcher.record(lookup.locate(kC), st);
                ASSERT_NE(rd, nullptr);
                EXPECT_EQ(rd->cur_read.bases.size(), 13u);
            }
        }
    }

    read_lookup lookup;
    ASSERT_TRUE(lookup.index_files({dir / "one.sff"}).ok);
    read_fetcher fetcher(lookup);
    fetcher.check_stamps = true;
    std::vector<std::size_t> got;
    const std::vector<read_location> wanted{lookup.locate(kB), lookup.locate("none"),
                                            lookup.locate(kA)};
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(fetcher.fetch(wanted, false, [&](std::size_t i, reader& rd, bool read) {
            EXPECT_TRUE(read);
            got.push_back(i * 100 + rd.cur_read.bases.size());
        }).ok);
    }
    EXPECT_EQ(got, (std::vector<std::size_t>{9, 207, 9, 207}));
    // The file rewritten after indexing: nothing is read from it.
    ASSERT_TRUE(write_file(dir / "one.sff", build_sff(file_of({b, a1, a2, a2}))));
    sorvexa::status st;
    EXPECT_EQ(fetcher.record(lookup.locate(kB), st), nullptr);
    EXPECT_EQ(st.message, "the file " + (dir / "one.sff") + " changed after it was indexed");
    bool called = false;
    EXPECT_FALSE(fetcher.fetch(wanted, true, [&](std::size_t, reader&, bool) { called = true; }).ok);
    EXPECT_FALSE(called);
}

}  // namespace
