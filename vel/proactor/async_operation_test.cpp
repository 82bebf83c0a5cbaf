// What starting an operation checks, and how records are aimed anew.
#include <vel/testing/proactor_fixture.h>

#include <vel/platform/files.h>
#include <vel/proactor/async_file_io.h>
#include <vel/reactor/socket.h>
#include <vel/testing/temporary_directory.h>

namespace vel::testing {
namespace {

using AsyncOperation = ProactorTest;

TEST_F(AsyncOperation, RecordsAreAimedAnew) {
    Ref<SocketHandler> first(new SocketHandler), second(new SocketHandler);
    ASSERT_EQ(proactor->register_handle(2, second->handle, second.get()), 0);
    {
        VEL_Async_SOCK_Read_Stream op(proactor.get(), 1, VEL_INVALID_HANDLE, first.get());
        op.set(proactor.get(), 1, VEL_INVALID_HANDLE, first.get());
        EXPECT_EQ(first->references(), 3) << "set once more to the same handler, it keeps one too many";
        first->release();
        expect_failure(error::not_found, op.open(proactor.get(), 77));
        ASSERT_EQ(op.open(proactor.get(), 2), 0);
        EXPECT_EQ(op.get_handler(), second.get());
        EXPECT_EQ(op.get_iohandle(), second->handle);
        EXPECT_EQ(first->references(), 1);
    }
    EXPECT_EQ(second->references(), 2);
}

TEST_F(AsyncOperation, AcceptRecordClosesWhatNobodyTook) {
    Ref<Acceptor> acceptor(new Acceptor);
    ASSERT_EQ(acceptor->open(proactor.get(), 0, loopback), 0);
    Tally accepted;
    VEL_Async_SOCK_Accept* kept = nullptr;
    acceptor->on_accept = [&](auto*& op, uint32_t) {
        kept = static_cast<VEL_Async_SOCK_Accept*>(std::exchange(op, nullptr));
        return accepted.add();
    };
    ASSERT_EQ(acceptor->accept(), 0);
    VEL_Socket first(2, 1, 0), second(2, 1, 0);
    ASSERT_EQ(first.connect(address_of(*acceptor)), 0);
    ASSERT_TRUE(accepted.reaches(1));
    ASSERT_EQ(acceptor->accept(kept), 0); // the first connection was not taken out
    char byte = 0;
    EXPECT_EQ(first.recv(&byte, 1, 10000), 0) << "it has been closed";
    ASSERT_EQ(second.connect(address_of(*acceptor)), 0);
    ASSERT_TRUE(accepted.reaches(2));
    VEL_INET_Addr peer, local;
    VEL_Socket taken;
    taken.attach(reinterpret_cast<uint64_t>(kept->accept_handle(peer)));
    EXPECT_EQ(second.getlocaladdr(local), 0);
    EXPECT_EQ(peer, local);
    Ref<Stream> stream(new Stream);
    expect_failure(error::not_a_socket, acceptor->accept_socket(*kept, *stream)); // taken already
    delete kept;
}

TEST_F(AsyncOperation, FilesAreReadAndWrittenAtAPosition) {
    const TemporaryDirectory directory;
    void* file = VELLib::create(directory.path("file").c_str(), true, 0);
    Ref<Handler> handler(new Handler);
    Tally done;
    handler->on_output = [&](auto*& op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(op->bytes_transferred(), 5u);
        VEL_Byte_Block block;
        auto* read = new VEL_Async_Read_File(proactor.get(), 1, file, handler.get());
        return read->read(block, 50, op->file_offset() + 2);
    };
    handler->on_input = [&](auto*& op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(op->file_offset(), 102u);
        EXPECT_EQ(text_of(*op), "llo");
        return done.add();
    };
    ASSERT_EQ(proactor->register_handle(1, file, handler.get()), 0);
    auto* write = new VEL_Async_Write_File(proactor.get(), 1, file, handler.get());
    ASSERT_EQ(write->write(VEL_Byte_Block(5, "hello"), 5, 100), 0);
    EXPECT_TRUE(done.reaches(1));
    proactor->close();
    VELLib::close(file);
}

} // namespace
} // namespace vel::testing
