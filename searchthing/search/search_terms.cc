#include "searchthing/search/search_terms.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/base/number.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/lexicon/matcher.h"
#include "searchthing/slice/warmslice_meta.h"
#include "searchthing/slice/warmslice_runs.h"

namespace veldar {

namespace {

constexpr size_t MAX_FIELD_NAME = 2045;
static_assert(MAX_FIELD_NAME + 2 == ST_MAX_TERM_LENGTH);

// Whether a term whose events lie in [earliest, latest] can have one inside the query's bounds; whole seconds decide,
// because a term's span is kept in seconds.
bool span_overlaps(const conjunction_context* context, st_time_t earliest, st_time_t latest) {
    return latest >= context->earliest.time_s && earliest <= context->latest.time_s;
}

// Whether a term's record tells between which times all events of its list lie. In a slice with runs a list stands for
// whole runs, and a record may tell of some of their events only: those that the term was put with.
bool knows_times(const WARM* warm) {
    return warm_header_meta_type(warm->body) != META_COUNT_ONLY && !warm_slice_has_runs(warm);
}

int read_term(conjunction_context* context, uint32_t id, term_lookup_t* out) {
    st_term_metadata record = {};
    ST_TRY(warm_slice_term_metadata(context->handle, id, context->info, &record, &context->rc));
    out->exists = true;
    out->id = id;
    // A run in the list has an event that the record counts.
    out->count = std::min(record.count, context->bufcap);
    const WARM* const warm = context->handle;
    out->everywhere = record.count >= st_warm_slice_values(warm) - warm_slice_runs(warm);
    const bool known = knows_times(warm);
    out->earliest = known ? static_cast<st_time_t>(record.earliest) : INT_MIN;
    out->latest = known ? static_cast<st_time_t>(record.latest) : INT_MAX;
    return 0;
}

struct term_walk {
    conjunction_context* context;
    std::vector<uint32_t>* ids;
    const OpaqueMatcher_T* matcher;  // wildcard walks
    const comp_t* comparison;        // comparison walks
    size_t prefix_length;
    bool skip_fields;  // terms that hold "::" do not count
    int status;        // the failure that ended the walk, 0 for none
};

// The rules order an empty value below every number and a non-numeric value above every number. With missing values
// matching a NEQ, the terms gathered are those to take out: the ones that equal the number.
bool comparison_selects(const comp_t& comparison, const char* value, bool neq_matches_missing) {
    double x = 0;
    const bool empty = *value == '\0';
    const bool numeric = !empty && parse_query_number(value, &x);
    const double q = comparison.number;
    switch (comparison.op) {
        case T_OP_LT:
            return empty || (numeric && x < q);
        case T_OP_LTE:
            return empty || (numeric && x <= q);
        case T_OP_GT:
            return !empty && (!numeric || x > q);
        case T_OP_GTE:
            return !empty && (!numeric || x >= q);
        case T_OP_EQ:
            return numeric && x == q;
        case T_OP_NEQ:
            return neq_matches_missing ? numeric && x == q : !(numeric && x == q);
        default:
            return false;
    }
}

bool wildcard_selects(const term_walk& walk, const char* term) {
    return walk.context->wildcards_span ? matcher_spans(term, walk.matcher) : isMatch(term, walk.matcher) != 0;
}

// Gathers the ids of the terms that a wildcard or a comparison selects and whose time span meets the query's bounds.
int gather_term(int32_t id, const char* term, size_t, void* raw) {
    auto* walk = static_cast<term_walk*>(raw);
    conjunction_context* context = walk->context;
    walk->status = warm_slice_go_on(context->handle, 1, &context->rc);
    if (walk->status != 0) return -1;
    const bool selected = walk->matcher != nullptr ? wildcard_selects(*walk, term)
                                                   : comparison_selects(*walk->comparison, term + walk->prefix_length,
                                                                        context->neq_matches_missing);
    if (!selected || (walk->skip_fields && std::strstr(term, "::") != nullptr)) return 0;
    const auto term_id = static_cast<uint32_t>(id);
    if (!context->covers_slice && knows_times(context->handle)) {
        term_lookup_t record;
        walk->status = read_term(context, term_id, &record);
        if (walk->status != 0) return -1;
        if (!span_overlaps(context, record.earliest, record.latest)) return 0;
    }
    try {
        walk->ids->push_back(term_id);
    } catch (const std::bad_alloc&) {
        walk->status = _set_rc(&context->rc, WARM_RC_NO_MEMORY);
        return -1;
    }
    return 0;
}

int walk_terms(conjunction_context* context, const char* prefix, term_walk* walk) {
    std::string_view infix;
    if (walk->matcher != nullptr) infix = getLongestPiece(walk->matcher);
    const int64_t total =
        fclex_apply_holding(context->handle->lexicon, prefix, infix, gather_term, walk, context->info);
    if (walk->status != 0) return walk->status;
    if (total < 0) return _set_rc_msg(&context->rc, static_cast<int>(total), "walking the lexicon of a slice");
    ST_ASSERT(std::is_sorted(walk->ids->begin(), walk->ids->end()));
    return 0;
}

}  // namespace

bool is_wildcard(const conjunction_context* context, const std::string& literal) {
    return !context->stars_are_plain && literal.find('*') != std::string::npos;
}

int lookup_exact(conjunction_context* context, const std::string& literal, const term_lookup_t** out) {
    const auto known = context->exact_terms.find(literal);
    if (known != context->exact_terms.end()) {
        *out = &known->second;
        return 0;
    }
    term_lookup_t found;
    uint32_t id = 0;
    const int status =
        _fclex_get_with_status(context->handle->lexicon, literal.c_str(), &id, context->info, &context->rc);
    if (status != 0 && status != WARM_RC_NOT_FOUND) return status;
    if (status == 0) ST_TRY(read_term(context, id, &found));
    _set_rc(&context->rc, WARM_RC_OK);
    *out = &context->exact_terms.emplace(literal, found).first->second;
    return 0;
}

int lookup_wildcard(conjunction_context* context, const std::string& literal, const std::vector<uint32_t>** out) {
    const std::string key = "*" + literal;
    auto known = context->term_sets.find(key);
    if (known == context->term_sets.end()) {
        const matcher_ptr matcher(createMatcher(literal.c_str()));
        if (matcher == nullptr) return _set_rc_msg(&context->rc, WARM_RC_NO_MEMORY, "matcher of a wildcard");
        std::vector<uint32_t> ids;
        const bool skip_fields = context->wildcards_skip_fields && literal.find(':') == std::string::npos;
        term_walk walk = {context, &ids, matcher.get(), nullptr, 0, skip_fields, 0};
        ST_TRY(walk_terms(context, getHardStart(matcher.get()), &walk));
        known = context->term_sets.emplace(key, std::move(ids)).first;
    }
    *out = &known->second;
    return 0;
}

int lookup_comparison(conjunction_context* context, const comp_t& comparison, const std::vector<uint32_t>** out) {
    if (comparison.field.size() > MAX_FIELD_NAME) {
        return _set_rc_msg(&context->rc, WARM_RC_FAILED, "field name of a comparison is too long");
    }
    const std::string prefix = comparison.field + "::";
    std::string key = "c" + std::to_string(comparison.op) + " ";
    key.append(reinterpret_cast<const char*>(&comparison.number), sizeof comparison.number).append(prefix);
    auto known = context->term_sets.find(key);
    if (known == context->term_sets.end()) {
        std::vector<uint32_t> ids;
        if (!comparison.field.empty()) {
            term_walk walk = {context, &ids, nullptr, &comparison, prefix.size(), false, 0};
            ST_TRY(walk_terms(context, prefix.c_str(), &walk));
        }
        known = context->term_sets.emplace(std::move(key), std::move(ids)).first;
    }
    *out = &known->second;
    return 0;
}

}  // namespace veldar
