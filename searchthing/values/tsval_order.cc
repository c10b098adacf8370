#include "searchthing/values/tsval_order.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace veldar {

namespace {

// The sign of "a before b" in a descending order.
template <typename T>
int descending(T a, T b) {
    return (a < b) - (a > b);
}

int compare_keys(st_time_t a_time, uint32_t a_address, st_time_t b_time, uint32_t b_address) {
    const int by_time = descending(a_time, b_time);
    return by_time != 0 ? by_time : descending(a_address, b_address);
}

// Equal elements stay in the order they came in, so that whatever is written from a sorted array is reproducible.
template <typename T, typename Compare>
void sort_records(T* records, size_t count, Compare compare) {
    std::stable_sort(records, records + count, [compare](const T& a, const T& b) { return compare(&a, &b) < 0; });
}

template <typename T, typename Compare>
void sort_pointers(T** pointers, size_t count, Compare compare) {
    std::stable_sort(pointers, pointers + count, [compare](const T* a, const T* b) { return compare(a, b) < 0; });
}

int compare_enum_terms(const void* a, const void* b) {
    return std::strcmp(static_cast<const st_enum_answer*>(a)->term, static_cast<const st_enum_answer*>(b)->term);
}

void move_enum_answer(st_enum_answer* to, const st_enum_answer* from) {
    static_assert(sizeof to->term > ST_MAX_TERM_LENGTH);
    const size_t length = ::strnlen(from->term, ST_MAX_TERM_LENGTH);
    std::memcpy(to->term, from->term, length);
    to->term[length] = '\0';
    to->id = from->id;
}

}  // namespace

int st_tsval_compare(const void* a, const void* b) {
    const st_tsval* x = static_cast<const st_tsval*>(a);
    const st_tsval* y = static_cast<const st_tsval*>(b);
    return compare_keys(x->time, x->address, y->time, y->address);
}

void st_tsval_qsort(st_tsval* values, uint32_t count) {
    sort_records(values, count, st_tsval_compare);
}

void st_tsval_ptr_qsort(st_tsval** values, uint32_t count) {
    sort_pointers(values, count, st_tsval_compare);
}

int st_tsval_compare_dimsets(const void* a, const void* b) {
    const st_tsval* x = static_cast<const st_tsval*>(a);
    const st_tsval* y = static_cast<const st_tsval*>(b);
    const int by_address = descending(x->address, y->address);
    return by_address != 0 ? by_address : descending(x->time, y->time);
}

void st_tsval_ptr_qsort_dimsets(st_tsval** values, uint32_t count) {
    sort_pointers(values, count, st_tsval_compare_dimsets);
}

int st_tsval_compare_dimsets_with_subsecond(const void* a, const void* b) {
    const int by_second = st_tsval_compare_dimsets(a, b);
    if (by_second != 0) return by_second;
    return descending(static_cast<const st_tsval*>(a)->subsecond, static_cast<const st_tsval*>(b)->subsecond);
}

void st_tsval_ptr_qsort_dimsets_with_subsecond(st_tsval** values, uint32_t count) {
    sort_pointers(values, count, st_tsval_compare_dimsets_with_subsecond);
}

int tsval_key_compare(const st_tsval_encoded* a, const st_tsval_encoded* b) {
    return compare_keys(a->time, a->address, b->time, b->address);
}

void st_tsval_enc_ptr_qsort(st_tsval_encoded** keys, uint32_t count) {
    sort_pointers(keys, count, tsval_key_compare);
}

int st_ntsval_compare(const void* a, const void* b) {
    const st_ntsval* x = static_cast<const st_ntsval*>(a);
    const st_ntsval* y = static_cast<const st_ntsval*>(b);
    return compare_keys(static_cast<st_time_t>(x->time.get()), x->address.get(), static_cast<st_time_t>(y->time.get()),
                        y->address.get());
}

void st_tid_offset_ptr_qsort(cs_tid_offset_t** entries, uint32_t count) {
    sort_pointers(entries, count, [](const cs_tid_offset_t* a, const cs_tid_offset_t* b) {
        return descending(b->term_id, a->term_id);
    });
}

void st_unsigned_qsort(uint32_t* numbers, size_t count) {
    std::sort(numbers, numbers + count);
}

void st_revsort_qsort(st_revsort* records, uint32_t count) {
    sort_records(records, count,
                 [](const st_revsort* a, const st_revsort* b) { return std::strcmp(a->text, b->text); });
}

// The C library sorts records of this size through pointers and moves each once.
void st_enum_answer_qsort(st_enum_answer* answers, uint32_t count) {
    if (count > 1) std::qsort(answers, count, sizeof *answers, compare_enum_terms);
}

int st_tsval_gather(st_tsval* values, int count) {
    if (count < 2) return count;
    constexpr size_t KEY_BYTES = sizeof(st_tsval_encoded);
    int kept = 0;
    for (int i = 1; i < count; i++) {
        if (std::memcmp(&values[kept], &values[i], KEY_BYTES) == 0) continue;
        kept++;
        if (kept != i) std::memcpy(static_cast<void*>(&values[kept]), &values[i], KEY_BYTES);
    }
    return kept + 1;
}

int st_enum_gather(st_enum_answer* answers, int count) {
    if (count < 2) return count;
    int kept = 0;
    for (int i = 1; i < count; i++) {
        if (compare_enum_terms(&answers[kept], &answers[i]) == 0) {
            answers[kept].id += answers[i].id;
            continue;
        }
        kept++;
        if (kept != i) move_enum_answer(&answers[kept], &answers[i]);
    }
    return kept + 1;
}

}  // namespace veldar
