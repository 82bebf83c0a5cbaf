// What starting an operation checks, and how records are aimed anew.
#include <vel/testing/proactor_fixture.h>

#include <random>
#include <vel/os/error_codes.h>
#include <vel/platform/files.h>
#include <vel/proactor/async_file_io.h>

namespace vel::test {
namespace {

/// Starts one operation of each kind on the given target and expects the code from all.
void expect_refused(VEL_Proactor* proactor, uint32_t key, VEL_Async_Handler* handler, uint32_t code) {
    VEL_Byte_Block block(10, nullptr);
    auto refused = [&](VEL_Async_Operation& op, auto start) {
        op.set(proactor, key, VEL_INVALID_HANDLE, handler);
        VELLib::SetErrorCode(0);
        EXPECT_EQ(start(), -1) << "kind " << op.operation_code();
        EXPECT_EQ(VELLib::GetErrorCode(), code) << "kind " << op.operation_code();
    };
    VEL_Async_SOCK_Read_Stream read_stream;
    VEL_Async_SOCK_Read_Dgram read_dgram;
    VEL_Async_Read_File read_file;
    for (VEL_Async_Read_Operation* op :
         {static_cast<VEL_Async_Read_Operation*>(&read_stream), static_cast<VEL_Async_Read_Operation*>(&read_dgram),
          static_cast<VEL_Async_Read_Operation*>(&read_file)})
        refused(*op, [&] { return op->read(block, 10, 0); });
    VEL_Async_SOCK_Write_Stream write_stream;
    VEL_Async_SOCK_Write_Dgram write_dgram;
    VEL_Async_Write_File write_file;
    for (VEL_Async_Write_Operation* op :
         {static_cast<VEL_Async_Write_Operation*>(&write_stream), static_cast<VEL_Async_Write_Operation*>(&write_dgram),
          static_cast<VEL_Async_Write_Operation*>(&write_file)})
        refused(*op, [&] { return op->write(VEL_Byte_Block(), 100, 0); });
    VEL_Async_SOCK_Accept accept;
    refused(accept, [&] { return accept.accept(VEL_INVALID_HANDLE); });
    VEL_Async_SOCK_Connect connect;
    refused(connect, [&] { return connect.connect(VEL_INET_Addr(1, 0)); });
}

using AsyncOperation = ProactorTest;

TEST_F(AsyncOperation, StartChecksHandlerThenKey) {
    Ref<Handler> handler(new Handler);
    expect_refused(proactor.get(), 0, nullptr, error::null_member);
    expect_refused(nullptr, 0, handler.get(), error::null_member);
    expect_refused(proactor.get(), 0, handler.get(), error::no_completion_key);
}

TEST_F(AsyncOperation, WritesCheckTheBlock) {
    Pair pair = connect_pair();
    EXPECT_EQ(pair.client->send(VEL_Byte_Block(), 0), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::invalid_parameter);
    EXPECT_EQ(pair.client->send(VEL_Byte_Block(10, nullptr), 11), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::insufficient_buffer);
    EXPECT_EQ(pair.client->addref(), 3) << "the failed operations have given their references back";
    pair.client->release();
}

TEST_F(AsyncOperation, ReadGrowsTheBlockAndSharesIt) {
    Pair pair = connect_pair();
    Tally done;
    VEL_Byte_Block block(10, nullptr);
    pair.server->on_input = [&](VEL_Async_Read_Operation* op, uint32_t) {
        EXPECT_EQ(op->read_block(), block);
        EXPECT_EQ(op->bytes_transferred(), 60u);
        EXPECT_EQ(op->file_offset(), 0u);
        delete op;
        done.add();
        return 0;
    };
    ASSERT_EQ(pair.server->recv(block, 100), 0);
    EXPECT_EQ(block.size(), 100u);
    const std::string text(60, 'x');
    ASSERT_EQ(pair.client->send(VEL_Byte_Block(60, text.data()), 60), 0);
    ASSERT_TRUE(done.reaches(1));
    EXPECT_EQ(std::string(static_cast<char*>(block.c_ptr(0)), 60), text);
}

TEST_F(AsyncOperation, SettingTheSameHandlerKeepsAReference) {
    Ref<Handler> first(new Handler);
    Ref<Handler> second(new Handler);
    {
        VEL_Async_SOCK_Read_Stream op(proactor.get(), 1, VEL_INVALID_HANDLE, first.get());
        op.set(proactor.get(), 1, VEL_INVALID_HANDLE, first.get());
        EXPECT_EQ(first->addref(), 4) << "own, two of the record, this one";
        first->release();
        first->release(); // the one that the record has forgotten
        op.set(proactor.get(), 2, VEL_INVALID_HANDLE, second.get());
        EXPECT_EQ(op.get_handler(), second.get());
        EXPECT_EQ(op.completion_key(), 2u);
    }
    EXPECT_EQ(first->addref(), 2);
    EXPECT_EQ(second->addref(), 2);
    first->release();
    second->release();
}

TEST_F(AsyncOperation, OpensOnARegisteredKey) {
    Pair pair = connect_pair();
    {
        VEL_Async_SOCK_Read_Stream op;
        EXPECT_EQ(op.open(nullptr, 1), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::invalid_parameter);
        EXPECT_EQ(op.open(proactor.get(), 0), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::no_completion_key);
        EXPECT_EQ(op.open(proactor.get(), 0x7777), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::not_found);
        EXPECT_EQ(op.get_handler(), nullptr);
        ASSERT_EQ(op.open(proactor.get(), pair.client->completion_key()), 0);
        ASSERT_EQ(op.open(proactor.get(), pair.server->completion_key()), 0);
        EXPECT_EQ(op.get_handler(), pair.server.get());
        EXPECT_EQ(op.get_iohandle(), pair.server->get_handle());
        EXPECT_EQ(op.get_proactor(), proactor.get());
    }
    EXPECT_EQ(pair.client->addref(), 3);
    EXPECT_EQ(pair.server->addref(), 3);
    pair.client->release();
    pair.server->release();
}

TEST_F(AsyncOperation, AcceptRecordClosesWhatNobodyTook) {
    Ref<Acceptor> acceptor(new Acceptor);
    ASSERT_EQ(acceptor->open(proactor.get(), 0, 0x7F000001u), 0);
    Tally accepted;
    VEL_Async_SOCK_Accept* kept = nullptr;
    acceptor->on_accept = [&](VEL_Async_Accept_Operation* op, uint32_t error) {
        if (error != 0) return delete op, -1;
        kept = static_cast<VEL_Async_SOCK_Accept*>(op);
        accepted.add();
        return 0;
    };
    ASSERT_EQ(acceptor->accept(), 0);
    const VEL_INET_Addr address = address_of(*acceptor);
    auto connect = [&] {
        const uint64_t socket = VELLib::socket(2, 1, 0);
        EXPECT_EQ(VELLib::connect(socket, address), 0);
        return socket;
    };
    const uint64_t first = connect();
    ASSERT_TRUE(accepted.reaches(1));
    ASSERT_EQ(acceptor->accept(kept), 0); // the first connection was not taken out
    char byte = 0;
    bool closed = false;
    EXPECT_EQ(VELLib::recv(first, &byte, 1, closed, 10000), 0);
    EXPECT_TRUE(closed);
    const uint64_t second = connect();
    ASSERT_TRUE(accepted.reaches(2));
    VEL_INET_Addr peer;
    VEL_INET_Addr local;
    void* taken = kept->accept_handle(peer);
    EXPECT_NE(taken, VEL_INVALID_HANDLE);
    EXPECT_EQ(VELLib::getsockname(second, local), 0);
    EXPECT_EQ(peer, local);
    EXPECT_EQ(kept->accept_handle(peer), VEL_INVALID_HANDLE);
    EXPECT_EQ(peer, VEL_INET_Addr());
    Ref<Stream> stream(new Stream);
    EXPECT_EQ(acceptor->accept_socket(*kept, *stream), -1);
    delete kept;
    for (uint64_t socket : {first, second, reinterpret_cast<uint64_t>(taken)}) VELLib::closesocket(socket);
    acceptor->close(true);
}

TEST_F(AsyncOperation, FilesAreReadAndWrittenAtAPosition) {
    const std::string path = ::testing::TempDir() + "vel_async_file_" + std::to_string(std::random_device{}());
    void* file = VELLib::create(path.c_str(), true, 0);
    ASSERT_NE(file, VEL_INVALID_HANDLE);
    Ref<Handler> handler(new Handler);
    Tally reads;
    Tally writes;
    std::string text;
    uint32_t read_error = 0;
    handler->on_output = [&](VEL_Async_Write_Operation* op, uint32_t error) {
        EXPECT_EQ(error, 0u);
        EXPECT_EQ(op->bytes_transferred(), 5u);
        EXPECT_EQ(op->file_offset(), 100u);
        delete op;
        writes.add();
        return 0;
    };
    handler->on_input = [&](VEL_Async_Read_Operation* op, uint32_t error) {
        read_error = error;
        text.assign(static_cast<char*>(op->read_block().c_ptr(0)), op->bytes_transferred());
        delete op;
        reads.add();
        return 0;
    };
    const uint32_t key = proactor->generate_completion_key();
    ASSERT_EQ(proactor->register_handle(key, file, handler.get()), 0);
    auto* write = new VEL_Async_Write_File(proactor.get(), key, file, handler.get());
    ASSERT_EQ(write->write(VEL_Byte_Block(5, "hello"), 5, 100), 0);
    ASSERT_TRUE(writes.reaches(1));
    VEL_Byte_Block block;
    auto* read = new VEL_Async_Read_File(proactor.get(), key, file, handler.get());
    ASSERT_EQ(read->read(block, 50, 102), 0);
    ASSERT_TRUE(reads.reaches(1));
    EXPECT_EQ(text, "llo");
    EXPECT_EQ(read_error, 0u);
    read = new VEL_Async_Read_File(proactor.get(), key, file, handler.get());
    ASSERT_EQ(read->read(block, 50, 105), 0);
    ASSERT_TRUE(reads.reaches(2));
    EXPECT_EQ(text, "");
    EXPECT_EQ(read_error, error::end_of_file);
    EXPECT_EQ(proactor->remove_handle(key, true), 0);
    VELLib::close(file);
    VELLib::deletefile(path.c_str());
}

} // namespace
} // namespace vel::test
