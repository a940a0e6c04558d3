#include <htslib/faidx.h>
#include <htslib/hts.h>
#include <htslib/sam.h>
#include <sorvexa/alignment.h>
#include <sorvexa/flow_tags.h>
#include <sorvexa/flow_walk.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <unordered_map>
#include <utility>

#include "flow_letters.h"

namespace {

using flow_letters::complement;
using flow_letters::upper;

constexpr std::uint32_t skipped_flags =
    BAM_FUNMAP | BAM_FSECONDARY | BAM_FSUPPLEMENTARY | BAM_FDUP | BAM_FQCFAIL;

// One record of a window as far as the contig needs it.
struct record {
    std::string name;
    bool reverse = false;
    bool owned = false;
    std::int64_t pos = 0, end = 0;
    std::vector<std::uint32_t> cigar;
    std::string seq;  // as stored: on the reference's strand
    // The tie: the flow of each base of `seq` (-1: none), or nothing when it is not tied.
    enum class tie_state { none, tied, untied } state = tie_state::none;
    std::vector<std::int32_t> flow;
    std::vector<std::uint16_t> flowgram;
    std::string flow_chars;
    std::uint16_t unit = 0;
};

std::string reverse_complement(std::string_view s) {
    std::string out(s.rbegin(), s.rend());
    for (char& c : out) c = complement(upper(c));
    return out;
}

// The flow of each base of a record that carries FZ. ZF is the flow of the first base stored
// on the read's original strand: a writer that hard-clips the start of a read has to move it
// to the first base kept, and one that does not leaves the read untied (its first base is
// then not what ZF offers) rather than tied one flow off. Without ZF the walk starts at the
// key, whose flows come first. A walk that stops at a base no flow offers (an N) keeps the
// flows before it, as an SFF record's flow indexes do.
bool walk_record(const record& r, const std::string& flow_chars, const std::string& key,
                 std::int32_t first_flow, std::vector<std::int32_t>& flow) {
    const std::string bases = r.reverse ? reverse_complement(r.seq) : r.seq;
    std::vector<std::int32_t> walked;
    bool ok = false;
    if (first_flow >= 0) {
        ok = walk_flows(bases, flow_chars, r.flowgram, first_flow, walked);
    } else {
        if (key.empty()) return false;
        ok = walk_flows(key + bases, flow_chars, r.flowgram, 0, walked);
        walked.erase(walked.begin(), walked.begin() + static_cast<std::ptrdiff_t>(key.size()));
    }
    if (!ok) {
        const auto stop = std::find(walked.begin(), walked.end(), -1);
        const auto i = static_cast<std::size_t>(stop - walked.begin());
        const char b = i < bases.size() ? upper(bases[i]) : 'A';
        if (i == 0 || b == 'A' || b == 'C' || b == 'G' || b == 'T') return false;
    }
    flow.assign(walked.size(), -1);
    for (std::size_t i = 0; i < walked.size(); ++i)
        flow[r.reverse ? walked.size() - 1 - i : i] = walked[i];
    return true;
}

}  // namespace

std::vector<alignment_window> alignment_windows(std::int32_t ref, std::int64_t length,
                                                std::int64_t size, std::int64_t margin) {
    std::vector<alignment_window> out;
    size = std::max<std::int64_t>(size, 1);
    for (std::int64_t b = 0; b < length; b += size)
        out.push_back({ref, b, std::min(length, b + size), std::max<std::int64_t>(margin, 0)});
    return out;
}

struct alignment_file::impl {
    std::string path, reference;
    htsFile* fp = nullptr;
    sam_hdr_t* header = nullptr;
    hts_idx_t* index = nullptr;
    faidx_t* fai = nullptr;
    bam1_t* b = nullptr;
    bool plain_sam = false;
    const read_lookup* lookup = nullptr;
    std::unique_ptr<read_fetcher> fetcher;
    std::vector<read_group_flows> groups;
    std::unordered_map<std::string, std::size_t> group_of;
    std::vector<reference_sequence> refs;

    ~impl() { close(); }
    void close() {
        if (b != nullptr) bam_destroy1(b);
        if (index != nullptr) hts_idx_destroy(index);
        if (header != nullptr) sam_hdr_destroy(header);
        if (fp != nullptr) hts_close(fp);
        if (fai != nullptr) fai_destroy(fai);
        b = nullptr;
        index = nullptr;
        header = nullptr;
        fp = nullptr;
        fai = nullptr;
    }
    sorvexa::status fail(const std::string& why) {
        close();
        return sorvexa::status::failure(why);
    }
    sorvexa::status collect(const alignment_window& w, std::int64_t from, std::int64_t to,
                            std::int32_t min_mapq, std::vector<record>& out);
    void tie(std::vector<record>& records);
};

