// The flow that called each base of a read, found again from the bases, the flow order and
// the flowgram alone: how a read that travels without its SFF record (in SAM, with the
// flowgram in one tag and the flow of its first base in another) is tied to its flows.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

// The least flow value (hundredths) that calls a base: a value of 0.50 calls none.
inline constexpr std::uint16_t min_called_value = 51;

// Walks the read from `first_flow`, which must offer its first base. A run of one letter
// is called by the next flow of its letter that calls a base (the first run by
// `first_flow`); when further flows of the letter that call a base follow it with only flows
// that call none between them, the run was split among them, each but the last taking the
// bases its value rounds to (at least one). `out` gets one flow per base (zero-based, in the
// read's own orientation). Letters are compared without case. A base that no flow offers
// (an N, or a letter the walk cannot reach) ends the walk: that base and every one after it
// get -1 and the result is false, as it is when `first_flow` is out of range or offers
// another letter.
bool walk_flows(std::string_view bases, std::string_view flow_chars,
                std::span<const std::uint16_t> flowgram, std::int32_t first_flow,
                std::vector<std::int32_t>& out);
