// Contract of the completion port: transfers of files, and bare overlapped records.
#include <vel/testing/completion_port_fixture.h>

#include <vel/os/event.h>
#include <vel/os/file.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os::testing {
namespace {

using vel::testing::TemporaryDirectory;

TYPED_TEST_SUITE(CompletionPort, CompletionPortBackEnds);

uint32_t read(void* file, Request& request, uint32_t offset) {
    request.Offset = offset;
    return start_read_file(file, request, request.data.data(), request.data.size());
}

TYPED_TEST(CompletionPort, FilesAreReadAndWrittenAtTheirOffsets) {
    const TemporaryDirectory directory;
    void* file = nullptr;
    ASSERT_EQ(open_file(directory.file("data", "0123456789").c_str(), FileOpen::open_write, file), 0u);
    ASSERT_EQ(TypeParam::associate(this->port_, file, 3), 0u);
    Request inner(4), across(4), beyond(4), far(4);
    ASSERT_EQ(read(file, inner, 2), 0u);
    ASSERT_EQ(read(file, across, 8), 0u);
    ASSERT_EQ(read(file, beyond, 10), 0u);
    EXPECT_EQ(this->expect(inner, 4), 3u);
    EXPECT_EQ(inner.data, "2345");
    this->expect(across, 2);
    this->expect(beyond, 0, error::end_of_file);
    far.Offset = 1;
    far.OffsetHigh = 1;
    ASSERT_EQ(start_write_file(file, far, "far!", 4), 0u);
    this->expect(far, 4);
    uint64_t size = 0;
    ASSERT_EQ(file_size(file, size), 0u);
    EXPECT_EQ(size, (uint64_t{1} << 32) + 5);
    close_handle(file);
    EXPECT_EQ(read(file, inner, 0), error::not_a_socket); // neither file nor socket
}

TYPED_TEST(CompletionPort, BareRecordsGoThroughThePortOfTheirHandle) {
    void* event = nullptr;
    ASSERT_EQ(create_event(true, false, event), 0u);
    const TemporaryDirectory directory;
    void* file = nullptr;
    ASSERT_EQ(open_file(directory.file("data", "0123456789").c_str(), FileOpen::open_write, file), 0u);
    ASSERT_EQ(TypeParam::associate(this->port_, file, 3), 0u);
    OVERLAPPED record{0, 0, 4, 0, event};
    std::string text(3, ' ');
    uint64_t moved = 99;
    EXPECT_EQ(overlapped_receive(reinterpret_cast<uint64_t>(file), text.data(), 3, record, moved), error::io_pending);
    EXPECT_EQ(this->expect(record, 3), 3u);
    EXPECT_EQ(record.InternalHigh, 3u);
    EXPECT_EQ(text, "456");
    EXPECT_EQ(wait_handle(event, patience_ms), 0u);

    const Pair pair = this->connected(4);
    OVERLAPPED input{}, output{};
    EXPECT_EQ(overlapped_receive(pair.server, text.data(), 3, input, moved), error::io_pending);
    EXPECT_EQ(overlapped_send(pair.server, "abc", 3, output, moved), error::io_pending);
    this->expect(output, 3);
    close_socket(pair.server);
    this->expect(input, 0, error::operation_cancelled);
    EXPECT_EQ(input.Internal, error::operation_cancelled);
    close_handle(file);
    close_handle(event);
}

} // namespace
} // namespace vel::os::testing
