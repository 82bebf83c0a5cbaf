// One client's connection at the digest server.
#include "connection.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <vel/buffers/message_block.h>
#include <vel/frame/error.h>

namespace digest {
namespace {

constexpr uint64_t receive_size = 64 * 1024;

/// The text as it may stand in a log: what does not print becomes '?'.
std::string printable(std::string text) {
    for (char& c : text)
        if (std::iscntrl(static_cast<unsigned char>(c))) c = '?';
    return text;
}

} // namespace

std::string Totals::text() const {
    return "served " + std::to_string(files) + " files of " + std::to_string(bytes) + " bytes over " +
           std::to_string(connections) + " connections, refused " + std::to_string(refused);
}

Connection::~Connection() = default;

void Connection::start() {
    ++totals_.connections;
    if (set_timeout(idle_ms_) < 0 || recv(input_, receive_size) < 0) close(true);
}

int Connection::handle_input(VEL_Async_Read_Operation* op, uint32_t error) {
    received_ = op->bytes_transferred();
    input_.offset(0);
    delete op;
    if (error == 0 && received_ != 0) return go_on();
    if (in_file_) log(error != 0 ? error_text(error) : "closed in the middle of " + name_);
    return -1;
}

int Connection::handle_output(VEL_Async_Write_Operation* op, uint32_t error) {
    delete op;
    return error == 0 ? go_on() : -1;
}

int Connection::handle_timeout(int32_t, uint32_t&, VEL_Proactor*) {
    refuse("nothing came for " + std::to_string(idle_ms_ / 1000) + " seconds");
    return -1; // closes the connection
}

/// Takes what has arrived; then either more is received or a reply is under way. The last thing that it does is to start
/// one of the two, since from there on another worker may be in here.
int Connection::go_on() {
    switch (unpack()) {
    case Next::receive: return set_timeout(idle_ms_) < 0 ? -1 : recv(input_, receive_size);
    case Next::wait_for_reply: return 0;
    case Next::give_up: break;
    }
    return -1;
}

Connection::Next Connection::unpack() {
    static const Message_Factory factory;
    while (input_.offset() < received_) {
        VEL_Serializable* object = nullptr;
        const int used = archive_.deserialize(input_.current(), received_ - input_.offset(), factory, object);
        if (used < 0) return refuse("no message: " + error_text(VELLib::GetErrorCode()));
        if (used == 0 && archive_.get_bodysize() > largest_body) return refuse("a message of too many bytes");
        if (used == 0) return Next::receive;
        input_.offset(input_.offset() + static_cast<uint64_t>(used));
        const VEL_Message_Block message(object, false);
        const Next next = take(static_cast<const Message&>(*message.c_ptr()));
        if (next != Next::receive) return next;
    }
    return Next::receive;
}

Connection::Next Connection::take(const Message& message) {
    switch (message.kind()) {
    case Kind::begin: return begin(static_cast<const Begin&>(message));
    case Kind::chunk: return add(static_cast<const Chunk&>(message));
    case Kind::end: return answer(static_cast<const End&>(message));
    case Kind::reply: break;
    }
    return refuse("a reply from a client");
}

Connection::Next Connection::begin(const Begin& message) {
    if (in_file_) return refuse("a file within a file");
    in_file_ = true;
    name_ = message.name;
    md5_.init();
    size_ = 0;
    lines_ = 0;
    began_ = Clock::now();
    return Next::receive;
}

Connection::Next Connection::add(const Chunk& message) {
    if (!in_file_) return refuse("bytes of no file");
    const auto* bytes = static_cast<const char*>(message.data.c_ptr(0));
    const uint64_t count = message.data.size();
    md5_.update(bytes, static_cast<uint32_t>(count));
    lines_ += static_cast<uint64_t>(std::count(bytes, bytes + count, '\n'));
    size_ += count;
    return Next::receive;
}

Connection::Next Connection::answer(const End& message) {
    if (!in_file_) return refuse("the end of no file");
    if (message.size != size_) return refuse("a file of another size than it says");
    in_file_ = false;
    Reply reply;
    md5_.final();
    reply.size = size_;
    reply.lines = lines_;
    reply.md5 = md5_.getMD5reshex();
    for (char& c : reply.md5) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    reply.milliseconds =
        static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began_).count());
    VEL_Byte_Block packed;
    VEL_Archive archive;
    const int length = archive.serialize(packed, reply);
    if (length < 0) return refuse(error_text(VELLib::GetErrorCode()));
    ++totals_.files;
    totals_.bytes += size_;
    return send(packed, static_cast<size_t>(length)) < 0 ? Next::give_up : Next::wait_for_reply;
}

Connection::Next Connection::refuse(const std::string& reason) {
    ++totals_.refused;
    log(reason);
    return Next::give_up;
}

void Connection::log(const std::string& reason) {
    const VEL_INET_Addr peer = get_remote_addr();
    std::fprintf(stderr, "%s:%u closed: %s\n", peer.getiptext(), peer.getport(), printable(reason).c_str());
}

} // namespace digest
