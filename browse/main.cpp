// sorvexa-browse: serves an ACE assembly and its SFF files to a web browser.
//
//   sorvexa-browse [--port N] [--bind ADDR] [--model FILE] [--access-log] aceFile [sffFile ...]
#include <malloc.h>
#include <pthread.h>
#include <signal.h>

#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "server.h"
#include "site.h"
#include "std_output.h"

namespace {

const char* const usage_text =
    "Usage: sorvexa-browse [--port N] [--bind ADDR] [--model FILE] [--access-log] aceFile\n"
    "                      [sffFile ...]\n"
    "\n"
    "Serves the contigs of an ACE assembly, with the reads' flowgrams from the SFF files,\n"
    "to a web browser, until interrupted. The flow values are weighed under the model that\n"
    "sorvexa-flowcheck fits to the same files, given in the same order.\n"
    "\n"
    "  --port N     port to listen on (default 8454; 0 picks a free port)\n"
    "  --bind ADDR  address to listen on (default 127.0.0.1)\n"
    "  --model FILE use the model in FILE (a PREFIX.flowcheck.model.tsv) instead of\n"
    "               fitting one\n"
    "  --access-log print a line for every request answered on standard error\n"
    "  -h, --help   print this text and exit\n"
    "  -v, --version print the version and exit\n";

struct options {
    int port = 8454;
    std::string bind = "127.0.0.1";
    std::string model;
    bool access_log = false;
    std::string ace;
    std::vector<std::string> sff;
};

bool parse_port(const std::string& text, int& port) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    port = std::stoi(text);
    return port <= 65535;
}

// Options come before the ACE file; every argument after it is an SFF file. Returns -1 to
// go on, else the exit status.
int parse(int argc, char** argv, options& o) {
    int i = 1;
    for (; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::cout << usage_text;
            return 0;
        }
        if (a == "-v" || a == "--version") {
            std::cout << "sorvexa-browse " << SORVEXA_VERSION << "\n";
            return 0;
        }
        if (a == "--access-log") {
            o.access_log = true;
            continue;
        }
        if (a == "--port" || a == "--bind" || a == "--model") {
            if (i + 1 >= argc) {
                std::cerr << "sorvexa-browse: " << a << " needs a value\n" << usage_text;
                return 1;
            }
            const std::string v = argv[++i];
            if (a == "--bind") {
                o.bind = v;
            } else if (a == "--model") {
                if (v.empty()) {
                    std::cerr << "sorvexa-browse: --model needs a file name\n" << usage_text;
                    return 1;
                }
                o.model = v;
            } else if (!parse_port(v, o.port)) {
                std::cerr << "sorvexa-browse: --port takes a number from 0 to 65535, not " << v
                          << "\n";
                return 1;
            }
            continue;
        }
        if (a.size() > 1 && a[0] == '-') {
            std::cerr << "sorvexa-browse: unknown option " << a << "\n" << usage_text;
            return 1;
        }
        break;
    }
    if (i >= argc) {
        std::cerr << usage_text;
        return 1;
    }
    o.ace = argv[i++];
    for (; i < argc; ++i) o.sff.emplace_back(argv[i]);
    return -1;
}

// The path as one shell word.
std::string quoted(const std::string& path) {
    std::string out = "'";
    for (char ch : path) out += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    return out + "'";
}

