#include "searchthing/columns/dimset.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cstring>
#include <functional>

#include "libzero/assertions.h"

namespace veldar {

// Sets are copied between memory and file as they are.
static_assert(std::endian::native == std::endian::little);

namespace {

constexpr char MAGIC[] = "DSMAGIC0";
static_assert(sizeof MAGIC - 1 == sizeof ds_header_t::magic);
constexpr uint32_t HASH_MODULUS = 104729;
constexpr uint32_t HASH_FACTOR = 491;
constexpr uint32_t STEP_FACTOR = 125539;

bool has_optional_views(const ds_dimset_t* ds) {
    return ds->_num_words > DS_MIN_WORDS && ds->num_columns != 0;
}

int compare_fields(std::span<const uint32_t> a, std::span<const uint32_t> b) {
    const size_t shared = std::min(a.size(), b.size());
    for (size_t i = 0; i < shared; i++) {
        if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

// The span of a set's own words, to be changed.
std::span<uint32_t> writable(ds_dimset_t* ds, std::span<const uint32_t> view) {
    if (view.empty()) return {};  // a view that is not there has no place
    return {ds_dimset_words(ds) + (view.data() - ds_dimset_words(ds)), view.size()};
}

int translate(std::span<uint32_t> fields, std::span<const uint32_t> map, warm_rc_t* rc) {
    for (uint32_t& field : fields) {
        if (field >= map.size()) return _set_rc_verbose(rc, WARM_RC_CORRUPT, field, "dimset term out of range");
        field = map[field];
    }
    return 0;
}

}  // namespace

void ds_dimset_init(ds_dimset_t* ds, uint32_t source, uint32_t source_type, uint32_t host) {
    ds->_num_words = DS_MIN_WORDS;
    ds->host = host;
    ds->source = source;
    ds->source_type = source_type;
}

void ds_dimset_add_optdim(ds_dimset_t* ds, uint32_t term) {
    uint32_t* const words = ds_dimset_words(ds);
    uint32_t* const first_column = words + ds->_num_words - ds->num_columns;
    words[ds->_num_words] = *first_column;
    *first_column = term;
    ds->_num_words++;
}

void ds_dimset_add_optcol(ds_dimset_t* ds, uint32_t term) {
    ds_dimset_words(ds)[ds->_num_words++] = term;
    ds->num_columns++;
}

std::span<const uint32_t> ds_dimset_allfields(const ds_dimset_t* ds) {
    return {ds_dimset_words(ds) + 2, ds_dimset_allfields_count(ds)};
}

uint32_t ds_dimset_allfields_count(const ds_dimset_t* ds) {
    return ds->_num_words - 2;
}

std::span<const uint32_t> ds_dimset_opt_fields(const ds_dimset_t* ds) {
    if (!has_optional_views(ds)) return {};
    return {ds_dimset_words(ds) + DS_MIN_WORDS, ds->_num_words - DS_MIN_WORDS};
}

std::span<const uint32_t> ds_dimset_opt_dims(const ds_dimset_t* ds) {
    if (!has_optional_views(ds)) return {};
    return {ds_dimset_words(ds) + DS_MIN_WORDS, ds->_num_words - DS_MIN_WORDS - ds->num_columns};
}

std::span<const uint32_t> ds_dimset_all_dims(const ds_dimset_t* ds) {
    if (!has_optional_views(ds)) return {};
    return {ds_dimset_words(ds) + 2, ds->_num_words - 2 - ds->num_columns};
}

std::span<const uint32_t> ds_dimset_opt_cols(const ds_dimset_t* ds) {
    if (!has_optional_views(ds)) return {};
    return {ds_dimset_words(ds) + ds->_num_words - ds->num_columns, ds->num_columns};
}

int ds_dimset_compare(const ds_dimset_t* a, const ds_dimset_t* b) {
    const int by_columns = compare_fields(ds_dimset_opt_cols(a), ds_dimset_opt_cols(b));
    return by_columns != 0 ? by_columns : compare_fields(ds_dimset_all_dims(a), ds_dimset_all_dims(b));
}

bool ds_fields_ascend(std::span<const uint32_t> fields) {
    return std::adjacent_find(fields.begin(), fields.end(), std::greater_equal<>()) == fields.end();
}

int ds_translate_term_ids(ds_dimset_t* ds, std::span<const uint32_t> map, warm_rc_t* rc, bool sort) {
    const std::span<uint32_t> dims = writable(ds, ds_dimset_opt_dims(ds));
    const std::span<uint32_t> cols = writable(ds, ds_dimset_opt_cols(ds));
    if (ds_dimset_opt_dims(ds).data() == nullptr) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, "ds_translate_term_ids fail");
    }
    for (uint32_t* field : {&ds->host, &ds->source, &ds->source_type}) {
        if (*field != DS_NO_TERM) ST_TRY(translate({field, 1}, map, rc));
    }
    ST_TRY(translate(dims, map, rc));
    ST_TRY(translate(cols, map, rc));
    if (sort) {
        std::sort(dims.begin(), dims.end());
        std::sort(cols.begin(), cols.end());
    }
    return 0;
}

int ds_copy(ds_dimset_t* dst, uint32_t cap_words, const ds_dimset_t* ds) {
    if (ds->_num_words > cap_words) return WARM_RC_CAPACITY;
    std::memcpy(ds_dimset_words(dst), ds_dimset_words(ds), ds->_num_words * sizeof(uint32_t));
    return 0;
}

uint32_t ds_dimset_hash(const ds_dimset_t* ds) {
    const std::span<const uint32_t> fields = ds_dimset_allfields(ds);
    uint32_t hash = fields[0];
    for (const uint32_t field : fields) hash = (field + hash * HASH_FACTOR) % HASH_MODULUS;
    return hash;
}

uint32_t ds_dimset_hash_step(const ds_dimset_t* ds) {
    uint32_t product = STEP_FACTOR;
    for (const uint32_t field : ds_dimset_allfields(ds)) product *= field + 1;
    return product | 1;
}

void ds_header_init(ds_header_t* header, uint32_t num_dimsets, uint32_t num_words) {
    std::memcpy(header->magic, MAGIC, sizeof header->magic);
    store_le32(header->num_dimsets, num_dimsets);
    store_le32(header->num_words, num_words);
}

bool ds_verify_magic(const ds_header_t* header) {
    return std::memcmp(header->magic, MAGIC, sizeof header->magic) == 0;
}

int st_dimset_create(uint8_t* buffer, uint64_t size, const ds_dimset_t* const* sets, uint32_t n) {
    ST_ASSERT(reinterpret_cast<uintptr_t>(buffer) % 8 == 0);
    const uint64_t body_offset = st_dimsets_size(n, 0);
    if (size < body_offset) return WARM_RC_CAPACITY;
    uint8_t* const body = buffer + body_offset;
    const uint64_t room = (size - body_offset) / sizeof(uint32_t);
    uint64_t used = 0;
    for (uint32_t i = 0; i < n; i++) {
        const uint32_t words = sets[i]->_num_words;
        if (words > room - used || used + words > UINT32_MAX) return WARM_RC_CAPACITY;
        std::memcpy(body + used * sizeof(uint32_t), ds_dimset_words(sets[i]), words * sizeof(uint32_t));
        used += words;
        store_le32(buffer + st_dimsets_size(i, 0), static_cast<uint32_t>(used));
    }
    ds_header_t header;
    ds_header_init(&header, n, static_cast<uint32_t>(used));
    std::memcpy(buffer, &header, sizeof header);
    return 0;
}

void ds_dimset_print(std::FILE* stream, const ds_dimset_t* ds, uint32_t id, int verbosity) {
    std::fprintf(stream, "\tdsid=%" PRIu32, id);
    if (ds->_num_words < DS_MIN_WORDS) {
        std::fprintf(stream, " -- INVALID DIMSET num_words=%" PRIu32 " too small\n", ds->_num_words);
        return;
    }
    std::fprintf(stream, " num_words=%" PRIu32 " %s=%" PRIu32 " h=%" PRIu32 " s=%" PRIu32 " st=%" PRIu32,
                 ds->_num_words, verbosity > 2 ? "num_columns" : "metric", ds->num_columns, ds->host, ds->source,
                 ds->source_type);
    const auto print_fields = [stream](const char* name, std::span<const uint32_t> fields) {
        for (size_t i = 0; i < fields.size(); i++) std::fprintf(stream, " %s%zu=%" PRIu32, name, i, fields[i]);
    };
    if (verbosity > 2) {
        print_fields("dims", ds_dimset_opt_dims(ds));
        print_fields("cols", ds_dimset_opt_cols(ds));
    } else {
        print_fields("fields", ds_dimset_opt_fields(ds));
    }
    std::fputc('\n', stream);
}

}  // namespace veldar
