// Contract of the completion port: transfers of files, and bare overlapped records.
#include <vel/testing/completion_port_fixture.h>

#include <array>
#include <memory>
#include <vel/os/event.h>
#include <vel/os/file.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os::testing {
namespace {

using vel::testing::content_of;
using vel::testing::TemporaryDirectory;

template <class Back>
class CompletionPortFiles : public CompletionPort<Back> {
protected:
    void TearDown() override {
        for (void* handle : handles_) close_handle(handle);
        CompletionPort<Back>::TearDown();
    }

    void* open(const std::string& path, FileOpen how) {
        void* file = nullptr;
        EXPECT_EQ(open_file(path.c_str(), how, file), 0u);
        handles_.push_back(file);
        return file;
    }

    void* open_associated(const std::string& path, FileOpen how, uint32_t key) {
        void* file = open(path, how);
        EXPECT_EQ(Back::associate(this->port_, file, key), 0u);
        return file;
    }

    static void at(IoRequest& request, uint64_t offset) {
        request.Offset = static_cast<uint32_t>(offset);
        request.OffsetHigh = static_cast<uint32_t>(offset >> 32);
    }

    uint32_t read(void* file, Request& request, uint64_t offset) {
        at(request, offset);
        return start_read_file(file, request, request.data.data(), request.data.size());
    }

    uint32_t write(void* file, Request& request, uint64_t offset) {
        at(request, offset);
        return start_write_file(file, request, request.data.data(), request.data.size());
    }

