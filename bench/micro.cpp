// Micro-benchmarks of the operations a run or a viewer repeats: indexing an SFF file,
// fetching one read by position, formatting one read record, and the flow-space and
// drawing operations of a deep contig, on the whole contig and on a small window.
//
//   micro [--data=DIR] [benchmark flags...]
//
// The SFF file is generated into DIR/micro (default /tmp/sorvexa-bench/micro); the contigs
// are built in memory. Everything derives from fixed seeds, so runs compare.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sorvexa/contig.h>
#include <sorvexa/sff.h>
#include "sff_builder.h"

namespace {

constexpr std::uint16_t kFlows = 800;
constexpr std::size_t kIndexReads = 20000;
constexpr int kWindowWidth = 200;
// Reads per contig column: 400-base reads, one starting every fourth column.
constexpr int kColumnsPerRead = 4;

std::string g_data_dir = "/tmp/sorvexa-bench";

using rng = fixture::splitmix64;

// Genome-like bases: a repeat of the last base three times in ten, so homopolymer runs of
// every length up to a handful turn up, as in real sequence.
char next_base(rng& r, char prev) {
    if (prev != 0 && r.chance(300, 1000)) return prev;
    return "ACGT"[r.below(4)];
}

// 14 characters in the usual style; the body is a bijection of the number so names are
// unique but not in file order, as with real reads.
std::string read_name(std::uint32_t k) {
    static constexpr std::string_view digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    // 36^5 names; the multiplier is coprime to 36, so distinct numbers give distinct names.
    std::uint64_t v = (std::uint64_t{k} * 2654435761u) % 60466176u;
    std::string name = "GQX4TRB01";
    char body[5];
    for (int i = 4; i >= 0; --i, v /= 36) body[i] = digits[v % 36];
    name.append(body, 5);
    return name;
}

// The SFF file of the index and fetch benchmarks, written once per process.
const std::string& index_file() {
    static const std::string path = [] {
        const std::filesystem::path dir = std::filesystem::path(g_data_dir) / "micro";
        std::filesystem::create_directories(dir);
        const std::string file = (dir / "index.sff").string();
        fixture::sff_file_layout layout;
        layout.number_of_flows_per_read = kFlows;
        const std::string flows = fixture::tacg_flows(kFlows);
        rng r{42};
        layout.reads.reserve(kIndexReads);
        for (std::uint32_t k = 0; k < kIndexReads; ++k) {
            std::string bases = "TCAG";
            const std::uint32_t n = 300 + r.below(301);
            while (bases.size() < n) bases.push_back(next_base(r, bases.back()));
            std::vector<std::uint8_t> quality(bases.size());
            for (auto& q : quality) q = static_cast<std::uint8_t>(10 + r.below(31));
            fixture::sff_read_layout read = fixture::make_read(read_name(k), std::move(bases),
                                                               flows, std::move(quality), r.next());
            read.clip_qual_left = 5;
            read.clip_qual_right = static_cast<std::uint16_t>(read.bases.size() - r.below(40));
            layout.reads.push_back(std::move(read));
        }
        if (!fixture::write_file(file, fixture::build_sff(layout))) {
            std::fprintf(stderr, "micro: cannot write %s\n", file.c_str());
            std::exit(1);
        }
        return file;
    }();
    return path;
}

void BM_build_read_index(benchmark::State& state) {
    const std::string& path = index_file();
    for (auto _ : state) {
        read_index index;
        reader rd(path);
        rd.get_header();
        rd.build_read_index(index);
        benchmark::DoNotOptimize(index.size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kIndexReads));
    state.SetBytesProcessed(state.iterations() *
                            static_cast<std::int64_t>(std::filesystem::file_size(path)));
}
BENCHMARK(BM_build_read_index)->Unit(benchmark::kMillisecond);

// Fetches in name order (what the run does: scattered offsets) when the argument is 1, in
// file order when it is 0.
void BM_get_read(benchmark::State& state) {
    const std::string& path = index_file();
    read_index index;
    reader rd(path);
    rd.get_header();
    rd.build_read_index(index);
    std::vector<std::int64_t> positions;
    positions.reserve(index.size());
    for (const auto& entry : index) positions.push_back(entry.second);
    if (state.range(0) == 0) std::sort(positions.begin(), positions.end());
    std::size_t k = 0;
    for (auto _ : state) {
        seqRead read;
        rd.get_read(positions[k], read);
        benchmark::DoNotOptimize(read.quality_scores.data());
        if (++k == positions.size()) k = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_get_read)->ArgName("name_order")->Arg(0)->Arg(1);

// The record formatting of the run, line for line: name line, quality line and, in mode 3,
// flow index line and the whole flowgram.
template <class T>
void append_number(std::string& out, T v) {
    char buf[24];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, res.ptr);
}

template <class T>
void append_list(std::string& out, const std::vector<T>& values) {
    for (std::size_t k = 0; k < values.size(); ++k) {
        if (k > 0) out += '\t';
        append_number(out, values[k]);
    }
    out += '\n';
}

void format_record(std::string& record, const seqRead& read, const sff_read& raw, bool mode3) {
    record.clear();
    record += read.name;
    record += "\t1\n";
    append_list(record, read.quality_scores);
    if (mode3) {
        append_list(record, read.flow_indexes);
        const std::size_t flows = std::min<std::size_t>(raw.numOfFlows, raw.flowgram_values.size());
        for (std::size_t k = 0; k < flows; ++k) {
            if (k > 0) record += '\t';
            append_number(record, raw.flowgram_values[k]);
        }
        record += '\n';
    }
}

void BM_format_record(benchmark::State& state) {
    const std::string& path = index_file();
    read_index index;
    reader rd(path);
    rd.get_header();
    rd.build_read_index(index);
    seqRead read;
    rd.get_read(index.begin()->second, read);
    const bool mode3 = state.range(0) == 3;
    std::string record;
    for (auto _ : state) {
        format_record(record, read, rd.cur_read, mode3);
        benchmark::DoNotOptimize(record.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(record.size()));
    state.counters["kept_bases"] = static_cast<double>(read.quality_scores.size());
}
BENCHMARK(BM_format_record)->ArgName("mode")->Arg(1)->Arg(3);

// A deep contig as an assembly leaves it: a consensus with homopolymers and some pad
// columns, and reads of about 400 columns that copy it with a few errors. Columns are
// sized to the read count so that every contig has the same depth (about 100).
contig build_contig(int num_reads) {
    rng r{static_cast<std::uint64_t>(num_reads) * 7919u};
    contig c;
    c.name = "Contig1";
    const int columns = num_reads * kColumnsPerRead;
    c.consensus.reserve(static_cast<std::size_t>(columns));
    char prev = 0;
    for (int p = 0; p < columns; ++p) {
        if (p > 0 && c.consensus.back() != '*' && r.chance(15, 1000)) {
            c.consensus.push_back('*');
            continue;
        }
        prev = next_base(r, prev);
        c.consensus.push_back(prev);
    }
    c.num_bases = columns;

    for (int k = 0; k < num_reads; ++k) {
        const auto length = static_cast<std::int32_t>(380 + r.below(41));
        const std::int32_t span = std::max(1, columns - length);
        const auto start = static_cast<std::int32_t>(
            1 + (static_cast<std::int64_t>(k) * span + r.below(static_cast<std::uint32_t>(span))) /
                    num_reads);
        READ read;
        read.name = read_name(static_cast<std::uint32_t>(k));
        read.start = start;
        read.length = static_cast<std::int16_t>(length);
        read.uncomplemented = r.chance(500, 1000) ? 1 : 0;
        read.sequence.reserve(static_cast<std::size_t>(length));
        for (std::int32_t j = 0; j < length; ++j) {
            const std::size_t p = static_cast<std::size_t>(start - 1 + j);
            const char truth = p < c.consensus.size() ? c.consensus[p] : 'A';
            char b = truth;
            if (truth == '*') {
                // Where the consensus has a pad, a few reads over-call the run before it.
                if (j > 0 && r.chance(200, 1000))
                    b = read.sequence.back() == '*' ? 'A' : read.sequence.back();
            } else if (r.chance(5, 1000)) {
                b = j > 0 && r.chance(500, 1000) ? '*' : "ACGT"[r.below(4)];
            }
            read.sequence.push_back(b);
        }
        read.align_clip_start = 1;
        read.align_clip_end = static_cast<std::int16_t>(length);
        c.reads.emplace(read.name, std::move(read));
    }
    c.num_reads = num_reads;
    return c;
}

// One contig per size, built once and kept with its derived views for the window benchmarks.
contig& shared_contig(int num_reads) {
    static std::map<int, std::unique_ptr<contig>> contigs;
    auto& slot = contigs[num_reads];
    if (!slot) {
        slot = std::make_unique<contig>(build_contig(num_reads));
        slot->create_print_map();
        slot->create_flow_concensus();
    }
    return *slot;
}

std::int32_t window_start(const contig& c) {
    return static_cast<std::int32_t>(c.consensus.size() / 2) - kWindowWidth / 2;
}

void set_contig_counters(benchmark::State& state, const contig& c) {
    state.counters["reads"] = static_cast<double>(c.reads.size());
    state.counters["columns"] = static_cast<double>(c.consensus.size());
}

void BM_create_pos_and_print_map(benchmark::State& state) {
    contig c = build_contig(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        c.pos_map.clear();
        c.print_map.clear();
        state.ResumeTiming();
        c.create_print_map();
        benchmark::DoNotOptimize(c.print_map.data());
    }
    set_contig_counters(state, c);
    state.counters["rows"] = static_cast<double>(c.print_map.size());
}
BENCHMARK(BM_create_pos_and_print_map)->ArgName("reads")->Arg(5000)->Unit(benchmark::kMillisecond);

void BM_create_flow_concensus(benchmark::State& state) {
    contig c = build_contig(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        // Released, not just emptied, so that every pass allocates as a first build does.
        std::vector<std::map<char, std::int32_t>>().swap(c.flow_index);
        std::vector<char>().swap(c.flow_consensus);
        state.ResumeTiming();
        c.create_flow_concensus();
        benchmark::DoNotOptimize(c.flow_consensus.data());
    }
    set_contig_counters(state, c);
    state.counters["flows"] = static_cast<double>(c.flow_consensus.size());
}
BENCHMARK(BM_create_flow_concensus)->ArgName("reads")->Arg(5000)->Unit(benchmark::kMillisecond);

// The window benchmarks run on contigs of one depth and three lengths: the cost of a
// 200-column window should not depend on how long the contig is.
void BM_align_flow(benchmark::State& state) {
    contig& c = shared_contig(static_cast<int>(state.range(0)));
    const std::int32_t from = window_start(c);
    for (auto _ : state) {
        std::vector<std::vector<std::int16_t>> flow_counts;
        std::vector<std::map<std::int32_t, fRead>> flow_rows;
        c.align_flow(flow_counts, flow_rows, from, kWindowWidth);
        benchmark::DoNotOptimize(flow_counts.data());
        benchmark::DoNotOptimize(flow_rows.data());
    }
    set_contig_counters(state, c);
}

// A window map drawn as text: the plain flow map or the plain alignment map.
using window_map = void (contig::*)(std::string&, std::vector<std::string>&, std::int32_t, int);

template <window_map Draw>
void BM_window_map(benchmark::State& state) {
    contig& c = shared_contig(static_cast<int>(state.range(0)));
    const std::int32_t from = window_start(c);
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::string out;
        std::vector<std::string> names;
        (c.*Draw)(out, names, from, kWindowWidth);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
        benchmark::DoNotOptimize(names.data());
    }
    set_contig_counters(state, c);
    state.counters["out_bytes"] = static_cast<double>(bytes);
}

void window_sizes(benchmark::internal::Benchmark* b) {
    b->ArgName("reads")->Arg(2000)->Arg(5000)->Arg(20000)->Unit(benchmark::kMicrosecond);
}
BENCHMARK(BM_align_flow)->Apply(window_sizes);
BENCHMARK(BM_window_map<&contig::print_flow_map_plain>)
    ->Name("BM_print_flow_map_plain")
    ->Apply(window_sizes);
BENCHMARK(BM_window_map<&contig::print_align_map_plain>)
    ->Name("BM_print_align_map_plain")
    ->Apply(window_sizes);

}  // namespace

int main(int argc, char** argv) {
    // Our own flag is taken out before the library sees the rest, since it rejects
    // flags it does not know.
    int kept = 1;
    for (int k = 1; k < argc; ++k) {
        constexpr std::string_view flag = "--data=";
        if (std::string_view(argv[k]).starts_with(flag)) {
            g_data_dir = argv[k] + flag.size();
        } else {
            argv[kept++] = argv[k];
        }
    }
    argc = kept;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
