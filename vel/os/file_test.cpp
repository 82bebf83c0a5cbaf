// Contract of the file calls, typed over the back ends that promise it.
#include <vel/os/file.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/socket.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os {
namespace {

namespace fs = std::filesystem;
using vel::testing::content_of;
using vel::testing::TemporaryDirectory;

// The system's own files. Another back end is a struct with the same names.
struct SystemFiles {
    static constexpr auto open = open_file;
    static constexpr auto close = close_handle;
    static constexpr auto read = read_file;
    static constexpr auto write = write_file;
    static constexpr auto read_at = read_file_at;
    static constexpr auto write_at = write_file_at;
    static constexpr auto seek = seek_file;
    static constexpr auto size = file_size;
    static constexpr auto set_size = set_file_size;
    static constexpr auto times = file_times;
    static constexpr auto set_times = set_file_times;
    static constexpr auto info = path_info;
    static constexpr auto set_read_only = os::set_read_only;
    static constexpr auto remove = delete_file;
    static constexpr auto copy = copy_file;
    static constexpr auto move = move_file;
    static constexpr auto access = access_path;
};

template <class Back>
class Files : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(open_handle_count(), handles_before_); }

    void* open(const std::string& path, FileOpen how, const FileOptions& options = {}) {
        void* file = nullptr;
        EXPECT_EQ(Back::open(path.c_str(), how, file, options), error::none) << path;
        return file;
    }

    uint32_t open_code(const std::string& path, FileOpen how, const FileOptions& options = {}) {
        void* file = nullptr;
        const uint32_t code = Back::open(path.c_str(), how, file, options);
        if (!code) Back::close(file);
        return code;
    }

    void write(void* file, std::string_view text) {
        uint64_t moved = 0;
        EXPECT_EQ(Back::write(file, text.data(), text.size(), moved), error::none);
        EXPECT_EQ(moved, text.size());
    }

    std::string read(void* file, uint64_t size = 100) {
        std::string text(size, '\0');
        uint64_t moved = 0;
        EXPECT_EQ(Back::read(file, text.data(), size, moved), error::none);
        return text.substr(0, moved);
    }

    TemporaryDirectory directory_;
    const uint64_t handles_before_ = open_handle_count();
};

using Backs = ::testing::Types<SystemFiles>;
TYPED_TEST_SUITE(Files, Backs);

TYPED_TEST(Files, OpenTellsWhyItFails) {
    const TemporaryDirectory& directory = this->directory_;
    const std::string there = directory.file("there", "abc");
    fs::create_symlink(there, directory.path("link"));
    const FileOptions plain{.plain_only = true};
    struct Row {
        std::string path;
        FileOpen how;
        FileOptions options;
        uint32_t code;
    };
    const Row rows[] = {
        {there, FileOpen::create_new, {}, error::file_exists},
        {directory.path("absent"), FileOpen::open_read, {}, error::file_not_found},
        {directory.path("absent"), FileOpen::open_write, {}, error::file_not_found},
        {directory.path("absent/file"), FileOpen::open_read, {}, error::path_not_found},
        {directory.path("absent/file"), FileOpen::create_always, {}, error::path_not_found},
        {directory.path("there/file"), FileOpen::create_new, {}, error::path_not_found},
        {directory.path(), FileOpen::open_read, {}, error::access_denied},
        {directory.path(), FileOpen::create_always, {}, error::access_denied},
        {directory.path("link"), FileOpen::open_read, {}, error::none},
        {directory.path("link"), FileOpen::open_read, plain, error::cannot_resolve_name},
        {"/dev/null", FileOpen::open_write, {}, error::none},
        {"/dev/null", FileOpen::open_write, plain, error::access_denied},
        {std::string(5000, 'x'), FileOpen::open_read, {}, error::name_too_long},
        {"", FileOpen::open_read, {}, error::path_not_found},
    };
    for (const Row& row : rows) EXPECT_EQ(this->open_code(row.path, row.how, row.options), row.code) << row.path;
    void* file = nullptr;
    EXPECT_EQ(TypeParam::open(nullptr, FileOpen::open_read, file, {}), error::path_not_found);
    EXPECT_EQ(content_of(there), "abc") << "a failed open must not truncate";
}

