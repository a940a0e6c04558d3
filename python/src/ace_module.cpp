// sorvexa.AceFile and sorvexa.AlignmentFile (alignments read as contigs, window by window) and
// the contigs with their layout, flow-space and drawing operations. A contig's
// operations build its layout and flow views on first use, which changes the contig; they run with
// the GIL held, so two threads never build them at once. Only reading the file runs without it.
#include <pybind11/numpy.h>
#include <sorvexa/ace.h>
#include <sorvexa/alignment.h>
#include <sorvexa/contig.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "glue.h"

namespace sorvexa_py {

namespace {

class ace_file {
  public:
    py::object given_path;
    int contigs = 0;
    std::int32_t reads = 0;

    explicit ace_file(py::object path) : given_path(path) {
        const std::string p = fs_path(path);
        check_readable(p, path);
        call(nullptr, said_, [&] {
            reader_ = std::make_unique<aceReader>(p);
            return reader_->error;
        });
        contigs = reader_->num_contigs;
        reads = reader_->total_reads;
    }

    std::shared_ptr<contig> next() {
        auto c = std::make_shared<contig>();
        bool got = false;
        call(&mutex_, said_, [&] {
            got = !done_ && reader_ && reader_->next_contig(*c) == 1;
            // A section out of order is reported once; the walk ends there.
            const sorvexa::status failed = done_ || !reader_ ? sorvexa::status{} : reader_->error;
            done_ = !got;
            return failed;
        });
        if (!got) throw py::stop_iteration();
        return c;
    }

    void close() {
        std::lock_guard lock(mutex_);
        reader_.reset();
        done_ = true;
    }

