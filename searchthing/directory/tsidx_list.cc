#include "searchthing/directory/tsidx_list.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <tuple>

#include "libzero/ospath-builder.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_handle.h"

namespace veldar {

namespace {

constexpr int MAX_TRIES = 16;
constexpr useconds_t FIRST_PAUSE = 500, LONGEST_PAUSE = 100000;  // microseconds

struct directory_closer {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

bool newer(const tsidx_slice_name_t& a, const tsidx_slice_name_t& b) {
    const auto key = [](const tsidx_slice_name_t& slice) {
        return std::tie(slice.meta.latest, slice.meta.earliest, slice.meta.id, slice.name);
    };
    return key(a) > key(b);
}

// The live slices among the names, in order, given the text of the manifest.
tsidx_listing_t live_slices(const std::vector<std::string>& names, const std::string& manifest_text) {
    tsidx_listing_t live;
    std::vector<std::string_view> hidden;
    merge_manifest_t manifest;
    if (merge_manifest_parse(manifest_text, &manifest) &&
        std::find(names.begin(), names.end(), manifest.target) != names.end()) {
        hidden.assign(manifest.sources.begin(), manifest.sources.end());
    }
    for (const std::string& name : names) {
        st_filename_metadata_t meta;
        if (name.ends_with(TSIDX_SENTINEL_SUFFIX)) {
            hidden.push_back(std::string_view(name).substr(0, name.size() + 1 - sizeof TSIDX_SENTINEL_SUFFIX));
        } else if (tsidx_is_slice_name(name.c_str(), &meta)) {
            live.push_back({name, meta});
        }
    }
    std::sort(hidden.begin(), hidden.end());
    std::erase_if(live, [&hidden](const tsidx_slice_name_t& slice) {
        return std::binary_search(hidden.begin(), hidden.end(), slice.name);
    });
    std::sort(live.begin(), live.end(), newer);
    return live;
}

bool has_all_of(const tsidx_listing_t& slices, const tsidx_listing_t& some) {
    return std::includes(slices.begin(), slices.end(), some.begin(), some.end(), newer);
}

// Names that are read while others come and go may lack a merge's target, which came too late, and its sources, which
// went too early. So they are read twice. `sound` tells whether one manifest, or none, was there all the while and the
// second listing still has every slice of the first: then no source went. Slices that came are the better for it, unless
// one is the target of a merge whose manifest came behind one look at it and went before the next. Its sources, which
// may be in the listing too, went before the manifest: a third look at the names misses them.
int list_twice(const char* directory, tsidx_listing_t* listing, bool* sound, warm_rc_t* rc) {
    std::vector<std::string> first_names, names;
    std::string before, between, after;
    ST_TRY(merge_manifest_read(directory, MERGE_MANIFEST_NAME, &before, rc));
    ST_TRY(tsidx_read_names(directory, &first_names, rc));
    ST_TRY(merge_manifest_read(directory, MERGE_MANIFEST_NAME, &between, rc));
    ST_TRY(tsidx_read_names(directory, &names, rc));
    ST_TRY(merge_manifest_read(directory, MERGE_MANIFEST_NAME, &after, rc));
    const tsidx_listing_t first = live_slices(first_names, before);
    *listing = live_slices(names, between);
    *sound = before == between && between == after && has_all_of(*listing, first);
    if (!*sound || listing->size() == first.size()) return 0;
    warm_rc_t ignored;  // a failure that lasts is met at the next try
    *sound = tsidx_read_names(directory, &names, &ignored) == 0 && has_all_of(live_slices(names, ""), *listing);
    return 0;
}

}  // namespace

bool tsidx_is_slice_name(const char* name, st_filename_metadata_t* meta) {
    // By suffix first: a mini slice is no slice of the directory, whatever else its name says.
    const std::string_view text = name;
    if (text.ends_with(TSIDX_MINI_SUFFIX)) return false;
    if (text.ends_with(TSIDX_SUFFIX)) return st_tsidx_file_parse(name, meta) != 0;
    return text.ends_with(TSIDX_PART_SUFFIX) && tsidx_part_file_parse(name, meta) != 0;
}

int tsidx_read_names(const char* directory, std::vector<std::string>* names, warm_rc_t* rc) {
    names->clear();
    const std::unique_ptr<DIR, directory_closer> stream(::opendir(directory));
    if (stream == nullptr) return _set_rc_msg(rc, WARM_RC_OPEN, directory);
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get());
        if (entry == nullptr) return errno == 0 ? 0 : _set_rc_msg(rc, WARM_RC_READ, directory);
        names->emplace_back(entry->d_name);
    }
}

int tsidx_list(const char* directory, tsidx_listing_t* listing, warm_rc_t* rc) {
    for (int i = 0; i < MAX_TRIES; i++) {
        // The pause is never between two listings that are compared: a busy directory changes in every pause.
        if (i != 0) ::usleep(std::min(FIRST_PAUSE << i, LONGEST_PAUSE));
        bool sound = false;
        ST_TRY(list_twice(directory, listing, &sound, rc));
        if (sound) return 0;
    }
    return _set_rc_msg(rc, WARM_RC_RETRIES, "the directory changes faster than it can be listed");
}

int tsidx_live_slices(TSIDX* tsidx, std::shared_ptr<const tsidx_listing_t>* slices) {
    const char* const path = tsidx->path.c_str();
    tsidx_known_listing& known = tsidx->listing;
    change_stamp stamp;
    const bool is_stamped = change_stamp_of(path, &stamp);
    if (is_stamped && known.slices != nullptr && stamp == known.stamp) {
        *slices = known.slices;
        return 0;
    }
    known.slices = nullptr;
    const bool lasts = is_stamped && change_stamp_lasts(path, stamp);
    const auto listing = std::make_shared<tsidx_listing_t>();
    ST_TRY(tsidx_list(path, listing.get(), &tsidx->last_failure));
    tsidx->cache.keep_only(*listing);
    *slices = listing;
    if (lasts) known = {listing, stamp};
    return 0;
}

int so_status_filename(ospath_buf* out, const char* directory) {
    ospath_builder b;
    const int status = ospath_builder_concat_two_paths_with_sep(&b, directory, TSIDX_OPTIMIZE_RESULT_NAME);
    *out = b.buf;
    return status;
}

}  // namespace veldar
