// Echo server: VEL's proactor. Each connection keeps one read and one write record and uses them again.
#include "support.h"

#include <vel/vel.h>

namespace {

class Session : public VEL_Async_SOCK_Stream {
public:
    int start() {
        VEL_Byte_Block block(bench::buffer_size, nullptr);
        return recv(block, bench::buffer_size);
    }

    int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override {
        read_ = static_cast<VEL_Async_SOCK_Read_Stream*>(op);
        const size_t got = op->bytes_transferred();
        if (error != 0 || got == 0) return finish();
        if (write_) return send(write_, got);
        return send(op->read_block(), got);
    }

    int handle_output(VEL_Async_Write_Operation* op, uint32_t error) override {
        write_ = static_cast<VEL_Async_SOCK_Write_Stream*>(op);
        if (error != 0) return finish();
        return recv(read_, bench::buffer_size);
    }

private:
    int finish() {
        delete std::exchange(read_, nullptr);
        delete std::exchange(write_, nullptr);
        return -1;
    }

    VEL_Async_SOCK_Read_Stream* read_ = nullptr;
    VEL_Async_SOCK_Write_Stream* write_ = nullptr; // shares the block of read_
};

class Listener : public VEL_Async_Acceptor {
public:
    int handle_accept(VEL_Async_Accept_Operation* op, uint32_t error) override {
        auto* record = static_cast<VEL_Async_SOCK_Accept*>(op);
        if (error == 0) {
            auto* session = new Session;
            if (accept_socket(*record, *session) == 0) session->start();
            session->release();
        }
        return accept(record);
    }
};

} // namespace

int main(int argc, char** argv) {
    if (VELLib::initialize() != 0) bench::fail("initialize");
    VEL_Proactor proactor;
    auto* listener = new Listener;
    if (proactor.open(static_cast<uint32_t>(bench::thread_count(argc, argv))) != 0 ||
        listener->open(&proactor, 0, "127.0.0.1") != 0 || listener->accept() != 0)
        bench::fail("open");
    const int socket = static_cast<int>(reinterpret_cast<uintptr_t>(listener->get_handle()));
    bench::send_at_once(socket);
    bench::announce(bench::port_of(socket));
    bench::wait_for_end();
    std::_Exit(0);
}
