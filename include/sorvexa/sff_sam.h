// SFF reads as unmapped SAM, BAM or CRAM records that keep their flowgrams: one read group
// per SFF file (PL:LS454, FO its flow characters, KS its key), every read unmapped with its
// bases and qualities, FZ its whole flowgram and ZF the flow of its first written base (see
// <sorvexa/flow_tags.h>), RG:Z its file's read group. What sorvexa-sff2bam writes, for any
// program that writes SFF reads through htslib. Part of the htslib side of the library
// (Sorvexa::hts).
#pragma once

#include <htslib/sam.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sorvexa/sff.h>
#include <sorvexa/status.h>

// Distinct read-group IDs for SFF files, in the order given: each file's name without its
// folders and without a final ".sff" (any case), characters that a SAM header field cannot
// hold (tabs, control and non-ASCII bytes) as '_', "sff" for a name left empty. A name
// that an earlier file took, or that another file's name is, gets ".2", ".3", ... (the
// first number that makes it distinct): a/run.sff and b/run.sff become run and run.2.
std::vector<std::string> sff_read_group_ids(const std::vector<std::string>& paths);

// Every record of one SFF file in file order, checked as it is read, for a conversion that
// must hold every read or fail: an index block standing among the reads is stepped over,
// and a file that is not whole or not what a SAM record can hold is an error (one line,
// naming the file) rather than records filled with zeros.
class sff_records {
  public:
    explicit sff_records(std::string path);
    ~sff_records();
    sff_records(const sff_records&) = delete;
    sff_records& operator=(const sff_records&) = delete;

    // Opens the file and reads its header. Fails when the file cannot be opened or is not a
    // regular file, is no SFF file, its header is cut short, its flowgram format is not 1
    // (hundredths of a base), it has no flows or more than 32,767 (the library's flow numbers
    // are 16-bit), its header length does not hold its flow characters and key, or its flow
    // characters are not A, C, G and T or its key holds other letters than those and N.
    sorvexa::status open();
    // The next record into read(); false when there is none or the file is broken there:
    // error() then tells which (ok at the end of a whole file). Broken: a record cut short by
    // the end of the file, fewer records than the header declares, bytes after the last
    // record that are not the index block (two files joined into one, say).
    bool next();
    const sorvexa::status& error() const { return error_; }

    const sff_read& read() const;
    // The reader, its header read (flow characters, key, counts).
    const reader& file() const;
    const std::string& path() const { return path_; }
    // Records read so far; the number of the current one, counted from 1.
    std::uint64_t count() const;

  private:
    bool fail(std::string message);
    bool check_end();

    std::string path_;
    std::unique_ptr<reader> reader_;
    std::int64_t size_ = 0;
    sorvexa::status error_;
};

// The @RG line of an SFF file (no line end): ID, PL:LS454, FO (its flow characters, upper
// case) and KS (its key, when it has one).
std::string sff_read_group_line(const std::string& id, const reader& file);

// What a record is made from.
struct sff_record_options {
    // Every called base (and ZF the flow of the first); otherwise only the kept range of
    // the library's clip rule (seqRead: both clips, quality and adapter).
    bool untrimmed = false;
};

// Turns SFF reads into unmapped records. Holds buffers reused from read to read.
class sff_record_writer {
  public:
    explicit sff_record_writer(sff_record_options options = {}) : options_(options) {}

    // Fills `out` with `read`: the read's name, flag 4 (unmapped) and nothing placed, the
    // written bases (the kept range, or every called base) with their phred qualities, FZ
    // the whole flowgram (B:S, hundredths), ZF the zero-based flow of the first written base
    // (none when no base is written) and RG:Z `read_group`. Fails as check() does, `out`
    // then undefined, or when htslib cannot grow the record.
    sorvexa::status fill(const sff_read& read, std::string_view read_group, bam1_t* out);

    // Whether `read` can become a SAM record faithfully; a one-line reason when it cannot: a
    // name empty, longer than 254 bytes or with characters a SAM read name cannot hold; or,
    // among all its called bases (written or not, so that --untrimmed and the kept range
    // accept the same files), a base other than A, C, G, T or N, a quality above 93, a flow
    // outside the flowgram.
    sorvexa::status check(const sff_read& read);

  private:
    void take_bases(const sff_read& read);

    sff_record_options options_;
    seqRead kept_;
    // What check() found for the read: its written bases and qualities (phred, one byte
    // each) and the flow of the first.
    const char* bases_ = nullptr;
    const char* qualities_ = nullptr;
    std::size_t length_ = 0;
    std::int32_t first_flow_ = -1;
    std::string kept_qualities_, text_;  // the kept qualities; a name or a read group
};
