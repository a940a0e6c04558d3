// What the pages share: the frame every HTML page sits in, error pages, the addresses of
// pages, and small pieces of markup and text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "html.h"
#include "pages.h"

namespace browse {

// A whole HTML page: title (text), body, and optionally one of the scripts of assets/
// (browse_assets.h; placed at the end of the body under a fresh nonce).
response page(std::string_view title, const html& body, const html& script = html{});
response error_page(int status, std::string_view title, std::string_view message);
response text_response(int status, std::string body);

// Addresses, unescaped (the writer escapes attribute values).
std::string contig_href(std::string_view name);
std::string read_href(std::string_view name);
std::string window_href(std::string_view contig, std::int64_t from, int width,
                        std::int64_t rows_page = 1);

// A term and its value in a list of facts (<dl class="facts">).
void fact(html& out, std::string_view term, std::string_view value);
void fact(html& out, std::string_view term, const html& value);
// A link to a read's page.
void read_link(html& out, std::string_view name);

// A whole number of at most nine digits.
bool parse_count(std::string_view text, std::int64_t& out);
bool ends_with(std::string_view s, std::string_view tail);

// A name made safe as a download's file name; a field made safe for a TSV line.
std::string file_name_for(std::string_view name);
char tsv_char(char ch);

}  // namespace browse
