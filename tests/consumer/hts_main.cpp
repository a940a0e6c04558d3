// The htslib side of the library from a downstream project (Sorvexa::hts): every read of an
// SFF file made into an unmapped SAM record with its flowgram; prints the number of records
// and the first one as SAM text.
#include <sorvexa/flow_tags.h>
#include <sorvexa/sff_sam.h>

#include <htslib/sam.h>

#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    sff_records file(argv[1]);
    if (const sorvexa::status st = file.open(); !st) {
        std::cerr << st.message << '\n';
        return 1;
    }
    const std::string text = "@HD\tVN:1.6\n" + sff_read_group_line("rg", file.file()) + "\n";
    sam_hdr_t* header = sam_hdr_parse(text.size(), text.c_str());
    bam1_t* record = bam_init1();
    sff_record_writer writer;
    kstring_t first = KS_INITIALIZE;
    long records = 0;
    while (file.next()) {
        if (const sorvexa::status st = writer.fill(file.read(), "rg", record); !st) {
            std::cerr << st.message << '\n';
            return 1;
        }
        if (records++ == 0 && sam_format1(header, record, &first) < 0) return 1;
    }
    if (!file.error()) {
        std::cerr << file.error().message << '\n';
        return 1;
    }
    std::cout << records << '\n' << (first.s ? first.s : "") << '\n';
    ks_free(&first);
    bam_destroy1(record);
    sam_hdr_destroy(header);
    return 0;
}
