// sorvexa.SffFile, its records and its read index.
//
// Records are decoded by the library's reader, a few dozen at a time without the GIL, each
// into one buffer of its own; the arrays a record hands out are read-only numpy views on
// that buffer, kept alive by the record, so reading a flowgram copies nothing.
#include <pybind11/numpy.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "bindings.h"
#include "glue.h"
#include <sorvexa/read_lookup.h>
#include <sorvexa/sff.h>

namespace sorvexa_py {

namespace {

// What every record of a file shares.
struct sff_header_info {
    std::string path;
    std::string flow_chars;
    std::string key;
    std::uint32_t number_of_reads = 0;
    std::uint16_t flows_per_read = 0;
    std::uint16_t header_length = 0;
    std::uint64_t index_offset = 0;
    std::uint32_t index_length = 0;
    std::string magic, version;
    int flowgram_format_code = 0;
    bool big_endian = true;

    void take(const reader& rd) {
        const sff_header_p1& h = rd.header_p1;
        flow_chars.assign(rd.header_p2.flow_chars.begin(), rd.header_p2.flow_chars.end());
        key.assign(rd.header_p2.key_sequence.begin(), rd.header_p2.key_sequence.end());
        number_of_reads = h.number_of_reads;
        flows_per_read = h.number_of_flows_per_read;
        header_length = h.header_length;
        index_offset = h.index_offset;
        index_length = h.index_length;
        magic.assign(reinterpret_cast<const char*>(h.magic_number), 4);
        version.assign(reinterpret_cast<const char*>(h.version), 4);
        flowgram_format_code = h.flowgram_format_code;
        big_endian = rd.swap_bytes;  // numbers are swapped on this little-endian host
    }
};

// One record as the file holds it. The arrays sit in one buffer:
// flowgram (uint16) | flow index per base | qualities | bases | name.
struct sff_record {
    std::shared_ptr<const sff_header_info> file;
    std::int64_t offset = 0;
    std::uint16_t read_header_length = 0, name_length = 0;
    std::uint32_t number_of_bases = 0;
    std::uint16_t clip_qual_left = 0, clip_qual_right = 0;
    std::uint16_t clip_adapter_left = 0, clip_adapter_right = 0;
    std::uint16_t number_of_flows = 0;
    std::size_t flows = 0, bases = 0, name_size = 0;  // values held
    std::unique_ptr<unsigned char[]> data;

    const std::uint16_t* flowgram() const {
        return reinterpret_cast<const std::uint16_t*>(data.get());
    }
    const std::uint8_t* flow_index() const { return data.get() + 2 * flows; }
    const std::uint8_t* qualities() const { return flow_index() + bases; }
    const char* base_chars() const { return reinterpret_cast<const char*>(qualities() + bases); }
    const char* name() const { return base_chars() + bases; }

    sff_record(std::shared_ptr<const sff_header_info> f, std::int64_t pos, const sff_read& r)
        : file(std::move(f)),
          offset(pos),
          read_header_length(r.read_header_length),
          name_length(r.name_length),
          number_of_bases(r.number_of_bases),
          clip_qual_left(r.clip_qual_left),
          clip_qual_right(r.clip_qual_right),
          clip_adapter_left(r.clip_adapter_left),
          clip_adapter_right(r.clip_adapter_right),
          number_of_flows(r.numOfFlows),
          flows(std::min<std::size_t>(r.numOfFlows, r.flowgram_values.size())),
          bases(r.bases_held()),
          name_size(std::min<std::size_t>(r.name_length, r.name.size())),
          data(std::make_unique_for_overwrite<unsigned char[]>(2 * flows + 4 * bases + name_size)) {
        unsigned char* p = data.get();
        copy(p, r.flowgram_values.data(), 2 * flows);
        for (const auto* part : {r.flow_index_per_base.data(), r.quality_scores.data(),
                                 reinterpret_cast<const std::uint8_t*>(r.bases.data())})
            copy(p, part, bases);
        copy(p, r.name.data(), name_size);
    }

