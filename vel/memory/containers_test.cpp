// List, queue and hash map.
#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>
#include <vel/memory/hash_map.h>
#include <vel/memory/queue.h>

#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // VEL_HFunc has no virtual destructor, so neither has what derives

namespace {

std::vector<int> values(const VEL_List<int>& list) { return {list.begin(), list.end()}; }

std::vector<int> backwards(const VEL_List<int>& list) {
    std::vector<int> result;
    for (auto* node = list.tail(); node; node = node->prev()) result.push_back(node->value());
    return result;
}

TEST(List, LinksStayWholeThroughEveryKindOfChange) {
    VEL_List<int> list;
    for (int value : {2, 3, 4}) EXPECT_EQ(list.push_back(value), 0);
    EXPECT_EQ(list.push_front(1), 0);
    EXPECT_EQ(list.insert_before(list.find_node(3), 9), 0);
    EXPECT_EQ(values(list), (std::vector<int>{1, 2, 9, 3, 4}));
    list.move_before(list.head(), nullptr);
    list.move_before(list.tail(), list.find_node(9));
    list.move_before(list.find_node(4), list.head());
    list.move_before(list.head(), list.head());
    EXPECT_EQ(values(list), (std::vector<int>{4, 2, 1, 9, 3}));
    EXPECT_EQ(backwards(list), (std::vector<int>{3, 9, 1, 2, 4}));
    for (int value : {4, 3, 1}) EXPECT_EQ(list.remove_value(value), 0); // first, last, middle
    EXPECT_EQ(values(list), (std::vector<int>{2, 9}));
    EXPECT_EQ(backwards(list), (std::vector<int>{9, 2}));
    EXPECT_EQ(list.size(), 2u);
    EXPECT_EQ(list.find(9), 0);
    VELLib::SetErrorCode(42);
    EXPECT_EQ(list.find(1), -1);
    EXPECT_EQ(list.remove_value(1), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 42u);
}

TEST(List, CopiesAreDeepAndMovesEmptyTheSource) {
    VEL_List<std::unique_ptr<int>> pointers; // a type that cannot be copied
    EXPECT_EQ(pointers.push_back(std::make_unique<int>(5)), 0);
    VEL_List<int> list;
    list.push_back(1);
    VEL_List<int> copy = list;
    list.push_back(2);
    EXPECT_EQ(values(copy), (std::vector<int>{1}));
    copy = list;
    EXPECT_EQ(values(copy), (std::vector<int>{1, 2}));
    VEL_List<int> moved = std::move(copy);
    EXPECT_EQ(values(moved), (std::vector<int>{1, 2}));
    EXPECT_TRUE(copy.is_empty()); // NOLINT: what moving leaves behind is the point
}

struct Fussy {
    static inline uint32_t fail_with = 0;
    Fussy() = default;
    Fussy(const Fussy&) {
        if (fail_with == 8) throw std::bad_alloc();
        if (fail_with != 0) VEL_Exception::ThrowException(fail_with);
    }
    Fussy& operator=(const Fussy&) = default;
};

TEST(Containers, FailedInsertionReportsItsCodeAndChangesNothing) {
    VEL_List<Fussy> list;
    VEL_Hash_Map<int, Fussy> map(7);
    const Fussy fussy;
    for (uint32_t code : {8u, 87u}) {
        Fussy::fail_with = code;
        VELLib::SetErrorCode(0);
        EXPECT_EQ(list.push_back(fussy), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), code);
        VELLib::SetErrorCode(0);
        EXPECT_EQ(map.bind(1, fussy), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), code);
    }
    Fussy::fail_with = 0;
    EXPECT_TRUE(list.is_empty());
    EXPECT_TRUE(map.is_empty());
    EXPECT_EQ(map.find(1), nullptr);
}

