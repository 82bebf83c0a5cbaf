// One client's connection at the digest server.
#pragma once

#include "protocol.h"

#include <atomic>
#include <chrono>
#include <vel/cache/md5.h>
#include <vel/proactor/async_sock_stream.h>

namespace digest {

/// What the server has done so far; counted by all connections.
struct Totals {
    std::atomic<uint64_t> connections{0};
    std::atomic<uint64_t> files{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> refused{0}; // connections closed because of what they sent, or did not send

    std::string text() const;
};

/// Receives files and answers with their digests.
///
/// Either a receive or the send of a reply is pending, never both, so one callback runs at a time and a client that
/// does not read its replies cannot make the server hold more than one.
class Connection : public VEL_Async_SOCK_Stream {
public:
    Connection(Totals& totals, uint32_t idle_ms) : totals_(totals), idle_ms_(idle_ms) {}
    ~Connection() override;

    void start();

    int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override;
    int handle_output(VEL_Async_Write_Operation* op, uint32_t error) override;
    int handle_timeout(int32_t timer_id, uint32_t& interval_ms, VEL_Proactor* proactor) override;

private:
    using Clock = std::chrono::steady_clock;
    enum class Next { receive, wait_for_reply, give_up };

    int go_on();
    Next unpack();
    Next take(const Message& message);
    Next begin(const Begin& message);
    Next add(const Chunk& message);
    Next answer(const End& message);
    Next refuse(const std::string& reason);
    void log(const std::string& reason);

    Totals& totals_;
    const uint32_t idle_ms_;
    VEL_Archive archive_;
    VEL_Byte_Block input_;  // what was received last; taken up to its offset
    uint64_t received_ = 0; // bytes of input_ that count
    bool in_file_ = false;
    std::string name_;
    VEL_MD5 md5_;
    uint64_t size_ = 0;
    uint64_t lines_ = 0;
    Clock::time_point began_;
};

} // namespace digest
