// Tying a read of a contig to the flows of its SFF record: where its sequence lies among the
// record's called bases, and from there the flow of each of its bases.
#include <algorithm>

#include "flow_letters.h"
#include <sorvexa/flowcheck.h>

namespace {

using flow_letters::complement;
using flow_letters::upper;

// Every occurrence of `pattern` in `text` in one linear pass (Knuth-Morris-Pratt), so that a
// hostile record of repeated letters costs no more than a normal one. Stops when `take`
// returns true.
template <class Take>
void for_each_occurrence(std::string_view text, std::string_view pattern, Take take) {
    const std::size_t m = pattern.size();
    if (m == 0 || m > text.size()) return;
    std::vector<std::size_t> border(m, 0);
    for (std::size_t i = 1, k = 0; i < m; ++i) {
        while (k > 0 && pattern[i] != pattern[k]) k = border[k - 1];
        if (pattern[i] == pattern[k]) ++k;
        border[i] = k;
    }
    for (std::size_t i = 0, k = 0; i < text.size(); ++i) {
        while (k > 0 && text[i] != pattern[k]) k = border[k - 1];
        if (text[i] == pattern[k]) ++k;
        if (k == m) {
            if (take(i + 1 - m)) return;
            k = border[k - 1];
        }
    }
}

}  // namespace

bool tie_read(const READ& read, const sff_read& record, std::string_view flow_chars,
              tied_read& out) {
    // The read's bases as the sequencer called them: unpadded, upper case, and turned back
    // to the record's strand for a complemented read.
    const std::size_t padded = std::min<std::size_t>(
        static_cast<std::size_t>(std::max<std::int16_t>(read.length, 0)), read.sequence.size());
    std::string wanted;
    wanted.reserve(padded);
    for (std::size_t k = 0; k < padded; ++k)
        if (read.sequence[k] != '*') wanted.push_back(upper(read.sequence[k]));
    const bool complemented = read.uncomplemented == 0;
    if (complemented) {
        std::reverse(wanted.begin(), wanted.end());
        std::transform(wanted.begin(), wanted.end(), wanted.begin(), complement);
    }

    const std::size_t held = record.bases_held();
    const std::size_t m = wanted.size();
    // The kept range, 0-based; an occurrence overlapping it is the read the assembly used.
    const std::int64_t kept_first = std::max<std::int64_t>(record.get_base_start(), 1) - 1;
    const std::int64_t kept_last = static_cast<std::int64_t>(record.get_base_end()) - 1;
    auto matches_at = [&](std::size_t at) {
        if (at > held || held - at < m || m == 0) return false;
        for (std::size_t u = 0; u < m; ++u)
            if (upper(record.bases[at + u]) != wanted[u]) return false;
        return true;
    };
    // Nearly always the assembly holds the kept bases from the first one on; otherwise the
    // first occurrence that overlaps the kept range, else the first one anywhere.
    std::int64_t found = -1;
    if (matches_at(static_cast<std::size_t>(kept_first))) {
        found = kept_first;
    } else {
        std::string called(held, '\0');
        for (std::size_t i = 0; i < held; ++i) called[i] = upper(record.bases[i]);
        for_each_occurrence(called, wanted, [&](std::size_t at) {
            const auto first = static_cast<std::int64_t>(at);
            const std::int64_t last = first + static_cast<std::int64_t>(m) - 1;
            if (found < 0) found = first;
            if (first <= kept_last && last >= kept_first) {
                found = first;
                return true;
            }
            return false;
        });
    }
    if (found < 0) return false;

    // The flow of every called base: the running sum of the per-base increments, from -1.
    std::vector<std::int32_t> flow_of(held);
    std::int32_t flow = -1;
    for (std::size_t i = 0; i < held; ++i) {
        flow += record.flow_index_per_base[i];
        flow_of[i] = flow;
    }

    out.start = read.start;
    out.complemented = complemented;
    out.base_flow.assign(read.sequence.size(), -1);
    std::size_t u = 0;  // unpadded index of the read's next base
    for (std::size_t k = 0; k < padded; ++k) {
        if (read.sequence[k] == '*') continue;
        const std::size_t i = complemented ? static_cast<std::size_t>(found) + m - 1 - u
                                           : static_cast<std::size_t>(found) + u;
        out.base_flow[k] = flow_of[i];
        ++u;
    }
    const std::size_t flows =
        std::min<std::size_t>(record.numOfFlows, record.flowgram_values.size());
    out.flowgram.assign(record.flowgram_values.begin(),
                        record.flowgram_values.begin() + static_cast<std::ptrdiff_t>(flows));
    out.flow_chars.resize(flow_chars.size());
    std::transform(flow_chars.begin(), flow_chars.end(), out.flow_chars.begin(), upper);
    return true;
}
