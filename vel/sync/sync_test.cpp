// Reference counters, thread-local storage and single instances.
#include <atomic>
#include <gtest/gtest.h>
#include <optional>
#include <thread>
#include <vel/sync/reference_counter.h>
#include <vel/sync/singleton.h>
#include <vel/sync/tls.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/crew.h>

namespace {

// Nothing is lost, and only one thread sees the end.
template <class Counter>
void check_counter() {
    constexpr int steps = 5000;
    Counter counter;
    std::atomic<int> zeros{0};
    for (int i = 0; i < 4 * steps; ++i) counter.increment();
    vel::testing::crew(4, [&](int) {
        for (int step = 0; step < steps; ++step) zeros += counter.decrement() == 0;
    });
    EXPECT_EQ(zeros, 1);
    EXPECT_EQ(counter.decrement(), -1);
}

TEST(ReferenceCounter, IsLinearisableAcrossThreads) {
    check_counter<VEL_Reference_Counter_Sync>();
    check_counter<VEL_Reference_Counter_Global_Sync>();
}

TEST(Tls, EveryThreadHasItsOwnValueAndItEndsWithTheThread) {
    VEL_TLS<std::shared_ptr<int>> tls;
    tls.tls_get() = std::make_shared<int>(1);
    std::weak_ptr<int> mine = tls.tls_get(), others;
    std::thread([&] {
        EXPECT_EQ(tls.tls_get(), nullptr) << "fresh";
        EXPECT_EQ(tls.tls_set(std::make_shared<int>(2)), 0);
        others = tls.tls_get();
    }).join();
    EXPECT_TRUE(others.expired());
    EXPECT_EQ(*tls.tls_get(), 1);
    tls.cleanup();
    EXPECT_TRUE(mine.expired());
}

TEST(Tls, CopiesNameTheSameValuesAndTheLastOneFreesTheSlot) {
    for (int round = 0; round < 2000; ++round) { // more than there are slots
        std::optional<VEL_TLS<int>> first(std::in_place);
        VEL_TLS<int> second(*first);
        first->tls_set(5);
        first.reset();
        EXPECT_EQ(second.tls_get(), 5) << "the slot is still there";
        second.cleanup();
    }
}

class Service {
public:
    explicit Service(int size) {
        ++made;
        if (size < 0) VEL_Exception::ThrowException(87);
    }
    static Service* instance(int size = 9) {
        return VEL_Singleton<Service, VEL_Base_Mutex>::instance(instance_, lock_, size);
    }
    static bool exists() { return instance_.load() != nullptr; }
    static inline std::atomic<int> made{0};

private:
    static inline std::atomic<Service*> instance_{nullptr};
    static inline VEL_Thread_Mutex lock_;
};

TEST(Singleton, IsMadeOnceAndFreshAfterARelease) {
    EXPECT_EQ(Service::instance(-1), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    // Making one holds the class's lock and takes the list's; releasing must not take them the other way round.
    std::thread other([] {
        for (int round = 0; round < 2000; ++round) VEL_SingleInstance::release_all_instance();
    });
    for (int round = 0; round < 2000; ++round) Service::instance();
    other.join();
    VEL_SingleInstance::release_all_instance();
    EXPECT_FALSE(Service::exists());
    Service::made = 0;
    vel::testing::crew(8, [](int) { EXPECT_NE(Service::instance(), nullptr); });
    EXPECT_EQ(Service::made, 1);
    VEL_SingleInstance::release_all_instance();
}

} // namespace
