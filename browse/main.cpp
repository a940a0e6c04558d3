// sorvexa-browse: serves an ACE assembly and its SFF files to a web browser (usage in
// assets/templates/usage.txt).
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sorvexa/ace_hints.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "browse_assets.h"
#include "site.h"
#include "std_output.h"

namespace {

struct options {
    int port = 8454;
    std::string bind = "127.0.0.1";
    std::string model;
    bool access_log = false;
    std::string ace, bam, ref;
    std::vector<std::string> sff;
};

// Options come before the ACE file; every argument after it is an SFF file. Returns -1 to
// go on, else the exit status.
int parse(int argc, char** argv, options& o) {
    int i = 1;
    auto refuse = [](const std::string& why, bool usage) {
        std::cerr << "sorvexa-browse: " << why << "\n" << (usage ? browse::assets::usage : "");
        return 1;
    };
    for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help" || a == "-v" || a == "--version") {
            std::cout << (a[1] == 'h' || a[2] == 'h' ? browse::assets::usage
                                                     : "sorvexa-browse " SORVEXA_VERSION "\n");
            return 0;
        }
        if (a == "--access-log") {
            o.access_log = true;
        } else if (a != "--port" && a != "--bind" && a != "--model" && a != "--bam" &&
                   a != "--ref") {
            return refuse("unknown option " + a, true);
        } else if (i + 1 >= argc) {
            return refuse(a + " needs a value", true);
        } else if (const std::string v = argv[++i]; a == "--bind") {
            o.bind = v;
        } else if (a == "--bam" || a == "--ref") {
            (a == "--bam" ? o.bam : o.ref) = v;
        } else if (a == "--model") {
            if (v.empty()) return refuse("--model needs a file name", true);
            o.model = v;
        } else if (v.empty() || v.size() > 5 || v.find_first_not_of("0123456789") != v.npos ||
                   (o.port = std::stoi(v)) > 65535) {
            return refuse("--port takes a number from 0 to 65535, not " + v, false);
        }
    }
    if (!o.bam.empty() && o.ref.empty()) return refuse("--bam needs --ref REF.fa", true);
    if (!o.ref.empty() && o.bam.empty()) return refuse("--ref goes with --bam", true);
    if (i >= argc && o.bam.empty()) return std::cerr << browse::assets::usage, 1;
    if (o.bam.empty()) o.ace = argv[i++];
    o.sff.assign(argv + i, argv + argc);
    return -1;
}

// Serves `site` until SIGINT or SIGTERM: `summary` (standard output) and `note` (standard
// error) are printed once it listens, with the address, then `started` runs.
int run(const browse::site& site, const options& o, sigset_t& stop_signals,
        const std::string& summary, const std::string& note, const std::function<void()>& started) {
    browse::http_server server(site);
    server.access_log = o.access_log;
    const int port = server.start(o.bind, o.port);
    if (port <= 0) {
        std::cerr << "sorvexa-browse: cannot listen on " << o.bind << " port " << o.port << "\n";
        return 1;
    }
    const bool v6 = o.bind.find(':') != std::string::npos;
    std::cout << "sorvexa-browse: " << summary << "\n";
    if (!note.empty()) std::cerr << "sorvexa-browse: " << note;
    std::cout << "Open http://" << (v6 ? "[" : "") << o.bind << (v6 ? "]" : "") << ":" << port
              << "/ in a web browser; Ctrl-C stops the server." << std::endl;
    started();
    int sig = 0;
    sigwait(&stop_signals, &sig);
    server.stop();
    std::cout << "sorvexa-browse: stopped" << std::endl;
    return 0;
}

// --bam: nothing of the alignments is read at start-up but their header and index; windows,
// the model and the disputed runs come when asked for or in the background.
int serve_alignments(const options& o, browse::read_source& sff, std::optional<flow_models>& models,
                     sigset_t& stop_signals) {
    if (sorvexa::status st = sff.index(o.sff); !st) {
        std::cerr << st.message << "\n";
        return 1;
    }
    browse::assembly none;
    browse::alignment_source bam;
    bam.bam_path = o.bam;
    bam.ref_path = o.ref;
    if (sorvexa::status st = bam.files.open(o.bam, o.ref, &sff.lookup); !st) {
        std::cerr << "sorvexa-browse: " << st.message << "\n";
        return 1;
    }
    if (models) bam.survey.use_models(std::move(*models), "read from " + o.model);
    browse::site site(none, sff);
    site.bam = &bam;
    // Pages come first: the survey runs below the request threads' priority.
    return run(site, o, stop_signals,
               std::to_string(bam.files.references().size()) + " reference sequences, " +
                   std::to_string(sff.lookup.size()) + " reads indexed",
               "", [&bam] {
                   bam.survey.start([] {
                       setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 10);
                   });
               });
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
    // Request threads allocate and free whole contig drawings: a few shared malloc arenas keep
    // freed memory in use, and blocks of a quarter megabyte and more (a contig's sequences and
    // views) are mapped on their own and returned whole when the contig leaves the cache.
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
    if (!o.bam.empty()) return serve_alignments(o, sff, models, stop_signals);
    sorvexa::status indexed;
    std::thread indexing([&] { indexed = sff.index(o.sff); });
    browse::assembly ace;
    const sorvexa::status read = ace.read(o.ace);
    indexing.join();
    if (!read.ok) {
        std::cerr << read.message << "\n";
        if (const std::string hint = blank_line_hint(o.ace); !hint.empty())
            std::cerr << "sorvexa-browse: " << hint;
        return 1;
    }
    if (!indexed.ok) {
        std::cerr << indexed.message << "\n";
        return 1;
    }
    ace.count_found(sff);
    if (ace.reads_found == 0 && sff.lookup.size() > 0) {
        std::vector<std::string> names;
        for (const browse::assembly::placement& p : ace.placements) names.push_back(p.read);
        ace.start_up_hint =
            strand_suffix_hint(o.ace, names, [&sff](const std::string& n) { return sff.holds(n); });
    }
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

    return run(site, o, stop_signals,
               std::to_string(ace.contigs.size()) + " contigs, " +
                   std::to_string(ace.reads_placed) + " reads placed, " +
                   std::to_string(sff.lookup.size()) + " reads indexed",
               ace.start_up_hint, [&evidence] { evidence.count_in_background(); });
}

}  // namespace

int main(int argc, char** argv) {
    return sorvexa::main_checking_stdout(serve, argc, argv, "sorvexa-browse");
}