alignment_file::alignment_file() : p_(std::make_unique<impl>()) {}
alignment_file::~alignment_file() = default;

const std::vector<reference_sequence>& alignment_file::references() const {
    return p_->refs;
}

std::vector<std::string> alignment_file::units() const {
    std::vector<std::string> out;
    if (p_->lookup != nullptr) out = p_->lookup->sff_names;
    for (const read_group_flows& g : p_->groups) out.push_back("RG:" + g.id);
    return out;
}

sorvexa::status alignment_file::open(const std::string& path, const std::string& reference,
                                     const read_lookup* lookup) {
    impl& p = *p_;
    p.close();
    p.path = path;
    p.reference = reference;
    p.lookup = lookup;
    p.groups.clear();
    p.group_of.clear();
    p.refs.clear();
    p.fp = hts_open(path.c_str(), "r");
    if (p.fp == nullptr) return p.fail("can not open alignment file " + path);
    const htsFormat* format = hts_get_format(p.fp);
    if (format->category != sequence_data ||
        (format->format != sam && format->format != bam && format->format != cram))
        return p.fail(path + " is not a SAM, BAM or CRAM file");
    if (reference.empty())
        return p.fail(format->format == cram
                          ? path + " is CRAM: its reference FASTA has to be given (--ref)"
                          : "no reference FASTA given for " + path + " (--ref)");
    if (format->format == cram && hts_set_fai_filename(p.fp, reference.c_str()) != 0)
        return p.fail("can not use " + reference + " as the reference of " + path);
    p.plain_sam = format->format == sam && format->compression == no_compression;
    p.header = sam_hdr_read(p.fp);
    if (p.header == nullptr) return p.fail(path + ": can not read the header");

    kstring_t so = KS_INITIALIZE;
    const bool sorted = sam_hdr_find_tag_hd(p.header, "SO", &so) == 0 && so.s != nullptr &&
                        std::string(so.s, so.l) == "coordinate";
    ks_free(&so);
    if (!sorted)
        return p.fail(path + " is not sorted by coordinate (samtools sort -o sorted.bam " + path +
                      ", then samtools index sorted.bam)");
    if (!p.plain_sam) {
        p.index = sam_index_load3(p.fp, path.c_str(), nullptr, HTS_IDX_SILENT_FAIL);
        if (p.index == nullptr)
            return p.fail(path + " has no index (make one with: samtools index " + path + ")");
    }

    p.fai = fai_load3(reference.c_str(), nullptr, nullptr, FAI_CREATE);
    if (p.fai == nullptr)
        return p.fail("can not read reference " + reference + " (a FASTA file, indexed by " +
                      "samtools faidx or in a directory where its index can be made)");
    const int n = sam_hdr_nref(p.header);
    for (int tid = 0; tid < n; ++tid) {
        const char* name = sam_hdr_tid2name(p.header, tid);
        const auto length = static_cast<std::int64_t>(sam_hdr_tid2len(p.header, tid));
        if (!faidx_has_seq(p.fai, name))
            return p.fail(reference + " has no sequence " + name + ", which " + path +
                          " aligns reads to");
        // faidx_seq_len gives -1 past 2^31 bases; a sequence that long is no bacterial genome.
        const std::int64_t in_fasta = faidx_seq_len(p.fai, name);
        if (in_fasta != length)
            return p.fail(reference + ": sequence " + name + " has " + std::to_string(in_fasta) +
                          " bases, the header of " + path + " says " + std::to_string(length));
        p.refs.push_back({name, length});
    }

    const bool sff_files = lookup != nullptr && !lookup->sff_names.empty();
    p.groups = read_groups(p.header);
    for (std::size_t i = 0; i < p.groups.size(); ++i) {
        if (p.groups[i].flow_chars.empty() && !sff_files)
            return p.fail(path + ": read group " + p.groups[i].id +
                          " has no flow order (FO), and no SFF file is given to tie its reads");
        p.group_of.emplace(p.groups[i].id, i);
    }
    p.fetcher = lookup != nullptr ? std::make_unique<read_fetcher>(*lookup) : nullptr;
    p.b = bam_init1();
    if (p.b == nullptr) return p.fail("out of memory");
    return {};
}

