// What a socket class keeps about its reactor.
#include <vel/reactor/reactor_link.h>

#include <utility>
#include <vel/os/error_codes.h>
#include <vel/platform/report.h>
#include <vel/reactor/reactor.h>

namespace vel {
namespace {

int set_timer(VEL_Reactor* reactor, VEL_Event_Handler* handler, uint32_t timeout_ms, int32_t& timer_id) {
    if (!reactor) return report(error::null_member);
    if (timer_id != 0) return reactor->reschedule_timer(timer_id, timeout_ms);
    const int32_t id = reactor->schedule_timer(handler, timeout_ms);
    if (id < 0) return -1;
    timer_id = id;
    return 0;
}

/// The id is forgotten first: `handle_close` may ask for it.
void end_timer(VEL_Reactor* reactor, int32_t& timer_id, bool no_close) {
    const int32_t id = std::exchange(timer_id, 0);
    if (reactor && id != 0) reactor->cancel_timer(id, no_close);
}

} // namespace

int ReactorLink::check_open() const {
    if (!socket.is_open()) return report(error::not_a_socket);
    return reactor ? 0 : report(error::null_member);
}

int ReactorLink::select_event(VEL_Event_Handler* handler, uint32_t mask) {
    if (socket.register_event_select(reactor, handler, mask) < 0) return -1;
    events |= mask;
    return 0;
}

void ReactorLink::clear_event(VEL_Event_Handler* handler, uint32_t mask) {
    if (reactor && socket.is_open()) socket.remove_event_select(reactor, handler, mask | VEL_NO_CLOSE_CALL);
    events &= ~mask;
}

int ReactorLink::set_timeout(VEL_Event_Handler* handler, uint32_t timeout_ms) {
    return set_timer(reactor, handler, timeout_ms, timer_id);
}

void ReactorLink::cancel_timeout() { end_timer(reactor, timer_id, true); }

int ReactorLink::suspend_read(VEL_Event_Handler* handler, uint32_t timeout_ms) {
    const bool suspended = suspend_id != 0;
    if (set_timer(reactor, handler, timeout_ms, suspend_id) < 0) return -1;
    if (!suspended) clear_event(handler, VEL_INPUT_EVENT);
    return 0;
}

int ReactorLink::resume_read(VEL_Event_Handler* handler) {
    if (suspend_id == 0) return check_open();
    end_timer(reactor, suspend_id, true);
    return select_event(handler, VEL_INPUT_EVENT);
}

void ReactorLink::ended(VEL_Event_Handler* handler, void* handle, uint32_t mask) {
    const auto id = static_cast<int32_t>(reinterpret_cast<intptr_t>(handle));
    if ((mask & VEL_TIMER_EVENT) == 0)
        events &= ~mask;
    else if (id == timer_id)
        timer_id = 0;
    else if (id == suspend_id)
        suspend_id = 0;
    close(handler, true);
}

void ReactorLink::close(VEL_Event_Handler* handler, bool no_close) {
    VEL_Reactor* const owner = reactor; // `handle_close` may come in between and forget it
    if (owner && socket.is_open() && events != 0)
        socket.remove_event_select(owner, handler, events | (no_close ? VEL_NO_CLOSE_CALL : 0u));
    end_timer(owner, timer_id, no_close);
    end_timer(owner, suspend_id, true);
    socket.close();
    events = 0;
    reactor = nullptr;
}

} // namespace vel
