// A read cut to its kept bases, with absolute flow numbers.
#include <algorithm>

#include <sorvexa/sff.h>

seqRead::seqRead(const sff_read& read) {
    assign(read);
}

// The flow counter runs over every base from the first, so bases before the left clip
// (the key among them) still move it. A kept range that is empty or negative (right clip
// before left clip) gives the name and three empty vectors; nothing is ever stored outside
// the vectors, whatever the clips say.
void seqRead::assign(const sff_read& read) {
    const std::int16_t left = read.get_base_start();
    const std::int16_t right = read.get_base_end();
    name.assign(read.name.data(), std::min<std::size_t>(read.name_length, read.name.size()));
    const auto n = static_cast<std::int16_t>(right - left + 1);
    const std::size_t size = n > 0 ? static_cast<std::size_t>(n) : 0;
    bases.resize(size);
    quality_scores.resize(size);
    flow_indexes.resize(size);
    if (size == 0) return;

    // Base i (0-based) goes to slot i + 1 - left. Before the kept range only the flow counter
    // moves; the copy ends at the last slot, at the last base held, or after the base at the
    // right end, whichever comes first.
    const std::size_t held = read.bases_held();
    const std::int64_t first = left;
    const auto skipped = static_cast<std::int64_t>(
        first > 1 ? std::min<std::size_t>(held, static_cast<std::size_t>(first - 1)) : 0);
    std::int64_t end =
        std::min(static_cast<std::int64_t>(held), static_cast<std::int64_t>(size) + first - 1);
    if (right - 1 >= skipped) end = std::min<std::int64_t>(end, right);
    std::int16_t flow = -1;
    for (std::int64_t i = 0; i < skipped; ++i)
        flow = static_cast<std::int16_t>(flow + read.flow_index_per_base[i]);
    if (end <= skipped) return;

    const std::int64_t shift = first - 1;
    for (std::int64_t i = skipped; i < end; ++i) {
        flow = static_cast<std::int16_t>(flow + read.flow_index_per_base[i]);
        flow_indexes[i - shift] = flow;
    }
    std::copy(read.bases.begin() + skipped, read.bases.begin() + end,
              bases.begin() + (skipped - shift));
    std::copy(read.quality_scores.begin() + skipped, read.quality_scores.begin() + end,
              quality_scores.begin() + (skipped - shift));
}

// The last base assign() can reach is the one at the end of the kept range; a left clip
// beyond 32767 wraps to a negative position and moves that end back the same way.
std::size_t seqRead::bases_used(const sff_read& read) {
    const std::int16_t left = read.get_base_start();
    const auto n = static_cast<std::int16_t>(read.get_base_end() - left + 1);
    if (n <= 0) return 0;
    return static_cast<std::size_t>(std::max(0, n + left - 1));
}
