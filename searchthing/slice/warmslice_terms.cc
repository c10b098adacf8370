#include "searchthing/slice/warmslice_terms.h"

#include <algorithm>

#include "searchthing/slice/warmslice_meta.h"

namespace veldar {

namespace {

int need_lexicon(const WARM* warm, warm_rc_t* rc) {
    return st_warm_slice_has_fclex(warm) ? 0 : _set_rc_msg(rc, WARM_RC_MINIFIED, "minified slice");
}

}  // namespace

int warm_terms::open(WARM* warm, const term_choice_t& choice, uint64_t piece_bytes, warm_rc_t* rc) {
    ST_TRY(need_lexicon(warm, rc));
    warm_ = warm;
    choice_ = &choice;
    const char* prefix = choice.prefix.c_str();
    if (choice.needle) {
        matcher_.reset(createMatcher(choice.needle->c_str()));
        if (matcher_ == nullptr) return _set_rc(rc, WARM_RC_NO_MEMORY);
        if (getWord(matcher_.get()) != nullptr) return 0;
        const char* const start = getHardStart(matcher_.get());
        if (start != nullptr && choice.prefix.size() < std::string_view(start).size()) prefix = start;
    }
    std::string_view infix;
    if (matcher_ != nullptr) infix = getLongestPiece(matcher_.get());
    const char* const after = choice.after ? choice.after->c_str() : nullptr;
    cursor_ = fclex_cursor_open(warm->lexicon, prefix, after, infix, piece_bytes, nullptr, rc);
    return cursor_ == nullptr ? rc->warm_rc : 0;
}

bool warm_terms::is_wanted() const {
    if (matcher_ != nullptr) {
        if (cursor_ != nullptr && isMatch(term_.text, matcher_.get()) == 0) return false;
        if (!text().starts_with(choice_->prefix)) return false;
    }
    return !choice_->wanted || choice_->wanted(text());
}

int warm_terms::look_up(warm_rc_t* rc) {
    term_ = {};
    const std::string& word = *choice_->needle;
    if (looked_up_ || word.size() > ST_MAX_TERM_LENGTH || (choice_->after && word <= *choice_->after)) return 0;
    looked_up_ = true;
    uint32_t id = 0;
    const int status = _fclex_get_with_status(warm_->lexicon, word.c_str(), &id, nullptr, rc);
    if (status != 0) return status == WARM_RC_NOT_FOUND ? _set_rc(rc, WARM_RC_OK) : status;
    term_ = {.id = id, .length = static_cast<uint32_t>(word.size()), .text = word.c_str()};
    if (!is_wanted()) term_ = {};
    return 0;
}

int warm_terms::next(warm_rc_t* rc) {
    if (cursor_ == nullptr) return look_up(rc);
    do {
        ST_TRY(fclex_cursor_next(cursor_.get(), &term_, rc));
    } while (!at_end() && !is_wanted());
    return 0;
}

int warm_terms::add_totals(term_totals_t* totals, warm_rc_t* rc) {
    st_term_metadata record;
    ST_TRY(warm_slice_recomputed_metadata(warm_, term_.id, nullptr, &record, rc));
    const bool counts_only = warm_header_meta_type(warm_->body) == META_COUNT_ONLY;
    const st_time_t earliest = counts_only ? st_warm_slice_earliest(warm_) : static_cast<st_time_t>(record.earliest);
    const st_time_t latest = counts_only ? st_warm_slice_latest(warm_) : static_cast<st_time_t>(record.latest);
    totals->earliest = totals->count == 0 ? earliest : std::min(totals->earliest, earliest);
    totals->latest = totals->count == 0 ? latest : std::max(totals->latest, latest);
    totals->count += record.count;
    return 0;
}

int64_t warm_slice_apply_terms(WARM* warm, const char* prefix, warm_term_fn fn, void* context, warm_rc_t* rc) {
    ST_TRY(need_lexicon(warm, rc));
    struct {
        WARM* warm;
        warm_term_fn fn;
        void* context;
        warm_rc_t rc;
        bool stopped;
    } walk = {warm, fn, context, {}, false};
    const auto visit = [](int32_t id, const char* term, size_t length, void* opaque) {
        auto* const at = static_cast<decltype(walk)*>(opaque);
        uint32_t count = 0;
        if (get_meta_count(at->warm, static_cast<uint32_t>(id), nullptr, &count, &at->rc) != 0) return -1;
        const int result = at->fn(term, length, count, at->context);
        at->stopped = result == -1;
        return result;
    };
    const int64_t total = st_fclex_apply(warm->lexicon, prefix, visit, &walk, nullptr);
    if (walk.rc.warm_rc != 0) return _cpy_rc(rc, &walk.rc);
    if (total >= 0 || walk.stopped) return total;
    return _set_rc_msg(rc, static_cast<int>(total), "walking the lexicon");
}

int warm_slice_enum(WARM* warm, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag,
                    warm_rc_t* rc) {
    ST_TRY(need_lexicon(warm, rc));
    uint32_t count = 0;
    const int status = fclex_enum_told(warm->lexicon, prefix, answers, capacity, case_flag, &count);
    if (status != 0) return _set_rc_msg(rc, status, "walking the lexicon");
    for (uint32_t i = 0; i < count; i++) ST_TRY(get_meta_count(warm, answers[i].id, nullptr, &answers[i].id, rc));
    return static_cast<int>(count);
}

}  // namespace veldar
