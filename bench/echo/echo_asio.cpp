// Echo server: Asio, one io_context run by all threads.
#include "support.h"

#include <array>
#include <asio.hpp>
#include <memory>
#include <thread>

namespace {

using asio::ip::tcp;

class Session : public std::enable_shared_from_this<Session> {
public:
    explicit Session(tcp::socket socket) : socket_(std::move(socket)) {}

    void read() {
        socket_.async_read_some(asio::buffer(buffer_), [self = shared_from_this()](asio::error_code error, size_t got) {
            if (!error) self->write(got);
        });
    }

private:
    void write(size_t size) {
        asio::async_write(socket_, asio::buffer(buffer_.data(), size),
                          [self = shared_from_this()](asio::error_code error, size_t) {
                              if (!error) self->read();
                          });
    }

    tcp::socket socket_;
    std::array<char, bench::buffer_size> buffer_;
};

void accept(tcp::acceptor& acceptor) {
    acceptor.async_accept([&acceptor](asio::error_code error, tcp::socket socket) {
        if (!error) std::make_shared<Session>(std::move(socket))->read();
        accept(acceptor);
    });
}

} // namespace

int main(int argc, char** argv) {
    const int threads = bench::thread_count(argc, argv);
    asio::io_context context(threads);
    tcp::acceptor acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    bench::send_at_once(acceptor.native_handle());
    accept(acceptor);
    for (int i = 0; i < threads; ++i) std::thread([&] { context.run(); }).detach();
    bench::announce(acceptor.local_endpoint().port());
    bench::wait_for_end();
    std::_Exit(0);
}