sorvexa::status alignment_file::reference_bases(std::int32_t ref, std::int64_t begin,
                                                std::int64_t end, std::string& out) {
    out.clear();
    if (p_->fai == nullptr || ref < 0 || static_cast<std::size_t>(ref) >= p_->refs.size())
        return sorvexa::status::failure("no such reference sequence");
    if (end <= begin) return {};
    const std::string& name = p_->refs[static_cast<std::size_t>(ref)].name;
    hts_pos_t got = 0;
    char* bases = faidx_fetch_seq64(p_->fai, name.c_str(), begin, end - 1, &got);
    if (bases == nullptr || got != end - begin) {
        std::free(bases);
        return sorvexa::status::failure(p_->reference + ": can not read sequence " + name);
    }
    out.assign(bases, static_cast<std::size_t>(got));
    std::free(bases);
    return {};
}

// The records over [from, to) that the window takes, in file order.
sorvexa::status alignment_file::impl::collect(const alignment_window& w, std::int64_t from,
                                              std::int64_t to, std::int32_t min_mapq,
                                              std::vector<record>& out) {
    auto take = [&] {
        const bam1_core_t& c = b->core;
        if ((c.flag & skipped_flags) != 0 || c.qual < min_mapq || c.n_cigar == 0) return;
        const std::int64_t end = bam_endpos(b);
        if (c.tid != w.ref || end <= from || c.pos >= to) return;
        record r;
        r.name = bam_get_qname(b);
        r.reverse = bam_is_rev(b);
        r.pos = c.pos;
        r.end = end;
        r.owned = c.pos >= w.begin && c.pos < w.end;
        r.cigar.assign(bam_get_cigar(b), bam_get_cigar(b) + c.n_cigar);
        r.seq.resize(static_cast<std::size_t>(c.l_qseq));
        const std::uint8_t* s = bam_get_seq(b);
        for (std::int32_t i = 0; i < c.l_qseq; ++i)
            r.seq[static_cast<std::size_t>(i)] = seq_nt16_str[bam_seqi(s, i)];
        if (record_flowgram(b, r.flowgram)) {
            const std::uint8_t* rg = bam_aux_get(b, "RG");
            const char* id = rg != nullptr ? bam_aux2Z(rg) : nullptr;
            const auto g = id != nullptr ? group_of.find(id) : group_of.end();
            if (g != group_of.end() && !groups[g->second].flow_chars.empty()) {
                const read_group_flows& group = groups[g->second];
                if (!r.seq.empty() &&
                    walk_record(r, group.flow_chars, group.key, record_first_flow(b), r.flow)) {
                    r.state = record::tie_state::tied;
                    r.flow_chars = group.flow_chars;
                    const std::size_t files = lookup != nullptr ? lookup->sff_names.size() : 0;
                    r.unit = static_cast<std::uint16_t>(
                        std::min<std::size_t>(files + g->second, UINT16_MAX));
                } else {
                    r.state = record::tie_state::untied;
                }
            }
        }
        if (r.state != record::tie_state::tied) r.flowgram.clear();
        out.push_back(std::move(r));
    };
    int got = 0;
    if (plain_sam) {
        // Plain SAM has no index: the file is read through from its first record, up to the
        // first record past the window.
        htsFile* in = hts_open(path.c_str(), "r");
        sam_hdr_t* h = in != nullptr ? sam_hdr_read(in) : nullptr;
        while (h != nullptr && (got = sam_read1(in, h, b)) >= 0) {
            if (b->core.tid > w.ref || (b->core.tid == w.ref && b->core.pos >= to)) break;
            take();
        }
        if (h != nullptr) sam_hdr_destroy(h);
        if (in != nullptr) hts_close(in);
        if (h == nullptr) return sorvexa::status::failure("can not read alignment file " + path);
    } else {
        hts_itr_t* itr = sam_itr_queryi(index, w.ref, from, to);
        if (itr == nullptr) return sorvexa::status::failure(path + ": can not query its index");
        while ((got = sam_itr_next(fp, itr, b)) >= 0) take();
        hts_itr_destroy(itr);
    }
    if (got < -1) return sorvexa::status::failure(path + ": a record can not be read");
    return {};
}

