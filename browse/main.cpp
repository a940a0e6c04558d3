// sorvexa-browse: serves an ACE assembly and its SFF files to a web browser.
//
//   sorvexa-browse [--port N] [--bind ADDR] [--model FILE] aceFile [sffFile ...]
#include <malloc.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "assembly.h"
#include "evidence.h"
#include "pages.h"
#include "process_exit.h"
#include "read_source.h"
#include "server.h"
#include "std_output.h"

namespace {

const char* const usage_text =
    "Usage: sorvexa-browse [--port N] [--bind ADDR] [--model FILE] aceFile [sffFile ...]\n"
    "\n"
    "Serves the contigs of an ACE assembly, with the reads' flowgrams from the SFF files,\n"
    "to a web browser, until interrupted. The flow values are weighed under the model that\n"
    "sorvexa-flowcheck fits to the same files, given in the same order.\n"
    "\n"
    "  --port N     port to listen on (default 8454; 0 picks a free port)\n"
    "  --bind ADDR  address to listen on (default 127.0.0.1)\n"
    "  --model FILE use the model in FILE (a PREFIX.flowcheck.model.tsv) instead of\n"
    "               fitting one\n"
    "  -h, --help   print this text and exit\n"
    "  -v, --version print the version and exit\n";

struct options {
    int port = 8454;
    std::string bind = "127.0.0.1";
    std::string model;
    std::string ace;
    std::vector<std::string> sff;
};

bool parse_port(const std::string& text, int& port) {
    if (text.empty() || text.size() > 5) return false;
    int v = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9') return false;
        v = v * 10 + (ch - '0');
    }
    if (v > 65535) return false;
    port = v;
    return true;
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

// The ACE file while start-up reads it on the main thread. The reader ends the process on a
// file out of its grammar; on the way out, a file of a known writer's shape gets the rewrite
// that makes it readable after the reader's message.
// Plain pointers, not strings: an exit from another thread runs static destructors.
const char* reading_ace = nullptr;
std::thread::id main_thread;

void exit_after_hint(int status) {
    if (std::this_thread::get_id() == main_thread && reading_ace != nullptr) {
        const std::string hint = browse::refused_file_hint(reading_ace);
        if (!hint.empty()) std::cerr << "sorvexa-browse: " << hint << std::flush;
    }
    std::exit(status);
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
    // the freed memory in use instead of one idle arena per thread.
    mallopt(M_ARENA_MAX, 2);
    // Blocks of a quarter megabyte and more (a contig's sequences and views) are mapped on
    // their own and returned whole when the contig leaves the cache, rather than left to
    // fragment the heap; a fixed threshold stops malloc from raising it as they are freed.
    mallopt(M_MMAP_THRESHOLD, 256 << 10);

    // SIGINT and SIGTERM are taken by one thread with sigwait; every other thread, the
    // server's included, inherits the blocked mask.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    // Input errors end the process here, with the readers' messages, before anything is served.
    // The SFF files are indexed while the ACE file is read.
    std::optional<browse::read_source> sff;
    main_thread = std::this_thread::get_id();
    reading_ace = o.ace.c_str();
    sorvexa::process_exit = exit_after_hint;
    std::thread indexing([&sff, &o] { sff.emplace(o.sff); });
    browse::assembly ace(o.ace);
    reading_ace = nullptr;
    indexing.join();
    ace.count_found(*sff);
    ace.start_up_hint = browse::placement_hint(ace, *sff);
    const std::string& hint = ace.start_up_hint;
    // What start-up parsed and sorted is freed by now; hand it back before serving starts.
    malloc_trim(0);
    browse::site site(ace, *sff);
    // The flow-signal evidence: built for a contig when a page first needs it, and counted
    // for the overview in the background once the server is up.
    browse::evidence_store evidence(ace, *sff);
    site.evidence = &evidence;
    if (models) {
        evidence.use_models(std::move(*models), "read from " + o.model);
    } else {
        // Evidence pages wait for the fit; the overview and the windows do not.
        evidence.fit_in_background();
    }

    browse::http_server server;
    browse::add_routes(server, site);
    const int port = server.bind(o.bind, o.port);
    if (port <= 0) {
        std::cerr << "sorvexa-browse: cannot listen on " << o.bind << " port " << o.port << "\n";
        return 1;
    }

    const bool v6 = o.bind.find(':') != std::string::npos;
    std::cout << "sorvexa-browse: " << ace.contigs.size() << " contigs, " << ace.reads_placed
              << " reads placed, " << sff->indexed_reads() << " reads indexed\n";
    if (!hint.empty()) std::cout << "sorvexa-browse: " << hint;
    std::cout << "Open http://" << (v6 ? "[" : "") << o.bind << (v6 ? "]" : "") << ":" << port
              << "/ in a web browser; Ctrl-C stops the server." << std::endl;

    evidence.count_in_background();
    std::atomic<bool> signalled{false};
    std::thread stopper([&server, &stop_signals, &signalled] {
        int sig = 0;
        sigwait(&stop_signals, &sig);
        signalled = true;
        server.stop();
    });
    const bool served = server.serve();
    // When the server ends by itself, the stopper is still waiting: wake it.
    if (!signalled) pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    if (!served) {
        std::cerr << "sorvexa-browse: the server stopped on an error\n";
        return 1;
    }
    std::cout << "sorvexa-browse: stopped" << std::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return sorvexa::main_checking_stdout(serve, argc, argv, "sorvexa-browse");
}
