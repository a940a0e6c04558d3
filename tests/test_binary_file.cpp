// Positioned binary input: every way of moving through a file gives the file's own bytes,
// whether a block comes from the caller's read or from the helper that reads ahead.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sorvexa/detail/binary_file.h>

namespace {

// A file of several read-ahead blocks whose every byte says where it lies.
class BinaryFile : public ::testing::Test {
  protected:
    static constexpr std::size_t size = (5 << 20) + 12345;

    void SetUp() override {
        path_ = (std::filesystem::temp_directory_path() /
                 ("sorvexa_binary_file_" + std::to_string(::getpid()) + ".bin"))
                    .string();
        bytes_.resize(size);
        std::uint32_t x = 2463534242u;
        for (auto& b : bytes_) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            b = static_cast<unsigned char>(x);
        }
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes_.data()),
                   static_cast<std::streamsize>(bytes_.size()));
    }
    void TearDown() override { std::filesystem::remove(path_); }

    // Reads n bytes at the file's position and checks them against the file.
    void expect_read(binary_file& f, std::size_t n) {
        const std::int64_t at = f.tell();
        std::vector<unsigned char> got(n);
        ASSERT_EQ(f.read(got.data(), n), n) << "at " << at;
        ASSERT_TRUE(std::equal(got.begin(), got.end(), bytes_.begin() + at)) << "at " << at;
    }

    std::string path_;
    std::vector<unsigned char> bytes_;
};

TEST_F(BinaryFile, SequentialReadsOfEverySizeGiveTheFile) {
    for (std::size_t piece : {7u, 4096u, 100000u, 700000u}) {
        binary_file f;
        ASSERT_TRUE(f.open(path_));
        while (f.tell() + static_cast<std::int64_t>(piece) <= static_cast<std::int64_t>(size))
            expect_read(f, piece);
        std::vector<unsigned char> rest(piece);
        const std::size_t left = size - static_cast<std::size_t>(f.tell());
        EXPECT_EQ(f.read(rest.data(), piece), left);
        EXPECT_TRUE(f.eof() && f.fail());
    }
}

// A walk over records reads a little and steps over the rest; jumps in the middle of a
// sequential stretch (back, far ahead, into the block being read ahead) drop the block
// read ahead and go on from the new place.
TEST_F(BinaryFile, WalksAndJumpsGiveTheFile) {
    binary_file f;
    ASSERT_TRUE(f.open(path_));
    while (f.tell() + 3000 < static_cast<std::int64_t>(size)) {
        expect_read(f, 40);
        f.seek_relative(2960);
    }
    f.clear();
    f.seek(0);
    const std::int64_t jumps[] = {100, 3 << 20, 600 << 10, (1 << 20) + 5, 17, (4 << 20) + 99};
    for (std::int64_t to : jumps) {
        f.seek(to);
        for (int k = 0; k < 20; ++k) expect_read(f, 50000);
    }
    EXPECT_FALSE(f.fail());
}

// A reader kept open across fetches: a walk that ran past the end, then a fetch back into
// the file's last block, and into every earlier block, gives that block's bytes, never a
// block left over from reading ahead.
TEST_F(BinaryFile, SeekBackAfterTheEndGivesTheBlock) {
    binary_file f;
    ASSERT_TRUE(f.open(path_));
    std::vector<unsigned char> piece(300000);
    while (f.read(piece.data(), piece.size()) == piece.size()) {
    }
    EXPECT_TRUE(f.eof() && f.fail());
    for (std::int64_t back : {std::int64_t{size} - 5000, std::int64_t{size} - (1 << 20) - 7,
                              std::int64_t{size} - 100, std::int64_t{3 << 20}, std::int64_t{1}}) {
        f.clear();
        f.seek(back);
        expect_read(f, 90);
    }
    // And once more after reading sequentially up to the end again.
    f.clear();
    f.seek(0);
    for (int k = 0; k < 17; ++k) expect_read(f, 300000);
    // Giving back the read-ahead mid-walk loses nothing: the walk goes on where it was.
    f.release();
    expect_read(f, 100000);
    f.seek(std::int64_t{size} - 64);
    expect_read(f, 64);
}

// Closing or reopening in the middle of a sequential read, with a block being read ahead.
TEST_F(BinaryFile, CloseAndReopenWhileReadingAhead) {
    for (int round = 0; round < 20; ++round) {
        binary_file f;
        ASSERT_TRUE(f.open(path_));
        for (int k = 0; k < round; ++k) expect_read(f, 150000);
        if (round % 2 == 0) {
            ASSERT_TRUE(f.open(path_));
            EXPECT_EQ(f.tell(), 0);
            expect_read(f, 2000000);
        }
    }
}

// A process forked in the middle of a sequential read reads on by itself, as the parent
// does; neither waits for the other's helper.
TEST_F(BinaryFile, ForkedProcessReadsOn) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer does not follow a multi-threaded process through fork";
#endif
    binary_file f;
    ASSERT_TRUE(f.open(path_));
    expect_read(f, 2000000);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::vector<unsigned char> got(size - 2000000);
        const bool same = f.read(got.data(), got.size()) == got.size() &&
                          std::equal(got.begin(), got.end(), bytes_.begin() + 2000000);
        f.close();
        std::_Exit(same ? 0 : 1);
    }
    expect_read(f, size - 2000000);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
