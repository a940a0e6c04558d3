// Charts drawn as inline SVG: the depth profile of a contig with the shown window, and the
// quality scores and flowgram of one read. Letters take their colours from the style sheet
// (base_class).
#pragma once

#include <cstdint>
#include <string>

#include "assembly.h"
#include "html.h"
#include "read_source.h"

namespace browse {

// `href` is the contig page's address up to the value of `from`; a click on the chart moves
// a window of `width` columns there (the page's script does it).
html depth_chart(const built_contig& b, std::int64_t from, std::int64_t last, int width,
                 const std::string& href);

html quality_chart(const sff_record& r);
html flowgram_chart(const sff_record& r);

}  // namespace browse