TYPED_TEST(Files, DispositionsDecideWhatStays) {
    const std::string path = this->directory_.file("file", "old content");
    void* file = this->open(path, FileOpen::open_always, {.append = true});
    int64_t position = 0;
    EXPECT_EQ(TypeParam::seek(file, 0, 0, position), error::none);
    this->write(file, "+more");
    TypeParam::close(file);
    EXPECT_EQ(content_of(path), "old content+more");

    file = this->open(path, FileOpen::create_always);
    EXPECT_EQ(content_of(path), "");
    TypeParam::close(file);
    EXPECT_EQ(this->open_code(this->directory_.path("new"), FileOpen::open_always), error::none);
}

TYPED_TEST(Files, PositionMovesOnlyWithPlainTransfers) {
    void* file = this->open(this->directory_.path("file"), FileOpen::create_new);
    this->write(file, "0123456789");
    char buffer[4] = {};
    uint64_t moved = 0;
    EXPECT_EQ(TypeParam::read_at(file, buffer, 4, 8, moved), error::none);
    EXPECT_EQ(std::string(buffer, moved), "89");
    EXPECT_EQ(TypeParam::write_at(file, "ab", 2, 4, moved), error::none);
    EXPECT_EQ(TypeParam::set_size(file, 12), error::none);
    this->write(file, "!");

    int64_t position = 0;
    EXPECT_EQ(TypeParam::seek(file, -9, 2, position), error::none);
    EXPECT_EQ(position, 3);
    EXPECT_EQ(TypeParam::seek(file, 1, 1, position), error::none);
    EXPECT_EQ(this->read(file), std::string("ab6789!\0", 8));
    EXPECT_EQ(this->read(file), "") << "the end is no error";

    EXPECT_EQ(TypeParam::seek(file, -1, 0, position), error::invalid_parameter);
    EXPECT_EQ(TypeParam::seek(file, 0, 3, position), error::invalid_parameter);
    EXPECT_EQ(TypeParam::set_size(file, UINT64_MAX), error::file_too_large);
    uint64_t size = 0;
    EXPECT_EQ(TypeParam::size(file, size), error::none);
    EXPECT_EQ(size, 12u);
    TypeParam::close(file);
}

TYPED_TEST(Files, WrongHandlesAndDirectionsAreRefused) {
    void* file = this->open(this->directory_.file("file", "abc"), FileOpen::open_read);
    uint64_t number = 0;
    EXPECT_EQ(TypeParam::write(file, "x", 1, number), error::access_denied);
    EXPECT_EQ(TypeParam::set_size(file, 0), error::access_denied);
    EXPECT_EQ(TypeParam::close(file), error::none);

    FileTimes times{};
    int64_t position = 0;
    char byte = 0;
    for (void* dead : {file, VEL_INVALID_HANDLE, static_cast<void*>(nullptr)}) {
        EXPECT_EQ(TypeParam::read(dead, &byte, 1, number), error::invalid_handle);
        EXPECT_EQ(TypeParam::write(dead, &byte, 1, number), error::invalid_handle);
        EXPECT_EQ(TypeParam::seek(dead, 0, 0, position), error::invalid_handle);
        EXPECT_EQ(TypeParam::size(dead, number), error::invalid_handle);
        EXPECT_EQ(TypeParam::set_size(dead, 0), error::invalid_handle);
        EXPECT_EQ(TypeParam::times(dead, times), error::invalid_handle);
        EXPECT_EQ(TypeParam::set_times(dead, times), error::invalid_handle);
        EXPECT_EQ(TypeParam::close(dead), error::invalid_handle);
    }
}

TYPED_TEST(Files, SocketHandleReadsAndWrites) {
    struct {
        uint16_t family = 2, port = 0;
        std::array<uint8_t, 4> host{127, 0, 0, 1};
        std::array<uint8_t, 8> zero{};
    } address;
    int32_t length = sizeof address;
    uint64_t socket = VEL_INVALID_SOCKET;
    ASSERT_EQ(open_socket(2, 2, 0, socket), error::none);
    ASSERT_EQ(bind_socket(socket, &address, length), error::none);
    ASSERT_EQ(local_name(socket, &address, length), error::none);
    ASSERT_EQ(connect_socket(socket, &address, length), error::none); // a datagram socket that talks to itself
    auto* handle = reinterpret_cast<void*>(socket);
    this->write(handle, "datagram");
    EXPECT_EQ(this->read(handle), "datagram");
    uint64_t size = 0;
    EXPECT_EQ(TypeParam::size(handle, size), error::invalid_handle);
    close_socket(socket);
}

