// The whole program on one ACE file and one or two SFF files cut from a single input:
//
//   byte 0      flags: bit 0 adds -f; bit 1 adds a second SFF operand; bit 2 makes that
//               second operand the first file again; bits 3-4 pick the ACE file's name
//               (x.ace, x.ACE, x.ace.bak, x), which decides the output names
//   4 bytes     length n of the ACE file, little-endian (cut to what is left)
//   n bytes     the ACE file
//   4 bytes     length m of the first SFF file, little-endian (cut to what is left)
//   m bytes     the first SFF file
//   the rest    the second SFF file
//
// Each input runs in this process. A fatal input error returns from the driver as a status,
// so the driver's open files and buffers are released as they would be at the run's end.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "driver.h"
#include "fuzz_support.h"

namespace {

std::uint32_t take_length(const std::uint8_t*& data, std::size_t& size) {
    std::uint32_t n = 0;
    for (int k = 0; k < 4 && size > 0; ++k, ++data, --size)
        n |= static_cast<std::uint32_t>(*data) << (8 * k);
    return n;
}

std::string take_bytes(const std::uint8_t*& data, std::size_t& size, std::size_t n) {
    if (n > size) n = size;
    std::string out(reinterpret_cast<const char*>(data), n);
    data += n;
    size -= n;
    return out;
}

void save(const std::string& path, const std::string& bytes) {
    fuzz_support::write_file(path, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                             bytes.size());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_support::start_target();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const unsigned flags = data[0];
    ++data;
    --size;
    const std::string ace = take_bytes(data, size, take_length(data, size));
    const std::string sff1 = take_bytes(data, size, take_length(data, size));
    const std::string sff2 = take_bytes(data, size, size);

    static const char* const ace_names[] = {"x.ace", "x.ACE", "x.ace.bak", "x"};
    const std::string ace_path = fuzz_support::scratch_path(ace_names[(flags >> 3) & 3]);
    const std::string sff1_path = fuzz_support::scratch_path("a.sff");
    const std::string sff2_path =
        (flags & 4) != 0 ? sff1_path : fuzz_support::scratch_path("b.sff");
    save(ace_path, ace);
    save(sff1_path, sff1);
    std::vector<std::string> args{"Sorvexa"};
    if ((flags & 1) != 0) args.emplace_back("-f");
    args.push_back(ace_path);
    args.push_back(sff1_path);
    if ((flags & 2) != 0) {
        if ((flags & 4) == 0) save(sff2_path, sff2);
        args.push_back(sff2_path);
    }
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    fuzz_support::run_input([&] { sorvexa_main(static_cast<int>(args.size()), argv.data()); });
    fuzz_support::clear_scratch_dir();
    return 0;
}
