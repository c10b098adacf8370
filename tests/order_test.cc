#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "searchthing/values/tsval_order.h"

namespace veldar {

namespace {

// Few distinct keys, at both ends of their ranges, so that ties and wrapped comparisons show.
std::vector<st_tsval> random_values(size_t count) {
    std::mt19937 random(4);
    const st_time_t times[] = {INT32_MIN, -1, 0, 1, INT32_MAX};
    const st_addr_t addresses[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    const uint64_t subseconds[] = {0, 1, uint64_t{1} << 40};
    std::vector<st_tsval> values(count);
    for (size_t i = 0; i < count; i++) {
        values[i] = {};
        values[i].time = times[random() % 5];
        values[i].address = addresses[random() % 5];
        values[i].subsecond = subseconds[random() % 3];
        values[i].pad = static_cast<uint32_t>(i);  // where it came from
    }
    return values;
}

// Sorts pointers to the values and checks that keys descend and that equal keys keep their order.
template <typename Sort, typename Key>
void expect_descending(Sort sort, Key key) {
    std::vector<st_tsval> values = random_values(500);
    std::vector<st_tsval*> pointers;
    for (st_tsval& value : values) pointers.push_back(&value);
    sort(pointers.data(), static_cast<uint32_t>(pointers.size()));
    EXPECT_EQ(std::set<st_tsval*>(pointers.begin(), pointers.end()).size(), values.size());
    for (size_t i = 1; i < pointers.size(); i++) {
        const st_tsval &a = *pointers[i - 1], &b = *pointers[i];
        EXPECT_TRUE(key(a) > key(b) || (key(a) == key(b) && a.pad < b.pad)) << i;
    }
}

TEST(Order, ValuesDescendAndTiesKeepTheirOrder) {
    expect_descending(st_tsval_ptr_qsort, [](const st_tsval& v) { return std::tuple(v.time, v.address); });
    expect_descending(st_tsval_ptr_qsort_dimsets, [](const st_tsval& v) { return std::tuple(v.address, v.time); });
    expect_descending(st_tsval_ptr_qsort_dimsets_with_subsecond,
                      [](const st_tsval& v) { return std::tuple(v.address, v.time, v.subsecond); });
}

TEST(Order, RecordsKeysAndFileOrderAgree) {
    std::vector<st_tsval> values = random_values(200);
    std::vector<st_tsval_encoded> keys;
    const auto file_order = [](const st_tsval& v) {
        st_ntsval n;
        n.time.set(static_cast<uint32_t>(v.time));
        n.address.set(v.address);
        return n;
    };
    for (const st_tsval& a : values) {
        keys.push_back({a.time, a.address});
        for (const st_tsval& b : values) {
            const st_ntsval x = file_order(a), y = file_order(b);
            EXPECT_EQ(st_ntsval_compare(&x, &y), st_tsval_compare(&a, &b));
        }
    }
    std::vector<st_tsval_encoded*> pointers;
    for (st_tsval_encoded& key : keys) pointers.push_back(&key);
    st_tsval_enc_ptr_qsort(pointers.data(), 200);
    st_tsval_qsort(values.data(), 200);
    for (size_t i = 0; i < values.size(); i++) {
        EXPECT_TRUE(pointers[i]->time == values[i].time && pointers[i]->address == values[i].address) << i;
    }
}

TEST(Order, NumbersAndTexts) {
    std::vector<uint32_t> numbers = {3, 0xFFFFFFFF, 0, 0x80000000, 3};
    st_unsigned_qsort(numbers.data(), numbers.size());
    EXPECT_EQ(numbers, (std::vector<uint32_t>{0, 3, 3, 0x80000000, 0xFFFFFFFF}));
    cs_tid_offset_t entries[] = {{0xFFFFFFFF, 1}, {0, 2}, {5, 3}};
    cs_tid_offset_t* pointers[] = {&entries[0], &entries[1], &entries[2]};
    st_tid_offset_ptr_qsort(pointers, 3);
    EXPECT_TRUE(pointers[0]->offset == 2 && pointers[1]->offset == 3 && pointers[2]->offset == 1);
    st_revsort records[] = {{"b", 1}, {"\xFF", 2}, {"", 3}, {"ba", 4}};
    st_revsort_qsort(records, 4);
    for (size_t i = 0; i < 4; i++) EXPECT_EQ(records[i].payload, "\3\1\4\2"[i]);
}

TEST(Gather, ValuesMoveTheirKeysAlone) {
    std::vector<st_tsval> values(5);
    const uint32_t addresses[] = {9, 9, 8, 8, 7};
    for (uint32_t i = 0; i < 5; i++) {
        values[i] = {};
        values[i].time = 1;
        values[i].address = addresses[i];
        values[i].s = i;
    }
    EXPECT_EQ(st_tsval_gather(values.data(), 5), 3);
    for (uint32_t i = 0; i < 3; i++) {
        EXPECT_EQ(values[i].address, 9 - i);
        EXPECT_EQ(values[i].s, i) << "the slot's own";
    }
    EXPECT_EQ(st_tsval_gather(values.data(), 1), 1);
    EXPECT_EQ(st_tsval_gather(nullptr, 0), 0);
}

}  // namespace

}  // namespace veldar
