// sorvexa.SffFile: an SFF file's header, its records one at a time (walked in file order or
// fetched by name) or many at once as arrays (SffBatch), and its read index. A record keeps a copy
// of the reader's values; the arrays it hands out are read-only numpy views on them, kept alive by
// the record, so reading a flowgram copies nothing. Files are read without the GIL.
#include <pybind11/numpy.h>
#include <sorvexa/read_lookup.h>
#include <sorvexa/sff.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "glue.h"

namespace sorvexa_py {

namespace {

// What every record of a file shares.
struct sff_header_info {
    std::string path, flow_chars, key;
    sff_header_p1 fixed;
    bool big_endian = true;
};

// One record as the file holds it: the reader's values, copied.
struct sff_record : sff_read {
    sff_record(std::shared_ptr<const sff_header_info> f, std::int64_t pos, const sff_read& r)
        : sff_read(r), file(std::move(f)), offset(pos) {}
    std::shared_ptr<const sff_header_info> file;
    std::int64_t offset;
};

template <class T>
py::array copy_array(const std::vector<T>& v) {
    return py::array_t<T>(static_cast<py::ssize_t>(v.size()), v.data());
}

// The walk over a file's records in file order, an index block among them stepped over as
// the read index steps over it. An iterator shared by threads hands out each record once.
class record_walk {
  public:
    explicit record_walk(std::shared_ptr<const sff_header_info> f) : file_(std::move(f)) {}

    std::unique_ptr<sff_record> next() {
        std::unique_ptr<sff_record> out;
        call(&mutex_, said_, [&] {
            sorvexa::status failed;
            if (!rd_ && !done_) {
                rd_ = std::make_unique<reader>(file_->path);
                rd_->skip_index_block = true;
                rd_->diagnostics = said_.sink();
                done_ = !rd_->get_header();
                failed = rd_->error;
            }
            // The walk tells where a record lay only through an index it fills.
            where_.clear();
            if (!done_ && rd_->get_next_read(where_))
                out.reset(new sff_record(file_, where_.begin()->second, rd_->cur_read));
            done_ = !out;
            return failed;
        });
        if (!out) throw py::stop_iteration();
        return out;
    }

  private:
    std::shared_ptr<const sff_header_info> file_;
    std::mutex mutex_;
    diagnostics said_;  // before the reader that writes to it
    std::unique_ptr<reader> rd_;
    read_index where_;
    bool done_ = false;
};

// The read index of one file, as every program builds it: names cut at their first NUL
// byte, the later of two equal names winning, an index block among the reads stepped over.
struct name_index {
    read_lookup lookup;
    const read_lookup::name_map& map() const { return lookup.indexes.front(); }
    std::int64_t at(const py::handle& name) const {
        auto found = PyUnicode_Check(name.ptr()) ? map().find(bytes_of(name)) : map().end();
        if (found == map().end()) raise_key_error(name);
        return found->second;
    }
};

// The names of an index, in the order its table holds them.
class index_iterator {
  public:
    explicit index_iterator(std::shared_ptr<name_index> i)
        : index_(std::move(i)), it_(index_->map().begin()) {}
    py::str next() {
        if (it_ == index_->map().end()) throw py::stop_iteration();
        return text((it_++)->first);
    }

  private:
    std::shared_ptr<name_index> index_;
    read_lookup::name_map::const_iterator it_;
};

class sff_file {
  public:
    py::object given_path;
    std::shared_ptr<const sff_header_info> file;

    explicit sff_file(py::object path) : given_path(path) {
        const std::string p = fs_path(path);
        check_readable(p, path);
        auto info = std::make_shared<sff_header_info>();
        call(nullptr, said_, [&] {
            reader rd(p);
            rd.diagnostics = said_.sink();
            // A file too short for the header's fixed part is no SFF file either.
            if (!rd.get_header())
                return rd.error.ok ? sorvexa::status::failure(said_.lines) : rd.error;
            const auto& [flows, key] = rd.header_p2;
            // Numbers are swapped on this little-endian host when the file is big-endian.
            *info = {p, std::string(flows.begin(), flows.end()),
                     std::string(key.begin(), key.end()), rd.header_p1, rd.swap_bytes};
            return sorvexa::status{};
        });
        file = std::move(info);
        one_file_.sff_names = {file->path};
        fetcher_ = std::make_unique<read_fetcher>(one_file_);
        fetcher_->diagnostics = said_.sink();
    }

