// The proactor: opening, registering, messages, closing.
#include <vel/testing/proactor_fixture.h>

#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vel/os/error_codes.h>
#include <vel/os/file.h>
#include <vel/os/thread.h>

namespace vel::test {

/// Reaches the counter of completion keys, so that its wrap need not be counted to.
template <uint32_t VEL_Proactor::*Member>
struct Reveal {
    friend uint32_t& last_key_of(VEL_Proactor& proactor) { return proactor.*Member; }
};
uint32_t& last_key_of(VEL_Proactor& proactor);
template struct Reveal<&VEL_Proactor::last_key_>;

namespace {

using Proactor = ProactorTest;

void expect_error(int result, uint32_t code) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(VELLib::GetErrorCode(), code);
}

uint64_t datagram_socket() { return VELLib::socket(2, 2, 0); }
void* as_handle(uint64_t socket) { return reinterpret_cast<void*>(socket); }

TEST_F(Proactor, TakesAtMostSixtyThreeWorkers) {
    VEL_Proactor other;
    expect_error(other.open(64), error::too_many_workers);
    ASSERT_EQ(other.open(63), 0);
    EXPECT_EQ(other.getiothrcnt(), 63u);
    expect_error(other.open(1), error::already_exists);
    other.close();
    EXPECT_EQ(other.getiothrcnt(), 0u);
    expect_error(other.open(1), error::object_closed);

    VEL_Proactor automatic;
    const uint32_t expected = 2 * vel::os::processor_count();
    if (expected > 63) {
        expect_error(automatic.open(0), error::too_many_workers);
    } else {
        ASSERT_EQ(automatic.open(0), 0);
        EXPECT_EQ(automatic.getiothrcnt(), expected);
    }
}

TEST_F(Proactor, EveryCallNeedsAnOpenOne) {
    VEL_Proactor never;
    Ref<Handler> handler(new Handler);
    VEL_Async_Handler* found = nullptr;
    proactor->close();
    for (VEL_Proactor* closed : {&never, proactor.get()}) {
        auto refused = [](int result) { expect_error(result, error::null_member); };
        refused(closed->register_handle(1, as_handle(5), handler.get()));
        refused(closed->remove_handle(1, true));
        EXPECT_EQ(closed->get_handle(1, found), VEL_INVALID_HANDLE);
        refused(closed->close_handle(1));
        refused(closed->shutdown(1, 2));
        refused(closed->sendMessage(1, VEL_Message_Block(new Note(1), false)));
        refused(closed->sendSockStream(1, VEL_Byte_Block(1, "x"), 1));
        refused(closed->sendSockDgram(1, VEL_Byte_Block(1, "x"), 1, VEL_INET_Addr()));
        refused(closed->schedule_timer(handler.get(), 1));
        refused(closed->cancel_timer(1, true));
        refused(closed->reschedule_timer(1, 1));
        refused(closed->handle_event(0));
        refused(closed->handle_timer(0));
        closed->close();
    }
}

TEST_F(Proactor, KeysRunRoundWithoutZero) {
    EXPECT_EQ(proactor->generate_completion_key(), 1u);
    EXPECT_EQ(proactor->generate_completion_key(), 2u);
    last_key_of(*proactor) = 0xFFFFFFFD;
    EXPECT_EQ(proactor->generate_completion_key(), 0xFFFFFFFEu);
    EXPECT_EQ(proactor->generate_completion_key(), 1u);
}

TEST_F(Proactor, RegistrationBalancesReferences) {
    Ref<Handler> handler(new Handler);
    const uint64_t first = datagram_socket();
    const uint64_t second = datagram_socket();
    auto references = [&] { return handler->addref(), handler->release(); };

    expect_error(proactor->register_handle(0, as_handle(first), handler.get()), error::no_completion_key);
    expect_error(proactor->register_handle(7, VEL_INVALID_HANDLE, handler.get()), error::invalid_handle);
    expect_error(proactor->register_handle(7, as_handle(first), nullptr), error::null_member);
    ASSERT_EQ(proactor->register_handle(7, as_handle(first), handler.get()), 0);
    EXPECT_EQ(references(), 2);
    expect_error(proactor->register_handle(7, as_handle(second), handler.get()), error::invalid_parameter);
    expect_error(proactor->register_handle(8, as_handle(first), handler.get()), error::invalid_parameter);
    EXPECT_EQ(references(), 2);

    VEL_Async_Handler* found = nullptr;
    EXPECT_EQ(proactor->get_handle(7, found), as_handle(first));
    EXPECT_EQ(found, handler.get());
    EXPECT_EQ(found->release(), 2);
    EXPECT_EQ(proactor->get_handle(8, found), VEL_INVALID_HANDLE);
    EXPECT_EQ(VELLib::GetErrorCode(), error::not_found);

    expect_error(proactor->remove_handle(8, false), error::not_found);
    EXPECT_EQ(proactor->remove_handle(7, false), 0);
    EXPECT_EQ(handler->closes.count(), 1);
    EXPECT_EQ(references(), 1);
    expect_error(proactor->remove_handle(7, false), error::not_found);
    ASSERT_EQ(proactor->register_handle(9, as_handle(second), handler.get()), 0);
    EXPECT_EQ(proactor->remove_handle(9, true), 0);
    EXPECT_EQ(handler->closes.count(), 1);
    VELLib::closesocket(first);
    VELLib::closesocket(second);
}

TEST_F(Proactor, UnknownKeysAreToldFromNone) {
    const VEL_Message_Block message(new Note(1), false);
    const VEL_Byte_Block block(1, "x");
    for (auto [key, code] : {std::pair{0u, error::no_completion_key}, std::pair{77u, error::not_found}}) {
        expect_error(proactor->close_handle(key), code);
        expect_error(proactor->shutdown(key, 2), code);
        expect_error(proactor->sendMessage(key, message), code);
        expect_error(proactor->sendSockStream(key, block, 1), code);
        expect_error(proactor->sendSockDgram(key, block, 1, VEL_INET_Addr()), code);
    }
    expect_error(proactor->sendMessage(77, VEL_Message_Block()), error::invalid_parameter);
}

TEST_F(Proactor, MessagesArriveAndAreAnswered) {
    Ref<Handler> handler(new Handler);
    const uint64_t socket = datagram_socket();
    ASSERT_EQ(proactor->register_handle(5, as_handle(socket), handler.get()), 0);
    std::atomic<int> sum{0};
    Tally taken;
    handler->on_signal = [&](VEL_Async_Post_Operation* op) {
        VEL_Message_Block message = op->getMessage();
        const int number = static_cast<Note*>(message.c_ptr())->number;
        EXPECT_EQ(op->completion_key(), 5u);
        EXPECT_EQ(op->get_iohandle(), VEL_INVALID_HANDLE);
        delete op;
        sum += number;
        taken.add();
        return message.signal(number, 0, nullptr);
    };
    for (int i = 1; i <= 1000; ++i) {
        const VEL_Message_Block message(new Note(i), true);
        ASSERT_EQ(proactor->sendMessage(5, message), 0);
        if (i % 100 == 0) {
            ASSERT_EQ(message.wait(10000), i);
        }
    }
    ASSERT_TRUE(taken.reaches(1000));
    EXPECT_EQ(proactor->remove_handle(5, true), 0);
    VELLib::closesocket(socket);
    proactor->close();
    EXPECT_EQ(sum, 500500);
}

TEST_F(Proactor, DroppedMessagesAreAnswered) {
    Ref<Handler> handler(new Handler);
    const uint64_t socket = datagram_socket();
    ASSERT_EQ(proactor->register_handle(5, as_handle(socket), handler.get()), 0);
    Tally inside;
    Tally go;
    handler->on_signal = [&](VEL_Async_Post_Operation* op) {
        delete op;
        inside.add();
        go.reaches(1);
        return 0;
    };
    std::vector<VEL_Message_Block> dropped;
    for (int i = 0; i < 4 + 20; ++i) {
        VEL_Message_Block message(new Note(i), true);
        ASSERT_EQ(proactor->sendMessage(5, message), 0);
        if (i >= 4) {
            dropped.push_back(message);
        } else {
            ASSERT_TRUE(inside.reaches(i + 1)); // one worker after the other is held up
        }
    }
    std::thread closer([&] { proactor->close(); });
    const VEL_Message_Block probe(new Note(0), false);
    while (proactor->sendMessage(5, probe) == 0) std::this_thread::yield(); // until it says that it is closing
    EXPECT_EQ(VELLib::GetErrorCode(), error::object_closed);
    go.add();
    for (const VEL_Message_Block& message : dropped) {
        EXPECT_EQ(message.wait(20000), -1);
        EXPECT_EQ(message.error_code(), error::object_closed);
    }
    closer.join();
    EXPECT_EQ(inside.count(), 4);
    EXPECT_EQ(handler->closes.count(), 1);
    VELLib::closesocket(socket);
}

TEST_F(Proactor, NegativeResultEndsTheRegistration) {
    Ref<Handler> handler(new Handler);
    const uint64_t socket = datagram_socket();
    handler->on_signal = [](VEL_Async_Post_Operation* op) { return delete op, -1; };
    handler->on_close = [&](uint32_t key, void* handle) {
        EXPECT_EQ(key, 5u);
        EXPECT_EQ(handle, as_handle(socket));
    };
    ASSERT_EQ(proactor->register_handle(5, as_handle(socket), handler.get()), 0);
    ASSERT_EQ(proactor->sendMessage(5, VEL_Message_Block(new Note(1), false)), 0);
    ASSERT_TRUE(handler->closes.reaches(1));
    expect_error(proactor->remove_handle(5, true), error::not_found);
    VELLib::closesocket(socket);
}

TEST_F(Proactor, BlockedHandlersDelayNobodyWhileAWorkerIsIdle) {
    Ref<Handler> blocked(new Handler);
    Ref<Handler> quick(new Handler);
    const uint64_t first = datagram_socket();
    const uint64_t second = datagram_socket();
    Tally inside;
    Tally go;
    Tally done;
    blocked->on_signal = [&](VEL_Async_Post_Operation* op) {
        delete op;
        inside.add();
        go.reaches(1);
        return 0;
    };
    quick->on_signal = [&](VEL_Async_Post_Operation* op) {
        delete op;
        done.add();
        return 0;
    };
    ASSERT_EQ(proactor->register_handle(1, as_handle(first), blocked.get()), 0);
    ASSERT_EQ(proactor->register_handle(2, as_handle(second), quick.get()), 0);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(proactor->sendMessage(1, VEL_Message_Block(new Note(i), false)), 0);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(proactor->sendMessage(2, VEL_Message_Block(new Note(i), false)), 0);
    EXPECT_TRUE(done.reaches(100)) << "three of four workers are held up";
    EXPECT_TRUE(inside.reaches(3));
    go.add();
    proactor->close();
    VELLib::closesocket(first);
    VELLib::closesocket(second);
}

TEST_F(Proactor, ClosingFromItsOwnCallbackIsRefused) {
    Ref<Handler> handler(new Handler);
    const uint64_t socket = datagram_socket();
    Tally done;
    std::atomic<uint32_t> code{0};
    handler->on_signal = [&](VEL_Async_Post_Operation* op) {
        delete op;
        proactor->close();
        code = VELLib::GetErrorCode();
        done.add();
        return 0;
    };
    ASSERT_EQ(proactor->register_handle(5, as_handle(socket), handler.get()), 0);
    ASSERT_EQ(proactor->sendMessage(5, VEL_Message_Block(new Note(1), false)), 0);
    ASSERT_TRUE(done.reaches(1));
    EXPECT_EQ(code, error::possible_deadlock);
    ASSERT_EQ(proactor->sendMessage(5, VEL_Message_Block(new Note(1), false)), 0) << "it is still open";
    ASSERT_TRUE(done.reaches(2));
    proactor->close();
    VELLib::closesocket(socket);
}

TEST_F(Proactor, ApplicationThreadsTakeCompletionsToo) {
    Ref<Handler> handler(new Handler);
    const uint64_t socket = datagram_socket();
    Tally inside;
    Tally go;
    std::atomic<int> taken{0};
    std::atomic<std::thread::id> fifth_taker;
    handler->on_signal = [&](VEL_Async_Post_Operation* op) {
        delete op;
        const bool hold = ++taken <= 4; // every worker
        if (!hold) fifth_taker = std::this_thread::get_id();
        inside.add();
        if (hold) go.reaches(1);
        return 0;
    };
    ASSERT_EQ(proactor->register_handle(5, as_handle(socket), handler.get()), 0);
    EXPECT_EQ(proactor->handle_event(0), 0);
    EXPECT_EQ(proactor->handle_event(20), 0);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(proactor->sendMessage(5, VEL_Message_Block(new Note(1), false)), 0);
        if (i < 4) {
            ASSERT_TRUE(inside.reaches(i + 1));
        }
    }
    EXPECT_EQ(proactor->handle_event(20000), 1);
    EXPECT_EQ(fifth_taker.load(), std::this_thread::get_id());
    // Those who wait while it is closed leave, however many they are.
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] { expect_error(proactor->handle_event(VEL_INFINITE), error::object_closed); });
    go.add();
    proactor->close();
    for (std::thread& waiter : waiters) waiter.join();
    VELLib::closesocket(socket);
}

