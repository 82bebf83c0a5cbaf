// Echo server: VEL's reactor, one handler a connection; at most 62 of them.
#include "support.h"

#include <thread>
#include <vel/vel.h>

namespace {

class Session : public VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
public:
    VEL_Socket socket;

    int handle_input(void*, VEL_Reactor*, uint32_t error) override {
        const int got = error == 0 ? socket.recv(buffer_, sizeof buffer_) : -1;
        if (got < 0) return error == 0 && VELLib::GetErrorCode() == 10035 ? 0 : -1;
        return socket.send(buffer_, static_cast<uint64_t>(got)) == got ? 0 : -1;
    }

private:
    char buffer_[bench::buffer_size];
};

class Listener : public VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
public:
    VEL_Socket socket;

    int handle_accept(void*, VEL_Reactor* reactor, uint32_t) override {
        auto* session = new Session;
        if (socket.accept(session->socket) == 0 && session->socket.enable_nonblock() == 0)
            session->socket.register_event_select(reactor, session, VEL_INPUT_EVENT);
        session->release();
        return 0;
    }
};

} // namespace

int main(int argc, char** argv) {
    if (VELLib::initialize() != 0) bench::fail("initialize");
    VEL_Reactor reactor;
    auto* listener = new Listener;
    VEL_Socket& door = listener->socket;
    if (door.open(2, 1, 0) != 0 || door.bind(0, "127.0.0.1") != 0 || door.listen() != 0 ||
        door.enable_nonblock() != 0 || door.register_event_select(&reactor, listener, VEL_ACCEPT_EVENT) != 0)
        bench::fail("listen");
    const int socket = static_cast<int>(door.get_socket());
    bench::send_at_once(socket);
    for (int i = 0; i < bench::thread_count(argc, argv); ++i)
        std::thread([&] {
            while (reactor.handle_event(VEL_INFINITE) >= 0) {
            }
        }).detach();
    bench::announce(bench::port_of(socket));
    bench::wait_for_end();
    std::_Exit(0);
}
