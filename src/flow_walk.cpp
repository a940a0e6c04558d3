#include <sorvexa/flow_walk.h>

#include <algorithm>
#include <cctype>
#include <cstddef>

#include "flow_letters.h"

namespace {

using flow_letters::upper;

struct flows_view {
    std::string_view chars;
    std::span<const std::uint16_t> values;
    std::int64_t size = 0;

    char letter(std::int64_t f) const { return upper(chars[static_cast<std::size_t>(f)]); }
    bool calls(std::int64_t f) const {
        return values[static_cast<std::size_t>(f)] >= min_called_value;
    }
    // How many bases a value stands for, at least one: 3.50 stands for 4.
    std::int64_t bases(std::int64_t f) const {
        return std::max<std::int64_t>(1, (values[static_cast<std::size_t>(f)] + 50) / 100);
    }
    // The first flow after `f` that offers `b` and calls a base; `size` when there is none.
    std::int64_t next_calling(std::int64_t f, char b) const {
        do ++f;
        while (f < size && (letter(f) != b || !calls(f)));
        return f;
    }
};

}  // namespace

bool walk_flows(std::string_view bases, std::string_view flow_chars,
                std::span<const std::uint16_t> flowgram, std::int32_t first_flow,
                std::vector<std::int32_t>& out) {
    out.assign(bases.size(), -1);
    if (bases.empty()) return true;
    // Flows past either the flowgram or the order are unknown.
    const flows_view v{flow_chars, flowgram,
                       static_cast<std::int64_t>(std::min(flow_chars.size(), flowgram.size()))};
    if (first_flow < 0 || first_flow >= v.size || v.letter(first_flow) != upper(bases[0]))
        return false;
    std::int64_t flow = first_flow;
    std::size_t i = 0;
    while (i < bases.size()) {
        const char b = upper(bases[i]);
        std::size_t run = 1;
        while (i + run < bases.size() && upper(bases[i + run]) == b) ++run;
        if (i > 0 && (flow = v.next_calling(flow, b)) >= v.size) return false;
        for (;;) {
            // A further flow of the letter with nothing called before it holds the rest.
            std::int64_t next = flow + 1;
            while (next < v.size && !v.calls(next)) ++next;
            const bool more = next < v.size && v.letter(next) == b;
            const std::size_t take =
                more ? std::min<std::size_t>(run, static_cast<std::size_t>(v.bases(flow))) : run;
            std::fill_n(out.begin() + static_cast<std::ptrdiff_t>(i), take,
                        static_cast<std::int32_t>(flow));
            i += take;
            run -= take;
            if (run == 0) break;
            flow = next;
        }
    }
    return true;
}