TEST_F(Proactor, CloseHandleAsksTheHandler) {
    Ref<Handler> handler(new Handler);
    const uint64_t socket = datagram_socket();
    int asked = 0;
    handler->on_close_handle = [&] { return ++asked, -1; };
    ASSERT_EQ(proactor->register_handle(5, as_handle(socket), handler.get()), 0);
    EXPECT_EQ(proactor->close_handle(5), 0) << "whatever the handler answered";
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(proactor->remove_handle(5, true), 0);
    VELLib::closesocket(socket);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

size_t threads_of_process() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(threads), end(threads)));
}

/// Runs a disabled test of this program in a process of its own, with room for a few threads only.
int run_confined(const char* test) {
    std::string folder;
    EXPECT_EQ(vel::os::executable_directory(folder), 0u);
    const std::string command = "ulimit -v 400000 && exec " + folder +
                                "/proactor_test --gtest_also_run_disabled_tests --gtest_brief=1 --gtest_filter=" + test;
    return std::system(command.c_str()); // tidy: allowed, the limit is to hold for another process alone
}

TEST(ProactorLimits, OpenFailsWhole) {
    if (sanitized) GTEST_SKIP() << "the sanitizer needs the address space that this test takes away";
    EXPECT_EQ(run_confined("ProactorLimits.DISABLED_NoRoomForThreads"), 0);
}

