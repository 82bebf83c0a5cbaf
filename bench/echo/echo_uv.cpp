// Echo server: libuv, one loop (the library runs a loop on one thread).
#include "support.h"

#include <thread>
#include <uv.h>

namespace {

struct Connection {
    uv_tcp_t socket;
    uv_write_t write;
    char buffer[bench::buffer_size];
};

void start_read(Connection* connection);

void lend_buffer(uv_handle_t* handle, size_t, uv_buf_t* buffer) {
    auto* connection = static_cast<Connection*>(handle->data);
    *buffer = uv_buf_init(connection->buffer, sizeof connection->buffer);
}

void drop(Connection* connection) {
    uv_close(reinterpret_cast<uv_handle_t*>(&connection->socket),
             [](uv_handle_t* handle) { delete static_cast<Connection*>(handle->data); });
}

void on_written(uv_write_t* write, int status) {
    auto* connection = static_cast<Connection*>(write->data);
    if (status < 0) return drop(connection);
    start_read(connection);
}

void on_read(uv_stream_t* stream, ssize_t got, const uv_buf_t*) {
    auto* connection = static_cast<Connection*>(stream->data);
    if (got == 0) return;
    if (got < 0) return drop(connection);
    uv_buf_t rest = uv_buf_init(connection->buffer, static_cast<unsigned>(got));
    const int put = uv_try_write(stream, &rest, 1);
    if (put == got) return;
    if (put > 0) rest = uv_buf_init(rest.base + put, rest.len - static_cast<unsigned>(put));
    uv_read_stop(stream); // the buffer is busy until the rest is out
    uv_write(&connection->write, stream, &rest, 1, on_written);
}

void start_read(Connection* connection) {
    uv_read_start(reinterpret_cast<uv_stream_t*>(&connection->socket), lend_buffer, on_read);
}

void on_connection(uv_stream_t* listener, int status) {
    if (status < 0) return;
    auto* connection = new Connection;
    uv_tcp_init(listener->loop, &connection->socket);
    connection->socket.data = connection;
    connection->write.data = connection;
    if (uv_accept(listener, reinterpret_cast<uv_stream_t*>(&connection->socket)) != 0) return drop(connection);
    start_read(connection);
}

} // namespace

int main() {
    uv_loop_t* loop = uv_default_loop();
    uv_tcp_t listener;
    uv_tcp_init(loop, &listener);
    const int socket = bench::listen_on_loopback(true);
    uv_tcp_open(&listener, socket);
    if (uv_listen(reinterpret_cast<uv_stream_t*>(&listener), 4096, on_connection) != 0) bench::fail("uv_listen");
    bench::announce(bench::port_of(socket));
    std::thread([] {
        bench::wait_for_end();
        std::_Exit(0);
    }).detach();
    uv_run(loop, UV_RUN_DEFAULT);
}