    const std::shared_ptr<name_index>& index() {
        check_open();
        // Once built the index never changes: a lookup needs neither the lock nor a trip
        // without the GIL.
        if (index_ready_.load(std::memory_order_acquire)) return index_;
        diagnostics said;
        call(&index_mutex_, said, [&] {
            if (index_) return sorvexa::status{};
            auto i = std::make_shared<name_index>();
            i->lookup.skip_index_block = true;
            i->lookup.diagnostics = said.sink();
            const sorvexa::status indexed = i->lookup.index_files({file->path});
            if (indexed) index_ = std::move(i);
            index_ready_.store(indexed.ok, std::memory_order_release);
            return indexed;
        });
        return index_;
    }

    std::unique_ptr<sff_record> record_at(std::int64_t pos) {
        check_open();
        if (pos < 0) throw py::value_error("a record offset is never negative");
        std::unique_ptr<sff_record> out;
        call(&fetch_mutex_, said_, [&] {
            sorvexa::status failed;
            if (reader* rd = fetcher_ ? fetcher_->record({0, pos}, failed) : nullptr)
                out.reset(new sff_record(file, pos, rd->cur_read));
            return failed;
        });
        if (!out) check_open();  // closed by another thread meanwhile
        return out;
    }

    std::unique_ptr<sff_record> get(const py::str& name) { return record_at(index()->at(name)); }

    // The values of an SffBatch (sorvexa/__init__.py), in the order it takes them.
    py::tuple fetch(const py::iterable& names) {
        const std::shared_ptr<name_index> i = index();
        using row = std::pair<std::int64_t, py::object>;  // a record's offset and its name
        std::vector<row> asked, rows;
        for (py::handle name : names)  // held: an iterator may make each name afresh
            asked.emplace_back(i->at(name), py::reinterpret_borrow<py::object>(name));
        // A row a record, in file order: the file is read once, its reader never stepping
        // back, and every value goes straight to where it stays.
        const auto before = [](const row& x, const row& y) { return x.first < y.first; };
        rows = asked;
        std::sort(rows.begin(), rows.end(), before);
        rows.erase(std::unique(rows.begin(), rows.end(),
                               [](const row& x, const row& y) { return x.first == y.first; }),
                   rows.end());
        const std::size_t n = rows.size(), width = file->fixed.number_of_flows_per_read;
        const auto length = static_cast<py::ssize_t>(n);
        py::list row_names;
        py::array_t<std::int64_t> row_of(static_cast<py::ssize_t>(asked.size())), positions(length),
            offsets(length + 1);
        for (std::size_t k = 0; k < asked.size(); ++k)
            row_of.mutable_data()[k] =
                std::lower_bound(rows.begin(), rows.end(), asked[k], before) - rows.begin();
        // Room for every per-base value, so that each goes straight where it stays: a whole
        // record has fewer than its stretch of the file has bytes after its fixed part and
        // flowgram, the last one no more than the file has after its fixed part.
        std::vector<read_location> wanted;
        std::int64_t room = 0;
        for (std::size_t j = 0; j < n; ++j) {
            row_names.append(rows[j].second);
            positions.mutable_data()[j] = rows[j].first;
            wanted.push_back({0, rows[j].first});
            room += std::max<std::int64_t>(
                j + 1 < n ? (rows[j + 1].first - rows[j].first - 16 - 2 * py::ssize_t(width)) / 3
                          : i->lookup.stamps[0].size - rows[j].first - 16,
                0);
        }
        const auto capacity = static_cast<std::size_t>(room);
        py::array_t<std::uint8_t> bases(room), qualities(room), flow_index(room);
        py::array_t<std::uint16_t> flowgrams({length, py::ssize_t(width)}),
            clips({length, py::ssize_t{4}});
        std::uint16_t *grams = flowgrams.mutable_data(), *clip = clips.mutable_data();
        std::uint8_t *b = bases.mutable_data(), *q = qualities.mutable_data(),
                     *f = flow_index.mutable_data();
        std::int64_t* o = offsets.mutable_data();
        o[0] = 0;
        bool changed = false;  // a record held more than its room: not the file indexed
        call(&fetch_mutex_, said_, [&] {
            if (!fetcher_) return sorvexa::status{};
            return fetcher_->fetch(wanted, true, [&](std::size_t j, reader& rd, bool) {
                const sff_read& r = rd.cur_read;
                const auto at = static_cast<std::size_t>(o[j]);
                const std::size_t flows = std::min(width, r.flowgram_values.size()),
                                  held = std::min(r.bases_held(), capacity - at);
                changed = changed || held < r.bases_held();
                std::fill(std::copy_n(r.flowgram_values.data(), flows, grams + j * width),
                          grams + (j + 1) * width, std::uint16_t{0});
                std::uint16_t* c = clip + 4 * j;
                c[0] = r.clip_qual_left, c[1] = r.clip_qual_right;
                c[2] = r.clip_adapter_left, c[3] = r.clip_adapter_right;
                std::copy_n(r.bases.data(), held, b + at);
                std::copy_n(r.quality_scores.data(), held, q + at);
                std::copy_n(r.flow_index_per_base.data(), held, f + at);
                o[j + 1] = static_cast<std::int64_t>(at + held);
            });
        });
        check_open();
        if (changed)
            report(sorvexa::status::failure("the file " + file->path +
                                            " changed after it was indexed"));
        const py::slice filled(0, o[n], 1);  // the rest of the room was never touched
        return py::make_tuple(row_names, row_of, flowgrams, offsets,
                              bases[filled].attr("view")("S1"), qualities[filled],
                              flow_index[filled], clips, positions);
    }

