#include <sorvexa/ace.h>

#include <algorithm>

namespace {

const char* const section_tags[] = {"CO", "BQ", "AF", "BS", "RD"};

// Reads lines until an empty one (or the end of the file), appending every other line;
// the line in hand is then the empty one.
void read_block(text_file& in, std::vector<char>& out, std::string& line) {
    while (in.append_line(out) != 0) {
    }
    line.clear();
}

void skip_block(text_file& in, std::string& line) {
    do in.getline(line);
    while (!line.empty());
}

// The block's lines as skip_block takes them, each read as numbers separated by blanks;
// anything else in a line ends its numbers, and values are held to 0..255.
void read_qualities(text_file& in, std::vector<std::uint8_t>& out, std::string& line) {
    for (;;) {
        in.getline(line);
        if (line.empty()) return;
        std::size_t i = 0;
        for (;;) {
            while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
            if (i >= line.size() || line[i] < '0' || line[i] > '9') break;
            int v = 0;
            for (; i < line.size() && line[i] >= '0' && line[i] <= '9'; ++i)
                v = std::min(v * 10 + (line[i] - '0'), 255);
            out.push_back(static_cast<std::uint8_t>(v));
        }
    }
}

}  // namespace

std::string output_prefix(const std::string& ace_path) {
    std::size_t cut = ace_path.rfind(".ace");
    if (cut == std::string::npos) cut = ace_path.rfind(".ACE");
    return cut == std::string::npos ? ace_path : ace_path.substr(0, cut);
}

aceReader::aceReader(const std::string& file) : file_name(file) {
    if (!ace_stream.open(file_name)) {
        error = sorvexa::status::failure("The file: " + file_name + " can not be opened");
        return;
    }
    read_as_line();
}

aceReader::~aceReader() {
    ace_stream.close();
}

int aceReader::open_file(const char* file) {
    ace_stream.close();
    num_contigs = 0;
    total_reads = 0;
    error = {};
    file_name = file;
    if (!ace_stream.open(file_name)) {
        error = sorvexa::status::failure("the file: " + file_name + " can not be opened");
        return 0;
    }
    read_as_line();
    return error.ok ? 1 : 0;
}

void aceReader::close_file() {
    ace_stream.close();
    num_contigs = 0;
    total_reads = 0;
}

// The AS counts are read as the next words of the file, across line ends; the rest of the
// AS line is left for the first line that next_contig reads. A count that does not parse is
// taken as 0 (or as the nearest bound when out of range) and reading goes on from there.
void aceReader::read_as_line() {
    std::string token;
    ace_stream.extract_word(token);
    if (token != "AS") {
        error = sorvexa::status::failure("Error: the input file " + file_name +
                                         " does not like an ACE file");
        ace_stream.close();
        return;
    }
    std::int64_t v = 0;
    ace_stream.extract_int(v, INT32_MIN, INT32_MAX);
    num_contigs = static_cast<int>(v);
    v = 0;
    ace_stream.extract_int(v, INT32_MIN, INT32_MAX);
    total_reads = static_cast<std::int32_t>(v);
}

int aceReader::next_contig(contig& c) {
    if (file_name.empty()) {
        error = sorvexa::status::failure("Error: there is no ACE file open!");
        return 0;
    }
    if (!error.ok || num_contigs == 0 || !ace_stream.is_open() || ace_stream.eof()) return 0;

    std::size_t expected = 0;
    std::string line;
    while (!ace_stream.eof()) {
        ace_stream.getline(line);
        if (line.empty()) continue;
        std::string token = first_token(line);
        if (token.find('{') != std::string::npos) {
            // A tag block ends with the first line that starts with '}'; a block that the
            // end of the file cuts off keeps its token, which no section accepts.
            std::string skipped;
            while (!ace_stream.eof()) {
                ace_stream.getline(skipped);
                if (!skipped.empty() && skipped[0] == '}') {
                    token.clear();
                    break;
                }
            }
        }
        if (token.empty()) continue;
        if (token != section_tags[expected]) return fail("Error: tag '" + token + "' should be not in the ACE file!");

        switch (expected++) {
            case 0: {  // CO
                char direction = 0;
                line_tokens(line) >> token >> c.name >> c.num_bases >> c.num_reads >>
                    c.num_segments >> direction;
                if (direction == 'U') c.uncomplemented = 1;
                read_block(ace_stream, c.consensus, line);
                break;
            }
            case 1:  // BQ
                if (keep_base_qualities)
                    read_qualities(ace_stream, c.base_qualities, line);
                else
                    skip_block(ace_stream, line);
                break;
            case 3:  // BS
                skip_block(ace_stream, line);
                break;
            case 2:  // AF
                read_af_section(c, line);
                break;
            default:  // RD
                return read_rd_section(c, line);
        }
    }
    return 0;
}

// AF lines are taken by count, whatever their first token. Lines past the end of the file
// would all be empty, so the count stops there.
bool aceReader::read_af_section(contig& c, const std::string& first_line) {
    std::string line = first_line;
    for (std::int32_t k = 0; k < c.num_reads; ++k) {
        if (k > 0) {
            if (ace_stream.eof()) return false;
            ace_stream.getline(line);
        }
        std::string tag, name;
        char direction = 0;
        std::int32_t start = 0;
        line_tokens(line) >> tag >> name >> direction >> start;
        READ& r = c.reads[name];
        r = READ{};
        r.name = name;
        r.start = start;
        r.uncomplemented = direction == 'C' ? 0 : 1;
    }
    return true;
}

int aceReader::read_rd_section(contig& c, std::string& line) {
    for (std::int32_t k = 0; k < c.num_reads; ++k) {
        if (k > 0) {
            do {
                if (ace_stream.eof()) return 0;
                ace_stream.getline(line);
            } while (first_token(line) != "RD");
        }
        line_tokens rd(line);
        std::string tag, name;
        rd >> tag >> name;
        auto it = c.reads.find(name);
        if (it == c.reads.end()) return fail("Error: AF tag for read " + name + " is missing");
        READ& r = it->second;
        rd >> r.length;
        r.sequence.clear();
        r.sequence.reserve(static_cast<std::size_t>(std::max<std::int16_t>(r.length, 0)));
        read_block(ace_stream, r.sequence, line);
        while (line.empty()) {
            if (ace_stream.eof()) return 0;
            ace_stream.getline(line);
        }
        std::int32_t ignored = 0;
        line_tokens(line) >> tag >> ignored >> ignored >> r.align_clip_start >> r.align_clip_end;
        ace_stream.getline(line);  // the DS line, whatever it holds
    }
    return 1;
}

int aceReader::fail(std::string message) {
    error = sorvexa::status::failure(std::move(message));
    ace_stream.close();
    return 0;
}

int aceReader::next_contig(std::vector<contig>& contigs, std::int16_t count) {
    if (count < 1) return 0;
    for (int n = 0; n < count; ++n) {
        contig c;
        if (next_contig(c) == 0) return n;
        contigs.push_back(c);
    }
    return count;
}

int aceReader::next_contig_at(std::int64_t offset, contig& c) {
    if (!ace_stream.seek(offset)) return 0;
    return next_contig(c);
}
