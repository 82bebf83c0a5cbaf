// One connection of the digest client.
#include "upload.h"

#include <memory>
#include <vel/buffers/message_block.h>
#include <vel/frame/error.h>
#include <vel/platform/files.h>
#include <vel/platform/sockets.h>

namespace digest {
namespace {

constexpr uint32_t patience_ms = 60000; // for one step
constexpr int tcp_level = 6;
constexpr int no_delay = 1;

} // namespace

bool Run::take(size_t& file) {
    file = next++;
    return file < report.size();
}

void Run::connection_started() {
    std::lock_guard guard(mutex);
    ++connections;
}

void Run::connection_over() {
    std::lock_guard guard(mutex);
    --connections;
    changed.notify_all();
}

void Run::wait() {
    std::unique_lock guard(mutex);
    changed.wait(guard, [this] { return connections == 0; });
}

int Source::open(const std::string& name) {
    close();
    standard_input_ = name == "-";
    if (standard_input_) return 0;
    file_ = VELLib::open(name.c_str(), true, 0);
    return file_ == VEL_INVALID_HANDLE ? -1 : 0;
}

int Source::read(void* buffer, size_t size) {
    if (!standard_input_) return VELLib::read(file_, buffer, size, nullptr);
    return static_cast<int>(std::fread(buffer, 1, size, stdin));
}

void Source::close() {
    if (file_ != VEL_INVALID_HANDLE) VELLib::close(file_);
    file_ = VEL_INVALID_HANDLE;
}

Upload::~Upload() = default;

int Upload::handle_connect(VEL_Async_Connect_Operation* op, uint32_t error) {
    delete op;
    if (error != 0) {
        run_.connect_error = error;
        return -1;
    }
    run_.connected = true;
    // The messages of a small file are small, too; none should wait until the one before is acknowledged.
    const int on = 1;
    VELLib::setsockopt(reinterpret_cast<uint64_t>(get_handle()), tcp_level, no_delay, &on, sizeof on);
    buffer_.set(chunk_size, nullptr);
    return next_file();
}

int Upload::handle_output(VEL_Async_Write_Operation* op, uint32_t error) {
    delete op;
    if (error != 0) return give_up(error_text(error));
    return end_sent_ ? receive() : next_chunk();
}

int Upload::handle_input(VEL_Async_Read_Operation* op, uint32_t error) {
    static const Message_Factory factory;
    VEL_Serializable* object = nullptr;
    const VEL_Byte_Block block = op->read_block();
    const size_t bytes = op->bytes_transferred();
    delete op;
    if (error != 0) return give_up(error_text(error));
    if (bytes == 0) return give_up("the server has closed the connection");
    if (archive_.deserialize(block.c_ptr(0), bytes, factory, object) < 0)
        return give_up("a wrong answer: " + error_text(VELLib::GetErrorCode()));
    if (object == nullptr) return receive();
    const VEL_Message_Block message(object, false);
    if (static_cast<Message*>(object)->kind() != Kind::reply) return give_up("an answer that is none");
    const size_t file = file_.exchange(no_file);
    if (file != no_file) run_.report.succeeded(file, static_cast<const Reply&>(*object));
    return next_file();
}

int Upload::handle_timeout(int32_t, uint32_t&, VEL_Proactor*) { return give_up("the server does not answer"); }

int Upload::handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) {
    VEL_Async_SOCK_Stream::handle_close(key, handle, proactor);
    give_up("the connection was closed");
    if (!over_.exchange(true)) run_.connection_over();
    return 0;
}

/// Starts on the next file that can be read. -1, which ends the connection, when there is none.
int Upload::next_file() {
    size_t file = no_file;
    while (run_.take(file)) {
        if (source_.open(run_.report.name(file)) == 0) {
            file_ = file;
            size_ = 0;
            end_sent_ = false;
            return send_message(new Begin(run_.report.name(file)));
        }
        run_.report.failed(file, error_text(VELLib::GetErrorCode()));
    }
    return -1;
}

int Upload::next_chunk() {
    const int bytes = source_.read(buffer_.c_ptr(0), chunk_size);
    if (bytes < 0) return give_up(error_text(VELLib::GetErrorCode()));
    if (bytes == 0) {
        end_sent_ = true;
        return send_message(new End(size_));
    }
    const auto count = static_cast<uint64_t>(bytes);
    size_ += count;
    run_.report.sent(count);
    return send_message(new Chunk(VEL_Byte_Block(count, buffer_.c_ptr(0))));
}

/// Packs a message and starts to send it; `handle_output` goes on.
int Upload::send_message(VEL_Serializable* content) {
    const VEL_Message_Block message(content, false);
    VEL_Byte_Block packed;
    VEL_Archive archive;
    const int length = archive.serialize(packed, *message.c_ptr());
    if (length < 0 || set_timeout(patience_ms) < 0 || send(packed, static_cast<size_t>(length)) < 0)
        return give_up(error_text(VELLib::GetErrorCode()));
    return 0;
}

int Upload::receive() {
    VEL_Byte_Block block;
    const bool started = set_timeout(patience_ms) == 0 && recv(block, 4096) == 0;
    return started ? 0 : give_up(error_text(VELLib::GetErrorCode()));
}

/// Reports the file at hand as failed, if there is one. Always -1.
int Upload::give_up(const std::string& reason) {
    const size_t file = file_.exchange(no_file);
    if (file != no_file) run_.report.failed(file, reason);
    return -1;
}

} // namespace digest