    // An empty buffer of the reader may have no storage at all: nothing is copied from it.
    static void copy(unsigned char*& to, const void* from, std::size_t n) {
        if (n > 0) std::memcpy(to, from, n);
        to += n;
    }

    // The record as the library's own type, for what the library computes from it.
    sff_read as_library_read() const {
        sff_read r(number_of_flows);
        r.read_header_length = read_header_length;
        r.name_length = name_length;
        r.number_of_bases = number_of_bases;
        r.clip_qual_left = clip_qual_left;
        r.clip_qual_right = clip_qual_right;
        r.clip_adapter_left = clip_adapter_left;
        r.clip_adapter_right = clip_adapter_right;
        r.name.assign(name(), name() + name_size);
        r.flowgram_values.assign(flowgram(), flowgram() + flows);
        r.flow_index_per_base.assign(flow_index(), flow_index() + bases);
        r.quality_scores.assign(qualities(), qualities() + bases);
        r.bases.assign(base_chars(), base_chars() + bases);
        return r;
    }
};

// A read cut to its kept bases, as a run writes it.
struct kept_read {
    std::string name;
    std::string bases;
    std::vector<std::int16_t> qualities;
    std::vector<std::int16_t> flows;
};

// A read-only array viewing `n` values at `data`, kept alive through `owner`.
template <class T>
py::array view(const T* data, std::size_t n, py::handle owner) {
    py::array a(py::dtype::of<T>(), {static_cast<py::ssize_t>(n)}, {}, data, owner);
    py::detail::array_proxy(a.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    return a;
}

template <class T>
py::array copy_array(const std::vector<T>& v) {
    return py::array_t<T>(static_cast<py::ssize_t>(v.size()), v.data());
}

// sorvexa.SffRecord is a plain extension type, not a pybind11 class: a record is made for
// every read walked or fetched, and the plain type makes one, frees it and hands out its
// attributes in about half the time. It owns its sff_record; numpy views keep it alive.
struct record_object {
    PyObject ob_base;  // what PyObject_HEAD declares
    sff_record* record;
};

PyTypeObject* record_type = nullptr;

py::object wrap(std::unique_ptr<sff_record> r) {
    if (!r) throw py::value_error("I/O operation on closed SffFile");
    PyObject* o = record_type->tp_alloc(record_type, 0);
    if (o == nullptr) throw py::error_already_set();
    reinterpret_cast<record_object*>(o)->record = r.release();
    return py::reinterpret_steal<py::object>(o);
}

const sff_record& rec(PyObject* self) {
    return *reinterpret_cast<record_object*>(self)->record;
}

[[noreturn]] void raise_key_error(py::handle name) {
    PyErr_SetObject(PyExc_KeyError, name.ptr());
    throw py::error_already_set();
}

// The walk over a file's records in file order. The library walks every record that the
// header counts; the index block, which a file may hold before its last record, is stepped
// over here, where the header says it lies.
//
// An iterator shared by threads stays whole: its state is only touched under its lock, which
// is never held while waiting for the GIL.
class record_walk {
  public:
    explicit record_walk(std::shared_ptr<const sff_header_info> f) : file_(std::move(f)) {}

    py::object next() {
        {
            std::unique_lock lock(mutex_, std::try_to_lock);
            if (lock.owns_lock() && !ready_.empty()) return wrap(pop());
        }
        std::unique_ptr<sff_record> out;
        library_result r = call_library([&] {
            std::lock_guard lock(mutex_);
            if (ready_.empty() && !finished_) refill();
            if (!ready_.empty()) out = pop();
        });
        if (r.failed) {
            std::lock_guard lock(mutex_);
            finished_ = true;
            ready_.clear();
        }
        raise_or_warn(r);
        if (!out) throw py::stop_iteration();
        return wrap(std::move(out));
    }

  private:
    // Enough records per trip without the GIL that the trip costs little; few enough that
    // a loop that stops early has not read far ahead.
    static constexpr std::size_t batch_records = 64;
    static constexpr std::size_t batch_bytes = 1 << 20;

    std::unique_ptr<sff_record> pop() {
        auto r = std::move(ready_.front());
        ready_.pop_front();
        return r;
    }

    void refill() {
        if (!rd_) {
            rd_ = std::make_unique<reader>(file_->path);
            if (!rd_->get_header()) {
                finished_ = true;
                return;
            }
        }
        std::size_t bytes = 0;
        while (ready_.size() < batch_records && bytes < batch_bytes) {
            skip_index_block();
            const std::int64_t pos = rd_->sff_file.tell();
            if (!rd_->get_next_read()) {
                finished_ = true;
                return;
            }
            ready_.push_back(std::make_unique<sff_record>(file_, pos, rd_->cur_read));
            bytes += 2 * ready_.back()->flows + 4 * ready_.back()->bases;
        }
    }

    void skip_index_block() {
        const std::uint64_t at = file_->index_offset;
        if (file_->index_length == 0 || at > static_cast<std::uint64_t>(INT64_MAX)) return;
        if (rd_->sff_file.tell() != static_cast<std::int64_t>(at)) return;
        std::uint64_t end = at + file_->index_length;
        end += (8 - end % 8) % 8;
        rd_->sff_file.seek(static_cast<std::int64_t>(end));
    }

    std::shared_ptr<const sff_header_info> file_;
    std::mutex mutex_;
    std::unique_ptr<reader> rd_;
    std::deque<std::unique_ptr<sff_record>> ready_;
    bool finished_ = false;
};

// The read index of one file, as a run builds it: names cut at their first NUL byte, the
// later of two equal names winning.
struct name_index {
    read_lookup lookup;
    const std::pmr::unordered_map<std::string, std::int64_t>& map() const {
        return lookup.indexes.front();
    }
};

class index_iterator {
  public:
    enum class kind { keys, values, items };
    index_iterator(std::shared_ptr<name_index> i, kind k)
        : index_(std::move(i)), it_(index_->map().begin()), kind_(k) {}

    py::object next() {
        if (it_ == index_->map().end()) throw py::stop_iteration();
        const auto& [name, pos] = *it_++;
        switch (kind_) {
            case kind::keys:
                return text(name);
            case kind::values:
                return py::int_(pos);
            default:
                return py::make_tuple(text(name), pos);
        }
    }

  private:
    std::shared_ptr<name_index> index_;
    std::pmr::unordered_map<std::string, std::int64_t>::const_iterator it_;
    kind kind_;
};

class sff_file {
  public:
    py::object given_path;
    std::shared_ptr<sff_header_info> file;

    explicit sff_file(py::object path) : given_path(path) {
        auto info = std::make_shared<sff_header_info>();
        info->path = fs_path(path);
        check_readable(info->path, path);
        bool header_read = false;
        library_result r = call_library([&] {
            fetcher_ = std::make_unique<reader>(info->path);
            header_read = fetcher_->get_header();
            if (header_read) info->take(*fetcher_);
        });
        // A file too short for the header's fixed part is no SFF file either.
        r.failed = r.failed || !header_read;
        raise_or_warn(r);
        file = std::move(info);
    }

    const std::shared_ptr<name_index>& index() {
        check_open();
        // Once built the index never changes, so a lookup needs neither the lock nor a trip
        // without the GIL.
        if (index_ready_.load(std::memory_order_acquire)) return index_;
        const library_result r = call_library([&] {
            std::lock_guard lock(index_mutex_);
            if (index_ready_.load(std::memory_order_relaxed)) return;
            auto i = std::make_shared<name_index>();
            i->lookup.index_files({file->path});
            index_ = std::move(i);
            index_ready_.store(true, std::memory_order_release);
        });
        raise_or_warn(r);
        return index_;
    }

    py::object fetch(std::int64_t pos) {
        check_open();
        if (pos < 0) throw py::value_error("a record offset is never negative");
        std::unique_ptr<sff_record> out;
        const library_result r = call_library([&] {
            std::lock_guard lock(fetch_mutex_);
            if (!fetcher_) return;  // closed by another thread meanwhile
            // An earlier fetch that ran past the end of the file leaves the stream failed;
            // each fetch starts afresh.
            fetcher_->sff_file.clear();
            fetcher_->get_record(pos);
            out = std::make_unique<sff_record>(file, pos, fetcher_->cur_read);
        });
        raise_or_warn(r);
        if (!out) check_open();
        return wrap(std::move(out));
    }

    py::object get(const py::str& name) {
        const std::string key = bytes_of(name);
        const name_index* i = index().get();  // the file holds it as long as it lives
        auto found = i->map().find(key);
        if (found == i->map().end()) raise_key_error(name);
        return fetch(found->second);
    }

    bool contains(const py::object& name) {
        if (!PyUnicode_Check(name.ptr())) return false;
        const std::string key = bytes_of(name);
        return index()->map().count(key) != 0;
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
    std::mutex fetch_mutex_;
    std::unique_ptr<reader> fetcher_;
    std::mutex index_mutex_;
    std::shared_ptr<name_index> index_;
    std::atomic<bool> index_ready_{false};
    bool closed_ = false;
};

// The kept range as a slice of the bases: from the larger left clip to the smaller right
// clip, as the library cuts it (an empty or inverted range gives an empty slice).
py::slice kept_slice(const sff_record& r) {
    sff_read header;
    header.number_of_bases = r.number_of_bases;
    header.clip_qual_left = r.clip_qual_left;
    header.clip_qual_right = r.clip_qual_right;
    header.clip_adapter_left = r.clip_adapter_left;
    header.clip_adapter_right = r.clip_adapter_right;
    const std::int64_t first = std::max<std::int64_t>(header.get_base_start() - 1, 0);
    const std::int64_t end = std::max<std::int64_t>(header.get_base_end(), first);
    return py::slice(py::int_(first), py::int_(end), py::none());
}

// The attributes and methods of sorvexa.SffRecord. Each runs its body under `guarded`, which
// turns a C++ exception (one of pybind11's, carrying a Python error) into the error the
// interpreter expects from a type slot.
template <class F>
PyObject* guarded(F&& body) {
    try {
        return body().release().ptr();
    } catch (py::error_already_set& e) {
        e.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
    return nullptr;
}

template <py::object (*F)(PyObject*)>
PyObject* attribute(PyObject* self, void*) {
    return guarded([&] { return F(self); });
}

py::object record_name(PyObject* self) {
    return text({rec(self).name(), rec(self).name_size});
}
py::object record_offset(PyObject* self) {
    return py::int_(rec(self).offset);
}
py::object record_bases(PyObject* self) {
    return text({rec(self).base_chars(), rec(self).bases});
}
py::object record_qualities(PyObject* self) {
    return view(rec(self).qualities(), rec(self).bases, self);
}
py::object record_flowgram(PyObject* self) {
    return view(rec(self).flowgram(), rec(self).flows, self);
}
py::object record_flow_index(PyObject* self) {
    return view(rec(self).flow_index(), rec(self).bases, self);
}
template <auto Member>
py::object record_number(PyObject* self) {
    return py::int_(rec(self).*Member);
}
py::object record_kept(PyObject* self) {
    return kept_slice(rec(self));
}
py::object record_flow_chars(PyObject* self) {
    return text(rec(self).file->flow_chars);
}
py::object record_key(PyObject* self) {
    return text(rec(self).file->key);
}

PyGetSetDef record_attributes[] = {
    {"name", attribute<record_name>, nullptr, "The read's name (all of its bytes).", nullptr},
    {"offset", attribute<record_offset>, nullptr, "Byte offset of the record in its file.",
     nullptr},
    {"bases", attribute<record_bases>, nullptr,
     "Every called base, key and clipped parts included, as stored (upper case).", nullptr},
    {"qualities", attribute<record_qualities>, nullptr, "Phred quality of each base (numpy uint8).",
     nullptr},
    {"flowgram", attribute<record_flowgram>, nullptr,
     "Every flow value of the read in hundredths, 101 meaning 1.01 (numpy uint16).", nullptr},
    {"flow_index_per_base", attribute<record_flow_index>, nullptr,
     "For each base, how many flows past the previous base's flow it was called (numpy "
     "uint8); the running sum less one is the 0-based flow of the base.",
     nullptr},
    {"number_of_bases", attribute<record_number<&sff_record::number_of_bases>>, nullptr,
     "The base count the record declares.", nullptr},
    {"number_of_flows", attribute<record_number<&sff_record::number_of_flows>>, nullptr,
     "Flows per read, as the file's header gives it.", nullptr},
    {"clip_qual_left", attribute<record_number<&sff_record::clip_qual_left>>, nullptr,
     "1-based first base kept by quality (0: none given).", nullptr},
    {"clip_qual_right", attribute<record_number<&sff_record::clip_qual_right>>, nullptr,
     "1-based last base kept by quality (0: none given).", nullptr},
    {"clip_adapter_left", attribute<record_number<&sff_record::clip_adapter_left>>, nullptr,
     "1-based first base after the adapter (0: none given).", nullptr},
    {"clip_adapter_right", attribute<record_number<&sff_record::clip_adapter_right>>, nullptr,
     "1-based last base before the adapter (0: none given).", nullptr},
    {"kept", attribute<record_kept>, nullptr,
     "The kept bases as a slice: from the larger left clip to the smaller right clip, so "
     "that ``record.bases[record.kept]`` are the bases a run writes.",
     nullptr},
    {"flow_chars", attribute<record_flow_chars>, nullptr,
     "The file's flow order, one letter per flow.", nullptr},
    {"key", attribute<record_key>, nullptr,
     "The file's key sequence (the first bases of every read).", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyObject* record_kept_read(PyObject* self, PyObject*) {
    return guarded([&] {
        const seqRead s(rec(self).as_library_read());
        return py::cast(kept_read{s.name, std::string(s.bases.begin(), s.bases.end()),
                                  s.quality_scores, s.flow_indexes});
    });
}

PyMethodDef record_methods[] = {
    {"kept_read", record_kept_read, METH_NOARGS,
     "kept_read()\n--\n\nThe read as a run writes it: its kept bases with their qualities "
     "and the 0-based flow that called each\n(counted from the read's first flow, key "
     "included), as a KeptRead."},
    {nullptr, nullptr, 0, nullptr},
};

Py_ssize_t record_length(PyObject* self) {
    return static_cast<Py_ssize_t>(rec(self).bases);
}

PyObject* record_repr(PyObject* self) {
    return guarded([&] {
        const sff_record& r = rec(self);
        return text("<sorvexa.SffRecord " +
                    py::repr(text({r.name(), r.name_size})).cast<std::string>() + ", " +
                    std::to_string(r.bases) + " bases, " + std::to_string(r.flows) + " flows>");
    });
}

void record_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    delete reinterpret_cast<record_object*>(self)->record;
    type->tp_free(self);
    Py_DECREF(type);
}

constexpr const char* record_doc =
    R"doc(One read record of an SFF file, as the file holds it (nothing cut).

The array attributes are read-only numpy views on the record's own decoded data:
reading them copies nothing; call ``.copy()`` on one to change it. A record whose counts
run past the end of its file holds what the file has, zeros where it stops. Records come
from an SffFile (iteration, ``f[name]``, ``record_at``); ``len(record)`` is the number of
bases it holds.
)doc";

py::object make_record_type() {
    PyType_Slot slots[] = {
        {Py_tp_doc, const_cast<char*>(record_doc)},
        {Py_tp_dealloc, reinterpret_cast<void*>(record_dealloc)},
        {Py_tp_repr, reinterpret_cast<void*>(record_repr)},
        {Py_tp_getset, record_attributes},
        {Py_tp_methods, record_methods},
        {Py_sq_length, reinterpret_cast<void*>(record_length)},
        {0, nullptr},
    };
    // Made only by the module: a record without its data cannot be made from Python (before
    // Python 3.10, whose flag says so, by taking the inherited constructor away).
#ifdef Py_TPFLAGS_DISALLOW_INSTANTIATION
    constexpr unsigned int flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION;
#else
    constexpr unsigned int flags = Py_TPFLAGS_DEFAULT;
#endif
    PyType_Spec layout = {"sorvexa.SffRecord", sizeof(record_object), 0, flags, slots};
    auto type = py::reinterpret_steal<py::object>(PyType_FromSpec(&layout));
    if (!type) throw py::error_already_set();
    record_type = reinterpret_cast<PyTypeObject*>(type.ptr());
#ifndef Py_TPFLAGS_DISALLOW_INSTANTIATION
    record_type->tp_new = nullptr;
#endif
    return type;
}

}  // namespace

void bind_sff(py::module_& m) {
    m.attr("SffRecord") = make_record_type();

    py::class_<kept_read>(m, "KeptRead", "A read cut to its kept bases, as a run writes it.")
        .def_property_readonly(
            "name", [](const kept_read& k) { return text(k.name); }, "The read's name.")
        .def_property_readonly(
            "bases", [](const kept_read& k) { return text(k.bases); }, "The kept bases.")
        .def_property_readonly(
            "qualities", [](const kept_read& k) { return copy_array(k.qualities); },
            "Quality of each kept base (numpy int16).")
        .def_property_readonly(
            "flows", [](const kept_read& k) { return copy_array(k.flows); },
            "For each kept base, the 0-based flow that called it, counted from the read's "
            "first flow (numpy int16): an index into the record's flowgram.")
        .def(
            "__len__", [](const kept_read& k) { return k.bases.size(); },
            "The number of kept bases.")
        .def("__repr__", [](const kept_read& k) {
            return "<sorvexa.KeptRead " + py::repr(text(k.name)).cast<std::string>() + ", " +
                   std::to_string(k.bases.size()) + " bases>";
        });

    py::class_<record_walk>(m, "SffIterator", "Iterator over an SFF file's records.")
        .def(
            "__iter__", [](py::object self) { return self; }, "The iterator itself.")
        .def("__next__", &record_walk::next,
             "The next record; a few dozen are read ahead at a time without the GIL.");

    py::class_<index_iterator>(m, "ReadIndexIterator", "Iterator over a ReadIndex.")
        .def(
            "__iter__", [](py::object self) { return self; }, "The iterator itself.")
        .def("__next__", &index_iterator::next, "The next name, offset or pair.");

    py::class_<name_index, std::shared_ptr<name_index>>(m, "ReadIndex", R"doc(
An SFF file's read names mapped to the byte offsets of their records, as a run builds it:
a name is cut at its first NUL byte and, when two records share a name, the later one
wins. A read-only mapping (``collections.abc.Mapping``) kept in C++, about 70 bytes a read.
)doc")
        .def(
            "__len__", [](const name_index& i) { return i.map().size(); }, "The number of names.")
        .def(
            "__getitem__",
            [](const name_index& i, const py::str& name) {
                auto found = i.map().find(bytes_of(name));
                if (found == i.map().end()) raise_key_error(name);
                return found->second;
            },
            "The record offset of a name.")
        .def(
            "__contains__",
            [](const name_index& i, const py::object& name) {
                return PyUnicode_Check(name.ptr()) && i.map().count(bytes_of(name)) != 0;
            },
            "Whether the index holds a name.")
        .def(
            "get",
            [](const name_index& i, const py::object& name, py::object fallback) -> py::object {
                if (!PyUnicode_Check(name.ptr())) return fallback;
                auto found = i.map().find(bytes_of(name));
                return found == i.map().end() ? fallback : py::int_(found->second);
            },
            py::arg("name"), py::arg("default") = py::none(),
            "The record offset of a name, or `default`.")
        .def(
            "__iter__",
            [](std::shared_ptr<name_index> i) {
                return index_iterator(std::move(i), index_iterator::kind::keys);
            },
            "The names, in no particular order.")
        .def(
            "keys",
            [](std::shared_ptr<name_index> i) {
                return index_iterator(std::move(i), index_iterator::kind::keys);
            },
            "The names, in no particular order.")
        .def(
            "values",
            [](std::shared_ptr<name_index> i) {
                return index_iterator(std::move(i), index_iterator::kind::values);
            },
            "The offsets, in the order of keys().")
        .def(
            "items",
            [](std::shared_ptr<name_index> i) {
                return index_iterator(std::move(i), index_iterator::kind::items);
            },
            "(name, offset) pairs, in the order of keys().")
        .def("__repr__", [](const name_index& i) {
            return "<sorvexa.ReadIndex of " + std::to_string(i.map().size()) + " reads>";
        });

    py::class_<sff_file>(m, "SffFile", R"doc(
An SFF (454 flowgram) file, in either byte order.

    SffFile(path)

Opening reads the header: a file that cannot be opened raises OSError
(FileNotFoundError, PermissionError, IsADirectoryError), one that is not SFF raises
FormatError. Iterating gives every record in file order (the index block is stepped
over); ``f[name]`` fetches one record through the read index, which the first lookup
builds (``index()``). Iteration, indexing and fetching run without the GIL.
)doc")
        .def(py::init<py::object>(), py::arg("path"),
             "Opens an SFF file (str, bytes or os.PathLike) and reads its header.")
        .def_property_readonly(
            "path", [](const sff_file& f) { return f.given_path; }, "The path as given.")
        .def_property_readonly(
            "flow_chars", [](const sff_file& f) { return text(f.file->flow_chars); },
            "The flow order, one letter per flow.")
        .def_property_readonly(
            "key", [](const sff_file& f) { return text(f.file->key); },
            "The key sequence that starts every read.")
        .def_property_readonly(
            "number_of_reads", [](const sff_file& f) { return f.file->number_of_reads; },
            "The read count the header declares.")
        .def_property_readonly(
            "flows_per_read", [](const sff_file& f) { return f.file->flows_per_read; },
            "Flows per read.")
        .def_property_readonly(
            "byte_order", [](const sff_file& f) { return f.file->big_endian ? "big" : "little"; },
            "'big' (the standard) or 'little'.")
        .def_property_readonly(
            "header_length", [](const sff_file& f) { return f.file->header_length; },
            "Bytes before the first record.")
        .def_property_readonly(
            "index_offset", [](const sff_file& f) { return f.file->index_offset; },
            "Where the file's own index block lies (0: none).")
        .def_property_readonly(
            "index_length", [](const sff_file& f) { return f.file->index_length; },
            "Length of the file's own index block.")
        .def_property_readonly(
            "version", [](const sff_file& f) { return py::bytes(f.file->version); },
            "The four version bytes.")
        .def_property_readonly(
            "flowgram_format_code", [](const sff_file& f) { return f.file->flowgram_format_code; },
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
        .def("__contains__", &sff_file::contains, py::arg("name"),
             "Whether the read index holds a name.")
        .def(
            "__len__", [](sff_file& f) { return f.index()->map().size(); },
            "The number of names in the read index.")
        .def("record_at", &sff_file::fetch, py::arg("offset"),
             "The whole record at a byte offset (as index() gives them).")
        .def("close", &sff_file::close, "Releases the file; iterators already made go on reading.")
        .def(
            "__enter__", [](py::object self) { return self; }, "The file itself.")
        .def(
            "__exit__",
            [](sff_file& f, const py::args&) {
                f.close();
                return false;
            },
            "Closes the file.")
        .def("__repr__", [](const sff_file& f) {
            return "<sorvexa.SffFile " + py::repr(f.given_path).cast<std::string>() + ", " +
                   std::to_string(f.file->number_of_reads) + " reads, " +
                   (f.file->big_endian ? "big" : "little") + "-endian>";
        });
}

}  // namespace sorvexa_py
