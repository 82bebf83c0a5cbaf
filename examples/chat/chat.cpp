// Chat server, line by line: `chat [PORT]`, then `nc localhost PORT` from as many terminals as there are people.
//
// One thread runs everything, so nothing here needs a lock. A member whose terminal does not read is let go before its
// backlog grows; one that is silent for ten minutes as well. Ends on SIGINT or SIGTERM. Exit code 1: cannot listen.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vel/frame/error.h>
#include <vel/library.h>
#include <vel/platform/sockets.h>
#include <vel/reactor/acceptor.h>
#include <vel/reactor/reactor.h>
#include <vel/reactor/sock_stream.h>

namespace {

constexpr size_t longest_line = 1024;    // bytes
constexpr size_t longest_name = 24;      // bytes
constexpr int most_waiting_lines = 1000; // of one member
constexpr uint32_t idle_ms = 10 * 60 * 1000;
constexpr uint32_t signal_check_ms = 200;

volatile std::sig_atomic_t stop_requested = 0;

extern "C" void request_stop(int) { stop_requested = 1; }

class Member;

/// Who is there, by name.
class Room {
public:
    bool enter(const std::string& name, Member* member) { return members_.emplace(name, member).second; }
    void leave(const std::string& name) { members_.erase(name); }

    void tell_all(const std::string& line);
    std::string names() const {
        std::string list;
        for (const auto& [name, member] : members_) list += (list.empty() ? "" : ", ") + name;
        return list;
    }

private:
    std::map<std::string, Member*> members_;
};

/// One connection: asks for a name, then passes lines on to everybody.
class Member : public VEL_SOCK_Stream {
public:
    explicit Member(Room& room) : room_(room) {}

    int start(VEL_Reactor* loop) {
        reactor(loop);
        if (select_event(VEL_INPUT_EVENT | VEL_OUTPUT_EVENT) < 0 || set_timeout(idle_ms) < 0) return -1;
        tell("Your name?");
        return 0;
    }

    void tell(const std::string& line) {
        const VEL_Byte_Block block(line.size() + 1, (line + '\n').data());
        waiting_ = is_send_all_completed() ? 0 : waiting_ + 1;
        if (send(block) < 0) waiting_ = most_waiting_lines + 1;
    }

    /// Does not read what it is sent, or cannot be reached.
    bool is_lost() const { return waiting_ > most_waiting_lines; }

    int handle_read_stream(const void* data, uint64_t size, uint32_t error) override {
        if (error != 0) return -1; // the peer has closed, most likely
        set_timeout(idle_ms);
        for (const char byte : std::string_view(static_cast<const char*>(data), size)) {
            if (byte == '\n' && !take_line()) return -1;
            if (static_cast<unsigned char>(byte) >= ' ') line_ += byte; // no escape sequence reaches other terminals
            if (line_.size() > longest_line) return refuse("That line is too long.");
        }
        return 0;
    }

    int handle_timeout(int32_t, uint32_t&, VEL_Reactor*) override { return refuse("You have been silent for long."); }

    int handle_close(void* handle, uint32_t mask, VEL_Reactor* loop) override {
        const int result = VEL_SOCK_Stream::handle_close(handle, mask, loop);
        if (name_.empty()) return result;
        const std::string name = std::move(name_);
        name_.clear();
        room_.leave(name);
        room_.tell_all("* " + name + " has left");
        return result;
    }

private:
    int refuse(const char* reason) {
        tell(reason);
        return -1;
    }

    /// False ends the connection.
    bool take_line() {
        const std::string line = std::move(line_);
        line_.clear();
        if (name_.empty()) return introduce(line);
        if (line == "/quit") return false;
        if (line == "/who")
            tell("* " + room_.names());
        else if (!line.empty())
            room_.tell_all(name_ + ": " + line);
        return true;
    }

    bool introduce(const std::string& name) {
        if (name.empty() || name.size() > longest_name || !room_.enter(name, this)) {
            tell("That name is taken or too long. Your name?");
            return true;
        }
        name_ = name;
        room_.tell_all("* " + name + " is here, with " + room_.names());
        return true;
    }

    Room& room_;
    std::string name_; // empty before it is known
    std::string line_; // what has come of the next one
    int waiting_ = 0;  // lines sent since all was written
};

void Room::tell_all(const std::string& line) {
    std::map<std::string, Member*> lost;
    for (const auto& [name, member] : members_) {
        member->tell(line);
        if (member->is_lost()) lost.emplace(name, member);
    }
    for (const auto& [name, member] : lost) members_.erase(name); // before the others are told that they left
    for (const auto& [name, member] : lost) member->close(false);
}

/// Lets people in.
class Door : public VEL_Acceptor {
public:
    explicit Door(Room& room) : room_(room) {}

    int handle_accept(void*, VEL_Reactor* loop, uint32_t error) override {
        if (error != 0) return 0;
        auto* member = new Member(room_);
        if (accept(*member) == 0 && member->start(loop) < 0) member->close(true); // 63 are the most
        member->release();                                                        // its registration keeps it
        return 0;
    }

private:
    Room& room_;
};

int serve(uint16_t port) {
    Room room;
    VEL_Reactor reactor;
    auto* door = new Door(room);
    VEL_INET_Addr address;
    const bool listening =
        door->open(&reactor, port, 0, 0, 0) == 0 && VELLib::getsockname(door->get_handle(), address) == 0;
    if (listening) {
        std::printf("listening on port %u\n", address.getport());
        std::fflush(stdout);
        while (!stop_requested && reactor.handle_event(signal_check_ms) >= 0) {
        }
        room.tell_all("* The server says good-bye.");
    } else {
        std::fprintf(stderr, "chat: cannot listen: error %u\n", VELLib::GetErrorCode());
    }
    reactor.close(); // ends every connection
    door->release();
    return listening ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
    if (VELLib::initialize() < 0) return 1;
    const int result = serve(static_cast<uint16_t>(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 7008));
    VELLib::uninitialize();
    return result;
}
