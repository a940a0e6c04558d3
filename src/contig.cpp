// The contig's read layout: reads by start column, length statistics and rows.
#include <sorvexa/contig.h>

const char fcycle[4] = {'T', 'A', 'C', 'G'};

void contig::create_pos_map() {
    if (reads.empty()) return;
    std::uint32_t sum = 0;  // unsigned, so that the mean truncates as an unsigned quotient
    for (const auto& [name, r] : reads) {
        pos_map.emplace(r.start, name);  // equal starts stay in name order
        sum += static_cast<std::uint32_t>(static_cast<std::int32_t>(r.length));
        if (r.length > max_read_len) max_read_len = r.length;
        if (r.length < min_read_len) min_read_len = r.length;
    }
    avg_read_len = static_cast<double>(sum / static_cast<std::uint32_t>(reads.size()));
}

// Rows are packed greedily from the left: at each free column the first unplaced read that
// starts exactly there is taken, and the row goes on after its last column. Instead of
// stepping column by column, the packing jumps to the next start that is still unplaced,
// which gives the same rows without walking empty columns.
//
// Reads that start outside columns 1 to num_bases can never be reached from column 1, so
// they are left out of the layout. A read with a length below 1 takes its start column only,
// so that every placed read appears once and the row still moves forward.
void contig::create_print_map() {
    if (pos_map.empty()) create_pos_map();
    std::multimap<std::int32_t, std::string> pending;
    for (auto it = pos_map.lower_bound(1); it != pos_map.end() && it->first <= num_bases; ++it)
        pending.insert(pending.end(), *it);

    while (!pending.empty()) {
        layout_row row;
        std::int64_t p = 1;
        for (;;) {
            auto it = pending.lower_bound(static_cast<std::int32_t>(p));
            if (it == pending.end()) break;
            p = it->first;
            std::int64_t length = 1;
            auto rd = reads.find(it->second);
            if (rd != reads.end() && rd->second.length > 1) length = rd->second.length;
            row.emplace(it->first, std::move(it->second));
            pending.erase(it);
            p += length;
            if (p > num_bases) break;
        }
        print_map.push_back(std::move(row));
    }
}

void contig::get_read_ids(std::vector<std::string>& ids) {
    if (print_map.empty()) create_print_map();
    for (const auto& row : print_map)
        for (const auto& entry : row) ids.push_back(entry.second);
}
