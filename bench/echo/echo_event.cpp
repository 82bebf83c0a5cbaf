// Echo server: libevent's buffer events, one loop.
#include "support.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <thread>

namespace {

void on_read(bufferevent* connection, void*) {
    bufferevent_write_buffer(connection, bufferevent_get_input(connection));
}

void on_event(bufferevent* connection, short what, void*) {
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) bufferevent_free(connection);
}

void on_connection(evconnlistener* listener, evutil_socket_t socket, sockaddr*, int, void*) {
    event_base* base = evconnlistener_get_base(listener);
    bufferevent* connection = bufferevent_socket_new(base, socket, BEV_OPT_CLOSE_ON_FREE);
    bufferevent_set_max_single_read(connection, bench::buffer_size);
    bufferevent_set_max_single_write(connection, bench::buffer_size);
    bufferevent_setcb(connection, on_read, nullptr, on_event, nullptr);
    bufferevent_enable(connection, EV_READ | EV_WRITE);
}

} // namespace

int main() {
    event_base* base = event_base_new();
    const int socket = bench::listen_on_loopback(true);
    if (!base || !evconnlistener_new(base, on_connection, nullptr, LEV_OPT_CLOSE_ON_FREE, 0, socket))
        bench::fail("evconnlistener_new");
    bench::announce(bench::port_of(socket));
    std::thread([] {
        bench::wait_for_end();
        std::_Exit(0);
    }).detach();
    event_base_dispatch(base);
}
