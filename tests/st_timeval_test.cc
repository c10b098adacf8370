#include "searchthing/base/st_timeval.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <string>

#include "searchthing/base/list.h"
#include "tests/support/damage.h"
#include "tests/support/faults.h"

namespace veldar {

namespace {

constexpr st_time_t FIRST = std::numeric_limits<st_time_t>::min();
constexpr st_time_t LAST = std::numeric_limits<st_time_t>::max();

TEST(TimeValue, CarriesBorrowsAndSaturates) {
    st_timeval_t a = {1, 600000000}, b = {2, 500000000};
    EXPECT_EQ(st_timeval_add(&a, &b, &a), 4);
    EXPECT_EQ(a, (st_timeval_t{4, 100000000}));
    st_timeval_subtract(&a, 2, 500000000, &a);
    EXPECT_EQ(a, (st_timeval_t{1, 600000000}));
    st_timeval_t out;
    st_timeval_subtract_one(true, &(b = {0, 0}), &out);
    EXPECT_EQ(out, (st_timeval_t{-1, 999999999}));
    for (const bool nanosecond : {true, false}) {
        st_timeval_subtract_one(nanosecond, &(b = {FIRST, 0}), &out);
        EXPECT_EQ(out, (st_timeval_t{FIRST, 0}));
    }
    st_timeval_add(&(a = {LAST, 999999999}), &(b = {0, 1}), &out);
    EXPECT_EQ(out, (st_timeval_t{LAST, 999999999}));
}

TEST(TimeValue, FromFileNameComponents) {
    const std::vector<std::string> rows = data_rows("file-name-times");
    for (size_t i = 0; i + 1 < rows.size(); i += 2) {
        errno = 0;
        st_timeval_t out = {};
        std::string said = std::to_string(st_timeval_from_ospath(&out, rows[i].c_str()));
        said += " " + std::to_string(out.time_s) + " " + std::to_string(out.time_ns);
        EXPECT_EQ(said, rows[i + 1]) << rows[i];
    }
    errno = ERANGE;
    st_timeval_t out;
    EXPECT_EQ(st_timeval_from_ospath(&out, "1"), 0) << "an earlier range error counts";
}

TEST(TimeValue, RangeOverSpan) {
    const st_timeval_t from = {100, 0}, to = {110, 250000000};
    const auto spans = [&](st_timeval_t span) { return st_timeval_compute_range_over_span(&from, &to, &span); };
    EXPECT_EQ(spans({5, 0}), 3u);
    EXPECT_EQ(spans({60, 999}), 1u);
    EXPECT_EQ(spans({0, 100000000}), 103u);
    const st_timeval_t first = {FIRST, 0}, last = {LAST, 0}, second = {1, 0};
    EXPECT_EQ(st_timeval_compute_range_over_span(&first, &last, &second), 0x80000000u);
}

TEST(List, KeepsItsOrderAfterItRanEmpty) {
    list_t* list = new_list(nullptr);
    int items[3] = {0, 1, 2};
    EXPECT_EQ(pop_front(list), nullptr);
    append_list_node(list)->item = &items[0];
    EXPECT_EQ(pop_front(list), &items[0]);
    list_t* other = new_list(nullptr);
    append_list_node(other);  // takes the memory of the node before
    EXPECT_EQ(push_front(list, &items[1]), 0);
    append_list_node(list)->item = &items[2];
    EXPECT_EQ(push_front(list, &items[0]), 0);
    {
        const fault_step no_memory(fault_action::allocation, 1);
        EXPECT_EQ(push_front(list, &items[2]), -1);
    }
    EXPECT_TRUE(get_count(list) == 3 && top_front(list) == &items[0]);
    for (int& item : items) EXPECT_EQ(pop_front(list), &item);
    list_apply(nullptr, nullptr, nullptr);
    delete_list(&list, false);
    delete_list(&other, false);
}

}  // namespace

}  // namespace veldar