// Records without FZ are tied by name through the SFF files, as an ACE file's reads are.
void alignment_file::impl::tie(std::vector<record>& records) {
    if (lookup == nullptr || fetcher == nullptr) return;
    std::vector<READ> reads;
    std::vector<std::size_t> which;
    std::vector<read_location> where;
    for (std::size_t i = 0; i < records.size(); ++i) {
        record& r = records[i];
        if (r.state != record::tie_state::none) continue;
        const read_location at = lookup->locate(r.name);
        if (!at.found()) continue;
        r.state = record::tie_state::untied;
        if (r.seq.empty() || r.seq.size() > static_cast<std::size_t>(INT16_MAX)) continue;
        READ read;
        read.name = r.name;
        read.length = static_cast<std::int16_t>(r.seq.size());
        read.sequence.assign(r.seq.begin(), r.seq.end());
        read.uncomplemented = r.reverse ? 0 : 1;
        reads.push_back(std::move(read));
        which.push_back(i);
        where.push_back(at);
    }
    std::vector<const READ*> pointers;
    for (const READ& read : reads) pointers.push_back(&read);
    // A file that can not be read again leaves its reads untied.
    (void)tie_fetched(
        *lookup, *fetcher, where, pointers,
        [&](std::size_t k, const tied_read& t) {
            record& r = records[which[k]];
            r.state = record::tie_state::tied;
            r.flow = t.base_flow;
            r.flowgram = t.flowgram;
            r.flow_chars = t.flow_chars;
            r.unit = t.file;
            return true;
        },
        [](std::size_t) { return true; });
}

