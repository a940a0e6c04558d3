// What to do about an ACE file that a known writer produced before the one-line rewrite that
// gives the form the reader accepts: the command, said to the user, or empty when the file
// does not have that writer's shape.
#pragma once

#include <functional>
#include <string>
#include <vector>

// A file the reader refused, with an empty line between a read's QA and DS lines. Reads the
// file.
std::string blank_line_hint(const std::string& ace_path);

// An assembly none of whose reads the SFF files hold (`names`: its read names), every name
// ending in a strand suffix (.f, .r), where `held` finds a read under a name without it.
std::string strand_suffix_hint(const std::string& ace_path, const std::vector<std::string>& names,
                               const std::function<bool(const std::string&)>& held);
