#include <sorvexa/ace_hints.h>

#include <fstream>

namespace {

// The path as one shell word.
std::string quoted(const std::string& path) {
    std::string out = "'";
    for (char ch : path) out += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    return out + "'";
}

}  // namespace

std::string blank_line_hint(const std::string& ace_path) {
    std::ifstream in(ace_path, std::ios::binary);
    std::string line;
    // 0: looking for a QA line; 1: after one; 2: after a QA line and an empty line.
    int state = 0;
    bool shape = false;
    while (!shape && std::getline(in, line)) {
        if (state == 2 && line.rfind("DS", 0) == 0) shape = true;
        state = line.rfind("QA ", 0) == 0 ? 1 : (state == 1 && line.empty() ? 2 : 0);
    }
    if (!shape) return {};
    return "An empty line stands between a read's QA and DS lines, as MIRA writes them. Drop "
           "it and start again on the new file:\n  sed '/^QA /{n;/^$/{N;s/^\\nDS /DS /}}' " +
           quoted(ace_path) + " > fixed.ace\n";
}

std::string strand_suffix_hint(const std::string& ace_path, const std::vector<std::string>& names,
                               const std::function<bool(const std::string&)>& held) {
    bool found = false;
    for (const std::string& n : names) {
        if (n.size() < 3 || n[n.size() - 2] != '.' || (n.back() != 'f' && n.back() != 'r'))
            return {};
        found = found || held(n.substr(0, n.size() - 2));
    }
    if (!found) return {};
    return "No read of the assembly is in the SFF files: every read name ends in .f or .r, as "
           "gap5 writes them. Drop the suffixes from the AF and RD lines and start again on the "
           "new file:\n  sed -E 's/^(AF|RD) ([^ ]+)\\.[fr] /\\1 \\2 /' " +
           quoted(ace_path) + " > fixed.ace\n";
}
