// What starting an operation checks, and how records are aimed anew.
#include <vel/testing/proactor_fixture.h>

#include <vel/platform/files.h>
#include <vel/proactor/async_file_io.h>
#include <vel/testing/temporary_directory.h>

namespace vel::test {
namespace {

using AsyncOperation = ProactorTest;

TEST_F(AsyncOperation, StartChecksHandlerThenKeyThenBlock) {
    Ref<SocketHandler> handler(new SocketHandler);
    ASSERT_EQ(proactor->register_handle(1, handler->handle, handler.get()), 0);
    const struct {
        VEL_Proactor* proactor;
        uint32_t key;
        VEL_Async_Handler* handler;
        uint32_t code;
    } cases[] = {{proactor.get(), 0, nullptr, error::null_member},
                 {nullptr, 0, handler.get(), error::null_member},
                 {proactor.get(), 0, handler.get(), error::no_completion_key},
                 {proactor.get(), 1, handler.get(), error::invalid_parameter}};
    for (const auto& c : cases) {
        VEL_Byte_Block block;
        auto aimed = [&](auto&& op) -> auto& { return op.set(c.proactor, c.key, handler->handle, c.handler), op; };
        expect_failure(c.code, aimed(VEL_Async_SOCK_Write_Stream()).write(block, 1, 0));
        expect_failure(c.code, aimed(VEL_Async_SOCK_Write_Dgram()).write(block, 1, 0));
        expect_failure(c.code, aimed(VEL_Async_Write_File()).write(block, 1, 0));
        if (c.key != 0) continue;
        expect_failure(c.code, aimed(VEL_Async_SOCK_Read_Stream()).read(block, 1, 0));
        expect_failure(c.code, aimed(VEL_Async_SOCK_Read_Dgram()).read(block, 1, 0));
        expect_failure(c.code, aimed(VEL_Async_Read_File()).read(block, 1, 0));
        expect_failure(c.code, aimed(VEL_Async_SOCK_Accept()).accept(VEL_INVALID_HANDLE));
        expect_failure(c.code, aimed(VEL_Async_SOCK_Connect()).connect(VEL_INET_Addr(1, 0)));
    }
    expect_failure(error::insufficient_buffer, proactor->sendSockStream(1, VEL_Byte_Block(10, nullptr), 11));
    EXPECT_EQ(handler->references(), 2) << "the failed operations have given their references back";
}

TEST_F(AsyncOperation, RecordsAreAimedAnew) {
    Ref<SocketHandler> first(new SocketHandler), second(new SocketHandler);
    ASSERT_EQ(proactor->register_handle(2, second->handle, second.get()), 0);
    {
        VEL_Async_SOCK_Read_Stream op(proactor.get(), 1, VEL_INVALID_HANDLE, first.get());
        op.set(proactor.get(), 1, VEL_INVALID_HANDLE, first.get());
        EXPECT_EQ(first->references(), 3) << "set once more to the same handler, it keeps one too many";
        first->release();
        expect_failure(error::invalid_parameter, op.open(nullptr, 1));
        expect_failure(error::no_completion_key, op.open(proactor.get(), 0));
        expect_failure(error::not_found, op.open(proactor.get(), 77));
        EXPECT_EQ(op.get_handler(), first.get());
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
    acceptor->on_accept = [&](VEL_Async_Accept_Operation*& op, uint32_t) {
        kept = static_cast<VEL_Async_SOCK_Accept*>(std::exchange(op, nullptr));
        accepted.add();
        return 0;
    };
    ASSERT_EQ(acceptor->accept(), 0);
    const uint64_t sockets[] = {VELLib::socket(2, 1, 0), VELLib::socket(2, 1, 0)};
    ASSERT_EQ(VELLib::connect(sockets[0], address_of(*acceptor)), 0);
    ASSERT_TRUE(accepted.reaches(1));
    ASSERT_EQ(acceptor->accept(kept), 0); // the first connection was not taken out
    char byte = 0;
    bool closed = false;
    EXPECT_EQ(VELLib::recv(sockets[0], &byte, 1, closed, 10000), 0);
    EXPECT_TRUE(closed);
    ASSERT_EQ(VELLib::connect(sockets[1], address_of(*acceptor)), 0);
    ASSERT_TRUE(accepted.reaches(2));
    VEL_INET_Addr peer, local;
    const uint64_t taken = reinterpret_cast<uint64_t>(kept->accept_handle(peer));
    EXPECT_EQ(VELLib::getsockname(sockets[1], local), 0);
    EXPECT_EQ(peer, local);
    Ref<Stream> stream(new Stream);
    expect_failure(error::not_a_socket, acceptor->accept_socket(*kept, *stream)); // taken already
    delete kept;
    for (uint64_t socket : {sockets[0], sockets[1], taken}) VELLib::closesocket(socket);
}

TEST_F(AsyncOperation, FilesAreReadAndWrittenAtAPosition) {
    const vel::testing::TemporaryDirectory directory;
    void* file = VELLib::create(directory.path("file").c_str(), true, 0);
    Ref<Handler> handler(new Handler);
    Tally done;
    handler->on_output = [&](VEL_Async_Write_Operation*& op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(op->bytes_transferred(), 5u);
        VEL_Byte_Block block;
        auto* read = new VEL_Async_Read_File(proactor.get(), 1, file, handler.get());
        return read->read(block, 50, op->file_offset() + 2);
    };
    handler->on_input = [&](VEL_Async_Read_Operation*& op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(op->file_offset(), 102u);
        EXPECT_EQ(text_of(*op), "llo");
        done.add();
        return 0;
    };
    ASSERT_EQ(proactor->register_handle(1, file, handler.get()), 0);
    auto* write = new VEL_Async_Write_File(proactor.get(), 1, file, handler.get());
    ASSERT_EQ(write->write(VEL_Byte_Block(5, "hello"), 5, 100), 0);
    EXPECT_TRUE(done.reaches(1));
    proactor->close();
    VELLib::close(file);
}

} // namespace
} // namespace vel::test
