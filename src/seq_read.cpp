// A read cut to its kept bases, with absolute flow numbers.
#include "sff.h"

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

    const std::size_t held = read.bases_held();
    std::int16_t flow = -1;
    for (std::size_t i = 0; i < held; ++i) {
        flow = static_cast<std::int16_t>(flow + read.flow_index_per_base[i]);
        const std::int64_t pos = static_cast<std::int64_t>(i) + 1;
        if (pos < left) continue;
        const std::int64_t k = pos - left;
        if (k >= static_cast<std::int64_t>(size)) break;
        bases[k] = read.bases[i];
        quality_scores[k] = read.quality_scores[i];
        flow_indexes[k] = flow;
        if (pos == right) break;
    }
}
