// Calls against every handle that is not of their kind: dead, garbage or foreign ones give a code, never a crash.
#include <vel/os/file.h>
#include <vel/os/linux/testing/object_name.h>
#include <vel/os/memory.h>
#include <vel/os/named_mutex.h>
#include <vel/os/thread.h>
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {
namespace {

using Handles = OsTest;

enum Kind { event, mutex, thread, file, socket, mapping, kinds };

uint64_t moved;
uint32_t number;
bool flag;
char byte;

uint64_t as_socket(void* handle) { return reinterpret_cast<uint64_t>(handle); }

const struct {
    const char* name;
    Kind kind;
    uint32_t (*run)(void* handle);
} calls[] = {
    {"set_event", event, set_event},
    {"acquire_mutex", mutex, [](void* h) { return acquire_mutex(h, 0, flag); }},
    {"release_mutex", mutex, release_mutex},
    {"suspend_thread", thread, [](void* h) { return suspend_thread(h, number); }},
    {"terminate_thread", thread, [](void* h) { return terminate_thread(h, 1); }},
    {"file_size", file, [](void* h) { return file_size(h, moved); }},
    {"lock_range", file, [](void* h) { return lock_range(h, 0, 1, true); }},
    {"receive", socket, [](void* h) { return receive(as_socket(h), &byte, 1, moved); }},
    {"wait_socket", socket, [](void* h) { return wait_socket(as_socket(h), SocketWait::readable, 0); }},
    {"close_socket", socket, [](void* h) { return close_socket(as_socket(h)); }},
};

void expect_refused(void* handle, int kind) {
    for (const auto& call : calls)
        EXPECT_TRUE(call.kind == kind ||
                    call.run(handle) == (call.kind == socket ? error::not_a_socket : error::invalid_handle))
            << call.name << " on " << handle << " of kind " << kind;
}

TEST_F(Handles, DeadForeignAndGarbageOnesAreRefusedByEveryCall) {
    const vel::testing::ObjectName name;
    void* handles[kinds] = {};
    void* address = nullptr;
    handles[event] = make_event(true);
    handles[socket] = reinterpret_cast<void*>(open(stream));
    ASSERT_EQ(open_mutex(nullptr, handles[mutex]), error::none);
    ASSERT_EQ(create_thread([](void*) { return 0u; }, nullptr, 0, handles[thread], number), error::none);
    ASSERT_EQ(open_file("/dev/null", FileOpen::open_always, handles[file]), error::none);
    ASSERT_EQ(open_mapping(name.c_str(), 1, handles[mapping], address, moved), error::none);

    for (int kind = 0; kind < kinds; ++kind) expect_refused(handles[kind], kind);
    EXPECT_EQ(terminate_thread(handles[thread], 1), error::none);
    for (void* handle : handles) EXPECT_EQ(close_handle(handle), error::none);
    std::vector<void*> dead(handles, handles + kinds);
    for (const uint64_t value : {uint64_t{0}, uint64_t{1}, uint64_t{1} << 40, ~uint64_t{0}})
        dead.push_back(reinterpret_cast<void*>(value));
    for (void* handle : dead) {
        expect_refused(handle, kinds);
        EXPECT_EQ(close_handle(handle), error::invalid_handle);
        EXPECT_EQ(wait_handle(handle, 0), error::invalid_handle);
        EXPECT_EQ(read_file(handle, &byte, 1, moved), error::invalid_handle);
    }
}

} // namespace
} // namespace vel::os::testing