  private:
    std::mutex mutex_;
    diagnostics said_;  // the ACE reader has none; call() asks for them
    std::unique_ptr<aceReader> reader_;
    bool done_ = false;
};

// The colours of the HTML maps; when the caller names none these (letters without one are
// drawn plain).
color_map_t colours_from(const py::object& given) {
    if (given.is_none())
        return {{'A', "#1a9850"}, {'C', "#2166ac"}, {'G', "#222222"}, {'T', "#d73027"},
                {'a', "#1a9850"}, {'c', "#2166ac"}, {'g', "#222222"}, {'t', "#d73027"}};
    color_map_t out;
    for (auto item : py::cast<py::dict>(given)) {
        const std::string letter = bytes_of(item.first);
        if (letter.size() != 1) throw py::value_error("colour keys are single letters");
        out[letter[0]] = bytes_of(py::str(item.second));
    }
    return out;
}

py::list text_list(const std::vector<std::string>& v) {
    py::list out;
    for (const auto& s : v) out.append(text(s));
    return out;
}

py::str text_of(const std::vector<char>& v) {
    return text({v.data(), v.size()});
}

py::tuple align_flow(contig& c, std::int32_t from, int width) {
    std::vector<std::vector<std::int16_t>> counts;
    std::vector<std::map<std::int32_t, fRead>> rows;
    c.align_flow(counts, rows, from, width);
    py::array_t<std::int16_t> grid(
        {static_cast<py::ssize_t>(counts.size()), static_cast<py::ssize_t>(rows.size())});
    auto g = grid.mutable_unchecked<2>();
    for (std::size_t k = 0; k < counts.size(); ++k)
        for (std::size_t r = 0; r < rows.size(); ++r)
            g(static_cast<py::ssize_t>(k), static_cast<py::ssize_t>(r)) =
                r < counts[k].size() ? counts[k][r] : std::int16_t{-1};
    py::list row_list;
    for (const auto& row : rows) {
        py::list reads;
        for (const auto& entry : row) reads.append(entry.second);
        row_list.append(reads);
    }
    return py::make_tuple(grid, row_list);
}

py::tuple align_seq(contig& c, std::int32_t from, int width) {
    std::vector<std::vector<char>> columns;
    std::vector<std::map<std::int32_t, std::string>> rows;
    c.align_seq(columns, rows, from, width);
    py::list column_list;
    for (const auto& column : columns) column_list.append(text_of(column));
    py::list row_list;
    for (const auto& row : rows) {
        py::list reads;
        for (const auto& [last, name] : row) reads.append(py::make_tuple(last, text(name)));
        row_list.append(reads);
    }
    return py::make_tuple(column_list, row_list);
}

py::tuple flow_map(contig& c, std::int32_t from, int width, bool html, bool spaced,
                   const py::object& colours) {
    if (spaced && !html) throw py::value_error("spaced applies to the HTML flow map only");
    std::string out;
    std::vector<std::string> names;
    color_map_t map = html ? colours_from(colours) : color_map_t{};
    if (!html)
        c.print_flow_map_plain(out, names, from, width);
    else if (spaced)
        c.print_flow_map_html_space(out, names, map, from, width);
    else
        c.print_flow_map_html(out, names, map, from, width);
    return py::make_tuple(text(out), text_list(names));
}

py::tuple align_map(contig& c, std::int32_t from, int width, bool html, const py::object& colours) {
    std::string out;
    std::vector<std::string> names;
    color_map_t map = html ? colours_from(colours) : color_map_t{};
    if (html)
        c.print_align_map_html(out, names, map, from, width);
    else
        c.print_align_map_plain(out, names, from, width);
    return py::make_tuple(text(out), text_list(names));
}

py::str full_align_map(contig& c, bool html, const py::object& colours) {
    std::ostringstream out;
    color_map_t map = html ? colours_from(colours) : color_map_t{};
    if (html)
        c.print_align_map_html(out, map);
    else
        c.print_align_map(out);
    return text(out.str());
}

// Alignments and their reference FASTA: a stretch of a reference as the contig an ACE file
// would give, reads tied to their flows from FZ/ZF or by name through the SFF files.
class alignments {
  public:
    alignments(const py::object& path, const py::object& reference, const py::iterable& sff_files) {
        std::vector<std::string> sffs;
        for (py::handle given : sff_files) check_readable(sffs.emplace_back(fs_path(given)), given);
        const std::string p = fs_path(path), r = fs_path(reference);
        check_readable(p, path);
        check_readable(r, reference);
        diagnostics said;
        call(nullptr, said, [&] {
            lookup_.skip_index_block = true;
            lookup_.diagnostics = said.sink();
            const sorvexa::status indexed = lookup_.index_files(sffs);
            return indexed ? file_.open(p, r, &lookup_) : indexed;
        });
    }
    py::list references() const {
        py::list out;
        for (const reference_sequence& r : file_.references())
            out.append(py::make_tuple(text(r.name), r.length));
        return out;
    }
    // Bases [start, end) of the reference (0-based), read with `margin` more on either side.
    py::tuple window(const std::string& name, std::int64_t start, std::int64_t end,
                     std::int64_t margin) {
        const auto& refs = file_.references();
        const auto it = std::find_if(refs.begin(), refs.end(),
                                     [&](const reference_sequence& r) { return r.name == name; });
        if (it == refs.end()) raise_key_error(py::str(name));
        if (start < 0 || end < start || end > it->length || margin < 0)
            throw py::value_error("the window must lie within the reference's " +
                                  std::to_string(it->length) + " bases");
        aligned_window w;
        diagnostics said;
        call(&mutex_, said, [&] {
            return file_.read({static_cast<std::int32_t>(it - refs.begin()), start, end, margin},
                              w);
        });
        return py::make_tuple(w.offset, std::make_shared<contig>(std::move(w.c)));
    }