TEST(ProactorLimits, DISABLED_NoRoomForThreads) {
    VEL_Proactor proactor;
    ASSERT_EQ(VEL_Proactor().open(1), 0);
    const size_t before = threads_of_process();
    for (int attempt = 0; attempt < 3; ++attempt) {
        ASSERT_EQ(proactor.open(63), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), error::no_system_resources);
        EXPECT_EQ(threads_of_process(), before);
        expect_error(proactor.handle_event(0), error::null_member);
    }
    ASSERT_EQ(proactor.open(2), 0) << "nothing of the attempts is in the way";
    Ref<Handler> handler(new Handler);
    const uint64_t socket = datagram_socket();
    ASSERT_EQ(proactor.register_handle(1, as_handle(socket), handler.get()), 0);
    const VEL_Message_Block message(new Note(1), true);
    ASSERT_EQ(proactor.sendMessage(1, message), 0);
    EXPECT_EQ(message.wait(20000), -1);
    EXPECT_EQ(message.error_code(), error::not_implemented);
    proactor.close();
    VELLib::closesocket(socket);
}

TEST(ProactorDeathTest, IsNotDestroyedByItsOwnThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto destroy_in_callback = [] {
        auto* proactor = new VEL_Proactor;
        auto* handler = new Handler;
        handler->on_signal = [&](VEL_Async_Post_Operation* op) {
            delete op;
            delete proactor;
            return 0;
        };
        proactor->open(1);
        proactor->register_handle(1, as_handle(datagram_socket()), handler);
        proactor->sendMessage(1, VEL_Message_Block(new Note(1), false));
        Tally().reaches(1);
    };
    EXPECT_DEATH(destroy_in_callback(), "destroyed by one of its own threads");
}

} // namespace
} // namespace vel::test
