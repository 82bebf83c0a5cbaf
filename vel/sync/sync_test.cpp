// Reference counters, thread-local storage and single instances.
#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>
#include <vel/sync/reference_counter.h>
#include <vel/sync/singleton.h>
#include <vel/sync/tls.h>
#include <vel/testing/allocator_environment.h>

namespace {

template <class Counter>
class ReferenceCounter : public ::testing::Test {};
using SharedCounters = ::testing::Types<VEL_Reference_Counter_Sync, VEL_Reference_Counter_Global_Sync>;
TYPED_TEST_SUITE(ReferenceCounter, SharedCounters);

// Nothing is lost, and only one thread sees the end.
TYPED_TEST(ReferenceCounter, IsLinearisableAcrossThreads) {
    constexpr int steps = 5000;
    TypeParam counter;
    std::atomic<int> zeros{0};
    for (int i = 0; i < 4 * steps; ++i) counter.increment();
    TypeParam copy = counter;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int step = 0; step < steps; ++step) zeros += counter.decrement() == 0;
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(zeros, 1);
    EXPECT_EQ(counter.decrement(), -1);
    EXPECT_EQ(copy.decrement(), 4 * steps - 1) << "a copy copies the count";
}

TEST(Tls, EveryThreadHasItsOwnValueAndItEndsWithTheThread) {
    VEL_TLS<std::shared_ptr<int>> tls;
    tls.tls_get() = std::make_shared<int>(1);
    std::weak_ptr<int> mine = tls.tls_get(), others;
    std::thread([&] {
        EXPECT_EQ(tls.tls_get(), nullptr) << "fresh";
        EXPECT_EQ(tls.tls_set(std::make_shared<int>(2)), 0);
        others = tls.tls_get();
        EXPECT_EQ(*others.lock(), 2);
    }).join();
    EXPECT_TRUE(others.expired());
    EXPECT_EQ(*tls.tls_get(), 1);
    tls.cleanup();
    tls.cleanup();
    EXPECT_TRUE(mine.expired());
}

TEST(Tls, CopiesNameTheSameValuesAndTheLastOneFreesTheSlot) {
    for (int round = 0; round < 2000; ++round) { // more than there are slots
        auto first = std::make_unique<VEL_TLS<int>>();
        VEL_TLS<int> second(*first), third;
        first->tls_set(5);
        third = second;
        first.reset();
        EXPECT_EQ(second.tls_get(), 5) << "the slot is still there";
        third.tls_set(6);
        EXPECT_EQ(second.tls_get(), 6);
        third.cleanup();
        EXPECT_EQ(second.tls_get(), 0);
        second.cleanup();
    }
}

// Tells when it ends, and may add another then.
class Named : public VEL_SingleInstance {
public:
    Named(std::string name, std::string& log, bool adds = false) : name_(name), log_(log), adds_(adds) {}
    ~Named() override {
        log_ += name_;
        if (adds_) add_instance(new Named("d", log_));
    }

private:
    std::string name_, &log_;
    bool adds_;
};

TEST(SingleInstance, AreReleasedTogetherInOrder) {
    std::string log;
    VEL_SingleInstance::release_all_instance();
    EXPECT_EQ(VEL_SingleInstance::add_instance(new Named("a", log)), 0);
    EXPECT_EQ(VEL_SingleInstance::add_instance(new Named("b", log, true)), 0);
    EXPECT_EQ(VEL_SingleInstance::add_instance(new Named("c", log)), 0);
    VEL_SingleInstance::release_all_instance();
    EXPECT_EQ(log, "abcd") << "and what a destructor adds";
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
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([] { EXPECT_NE(Service::instance(), nullptr); });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(Service::made, 1);
    VEL_SingleInstance::release_all_instance();
}

} // namespace
