// Echo server: every connection gets back what it sends. Usage: echo [PORT]; ends with its standard input.
#include <cstdio>
#include <cstdlib>
#include <vel/library.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_acceptor.h>
#include <vel/proactor/async_sock_stream.h>
#include <vel/proactor/proactor.h>

class Echo : public VEL_Async_SOCK_Stream {
public:
    int start() {
        VEL_Byte_Block block;
        return recv(block, 4096);
    }

    int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override {
        size_t bytes = op->bytes_transferred(); // 0: the peer has closed
        int result = error != 0 || bytes == 0 ? -1 : send(op->read_block(), bytes);
        delete op;
        return result; // a negative result closes the connection
    }

    int handle_output(VEL_Async_Write_Operation* op, uint32_t error) override {
        VEL_Byte_Block block = op->write_block();
        delete op;
        return error != 0 ? -1 : recv(block, 4096);
    }
};

class Echo_Acceptor : public VEL_Async_Acceptor {
public:
    int handle_accept(VEL_Async_Accept_Operation* op, uint32_t error) override {
        Echo* connection = new Echo;
        if (error == 0 && accept_socket(static_cast<VEL_Async_SOCK_Accept&>(*op), *connection) == 0)
            connection->start();
        connection->release(); // what is pending keeps it
        delete op;
        return accept(); // the next one; -1 once the listener is closed
    }
};

int serve(uint16_t port) {
    VEL_Proactor proactor;
    Echo_Acceptor* acceptor = new Echo_Acceptor;
    bool listening = proactor.open(2) == 0 && acceptor->open(&proactor, port, 0) == 0 && acceptor->accept() == 0;
    if (listening) {
        VEL_INET_Addr address;
        VELLib::getsockname(reinterpret_cast<uint64_t>(acceptor->get_handle()), address);
        std::printf("listening on port %u\n", address.getport());
        std::fflush(stdout);
        while (std::getchar() != EOF) {
        }
    } else {
        std::fprintf(stderr, "echo: error %u\n", VELLib::GetErrorCode());
    }
    proactor.close(); // closes every connection; no callback runs after it
    acceptor->release();
    return listening ? 0 : 1;
}

int main(int argc, char** argv) {
    if (VELLib::initialize() < 0) return 1;
    int result = serve(static_cast<uint16_t>(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 7007));
    VELLib::uninitialize();
    return result;
}