    void close() {
        std::lock_guard lock(fetch_mutex_);
        fetcher_.reset();
        closed_ = true;
    }

    void check_open() const {
        if (closed_) throw py::value_error("I/O operation on closed SffFile");
    }

  private:
    read_lookup one_file_;  // names the file for the fetcher; record_at needs no index
    std::mutex fetch_mutex_;
    diagnostics said_;  // before the fetcher that writes to it
    std::unique_ptr<read_fetcher> fetcher_;
    std::mutex index_mutex_;
    std::shared_ptr<name_index> index_;
    std::atomic<bool> index_ready_{false};
    bool closed_ = false;
};

// The kept range as a slice of the bases: from the larger left clip to the smaller right
// clip, as the library cuts it (an empty or inverted range gives an empty slice).
py::slice kept_slice(const sff_record& r) {
    const std::int64_t first = std::max<std::int64_t>(r.get_base_start() - 1, 0);
    const std::int64_t end = std::max<std::int64_t>(r.get_base_end(), first);
    return py::slice(py::int_(first), py::int_(end), py::none());
}

// A read-only array of the record's values, which keeps the record alive.
template <class T>
py::array viewed(py::handle self, std::vector<T> sff_read::*values, bool per_base) {
    const auto& r = self.cast<const sff_record&>();
    const std::size_t n = per_base ? r.bases_held() : (r.*values).size();
    py::array a(py::dtype::of<T>(), {static_cast<py::ssize_t>(n)}, {}, (r.*values).data(), self);
    py::detail::array_proxy(a.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    return a;
}

}  // namespace

void bind_sff(py::module_& m) {
    py::class_<sff_record>(m, "SffRecord", R"doc(
One read record of an SFF file, as the file holds it (nothing cut).

The array attributes are read-only numpy views on the record's own decoded data:
reading them copies nothing; call ``.copy()`` on one to change it. A record whose counts
run past the end of its file holds what the file has, zeros where it stops. Records come
from an SffFile (iteration, ``f[name]``, ``record_at``); ``len(record)`` is the number of
bases it holds.
)doc")
        .def_property_readonly(
            "name",
            [](const sff_record& r) {
                return text({r.name.data(), r.name.size()});
            },
            "The read's name (all of its bytes).")
        .def_readonly("offset", &sff_record::offset, "Byte offset of the record in its file.")
        .def_property_readonly(
            "bases",
            [](const sff_record& r) {
                return text({r.bases.data(), r.bases_held()});
            },
            "Every called base, key and clipped parts included, as stored (upper case).")
        .def_property_readonly(
            "qualities", [](py::handle s) { return viewed(s, &sff_read::quality_scores, true); },
            "Phred quality of each base (numpy uint8).")
        .def_property_readonly(
            "flowgram", [](py::handle s) { return viewed(s, &sff_read::flowgram_values, false); },
            "Every flow value of the read in hundredths, 101 meaning 1.01 (numpy uint16).")
        .def_property_readonly(
            "flow_index_per_base",
            [](py::handle s) { return viewed(s, &sff_read::flow_index_per_base, true); },
            "For each base, how many flows past the previous base's flow it was called (numpy "
            "uint8); the running sum less one is the 0-based flow of the base.")
        .def_readonly("number_of_bases", &sff_record::number_of_bases,
                      "The base count the record declares.")
        .def_readonly("number_of_flows", &sff_record::numOfFlows,
                      "Flows per read, as the file's header gives it.")
        .def_readonly("clip_qual_left", &sff_record::clip_qual_left,
                      "1-based first base kept by quality (0: none given).")
        .def_readonly("clip_qual_right", &sff_record::clip_qual_right,
                      "1-based last base kept by quality (0: none given).")
        .def_readonly("clip_adapter_left", &sff_record::clip_adapter_left,
                      "1-based first base after the adapter (0: none given).")
        .def_readonly("clip_adapter_right", &sff_record::clip_adapter_right,
                      "1-based last base before the adapter (0: none given).")
        .def_property_readonly("kept", &kept_slice,
                               "The kept bases as a slice: from the larger left clip to the "
                               "smaller right clip, so that ``record.bases[record.kept]`` are "
                               "the bases a run writes.")
        .def_property_readonly(
            "flow_chars", [](const sff_record& r) { return text(r.file->flow_chars); },
            "The file's flow order, one letter per flow.")
        .def_property_readonly(
            "key", [](const sff_record& r) { return text(r.file->key); },
            "The file's key sequence (the first bases of every read).")
        .def("_kept_read",
             [](const sff_record& r) {  // sorvexa.KeptRead's values
                 const seqRead k(r);
                 return py::make_tuple(text(k.name), text({k.bases.data(), k.bases.size()}),
                                       copy_array(k.quality_scores), copy_array(k.flow_indexes));
             })
        .def(
            "__len__", [](const sff_record& r) { return r.bases_held(); },
            "The number of bases the record holds (fewer than it declares when the file "
            "ends inside it).");

    py::class_<record_walk>(m, "SffIterator", "Iterator over an SFF file's records.")
        .def("__next__", &record_walk::next, "The next record, read without the GIL.");

    py::class_<index_iterator>(m, "ReadIndexIterator", "Iterator over a ReadIndex.")
        .def("__next__", &index_iterator::next, "The next name.");

    py::class_<name_index, std::shared_ptr<name_index>>(m, "ReadIndex", R"doc(
An SFF file's read names mapped to the byte offsets of their records, as a run builds it:
a name is cut at its first NUL byte and, when two records share a name, the later one
wins. A read-only mapping (``collections.abc.Mapping``) kept in C++, about 70 bytes a read.
)doc")
        .def(
            "__len__", [](const name_index& i) { return i.map().size(); }, "The number of names.")
        .def("__getitem__", &name_index::at, "The record offset of a name.")
        .def(
            "__iter__", [](std::shared_ptr<name_index> i) { return index_iterator(std::move(i)); },
            "The names, in no particular order.");

    py::class_<sff_file>(m, "SffFile", R"doc(
An SFF (454 flowgram) file, in either byte order: SffFile(path) reads the header (OSError
when the file cannot be opened, FormatError when it is not SFF). Iterating gives every
record in file order (an index block among the reads stepped over); ``f[name]`` fetches
one record through the read index, which the first lookup builds (``index()``);
``f.fetch(names)`` fetches many at once into the arrays of an SffBatch. Iteration,
indexing and fetching run without the GIL.
)doc")
        .def(py::init<py::object>(), py::arg("path"),
             "Opens an SFF file (str, bytes or os.PathLike) and reads its header.")
        .def_readonly("path", &sff_file::given_path, "The path as given.")
        .def_property_readonly(
            "flow_chars", [](const sff_file& f) { return text(f.file->flow_chars); },
            "The flow order, one letter per flow.")
        .def_property_readonly(
            "key", [](const sff_file& f) { return text(f.file->key); },
            "The key sequence that starts every read.")
        .def_property_readonly(
            "number_of_reads", [](const sff_file& f) { return f.file->fixed.number_of_reads; },
            "The read count the header declares.")
        .def_property_readonly(
            "flows_per_read",
            [](const sff_file& f) { return f.file->fixed.number_of_flows_per_read; },
            "Flows per read.")
        .def_property_readonly(
            "byte_order", [](const sff_file& f) { return f.file->big_endian ? "big" : "little"; },
            "'big' (the standard) or 'little'.")
        .def_property_readonly(
            "header_length", [](const sff_file& f) { return f.file->fixed.header_length; },
            "Bytes before the first record.")
        .def_property_readonly(
            "index_offset", [](const sff_file& f) { return f.file->fixed.index_offset; },
            "Where the file's own index block lies (0: none).")
        .def_property_readonly(
            "index_length", [](const sff_file& f) { return f.file->fixed.index_length; },
            "Length of the file's own index block.")
        .def_property_readonly(
            "version",
            [](const sff_file& f) {
                return py::bytes(reinterpret_cast<const char*>(f.file->fixed.version), 4);
            },
            "The four version bytes.")
        .def_property_readonly(
            "flowgram_format_code",
            [](const sff_file& f) { return int{f.file->fixed.flowgram_format_code}; },
            "1 for flow values in hundredths.")
        .def(
            "__iter__",
            [](const sff_file& f) {
                f.check_open();
                return std::make_unique<record_walk>(f.file);
            },
            "Every record in file order.")
        .def("index", &sff_file::index,
             "The read index (a ReadIndex), built on first use by one pass over the file.")
        .def("__getitem__", &sff_file::get, py::arg("name"),
             "The record of a read name (KeyError when the index has none).")
        .def("_fetch", &sff_file::fetch)
        .def("record_at", &sff_file::record_at, py::arg("offset"),
             "The whole record at a byte offset (as index() gives them).")
        .def("close", &sff_file::close, "Releases the file; iterators already made go on reading.");
}

}  // namespace sorvexa_py
