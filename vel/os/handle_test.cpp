// Every call against every handle that is not of its kind: dead, garbage or foreign ones give a code, never a crash.
#include <vel/os/handle.h>

#include <gtest/gtest.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/file.h>
#include <vel/os/linux/testing/object_name.h>
#include <vel/os/memory.h>
#include <vel/os/named_mutex.h>
#include <vel/os/socket.h>
#include <vel/os/thread.h>

namespace vel::os {
namespace {

enum Kind { event, mutex, thread, file, socket, mapping, kinds };

struct Call {
    const char* name;
    Kind kind;
    uint32_t (*run)(void* handle);
};

uint64_t moved;
uint32_t number;
bool flag;
char byte;
FileTimes times;
FileState state;

uint64_t as_socket(void* handle) { return reinterpret_cast<uint64_t>(handle); }

const Call calls[] = {
    {"set_event", event, set_event},
    {"reset_event", event, reset_event},
    {"acquire_mutex", mutex, [](void* h) { return acquire_mutex(h, 0, flag); }},
    {"release_mutex", mutex, release_mutex},
    {"suspend_thread", thread, [](void* h) { return suspend_thread(h, number); }},
    {"resume_thread", thread, [](void* h) { return resume_thread(h, number); }},
    {"terminate_thread", thread, [](void* h) { return terminate_thread(h, 1); }},
    {"thread_exit_code", thread, [](void* h) { return thread_exit_code(h, number); }},
    {"file_size", file, [](void* h) { return file_size(h, moved); }},
    {"file_state", file, [](void* h) { return file_state(h, state); }},
    {"set_file_size", file, [](void* h) { return set_file_size(h, 0); }},
    {"file_times", file, [](void* h) { return file_times(h, times); }},
    {"lock_range", file, [](void* h) { return lock_range(h, 0, 1, true); }},
    {"unlock_range", file, [](void* h) { return unlock_range(h, 0, 1); }},
    {"listen_socket", socket, [](void* h) { return listen_socket(as_socket(h)); }},
    {"receive", socket, [](void* h) { return receive(as_socket(h), &byte, 1, moved); }},
    {"send", socket, [](void* h) { return send(as_socket(h), &byte, 1, moved); }},
    {"wait_socket", socket, [](void* h) { return wait_socket(as_socket(h), SocketWait::readable, 0); }},
    {"close_socket", socket, [](void* h) { return close_socket(as_socket(h)); }},
};

void expect_refused(void* handle, Kind kind) {
    for (const Call& call : calls) {
        if (call.kind == kind) continue;
        EXPECT_EQ(call.run(handle), call.kind == socket ? error::not_a_socket : error::invalid_handle)
            << call.name << " on " << handle << " of kind " << kind;
    }
}

TEST(Handles, DeadForeignAndGarbageOnesAreRefusedByEveryCall) {
    const vel::testing::ObjectName name;
    const uint64_t before = open_handle_count();
    void* handles[kinds] = {};
    void* address = nullptr;
    uint64_t new_socket = 0;
    ASSERT_EQ(create_event(true, true, handles[event]), error::none);
    ASSERT_EQ(open_mutex(nullptr, handles[mutex]), error::none);
    ASSERT_EQ(create_thread([](void*) { return 0u; }, nullptr, 0, handles[thread], number), error::none);
    ASSERT_EQ(open_file("/dev/null", FileOpen::open_always, handles[file]), error::none);
    ASSERT_EQ(open_socket(2, 1, 0, new_socket), error::none);
    ASSERT_EQ(open_mapping(name.c_str(), 1, handles[mapping], address, moved), error::none);
    handles[socket] = reinterpret_cast<void*>(new_socket);

    for (int kind = 0; kind < kinds; ++kind) expect_refused(handles[kind], static_cast<Kind>(kind));
    EXPECT_EQ(terminate_thread(handles[thread], 1), error::none);
    for (void* handle : handles) EXPECT_EQ(close_handle(handle), error::none);
    for (const uint64_t value : {uint64_t{0}, uint64_t{1}, uint64_t{1} << 40, ~uint64_t{0}, as_socket(handles[event]),
                                 as_socket(handles[thread]), as_socket(handles[file]), new_socket}) {
        auto* dead = reinterpret_cast<void*>(value);
        expect_refused(dead, kinds);
        EXPECT_EQ(close_handle(dead), error::invalid_handle);
        EXPECT_EQ(wait_handle(dead, 0), error::invalid_handle);
        EXPECT_EQ(read_file(dead, &byte, 1, moved), error::invalid_handle);
    }
    EXPECT_EQ(open_handle_count(), before);
}

} // namespace
} // namespace vel::os
