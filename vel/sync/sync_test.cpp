// Reference counters, thread-local storage and single instances.
#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>
#include <vel/os/thread.h>
#include <vel/sync/reference_counter.h>
#include <vel/sync/singleton.h>
#include <vel/sync/tls.h>
#include <vel/testing/allocator_environment.h>

namespace {

TEST(ReferenceCounter, CountsFromZeroAndKeepsGoingBelow) {
    VEL_Reference_Counter_Global_Sync counter;
    VEL_Reference_Counter& base = counter;
    EXPECT_EQ(base.increment(), 1);
    EXPECT_EQ(base.increment(), 2);
    VEL_Reference_Counter_Global_Sync copy = counter;
    EXPECT_EQ(copy.decrement(), 1) << "a copy copies the count";
    EXPECT_EQ(base.decrement(), 1);
    EXPECT_EQ(base.decrement(), 0);
    EXPECT_EQ(base.decrement(), -1);
}

template <class Step>
void in_four_threads(int steps, Step step) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int done = 0; done < steps; ++done) step();
        });
    for (auto& thread : threads) thread.join();
}

// Nothing is lost, and only one thread sees the end.
template <class Counter>
void check_linearisable() {
    Counter counter;
    std::atomic<int> zeros{0};
    in_four_threads(5000, [&] { counter.increment(); });
    in_four_threads(5000, [&] { zeros += counter.decrement() == 0; });
    EXPECT_EQ(zeros, 1);
    EXPECT_EQ(counter.increment(), 1);
}

TEST(ReferenceCounter, IsLinearisableAcrossThreads) {
    check_linearisable<VEL_Reference_Counter_Sync>();
    check_linearisable<VEL_Reference_Counter_Global_Sync>();
}

struct Counted {
    static inline std::atomic<int> live{0};
    int value = 7;
    Counted() { ++live; }
    Counted(const Counted& other) : value(other.value) { ++live; }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --live; }
};

TEST(Tls, EveryThreadHasItsOwnValueAndItEndsWithTheThread) {
    VEL_TLS<Counted> tls;
    tls.tls_get().value = 1;
    std::thread([&] {
        EXPECT_EQ(tls.tls_get().value, 7) << "fresh";
        Counted two;
        two.value = 2;
        EXPECT_EQ(tls.tls_set(two), 0);
        EXPECT_EQ(tls.tls_get().value, 2);
    }).join();
    EXPECT_EQ(tls.tls_get().value, 1);
    EXPECT_EQ(Counted::live, 1) << "the other thread's value is gone";
    tls.cleanup();
    tls.cleanup();
    EXPECT_EQ(Counted::live, 0);
    EXPECT_EQ(tls.tls_get().value, 7);
    tls.cleanup();
}

TEST(Tls, CopiesNameTheSameValuesAndTheLastOneFreesTheSlot) {
    auto first = std::make_unique<VEL_TLS<int>>();
    VEL_TLS<int> second(*first);
    VEL_TLS<int> third;
    first->tls_set(5);
    EXPECT_EQ(second.tls_get(), 5);
    third = second;
    first.reset();
    EXPECT_EQ(second.tls_get(), 5) << "the slot is still there";
    third.tls_set(6);
    EXPECT_EQ(second.tls_get(), 6);
    second = *&second; // assigning to itself changes nothing
    EXPECT_EQ(third.tls_get(), 6);
    third.cleanup();
    EXPECT_EQ(second.tls_get(), 0);
    second.cleanup();
}

TEST(Tls, ThrowsWhenSlotsRunOutAndGivesThemBack) {
    std::vector<std::unique_ptr<VEL_TLS<int>>> many;
    try {
        for (int i = 0; i < 100000; ++i) many.push_back(std::make_unique<VEL_TLS<int>>());
        GTEST_SKIP() << "the system has no limit on slots";
    } catch (const VEL_Exception& exception) {
        EXPECT_STREQ(exception.GetErrorMsg(), "Thread local storage initialize failed");
        EXPECT_NE(exception.GetErrorCode(), 0u);
    }
    many.clear();
    VEL_TLS<int> one;
    EXPECT_EQ(one.tls_set(1), 0);
    one.cleanup();
}

class Named : public VEL_SingleInstance {
public:
    Named(std::string name, std::string& log, bool adds_another = false)
        : name_(std::move(name)),
          log_(log),
          adds_another_(adds_another) {}
    ~Named() override {
        log_ += name_;
        if (adds_another_) add_instance(new Named("d", log_));
    }

private:
    std::string name_;
    std::string& log_;
    bool adds_another_;
};

TEST(SingleInstance, AreReleasedTogetherInOrder) {
    std::string log;
    VEL_SingleInstance::release_all_instance();
    EXPECT_EQ(VEL_SingleInstance::add_instance(new Named("a", log)), 0);
    EXPECT_EQ(VEL_SingleInstance::add_instance(new Named("b", log, true)), 0);
    EXPECT_EQ(VEL_SingleInstance::add_instance(new Named("c", log)), 0);
    VEL_SingleInstance::release_all_instance();
    EXPECT_EQ(log, "abcd") << "and what a destructor adds";
    EXPECT_EQ(VEL_SingleInstance::add_instance(new Named("e", log)), 0);
    VEL_SingleInstance::release_all_instance();
    EXPECT_EQ(log, "abcde");
}

class Service {
public:
    explicit Service(int size) : size_(size) {
        ++made;
        if (size < 0) VEL_Exception::ThrowException(87);
    }
    static Service* instance(int size = 9) {
        return VEL_Singleton<Service, VEL_Base_Mutex>::instance(instance_, lock_, size);
    }
    int size() const { return size_; }
    static bool exists() { return instance_.load() != nullptr; }
    static inline std::atomic<int> made{0};

private:
    int size_;
    static inline std::atomic<Service*> instance_{nullptr};
    static inline VEL_Thread_Mutex lock_;
};

TEST(Singleton, IsMadeOnceAndFreshAfterARelease) {
    EXPECT_EQ(Service::instance(-1), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    EXPECT_FALSE(Service::exists());
    Service::made = 0;
    for (int round = 1; round <= 3; ++round) {
        std::vector<std::thread> threads;
        std::atomic<Service*> seen{nullptr};
        std::atomic<int> different{0};
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([&] {
                Service* mine = Service::instance();
                Service* before = nullptr;
                if (!seen.compare_exchange_strong(before, mine) && before != mine) ++different;
            });
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(different, 0);
        EXPECT_EQ(Service::made, round);
        EXPECT_EQ(Service::instance()->size(), 9);
        VEL_SingleInstance::release_all_instance();
        EXPECT_FALSE(Service::exists());
    }
}

// Making one holds the class's lock and then takes the list's; releasing must not take them the other way round.
TEST(Singleton, ReleaseAndCreationDoNotLockEachOtherOut) {
    std::atomic<bool> stop{false};
    std::thread maker([&] {
        while (!stop) Service::instance();
    });
    for (int round = 0; round < 2000; ++round) VEL_SingleInstance::release_all_instance();
    stop = true;
    maker.join();
    VEL_SingleInstance::release_all_instance();
}

} // namespace
