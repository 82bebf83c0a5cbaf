// Echo server: VEL's reactor with its stream class. What arrives goes back in a block of its own.
#include "support.h"

#include <thread>
#include <vel/vel.h>

namespace {

class Session : public VEL_SOCK_Stream {
public:
    int handle_read_stream(const void* data, uint64_t size, uint32_t error) override {
        if (error != 0) return -1;
        return send(VEL_Byte_Block(size, data)) < 0 ? -1 : 0;
    }
};

class Listener : public VEL_Acceptor {
public:
    int handle_accept(void*, VEL_Reactor* loop, uint32_t error) override {
        auto* session = new Session;
        if (error == 0 && accept(*session) == 0) {
            session->reactor(loop);
            if (session->select_event(VEL_INPUT_EVENT | VEL_OUTPUT_EVENT) < 0) session->close(true);
        }
        session->release();
        return 0;
    }
};

} // namespace

int main(int argc, char** argv) {
    if (VELLib::initialize() != 0) bench::fail("initialize");
    VEL_Reactor reactor;
    auto* listener = new Listener;
    if (listener->open(&reactor, 0, "127.0.0.1", 0, 0) != 0) bench::fail("open");
    const int socket = static_cast<int>(listener->get_handle());
    bench::send_at_once(socket);
    for (int i = 0; i < bench::thread_count(argc, argv); ++i)
        std::thread([&reactor] {
            while (reactor.handle_event(VEL_INFINITE) >= 0) {
            }
        }).detach();
    bench::announce(bench::port_of(socket));
    bench::wait_for_end();
    std::_Exit(0);
}