// For an ACE file the reader refused that has the shape of one from a known writer (an empty
// line between a read's QA and DS lines): the rewrite that makes it readable.
std::string refused_file_hint(const std::string& ace_path) {
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

// For an assembly none of whose reads the SFF files hold, when every name carries a
// writer's strand suffix and dropping it finds reads: the rewrite that drops them.
std::string placement_hint(const browse::assembly& ace, const browse::read_source& sff) {
    auto suffixed = [](std::string_view n) {
        return n.size() > 2 && n[n.size() - 2] == '.' && (n.back() == 'f' || n.back() == 'r');
    };
    if (ace.reads_found != 0 || ace.placements.empty() || sff.lookup.size() == 0) return {};
    bool found = false;
    for (const auto& [name, contig] : ace.placements) {
        if (!suffixed(name)) return {};
        found = found || sff.holds(name.substr(0, name.size() - 2));
    }
    if (!found) return {};
    return "No read of the assembly is in the SFF files: every read name ends in .f or .r, as "
           "gap5 writes them. Drop the suffixes from the AF and RD lines and start again on the "
           "new file:\n  sed -E 's/^(AF|RD) ([^ ]+)\\.[fr] /\\1 \\2 /' " +
           quoted(ace.ace_path) + " > fixed.ace\n";
}

int serve(int argc, char** argv) {
    options o;
    if (int status = parse(argc, argv, o); status >= 0) return status;
    // A model file that cannot serve is refused before the long reading of the assembly.
    std::optional<flow_models> models;
    if (!o.model.empty()) {
        std::string why;
        if (!read_model_file(o.model, o.sff, models.emplace(), why)) {
            std::cerr << "sorvexa-browse: " << why << std::endl;
            return 1;
        }
    }
    // Request threads allocate and free whole contig drawings; a few shared malloc arenas keep
    // the freed memory in use instead of one idle arena per thread. Blocks of a quarter
    // megabyte and more (a contig's sequences and views) are mapped on their own and returned
    // whole when the contig leaves the cache, rather than left to fragment the heap.
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_MMAP_THRESHOLD, 256 << 10);
    // SIGINT and SIGTERM are taken here with sigwait; every other thread inherits the mask.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    // The SFF files are indexed while the ACE file is read; input errors end start-up before
    // anything is served.
    browse::read_source sff;
    sorvexa::status indexed;
    std::thread indexing([&] { indexed = sff.index(o.sff); });
    browse::assembly ace;
    const sorvexa::status read = ace.read(o.ace);
    indexing.join();
    if (!read.ok) {
        std::cerr << read.message << "\n";
        if (const std::string hint = refused_file_hint(o.ace); !hint.empty())
            std::cerr << "sorvexa-browse: " << hint;
        return 1;
    }
    if (!indexed.ok) {
        std::cerr << indexed.message << "\n";
        return 1;
    }
    ace.count_found(sff);
    ace.start_up_hint = placement_hint(ace, sff);
    // What start-up parsed and sorted is freed by now; hand it back before serving starts.
    malloc_trim(0);
    browse::site site(ace, sff);
    // The flow-signal evidence: built for a contig when a page first needs it, and counted
    // for the overview in the background once the server is up.
    browse::evidence_store evidence(ace, sff);
    site.evidence = &evidence;
    if (models)
        evidence.use_models(std::move(*models), "read from " + o.model);
    else
        evidence.fit_in_background();  // evidence pages wait for the fit; the others do not

    browse::http_server server(site);
    server.access_log = o.access_log;
    const int port = server.start(o.bind, o.port);
    if (port <= 0) {
        std::cerr << "sorvexa-browse: cannot listen on " << o.bind << " port " << o.port << "\n";
        return 1;
    }
    const bool v6 = o.bind.find(':') != std::string::npos;
    std::cout << "sorvexa-browse: " << ace.contigs.size() << " contigs, " << ace.reads_placed
              << " reads placed, " << sff.lookup.size() << " reads indexed\n";
    if (!ace.start_up_hint.empty()) std::cerr << "sorvexa-browse: " << ace.start_up_hint;
    std::cout << "Open http://" << (v6 ? "[" : "") << o.bind << (v6 ? "]" : "") << ":" << port
              << "/ in a web browser; Ctrl-C stops the server." << std::endl;

    evidence.count_in_background();
    int sig = 0;
    sigwait(&stop_signals, &sig);
    server.stop();
    std::cout << "sorvexa-browse: stopped" << std::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return sorvexa::main_checking_stdout(serve, argc, argv, "sorvexa-browse");
}
