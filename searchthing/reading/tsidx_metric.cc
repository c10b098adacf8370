#include "libzero/assertions.h"
#include "searchthing/reading/tsidx_query_walk.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/search/slice_metric_events.h"

namespace veldar {

int64_t st_tsidx_apply_metric_events(TSIDX* tsidx, const st_query_spec* query, tsidx_metric_event_fn fn,
                                     void* context) {
    return st_tsidx_apply_metric_events_of(tsidx, query, {}, fn, context);
}

int64_t st_tsidx_apply_metric_events_of(TSIDX* tsidx, const st_query_spec* query, const st_metric_options_t& options,
                                        tsidx_metric_event_fn fn, void* context) {
    st_query_spec all;
    st_query_init(&all);
    all.lispy = "[AND]";
    if (query == nullptr) query = &all;
    metric_choice wanted;
    if (options.wants != nullptr) {
        wanted = [&options](std::string_view name) { return options.wants(name, options.wants_context); };
    }
    uint32_t slices = 0;
    return tsidx_apply_matches(tsidx, query, fn, context,
                               [&](WARM* warm, const parsed_query_t& parsed, const auto& call, warm_rc_t* rc) {
                                   const auto numbered = [&call, slice = slices++](st_metric_event_t event) {
                                       event.slice = slice;
                                       return call(event);
                                   };
                                   return warm_slice_metric_events(warm, parsed, wanted, numbered, rc);
                               });
}

int st_tsidx_measure_size(TSIDX* tsidx, uint64_t* bytes) {
    ST_ASSERT(bytes != nullptr);
    *bytes = 0;
    return static_cast<int>(tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        *bytes = 0;
        const auto add_slice = [&](size_t i, warm_rc_t* why) {
            uint64_t of_slice = 0;
            ST_TRY(warm_slice_measure_size(snapshot.warm(i), &of_slice, why));
            *bytes += of_slice;
            return 0;
        };
        return snapshot.each(TSIDX_FIRST_TIME, TSIDX_LAST_TIME, add_slice, &tsidx->last_failure);
    }));
}

}  // namespace veldar
