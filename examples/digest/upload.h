// One connection of the digest client.
#pragma once

#include "report.h"

#include <condition_variable>
#include <cstdio>
#include <vel/proactor/async_sock_stream.h>

namespace digest {

/// What the connections of one run share.
struct Run {
    explicit Run(Report& files) : report(files) {}

    /// The next file that nobody has taken; false when there is none.
    bool take(size_t& file);

    void connection_started();
    void connection_over();

    /// Waits until all connections are over.
    void wait();

    Report& report;
    std::atomic<size_t> next{0};
    std::atomic<uint32_t> connect_error{0};
    std::atomic<bool> connected{false}; // at least one
    std::mutex mutex;
    std::condition_variable changed;
    int connections = 0; // guarded by mutex
};

/// A file, or the standard input, that is read piece by piece.
class Source {
public:
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    ~Source() { close(); }

    /// @param name  "-" is the standard input
    /// Returns 0, or -1 with the thread's code.
    int open(const std::string& name);

    /// Returns the bytes read, 0 at the end, or -1 with the thread's code.
    int read(void* buffer, size_t size);
    void close();

private:
    bool standard_input_ = false;
    void* file_ = VEL_INVALID_HANDLE;
};

/// Sends one file after the other and receives a reply after each.
///
/// One operation is pending at a time, so one completion callback runs at a time; only the time-out may come beside it.
class Upload : public VEL_Async_SOCK_Stream {
public:
    explicit Upload(Run& run) : run_(run) { run.connection_started(); }
    ~Upload() override;

    int handle_connect(VEL_Async_Connect_Operation* op, uint32_t error) override;
    int handle_output(VEL_Async_Write_Operation* op, uint32_t error) override;
    int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override;
    int handle_timeout(int32_t timer_id, uint32_t& interval_ms, VEL_Proactor* proactor) override;

    /// How every connection ends, whoever ends it.
    int handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) override;

private:
    static constexpr size_t no_file = SIZE_MAX;

    int next_file();
    int next_chunk();
    int send_message(VEL_Serializable* message);
    int receive();
    int give_up(const std::string& reason);

    Run& run_;
    std::atomic<size_t> file_{no_file}; // who takes it away reports its result
    Source source_;
    VEL_Archive archive_;
    VEL_Byte_Block buffer_;
    uint64_t size_ = 0;
    bool end_sent_ = false;
    std::atomic<bool> over_{false};
};

} // namespace digest
