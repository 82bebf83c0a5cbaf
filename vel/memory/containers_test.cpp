// List and hash map.
#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>
#include <vel/memory/hash_map.h>
#include <vel/memory/list.h>
#include <vel/testing/expect_failure.h>

namespace {

using vel::testing::expect_failure;

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
    EXPECT_EQ(values(list), (std::vector<int>{4, 2, 1, 9, 3}));
    EXPECT_EQ(backwards(list), (std::vector<int>{3, 9, 1, 2, 4}));
    for (int value : {4, 3, 1}) EXPECT_EQ(list.remove_value(value), 0); // first, last, middle
    EXPECT_EQ(values(list), (std::vector<int>{2, 9}));
    EXPECT_EQ(backwards(list), (std::vector<int>{9, 2}));
    EXPECT_EQ(list.remove_value(1), -1);
}

TEST(List, CopiesAreDeepAndMovesEmptyTheSource) {
    VEL_List<int> list, copy;
    list.push_back(1);
    copy = list;
    list.push_back(2);
    EXPECT_EQ(values(copy), (std::vector<int>{1}));
    VEL_List<int> moved = std::move(list);
    EXPECT_EQ(backwards(moved), (std::vector<int>{2, 1}));
    EXPECT_TRUE(list.is_empty()); // NOLINT: what moving leaves behind is the point
}

struct Fussy {
    static inline uint32_t fail_with = 0;
    Fussy() = default;
    Fussy(const Fussy&) {
        if (fail_with == 8) throw std::bad_alloc();
        if (fail_with != 0) VEL_Exception::ThrowException(fail_with);
    }
};

TEST(Containers, FailedInsertionReportsItsCodeAndChangesNothing) {
    VEL_List<Fussy> list;
    VEL_Hash_Map<int, Fussy> map(7);
    const Fussy fussy;
    Fussy::fail_with = 87;
    expect_failure(87, list.push_back(fussy));
    Fussy::fail_with = 8;
    expect_failure(8, map.bind(1, fussy));
    EXPECT_TRUE(list.is_empty());
    EXPECT_EQ(map.find(1), nullptr);
}

TEST(HashMap, FindsTheNewestOfEqualKeysAndRefusesImpossibleSizes) {
    VEL_Hash_Map<int, int> late; // its table is made by the first insertion
    EXPECT_EQ(late.bind(1, 2) + late.bind(1, 3), 0);
    EXPECT_EQ(*late.find(1), 3);
    EXPECT_THROW((VEL_Hash_Map<int, int>(0)), VEL_Exception);
    EXPECT_THROW((VEL_Hash_Map<int, int>(UINT64_MAX / 4)), VEL_Exception) << "the size of the table wraps";
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