  private:
    read_lookup lookup_;  // before the file that refers to it
    alignment_file file_;
    std::mutex mutex_;  // one htslib handle
};

py::list layout(contig& c) {
    if (c.print_map.empty()) c.create_print_map();
    py::list rows;
    for (const layout_row& row : c.print_map) {
        py::list entries;
        for (const auto& [start, name] : row) entries.append(py::make_tuple(start, text(name)));
        rows.append(entries);
    }
    return rows;
}

py::dict reads_of(py::handle self) {
    auto& c = self.cast<contig&>();
    py::dict out;
    for (auto& [name, read] : c.reads)
        out[text(name)] = py::cast(&read, py::return_value_policy::reference_internal, self);
    return out;
}

}  // namespace

void bind_ace(py::module_& m) {
    py::class_<READ>(m, "ReadPlacement", "Where a contig places one read.")
        .def_property_readonly(
            "name", [](const READ& r) { return text(r.name); }, "The read's name.")
        .def_readonly("start", &READ::start,
                      "Padded consensus column of the read's first base (1-based; may be "
                      "below 1).")
        .def_readonly("length", &READ::length, "The padded length the read declares.")
        .def_property_readonly(
            "sequence", [](const READ& r) { return text_of(r.sequence); },
            "The read's padded sequence as placed ('*' for pads).")
        .def_property_readonly(
            "complemented", [](const READ& r) { return r.uncomplemented == 0; },
            "Whether the read is placed reverse-complemented.")
        .def_readonly("align_clip_start", &READ::align_clip_start,
                      "First base of the aligned part (1-based, in the read).")
        .def_readonly("align_clip_end", &READ::align_clip_end,
                      "Last base of the aligned part (1-based, in the read).");

    py::class_<fRead>(m, "FlowRead", "One read of a flow alignment row.")
        .def_property_readonly(
            "name", [](const fRead& f) { return text(f.name); }, "The read's name.")
        .def_readonly("flow_start", &fRead::flow_start,
                      "First flow of the read, counted from the window's first flow.")
        .def_readonly("flow_end", &fRead::flow_end,
                      "Last flow of the read, counted from the window's first flow.");

    py::class_<contig, std::shared_ptr<contig>>(m, "Contig", R"doc(
One contig of an ACE assembly: its padded consensus, its reads, and the views built from
them. Columns are padded consensus columns counted from 1. A window (``start``, ``width``)
covers columns start to start + width - 1; windows that run past either end are cut as the
library cuts them.
)doc")
        .def_property_readonly(
            "name", [](const contig& c) { return text(c.name); }, "The contig's name.")
        .def_property_readonly(
            "consensus", [](const contig& c) { return text_of(c.consensus); },
            "The padded consensus ('*' for pads), as the file writes it.")
        .def_readonly("number_of_bases", &contig::num_bases,
                      "The padded length the CO line declares.")
        .def_readonly("number_of_reads", &contig::num_reads, "The read count the CO line declares.")
        .def_readonly("number_of_segments", &contig::num_segments,
                      "The base segment count the CO line declares.")
        .def_property_readonly(
            "complemented", [](const contig& c) { return c.uncomplemented == 0; },
            "Whether the CO line marks the contig complemented.")
        .def_property_readonly("reads", &reads_of,
                               "Read name to ReadPlacement, one entry per distinct name (of a "
                               "read listed twice, the later placement).")
        .def("layout", &layout,
             "The rows in which the reads are drawn: per row a list of (start, name), "
             "packed greedily from the left. Reads starting before column 1 or after the "
             "last column are left out.")
        .def(
            "read_ids",
            [](contig& c) {
                std::vector<std::string> ids;
                c.get_read_ids(ids);
                return text_list(ids);
            },
            "The names of the reads the layout places, row by row.")
        .def_property_readonly(
            "flow_consensus",
            [](contig& c) {
                if (c.flow_consensus.empty()) c.create_flow_concensus();
                return text_of(c.flow_consensus);
            },
            "The flow-space consensus: the flow letters the contig's runs need, in order.")
        .def(
            "flow_range",
            [](contig& c, std::int32_t column) {
                if (c.flow_consensus.empty()) c.create_flow_concensus();
                return py::make_tuple(c.getFlowIdx_start(column - 1), c.getFlowIdx_end(column - 1));
            },
            py::arg("column"),
            "The first and last flow of the flow consensus that a column maps to (0, 0 "
            "outside the consensus or for a contig without flows).")
        .def("align_flow", &align_flow, py::arg("start"), py::arg("width"),
             "The window in flow space: (counts, rows). counts[f, r] is the number of "
             "bases row r's read has on window flow f, -1 where no read of the row covers "
             "the flow (numpy int16, one column per layout row); rows[r] lists the row's "
             "FlowRead objects in order.")
        .def("align_seq", &align_seq, py::arg("start"), py::arg("width"),
             "The window as a character grid: (columns, rows). columns[k] holds column "
             "start + k's base of each row, as far as the last row showing a base there "
             "('0' where a row shows none); rows[r] lists (last column offset, name) of "
             "the row's reads.")
        .def("flow_map", &flow_map, py::arg("start"), py::arg("width"), py::kw_only(),
             py::arg("html") = false, py::arg("spaced") = false, py::arg("colors") = py::none(),
             "The flow map of the window as text, or HTML with `html` (and wider cells "
             "with `spaced`): (text, names of the rows' reads). `colors` maps letters to "
             "HTML colours.")
        .def("align_map", &align_map, py::arg("start"), py::arg("width"), py::kw_only(),
             py::arg("html") = false, py::arg("colors") = py::none(),
             "The alignment map of the window as text or HTML: (text, names of the rows' "
             "reads).")
        .def("full_align_map", &full_align_map, py::kw_only(), py::arg("html") = false,
             py::arg("colors") = py::none(),
             "The alignment map of the whole contig as text or HTML.");

    py::class_<ace_file>(m, "AceFile", R"doc(
An ACE assembly, read contig by contig.

    AceFile(path)

Iterating reads the next contig each step (without the GIL), as Contig objects; an
AceFile is its own iterator, like a file. A file that cannot be opened raises OSError; one
that does not start like an ACE file, or breaks the section order of a contig, raises
FormatError with the reader's message.
)doc")
        .def(py::init<py::object>(), py::arg("path"),
             "Opens an ACE file (str, bytes or os.PathLike) and reads its AS line.")
        .def_readonly("path", &ace_file::given_path, "The path as given.")
        .def_readonly("number_of_contigs", &ace_file::contigs,
                      "The contig count the AS line declares.")
        .def_readonly("number_of_reads", &ace_file::reads, "The read count the AS line declares.")
        .def("__next__", &ace_file::next,
             "Reads the next contig (StopIteration at the end of the file).")
        .def("close", &ace_file::close, "Releases the file; iteration ends.");

    py::class_<alignments>(m, "AlignmentFile", R"doc(
Alignments (SAM, BAM or CRAM, sorted by coordinate; BAM and CRAM indexed) against their
reference FASTA, read as contigs.

    AlignmentFile(path, reference, sff_files=())

A stretch of a reference is the contig an ACE file would give: the reference as the
consensus, a pad column wherever a read inserts, every read placed with its pads, soft clips
and strand. Reads carry their flows in FZ and ZF with their read group's FO, or are found by
name in the SFF files given. Inputs that cannot serve raise FormatError with the reason.
)doc")
        .def(py::init<const py::object&, const py::object&, const py::iterable&>(), py::arg("path"),
             py::arg("reference"), py::arg("sff_files") = py::tuple(),
             "Opens the alignments and the reference (str, bytes or os.PathLike) and indexes "
             "the SFF files that tie reads without FZ by name.")
        .def_property_readonly("references", &alignments::references,
                               "(name, length) of every reference sequence, in header order.")
        .def("window", &alignments::window, py::arg("reference"), py::arg("start"), py::arg("end"),
             py::kw_only(), py::arg("margin") = 0,
             "(offset, Contig): bases [start, end) of the reference (0-based) and `margin` "
             "more on either side, as a contig whose first column is reference base `offset`.");
}

}  // namespace sorvexa_py