sorvexa::status alignment_file::read(const alignment_window& w, aligned_window& out) {
    impl& p = *p_;
    out = aligned_window{};
    if (p.b == nullptr) return sorvexa::status::failure("no alignment file open");
    if (w.ref < 0 || static_cast<std::size_t>(w.ref) >= p.refs.size())
        return sorvexa::status::failure(p.path + ": no reference sequence " +
                                        std::to_string(w.ref));
    const reference_sequence& ref = p.refs[static_cast<std::size_t>(w.ref)];
    const std::int64_t begin = std::clamp<std::int64_t>(w.begin, 0, ref.length);
    const std::int64_t end = std::clamp<std::int64_t>(w.end, begin, ref.length);
    const std::int64_t from = std::max<std::int64_t>(0, begin - w.margin);
    const std::int64_t to = std::min(ref.length, end + w.margin);
    if (to - from > std::numeric_limits<std::int32_t>::max() / 4)
        return sorvexa::status::failure("window too large");
    std::string slice;
    if (sorvexa::status st = reference_bases(w.ref, from, to, slice); !st) return st;
    std::vector<record> records;
    if (sorvexa::status st = p.collect(w, from, to, options.min_mapq, records); !st) return st;
    p.tie(records);

    // A pad column before base i of the slice for each base the longest insertion there holds.
    const auto n = static_cast<std::size_t>(to - from);
    std::vector<std::int32_t> inserted(n, 0);
    for (const record& r : records) {
        std::int64_t at = r.pos;
        for (std::uint32_t op : r.cigar) {
            const auto len = static_cast<std::int64_t>(bam_cigar_oplen(op));
            const int type = bam_cigar_type(bam_cigar_op(op));
            if (bam_cigar_op(op) == BAM_CINS) {
                if (at > from && at < to) {
                    std::int32_t& k = inserted[static_cast<std::size_t>(at - from)];
                    k = std::max(k,
                                 static_cast<std::int32_t>(std::min<std::int64_t>(len, 1 << 20)));
                }
            } else if (type & 2) {
                at += len;
            }
        }
    }
    std::vector<std::int32_t> column(n);  // of each base of the slice
    contig& c = out.c;
    c.consensus.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        c.consensus.insert(c.consensus.end(), static_cast<std::size_t>(inserted[i]), '*');
        c.consensus.push_back(slice[i]);
        column[i] = static_cast<std::int32_t>(c.consensus.size());
    }
    c.name = ref.name;
    c.num_bases = static_cast<std::int32_t>(c.consensus.size());
    c.uncomplemented = 1;
    out.offset = from;
    out.owned_first = static_cast<std::int32_t>(begin - from + 1);
    out.owned_last = static_cast<std::int32_t>(end - from);

    const auto L = static_cast<std::int64_t>(c.consensus.size());
    std::vector<std::pair<std::int64_t, std::size_t>> placed;  // column, base of seq
    for (record& r : records) {
        placed.clear();
        std::int64_t at = r.pos;
        std::size_t q = 0, clip_left = 0, clip_right = 0;
        for (std::size_t k = 0; k < r.cigar.size(); ++k) {
            const std::uint32_t op = r.cigar[k];
            const auto len = static_cast<std::size_t>(bam_cigar_oplen(op));
            switch (bam_cigar_op(op)) {
                case BAM_CMATCH:
                case BAM_CEQUAL:
                case BAM_CDIFF:
                    for (std::size_t j = 0; j < len; ++j, ++at, ++q)
                        if (at >= from && at < to && q < r.seq.size())
                            placed.emplace_back(column[static_cast<std::size_t>(at - from)], q);
                    break;
                case BAM_CINS:
                    if (at > from && at < to) {
                        const std::size_t i = static_cast<std::size_t>(at - from);
                        const std::int64_t first = column[i] - inserted[i];
                        for (std::size_t j = 0; j < len && q + j < r.seq.size(); ++j)
                            placed.emplace_back(first + static_cast<std::int64_t>(j), q + j);
                    }
                    q += len;
                    break;
                case BAM_CDEL:
                case BAM_CREF_SKIP:
                    at += static_cast<std::int64_t>(len);
                    break;
                case BAM_CSOFT_CLIP:
                    (q == 0 ? clip_left : clip_right) = len;
                    q += len;
                    break;
                default:  // hard clips and silent pads hold no stored base
                    break;
            }
        }
        if (placed.empty() || q > r.seq.size()) {
            if (r.owned) ++out.counts.untied;
            continue;
        }
        // The clipped bases sit beside the aligned ones, unless the window cut that end off.
        std::int64_t first = placed.front().first, last = placed.back().first;
        const bool whole_left = placed.front().second == clip_left;
        const bool whole_right = placed.back().second + 1 + clip_right == r.seq.size();
        const std::size_t left = whole_left ? static_cast<std::size_t>(std::min<std::int64_t>(
                                                  static_cast<std::int64_t>(clip_left), first - 1))
                                            : 0;
        const std::size_t right = whole_right
                                      ? static_cast<std::size_t>(std::min<std::int64_t>(
                                            static_cast<std::int64_t>(clip_right), L - last))
                                      : 0;
        first -= static_cast<std::int64_t>(left);
        last += static_cast<std::int64_t>(right);
        if (last - first + 1 > INT16_MAX) {
            if (r.owned) ++out.counts.untied;
            continue;
        }
        READ read;
        read.name = r.name;
        // Mates share a name; the contig's reads are keyed by it.
        for (int k = 2; c.reads.count(read.name) != 0; ++k)
            read.name = r.name + "/" + std::to_string(k);
        read.start = static_cast<std::int32_t>(first);
        read.length = static_cast<std::int16_t>(last - first + 1);
        read.sequence.assign(static_cast<std::size_t>(read.length), '*');
        read.uncomplemented = r.reverse ? 0 : 1;
        read.align_clip_start = static_cast<std::int16_t>(placed.front().first - first + 1);
        read.align_clip_end = static_cast<std::int16_t>(placed.back().first - first + 1);
        const bool tied = r.state == record::tie_state::tied;
        tied_read t;
        if (tied) t.base_flow.assign(read.sequence.size(), -1);
        const auto put = [&](std::int64_t col, std::size_t base, bool aligned) {
            const auto k = static_cast<std::size_t>(col - first);
            read.sequence[k] = r.seq[base];
            if (tied && aligned && base < r.flow.size()) t.base_flow[k] = r.flow[base];
        };
        for (std::size_t j = 0; j < left; ++j)
            put(first + static_cast<std::int64_t>(j), clip_left - left + j, false);
        for (const auto& [col, base] : placed) put(col, base, true);
        for (std::size_t j = 0; j < right; ++j)
            put(placed.back().first + 1 + static_cast<std::int64_t>(j),
                r.seq.size() - clip_right + j, false);
        if (tied) {
            t.start = read.start;
            t.complemented = r.reverse;
            t.flowgram = std::move(r.flowgram);
            t.flow_chars = std::move(r.flow_chars);
            t.file = r.unit;
            out.tied.emplace(read.name, std::move(t));
        }
        if (r.owned) {
            if (tied)
                ++out.counts.tied;
            else if (r.state == record::tie_state::untied)
                ++out.counts.untied;
            else
                ++out.counts.not_found;
        }
        c.reads.emplace(read.name, std::move(read));
    }
    c.num_reads = static_cast<std::int32_t>(c.reads.size());
    return {};
}