TEST(Queue, IsFirstInFirstOutAndSilentWhenEmpty) {
    VEL_Queue<int> queue;
    queue.enqueue(1);
    queue.enqueue(2);
    int value = 0;
    for (int expected : {1, 2}) {
        EXPECT_EQ(*queue.peek(), expected);
        EXPECT_EQ(queue.dequeue(value), 0);
        EXPECT_EQ(value, expected);
    }
    VELLib::SetErrorCode(42);
    EXPECT_EQ(queue.dequeue(value), -1);
    EXPECT_EQ(queue.peek(), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), 42u);
}

// The code of the exception that a map with this number of buckets raises.
uint32_t refused_table(uint64_t buckets) {
    try {
        VEL_Hash_Map<int, int> map(buckets);
        return 0;
    } catch (const VEL_Exception& exception) {
        return exception.GetErrorCode();
    }
}

TEST(HashMap, CreatesItsTableAtTheFirstInsertionOrAtOnce) {
    VEL_Hash_Map<int, int> late;
    EXPECT_EQ(late.bucket_count(), 0u);
    EXPECT_EQ(late.find(1), nullptr);
    EXPECT_EQ(late.unbind(1), -1);
    EXPECT_EQ(late.bind(1, 2), 0);
    EXPECT_EQ(late.bucket_count(), 32749u);
    EXPECT_EQ((VEL_Hash_Map<int, int>(67).bucket_count()), 67u);
    EXPECT_EQ(refused_table(0), 0x2000000Bu);
    EXPECT_EQ(refused_table(UINT64_MAX / 4), 8u) << "the size of the table wraps";
}

TEST(HashMap, NewestOfEqualKeysIsFoundFirst) {
    VEL_Hash_Map<std::string, int> map(3);
    map.bind("a", 1);
    map.bind("b", 2);
    map.bind("a", 3);
    EXPECT_EQ(*map.find("a"), 3);
    int value = 0;
    EXPECT_EQ(map.unbind("a", value), 0);
    EXPECT_EQ(value, 3);
    EXPECT_EQ(*map.find("a"), 1);
    EXPECT_EQ(map.size(), 2u);
}

class WrongHash : public VEL_HFunc {
public:
    using VEL_HFunc::HashFunc;
    uint64_t HashFunc(int key, uint64_t buckets) const override { return key == 13 ? buckets : 0; }
};

TEST(HashMap, RefusesABucketThatDoesNotExist) {
    VEL_Hash_Map<int, int, WrongHash> map;
    EXPECT_EQ(map.bind(1, 1), 0);
    EXPECT_EQ(map.bind(13, 1), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x20000005u);
    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(map.find(13), nullptr);
    EXPECT_EQ(map.tail()->key(), 1);
}

// Against a reference: few buckets, so that chains are long and every unlink case occurs.
TEST(HashMap, AgreesWithAReferenceThroughRandomChanges) {
    std::mt19937 generator(20240607);
    VEL_Hash_Map<uint64_t, uint64_t> map(5);
    std::vector<uint64_t> order; // of insertion; the values are twice the keys
    for (int step = 0; step < 20000; ++step) {
        const uint64_t key = generator() % 40;
        const auto known = std::find(order.begin(), order.end(), key);
        const uint64_t* found = map.find(key);
        ASSERT_EQ(found != nullptr, known != order.end());
        if (found) {
            ASSERT_EQ(*found, 2 * key);
            ASSERT_EQ(map.unbind(key), 0);
            order.erase(known);
        } else {
            ASSERT_EQ(map.bind(key, 2 * key), 0);
            order.push_back(key);
        }
        ASSERT_EQ(map.size(), order.size());
    }
    std::vector<uint64_t> forwards, backwards;
    for (auto& entry : map) forwards.push_back(entry.key());
    for (auto* node = map.tail(); node; node = node->prev()) backwards.insert(backwards.begin(), node->key());
    EXPECT_EQ(forwards, order);
    EXPECT_EQ(backwards, order);
}

} // namespace
