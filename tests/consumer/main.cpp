// Prints the read ids of the first contig of an ACE file, one per line.
#include <sorvexa/ace.h>
#include <sorvexa/contig.h>

#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: consumer ACE\n";
        return 2;
    }
    aceReader ace(argv[1]);
    contig c;
    if (ace.next_contig(c) != 1) {
        // The library prints nothing: its message says why it stopped, when it did.
        std::cerr << "consumer: " << (ace.error ? "no contig in " + std::string(argv[1])
                                                : ace.error.message)
                  << "\n";
        return 1;
    }
    std::vector<std::string> ids;
    c.get_read_ids(ids);
    for (const auto& id : ids) std::cout << id << '\n';
    return ids.empty() ? 1 : 0;
}