void check_window(flow_check& check, const aligned_window& w, bool list_all, contig_report& whole) {
    std::vector<flow_check::read_tie> ties;
    ties.reserve(w.tied.size());
    for (const auto& [name, t] : w.tied) ties.push_back({&w.c.reads.at(name), &t});
    // Along the contig, consecutive reads share their runs in the cache.
    std::stable_sort(ties.begin(), ties.end(),
                     [](const auto& a, const auto& b) { return a.tie->start < b.tie->start; });
    check.check_tied(w.c, ties, w.counts);
    contig_report part;
    check.report(w.c, list_all, part);

    const auto owned = [&](const hp_run& r) {
        return r.position >= w.owned_first && r.position <= w.owned_last;
    };
    contig_coverage& cover = whole.coverage;
    cover.reads += w.counts;
    for (const hp_run& r : check.runs) {
        if (!owned(r) || r.consensus_length <= 0) continue;
        ++cover.runs;
        if (check.tested(r)) ++cover.tested;
    }
    const auto shift = static_cast<std::int32_t>(w.offset);
    std::map<std::int32_t, std::int32_t> renumbered;
    for (report_row& row : part.rows) {
        if (!owned(row.run)) continue;
        const auto index = static_cast<std::int32_t>(whole.rows.size());
        renumbered[row.index] = index;
        row.index = index;
        row.run.position += shift;
        row.run.column = row.run.first_column = row.run.last_column = row.run.position;
        whole.rows.push_back(row);
    }
    for (consensus_edit& e : part.edits) {
        const auto it = renumbered.find(e.run);
        if (it == renumbered.end()) continue;
        e.run = it->second;
        e.begin += w.offset;
        e.end += w.offset;
        ++whole.called;
        if (e.pass) ++whole.passed;
        whole.edits.push_back(std::move(e));
    }
}

sorvexa::status finish_reference(alignment_file& in, std::int32_t ref, contig_report& whole) {
    if (ref < 0 || static_cast<std::size_t>(ref) >= in.references().size())
        return sorvexa::status::failure("no such reference sequence");
    const reference_sequence& r = in.references()[static_cast<std::size_t>(ref)];
    whole.name = r.name;
    if (sorvexa::status st = in.reference_bases(ref, 0, r.length, whole.unpadded); !st) return st;
    whole.polished = apply_edits(whole.unpadded, whole.edits);
    return {};
}

sorvexa::status check_reference(flow_check& check, alignment_file& in, std::size_t ref,
                                bool list_all, contig_report& out, std::int64_t window_size,
                                std::int64_t margin) {
    out = contig_report{};
    if (ref >= in.references().size())
        return sorvexa::status::failure("no such reference sequence");
    const auto id = static_cast<std::int32_t>(ref);
    aligned_window w;
    for (const alignment_window& at :
         alignment_windows(id, in.references()[ref].length, window_size, margin)) {
        if (sorvexa::status st = in.read(at, w); !st) return st;
        check_window(check, w, list_all, out);
    }
    return finish_reference(in, id, out);
}

sorvexa::status open_for_check(alignment_file& in, const std::string& path,
                               const std::string& reference, const read_lookup& lookup,
                               flow_check& check, model_origin origin,
                               const std::string& table_path, std::string& note) {
    if (sorvexa::status st = in.open(path, reference, &lookup); !st) return st;
    return choose_models(check, origin, alignment_sample(in), in.units(), table_path, note);
}

flow_check::probe_source alignment_sample(alignment_file& in, std::int64_t window_size,
                                          std::int64_t margin) {
    struct state {
        std::int32_t ref = 0;
        std::vector<alignment_window> windows;
        std::size_t next = 0;
    };
    auto s = std::make_shared<state>();
    return [&in, window_size, margin, s](flow_check& probe, sorvexa::status& error) {
        while (s->next == s->windows.size()) {
            if (static_cast<std::size_t>(s->ref) >= in.references().size()) return false;
            s->windows =
                alignment_windows(s->ref, in.references()[static_cast<std::size_t>(s->ref)].length,
                                  window_size, margin);
            s->next = 0;
            ++s->ref;
        }
        aligned_window w;
        error = in.read(s->windows[s->next++], w);
        if (!error) return false;
        std::vector<flow_check::read_tie> ties;
        for (const auto& [name, t] : w.tied) ties.push_back({&w.c.reads.at(name), &t});
        probe.check_tied(w.c, ties, w.counts);
        return true;
    };
}
