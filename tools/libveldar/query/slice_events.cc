#include "tools/libveldar/query/slice_events.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "searchthing/lexicon/fclex.h"
#include "searchthing/slice/warmslice_lists.h"

namespace veldar::tool {

namespace {

constexpr uint64_t MOST_VALUES = uint64_t{1} << 22;  // of one batch
constexpr uint64_t PLO_SPAN = 1024;

int take_term(int32_t, const char* term, size_t length, void* context) {
    auto* const events = static_cast<slice_events*>(context);
    events->text.append(term, length);
    events->text_end.push_back(events->text.size());
    return 0;
}

// Calls `f` with the numbers of each list that lie in [begin, end), some at a time.
template <typename F>
int for_each_posting(slice_events* events, uint32_t begin, uint32_t end, const F& f, warm_rc_t* rc) {
    std::array<uint32_t, 4096> numbers;
    plist_reader* const reader = &events->reader;
    for (uint32_t term = 0; term < st_warm_slice_terms(events->warm); term++) {
        uint32_t first = 0;
        ST_TRY(_seek_reader(reader, term, rc));
        ST_TRY(_seek(reader, begin, &first, rc));
        if (first >= end) continue;
        f(term, first);
        for (uint32_t count = numbers.size(); count == numbers.size();) {
            ST_TRY(plist_copy(reader, numbers.data(), numbers.size(), end, &count, rc));
            for (uint32_t i = 0; i < count; i++) f(term, numbers[i]);
        }
    }
    return 0;
}

// How many values a batch begins with: what the budget holds on average.
uint64_t usual_run(const slice_events& events) {
    const uint64_t values = st_warm_slice_values(events.warm), postings = events.warm->body->num_postings.get();
    return std::clamp<uint64_t>(postings == 0 ? values : events.budget * values / postings, 1, MOST_VALUES);
}

// Shortens the batch to what the budget holds, but not to nothing, and turns the counts into ends.
void fit_run(slice_events* events) {
    std::vector<uint64_t>& ends = events->terms_end;
    std::partial_sum(ends.begin(), ends.end(), ends.begin());
    const auto over = std::upper_bound(ends.begin(), ends.end(), events->budget);
    ends.resize(static_cast<size_t>(std::max<ptrdiff_t>(over - ends.begin(), 1)));
    events->end = events->begin + static_cast<uint32_t>(ends.size());
}

}  // namespace

int slice_events_open(slice_events* events, WARM* warm, uint64_t budget, warm_rc_t* rc) {
    events->warm = warm;
    events->budget = budget;
    events->has_lists =
        st_warm_slice_has_fclex(warm) && st_warm_slice_has_postings(warm) && !st_warm_slice_is_msidx(warm->body);
    if (!events->has_lists) return 0;
    const int64_t walked = st_fclex_apply(warm->lexicon, nullptr, take_term, events, nullptr);
    if (walked < 0) return _set_rc_msg(rc, static_cast<int>(walked), "lexicon");
    if (events->text_end.size() != st_warm_slice_terms(warm)) return _set_rc_msg(rc, WARM_RC_CORRUPT, "lexicon");
    return _init_reader(&events->reader, warm, PLO_SPAN, nullptr, rc);
}

int slice_events_next(slice_events* events, warm_rc_t* rc) {
    const uint32_t values = st_warm_slice_values(events->warm);
    events->begin = events->end;
    events->end = static_cast<uint32_t>(std::min<uint64_t>(events->begin + usual_run(*events), values));
    events->terms_end.assign(events->end - events->begin, 0);
    if (!events->has_lists || events->begin == events->end) return 0;
    const uint32_t begin = events->begin;
    const auto count = [&](uint32_t, uint32_t value) { events->terms_end[value - begin]++; };
    ST_TRY(for_each_posting(events, begin, events->end, count, rc));
    fit_run(events);

    // Each value's terms are filled in from its beginning, which becomes its end.
    std::vector<uint64_t>& at = events->terms_end;
    events->terms.resize(at.back());
    std::rotate(at.begin(), at.end() - 1, at.end());
    at.front() = 0;
    const auto fill = [&](uint32_t term, uint32_t value) { events->terms[at[value - begin]++] = term; };
    return for_each_posting(events, begin, events->end, fill, rc);
}

void slice_events_close(slice_events* events) {
    close_plist_reader(&events->reader);
}

std::span<const uint32_t> slice_events_terms(const slice_events& events, uint32_t value) {
    if (!events.has_lists) return {};
    const size_t index = value - events.begin;
    const uint64_t begin = index == 0 ? 0 : events.terms_end[index - 1];
    return std::span(events.terms).subspan(begin, events.terms_end[index] - begin);
}

std::string_view slice_events_term(const slice_events& events, uint32_t term) {
    const uint64_t begin = term == 0 ? 0 : events.text_end[term - 1];
    return std::string_view(events.text).substr(begin, events.text_end[term] - begin);
}

}  // namespace veldar::tool