TYPED_TEST(Files, TimesRoundTripOneByOne) {
    constexpr uint64_t day = 864'000'000'000;
    constexpr uint64_t year_2001 = 126'227'808'000'000'000;
    const std::string path = this->directory_.path("file");
    const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    const auto before = static_cast<uint64_t>(since_1970 / std::chrono::seconds(1) + 11'644'473'600) * 10'000'000;
    void* file = this->open(path, FileOpen::create_new);
    FileTimes times{};
    EXPECT_EQ(TypeParam::times(file, times), error::none);
    EXPECT_GT(times.created + day, before);
    EXPECT_LT(times.created, before + day);

    EXPECT_EQ(TypeParam::set_times(file, {year_2001 + 1, year_2001 + 2, year_2001 + 10'000'003}), error::none);
    this->write(file, "x");
    EXPECT_EQ(TypeParam::set_times(file, {0, 0, year_2001 + 4}), error::none);
    TypeParam::close(file);

    file = this->open(path, FileOpen::open_read);
    EXPECT_EQ(TypeParam::times(file, times), error::none);
    EXPECT_EQ(times.created, year_2001 + 1);
    EXPECT_EQ(times.accessed, year_2001 + 2);
    EXPECT_EQ(times.written, year_2001 + 4);
    EXPECT_EQ(TypeParam::set_times(file, {UINT64_MAX, 0, 0}), error::invalid_parameter);
    TypeParam::close(file);
}

TYPED_TEST(Files, CopyTakesContentAndWriteTime) {
    const TemporaryDirectory& directory = this->directory_;
    const std::string from = directory.file("from", std::string(3'000'000, 'f'));
    const std::string to = directory.file("to", "previous");
    void* file = this->open(from, FileOpen::open_write);
    EXPECT_EQ(TypeParam::set_times(file, {0, 0, 126'227'808'000'000'000}), error::none);
    TypeParam::close(file);

    void* reader = this->open(to, FileOpen::open_read);
    EXPECT_EQ(TypeParam::copy(from.c_str(), to.c_str()), error::none);
    EXPECT_EQ(this->read(reader), "previous") << "who has the old file open keeps it whole";
    TypeParam::close(reader);
    EXPECT_EQ(content_of(to), content_of(from));
    reader = this->open(to, FileOpen::open_read);
    FileTimes times{};
    EXPECT_EQ(TypeParam::times(reader, times), error::none);
    EXPECT_EQ(times.written, 126'227'808'000'000'000u);
    TypeParam::close(reader);

    EXPECT_EQ(TypeParam::copy(directory.path("absent").c_str(), to.c_str()), error::file_not_found);
    EXPECT_EQ(TypeParam::copy(directory.path().c_str(), to.c_str()), error::access_denied);
    EXPECT_EQ(TypeParam::copy(from.c_str(), directory.path().c_str()), error::access_denied);
    EXPECT_EQ(TypeParam::copy(from.c_str(), directory.path("absent/to").c_str()), error::path_not_found);
    EXPECT_EQ(TypeParam::copy("/proc/self/mem", to.c_str()), error::io_device) << "it opens, but reading it fails";
    EXPECT_EQ(content_of(to), content_of(from));
    const fs::directory_iterator entries(directory.path());
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 2) << "a temporary file was left behind";
}

TYPED_TEST(Files, CopyIsNeverSeenHalf) {
    const std::string to = this->directory_.file("to", std::string(400'000, 'a'));
    const std::string sources[] = {this->directory_.file("a", std::string(400'000, 'a')),
                                   this->directory_.file("b", std::string(500'000, 'b'))};
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int round = 0; round < 40; ++round) TypeParam::copy(sources[round % 2].c_str(), to.c_str());
        done = true;
    });
    int looks = 0;
    while (!done || looks == 0) {
        const std::string seen = content_of(to);
        ASSERT_FALSE(seen.empty());
        ASSERT_EQ(seen.size(), seen[0] == 'a' ? 400'000u : 500'000u);
        ASSERT_EQ(seen.find_first_not_of(seen[0]), std::string::npos);
        ++looks;
    }
    writer.join();
}

TYPED_TEST(Files, MoveReplacesAndSaysWhatIsMissing) {
    const TemporaryDirectory& directory = this->directory_;
    const std::string from = directory.file("from", "new");
    const std::string to = directory.file("to", "old");
    EXPECT_EQ(TypeParam::move(from.c_str(), directory.path("absent/to").c_str()), error::path_not_found);
    EXPECT_EQ(TypeParam::move(from.c_str(), to.c_str()), error::none);
    EXPECT_EQ(content_of(to), "new");
    EXPECT_EQ(TypeParam::move(from.c_str(), to.c_str()), error::file_not_found);
    EXPECT_EQ(TypeParam::remove(from.c_str()), error::file_not_found);
    EXPECT_EQ(TypeParam::remove(directory.path().c_str()), error::access_denied);
    EXPECT_EQ(TypeParam::remove(to.c_str()), error::none);
}

TYPED_TEST(Files, MoveAcrossDevicesKeepsTheTimes) {
    const fs::path memory = "/dev/shm";
    if (!fs::is_directory(memory)) GTEST_SKIP() << "needs a second file system, looked for " << memory;
    const TemporaryDirectory other(memory);
    const std::string from = this->directory_.file("from", std::string(2'000'000, 'm'));
    const std::string to = other.file("to", "old");
    const FileTimes wanted{126'227'808'000'000'001, 126'227'808'000'000'002, 126'227'808'000'000'003};
    void* file = this->open(from, FileOpen::open_write);
    EXPECT_EQ(TypeParam::set_times(file, wanted), error::none);
    TypeParam::close(file);
    EXPECT_EQ(TypeParam::set_read_only(from.c_str(), true), error::none);

    EXPECT_EQ(TypeParam::move(from.c_str(), to.c_str()), error::none);
    EXPECT_FALSE(fs::exists(from));
    EXPECT_EQ(content_of(to), std::string(2'000'000, 'm'));
    file = this->open(to, FileOpen::open_read);
    FileTimes times{};
    EXPECT_EQ(TypeParam::times(file, times), error::none);
    EXPECT_EQ(times.created, wanted.created);
    EXPECT_EQ(times.written, wanted.written);
    TypeParam::close(file);
    EXPECT_EQ(TypeParam::move(to.c_str(), this->directory_.path("absent/to").c_str()), error::path_not_found);
    EXPECT_EQ(content_of(to), std::string(2'000'000, 'm'));
}

TYPED_TEST(Files, ReadOnlyFilesAndAccess) {
    const std::string path = this->directory_.path("file");
    void* file = this->open(path, FileOpen::create_new, {.read_only = true});
    this->write(file, "written by its creator");
    TypeParam::close(file);
    FileInfo info{};
    EXPECT_EQ(TypeParam::info(path.c_str(), info), error::none);
    EXPECT_TRUE(info.read_only && info.regular && !info.directory);
    EXPECT_EQ(info.size, 22u);
    EXPECT_EQ(TypeParam::set_read_only(path.c_str(), false), error::none);
    EXPECT_EQ(TypeParam::info(path.c_str(), info), error::none);
    EXPECT_FALSE(info.read_only);
    for (int mode : {0, 2, 4, 6}) EXPECT_EQ(TypeParam::access(path.c_str(), mode), error::none);
    EXPECT_EQ(TypeParam::access(path.c_str(), 1), error::invalid_parameter);
    EXPECT_EQ(TypeParam::access(this->directory_.path("absent").c_str(), 0), error::file_not_found);
    EXPECT_EQ(TypeParam::info(this->directory_.path().c_str(), info), error::none);
    EXPECT_TRUE(info.directory && !info.regular);
}

TYPED_TEST(Files, DeleteOnCloseFollowsTheFileNotTheName) {
    const std::string path = this->directory_.path("file");
    void* file = this->open(path, FileOpen::create_new, {.delete_on_close = true});
    const std::string moved = this->directory_.path("moved");
    ASSERT_EQ(TypeParam::move(path.c_str(), moved.c_str()), error::none);
    this->directory_.file("file", "another one");
    TypeParam::close(file);
    EXPECT_FALSE(fs::exists(moved));
    EXPECT_EQ(content_of(path), "another one");

    file = this->open(path, FileOpen::open_write, {.delete_on_close = true});
    ASSERT_EQ(TypeParam::remove(path.c_str()), error::none);
    this->directory_.file("file (deleted)", "as the system calls a file without a name");
    TypeParam::close(file);
    EXPECT_TRUE(fs::exists(this->directory_.path("file (deleted)")));
}

} // namespace
} // namespace vel::os
