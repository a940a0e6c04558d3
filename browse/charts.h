// Charts drawn as inline SVG: the depth profile of a contig with the shown window, and the
// quality scores and flowgram of one read.
#pragma once

#include <cstdint>
#include <string>

#include "assembly.h"
#include "read_source.h"

namespace browse {

// `href` is the contig page's address up to the value of `from` (already URL-safe); a
// click on the chart moves a window of `width` columns there (the page's script does it).
std::string depth_chart(const built_contig& b, std::int64_t from, std::int64_t last, int width,
                        const std::string& href);

std::string quality_chart(const sff_record& r);
std::string flowgram_chart(const sff_record& r);

// The colour of a flow's or base's letter, grey for anything else.
const char* letter_colour(char letter);

}  // namespace browse
