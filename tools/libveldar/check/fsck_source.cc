#include "tools/libveldar/check/fsck_source.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "tools/libveldar/check/fsck_slice.h"
#include "tools/libveldar/query/slice_events.h"

namespace veldar::tool {

namespace {

constexpr size_t TERMS_NAMED = 3;

using term_list = std::vector<std::string_view>;

struct events_closer {
    slice_events* events;
    ~events_closer() { slice_events_close(events); }
};

std::string named(const char* what, const term_list& terms) {
    std::string out;
    for (size_t i = 0; i < std::min(terms.size(), TERMS_NAMED); i++) {
        out += fmt::format("{}\"{}\"", i == 0 ? fmt::format("; {} ", what) : ", ", fsck_term_text(terms[i]));
    }
    return terms.size() > TERMS_NAMED ? out + fmt::format(" and {} more", terms.size() - TERMS_NAMED) : out;
}

term_list without(const term_list& terms, const term_list& others) {
    term_list out;
    std::set_difference(terms.begin(), terms.end(), others.begin(), others.end(), std::back_inserter(out));
    return out;
}

term_list sorted_terms(std::span<const std::string_view> terms) {
    term_list out(terms.begin(), terms.end());
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

// What the record gives: with parts of words as terms where the index has some that are in no whole one.
bool cut_again(source_check* check, const event_t& event, const term_list& indexed, term_list* terms) {
    bool is_known = false;
    log_event_maker* const maker = &check->terms.maker;
    for (const bool parts : {false, true}) {
        maker->with_parts = parts;
        // A time without a year or a day is near the one that the index has.
        maker->context.modified_s = event.value.time;
        maker->context.zone_taken = false;
        *terms = sorted_terms(event_terms_of(&check->terms, event, &is_known));
        if (!is_known || terms->size() >= indexed.size()) break;
    }
    return is_known;
}

// The store does not keep which zone a load took for times that say none: then they may be apart as zones are.
bool is_same_time(const log_event_maker& maker, st_time_t indexed) {
    constexpr int64_t QUARTER = 900, MOST = 26 * 3600;
    const int64_t apart = std::abs(int64_t{maker.time.time_s} - indexed);
    return apart == 0 || (maker.context.zone_taken && apart % QUARTER == 0 && apart <= MOST);
}

void compare(source_check* check, const event_t& event, const term_list& indexed) {
    term_list cut;
    if (!cut_again(check, event, indexed, &cut)) {
        check->unreadable++;
        return;
    }
    check->compared++;
    const log_event_maker& maker = check->terms.maker;
    const bool same_time = !maker.first.has_time || is_same_time(maker, event.value.time);
    if (same_time && cut == indexed) return;
    check->differing++;
    if (check->lines.size() >= check->most_lines) return;
    const raw_record& record = check->source.record;
    std::string line = fmt::format("{} at byte {} (address {})", record.path, record.offset, event.value.address);
    if (!same_time) {
        line += fmt::format("; the record's time is {}, in the index {}", maker.time.time_s, event.value.time);
    }
    line += named("not in the index:", without(cut, indexed)) + named("not in the record:", without(indexed, cut));
    check->lines.push_back(std::move(line));
}

}  // namespace

void source_check_open(source_check* check, const slice_set* slices, troubles* trouble) {
    event_source_open(&check->source, slices, trouble);
    event_source_read_names(&check->source);
    check->terms.source = &check->source;
}

int source_check_slice(source_check* check, WARM* warm, uint32_t directory, warm_rc_t* rc) {
    slice_events events;
    const events_closer closer{&events};
    ST_TRY(slice_events_open(&events, warm, SLICE_EVENTS_BUDGET, rc));
    term_list indexed;
    do {
        ST_TRY(slice_events_next(&events, rc));
        for (uint32_t id = events.begin; id < events.end; id++) {
            event_t event = {};
            if (id % check->every != 0) continue;
            ST_TRY(tsval_reader_decode(&warm->tsval_reader, id, &event.value, false, 0, rc));
            if (event.value.s == ST_DELETED_SOURCE) continue;
            event.source = directory;
            indexed.clear();
            for (const uint32_t term : slice_events_terms(events, id))
                indexed.push_back(slice_events_term(events, term));
            compare(check, event, indexed);
        }
    } while (events.begin < events.end);
    return 0;
}

}  // namespace veldar::tool