    TemporaryDirectory directory_;

private:
    std::vector<void*> handles_;
};

TYPED_TEST_SUITE(CompletionPortFiles, CompletionPortBackEnds);

TYPED_TEST(CompletionPortFiles, ReadsAndWritesAtTheirOffsets) {
    const std::string path = this->directory_.file("data", "0123456789");
    void* file = this->open_associated(path, FileOpen::open_write, 3);
    Request inner(4), across(4), beyond(4), none(0), far(4);
    ASSERT_EQ(this->read(file, inner, 2), 0u);
    Completion completion = this->take();
    EXPECT_EQ(completion.record, &inner);
    EXPECT_EQ(completion.key, 3u);
    EXPECT_EQ(inner.data, "2345");
    ASSERT_EQ(this->read(file, across, 8), 0u);
    completion = this->take();
    EXPECT_EQ(completion.bytes, 2u);
    EXPECT_EQ(completion.error, 0u);
    ASSERT_EQ(this->read(file, beyond, 10), 0u);
    completion = this->take();
    EXPECT_EQ(completion.bytes, 0u);
    EXPECT_EQ(completion.error, error::end_of_file);
    ASSERT_EQ(this->read(file, none, 0), 0u);
    EXPECT_EQ(this->take().error, 0u);
    far.data = "far!";
    ASSERT_EQ(this->write(file, far, (uint64_t{1} << 32) + 1), 0u);
    EXPECT_EQ(this->take().bytes, 4u);
    uint64_t size = 0;
    ASSERT_EQ(file_size(file, size), 0u);
    EXPECT_EQ(size, (uint64_t{1} << 32) + 5);
}

TYPED_TEST(CompletionPortFiles, TransfersOfOneDirectionCompleteInOrder) {
    constexpr size_t count = 500;
    std::array<void*, 3> files;
    std::vector<std::unique_ptr<Request>> requests;
    for (size_t i = 0; i < files.size(); ++i)
        files[i] = this->open_associated(this->directory_.path(std::to_string(i)), FileOpen::create_new,
                                         static_cast<uint32_t>(i));
    for (size_t i = 0; i < count; ++i) {
        requests.push_back(std::make_unique<Request>(2));
        requests.back()->data = std::to_string(10 + i % 90);
        ASSERT_EQ(this->write(files[i % 3], *requests.back(), i / 3 * 2), 0u);
    }
    std::array<size_t, 3> next{0, 1, 2};
    for (size_t i = 0; i < count; ++i) {
        const Completion completion = this->take();
        ASSERT_EQ(completion.error, 0u);
        EXPECT_EQ(completion.record, requests[next[completion.key]].get());
        next[completion.key] += 3;
    }
    EXPECT_EQ(content_of(this->directory_.path("1")).substr(0, 6), "111417");
}

TYPED_TEST(CompletionPortFiles, ErrorsAndEnds) {
    const std::string path = this->directory_.file("data", "text");
    void* file = this->open(path, FileOpen::open_read);
    Request request(4);
    EXPECT_EQ(this->read(file, request, 0), error::invalid_parameter);
    EXPECT_EQ(start_receive(reinterpret_cast<uint64_t>(file), request, nullptr, 0), error::not_a_socket);
    ASSERT_EQ(TypeParam::associate(this->port_, file, 1), 0u);
    ASSERT_EQ(this->write(file, request, 0), 0u);
    EXPECT_NE(this->take().error, 0u); // opened for reading only
    close_handle(file);
    EXPECT_EQ(this->read(file, request, 0), error::not_a_socket); // neither file nor socket
}

TYPED_TEST(CompletionPortFiles, ClosingRacesWithTransfers) {
    const std::string path = this->directory_.file("data", std::string(1 << 16, 'x'));
    for (int round = 0; round < 1000; ++round) {
        void* file = nullptr;
        ASSERT_EQ(open_file(path.c_str(), FileOpen::open_read, file), 0u);
        ASSERT_EQ(TypeParam::associate(this->port_, file, 1), 0u);
        std::array<Request, 8> reads;
        for (Request& each : reads) each.data.resize(1 << 14);
        std::thread closer([&] { close_handle(file); });
        int started = 0;
        for (Request& each : reads) started += this->read(file, each, 0) == 0;
        closer.join();
        int cancelled = 0;
        for (int i = 0; i < started; ++i) {
            const Completion completion = this->take();
            cancelled += completion.error == error::operation_cancelled;
            EXPECT_EQ(completion.bytes, completion.error ? 0u : 1u << 14);
            EXPECT_TRUE(cancelled == 0 || completion.error) << "one that was under way came after a cancelled one";
        }
        this->expect_empty();
    }
}

TYPED_TEST(CompletionPortFiles, ClosingThePortWithTransfersUnderWay) {
    const std::string path = this->directory_.file("data", std::string(1 << 16, 'x'));
    for (int round = 0; round < 200; ++round) {
        void* file = this->open_associated(path, FileOpen::open_read, 1);
        std::array<Request, 4> reads;
        for (Request& each : reads) ASSERT_EQ(this->read(file, each, 0), 0u);
        ASSERT_EQ(TypeParam::close(this->port_), 0u);
        ASSERT_EQ(TypeParam::create(1, this->port_), 0u);
        ASSERT_EQ(TypeParam::associate(this->port_, file, 2), 0u);
        ASSERT_EQ(this->read(file, reads[0], 0), 0u);
        EXPECT_EQ(this->take().key, 2u);
        close_handle(file);
    }
}

TYPED_TEST(CompletionPortFiles, BareRecordsGoThroughThePortOfTheirHandle) {
    void* event = nullptr;
    ASSERT_EQ(create_event(true, false, event), 0u);
    const std::string path = this->directory_.file("data", "0123456789");
    void* file = this->open_associated(path, FileOpen::open_write, 3);
    OVERLAPPED record{0, 0, 4, 0, event};
    std::string text(3, ' ');
    uint64_t moved = 99;
    EXPECT_EQ(overlapped_receive(reinterpret_cast<uint64_t>(file), text.data(), 3, record, moved), error::io_pending);
    const Completion completion = this->take();
    EXPECT_EQ(completion.record, &record);
    EXPECT_EQ(completion.key, 3u);
    EXPECT_EQ(record.InternalHigh, 3u);
    EXPECT_EQ(text, "456");
    EXPECT_EQ(wait_handle(event, patience_ms), 0u);

    const Pair pair = this->connected(4);
    OVERLAPPED input{}, output{}, pending{};
    EXPECT_EQ(overlapped_receive(pair.server, text.data(), 3, input, moved), error::io_pending);
    EXPECT_EQ(overlapped_send(pair.server, "abc", 3, output, moved), error::io_pending);
    EXPECT_EQ(this->take().record, &output);
    EXPECT_EQ(overlapped_receive(pair.server, text.data(), 3, pending, moved), error::io_pending);
    close_socket(pair.server);
    for (OVERLAPPED* each : {&input, &pending}) {
        EXPECT_EQ(this->take().record, each);
        EXPECT_EQ(each->Internal, error::operation_cancelled);
    }
    close_handle(event);
}

TYPED_TEST(CompletionPortFiles, BareRecordsWithoutAPortAreDoneAtOnce) {
    void* event = nullptr;
    ASSERT_EQ(create_event(true, false, event), 0u);
    void* file = this->open(this->directory_.file("data", "0123456789"), FileOpen::open_write);
    const auto handle = reinterpret_cast<uint64_t>(file);
    OVERLAPPED record{0, 0, 8, 0, event};
    std::string text(3, ' ');
    uint64_t moved = 0;
    EXPECT_EQ(overlapped_receive(handle, text.data(), 3, record, moved), 0u);
    EXPECT_EQ(moved, 2u);
    EXPECT_EQ(text, "89 ");
    EXPECT_EQ(wait_handle(event, 0), 0u);
    record.Offset = 10;
    EXPECT_EQ(overlapped_receive(handle, text.data(), 3, record, moved), error::end_of_file);
    EXPECT_EQ(overlapped_send(handle, "A", 1, record, moved), 0u);
    EXPECT_EQ(content_of(this->directory_.path("data")), "0123456789A");

    Address one, two, sender;
    const uint64_t from = this->keep(open_bound(datagram, one));
    const uint64_t to = this->keep(open_bound(datagram, two));
    int32_t length = sizeof sender;
    EXPECT_EQ(overlapped_send_to(from, "dgram", 5, &two, sizeof two, record, moved), 0u);
    EXPECT_EQ(overlapped_receive_from(to, text.data(), 3, &sender, &length, record, moved), error::message_too_long);
    EXPECT_EQ(record.Internal, error::message_too_long);
    EXPECT_EQ(sender.port, one.port);
    EXPECT_EQ(overlapped_send_to(handle, "x", 1, &two, sizeof two, record, moved), error::not_a_socket);
    EXPECT_EQ(overlapped_receive(reinterpret_cast<uint64_t>(event), text.data(), 1, record, moved),
              error::invalid_handle);
    close_handle(event);
}

} // namespace
} // namespace vel::os::testing
