#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <new>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/search/distinct_sketch.h"
#include "searchthing/search/quantile_sketch.h"
#include "searchthing/search/select_table.h"

namespace veldar {

namespace {

constexpr char MAGIC[] = {'V', 'S', 'E', 'L', 'E', 'C', 'T', '1'};
constexpr uint64_t MAX_COUNT = uint64_t{1} << 62;  // sums of two of them do not wrap
enum cell_part_t : uint8_t { DISTINCT_SET = 1, DISTINCT_SKETCH = 2, KEPT = 4, QUANTILE_LIST = 8, QUANTILE_SKETCH = 16 };

void put32(std::string* out, uint32_t number) {
    char bytes[4];
    store_le32(bytes, number);
    out->append(bytes, sizeof bytes);
}
void put64(std::string* out, uint64_t number) {
    char bytes[8];
    store_le64(bytes, number);
    out->append(bytes, sizeof bytes);
}
void put_double(std::string* out, double number) {
    put64(out, std::bit_cast<uint64_t>(number));
}
void put_text(std::string* out, std::string_view text) {
    put32(out, static_cast<uint32_t>(text.size()));
    out->append(text);
}

void put_distinct(std::string* out, const distinct_sketch_t& sketch) {
    if (!sketch.registers.empty()) {
        out->append(reinterpret_cast<const char*>(sketch.registers.data()), sketch.registers.size());
        return;
    }
    ST_ASSERT(sketch.ordered == sketch.hashes.size());
    put32(out, static_cast<uint32_t>(sketch.hashes.size()));
    for (const uint64_t hash : sketch.hashes) put64(out, hash);
}

void put_kept(std::string* out, const kept_values_t& values) {
    out->push_back(values.is_cut ? 1 : 0);
    put32(out, static_cast<uint32_t>(values.texts.size()));
    for (const std::string& text : values.texts) put_text(out, text);
}

void put_buckets(std::string* out, const quantile_buckets_t& buckets) {
    put32(out, static_cast<uint32_t>(buckets.first));
    put32(out, static_cast<uint32_t>(buckets.counts.size()));
    for (const uint64_t times : buckets.counts) put64(out, times);
}

void put_quantiles(std::string* out, const quantile_sketch_t& sketch) {
    if (!sketch.is_exact) {
        put64(out, sketch.zeros);
        put_buckets(out, sketch.positive);
        put_buckets(out, sketch.negative);
        return;
    }
    ST_ASSERT(sketch.ordered == sketch.numbers.size());
    put32(out, static_cast<uint32_t>(sketch.numbers.size()));
    for (const quantile_number_t& held : sketch.numbers) {
        put_double(out, held.number);
        put64(out, held.times);
    }
}

void put_cell(std::string* out, const select_cell_t& cell) {
    put64(out, cell.count);
    put64(out, cell.numbers);
    for (const compensated_sum_t& sum : {cell.sum, cell.sum_of_squares}) {
        put_double(out, sum.sum);
        put_double(out, sum.lost);
    }
    put_double(out, cell.minimum);
    put_double(out, cell.maximum);
    unsigned parts = 0;
    if (cell.distinct != nullptr) parts |= cell.distinct->registers.empty() ? DISTINCT_SET : DISTINCT_SKETCH;
    if (cell.values != nullptr) parts |= KEPT;
    if (cell.quantiles != nullptr) parts |= cell.quantiles->is_exact ? QUANTILE_LIST : QUANTILE_SKETCH;
    out->push_back(static_cast<char>(parts));
    if (cell.distinct != nullptr) put_distinct(out, *cell.distinct);
    if (cell.values != nullptr) put_kept(out, *cell.values);
    if (cell.quantiles != nullptr) put_quantiles(out, *cell.quantiles);
}

// Takes pieces from the front. The first one that is not there, or that the caller finds wrong, fails the whole.
class byte_source {
  public:
    explicit byte_source(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    bool failed() const { return failed_; }
    void fail() { failed_ = true; }
    void need(bool holds) { failed_ |= !holds; }
    size_t position() const { return at_; }
    bool at_end() const { return at_ == bytes_.size(); }

    std::span<const uint8_t> take(size_t size) {
        if (failed_ || size > bytes_.size() - at_) {
            failed_ = true;
            return {};
        }
        at_ += size;
        return bytes_.subspan(at_ - size, size);
    }
    uint8_t u8() {
        const auto piece = take(1);
        return piece.empty() ? 0 : piece[0];
    }
    uint32_t u32() {
        const auto piece = take(4);
        return piece.empty() ? 0 : load_le32(piece.data());
    }
    uint64_t u64() {
        const auto piece = take(8);
        return piece.empty() ? 0 : load_le64(piece.data());
    }
    double number() { return std::bit_cast<double>(u64()); }
    // A number of things, of which each has this many bytes at least.
    uint32_t count(uint64_t limit, size_t bytes_each) {
        const uint32_t n = u32();
        need(n <= limit && n <= (bytes_.size() - at_) / bytes_each);
        return failed_ ? 0 : n;
    }
    std::string_view text() {
        const auto piece = take(u32());
        return {reinterpret_cast<const char*>(piece.data()), piece.size()};
    }

  private:
    std::span<const uint8_t> bytes_;
    size_t at_ = 0;
    bool failed_ = false;
};

void take_distinct_set(byte_source* in, distinct_sketch_t* out) {
    const uint32_t n = in->count(DISTINCT_EXACT, 8);
    for (uint32_t i = 0; i < n; i++) {
        const uint64_t hash = in->u64();
        in->need(i == 0 || hash > out->hashes.back());
        out->hashes.push_back(hash);
    }
    out->ordered = out->hashes.size();
}

void take_distinct_sketch(byte_source* in, distinct_sketch_t* out) {
    const auto registers = in->take(DISTINCT_REGISTERS);
    for (const uint8_t rank : registers) in->need(rank <= DISTINCT_MAX_RANK);
    if (!in->failed()) out->registers.assign(registers.begin(), registers.end());
}

void take_kept(byte_source* in, kept_values_t* out) {
    const uint8_t cut = in->u8();
    in->need(cut <= 1);
    out->is_cut = cut == 1;
    const uint32_t n = in->count(SELECT_MAX_VALUES, 4);
    for (uint32_t i = 0; i < n && !in->failed(); i++) {
        const std::string_view text = in->text();
        in->need(out->texts.empty() || *out->texts.rbegin() < text);
        if (!in->failed()) out->texts.emplace_hint(out->texts.end(), text);
    }
}

void take_quantile_list(byte_source* in, quantile_sketch_t* out, uint64_t* total) {
    const uint32_t n = in->count(QUANTILE_EXACT, 16);
    for (uint32_t i = 0; i < n && !in->failed(); i++) {
        const double number = in->number();
        const uint64_t times = in->u64();
        in->need(!std::isnan(number) && times != 0 && times <= MAX_COUNT - *total);
        in->need(i == 0 || number > out->numbers.back().number);
        if (!in->failed()) *total += times;
        out->numbers.push_back({number, times});
    }
    out->ordered = out->numbers.size();
}

void take_buckets(byte_source* in, quantile_buckets_t* out, uint64_t* total) {
    out->first = static_cast<int32_t>(in->u32());
    const uint32_t n = in->count(uint64_t{QUANTILE_MAX_BUCKET - QUANTILE_MIN_BUCKET} + 1, 8);
    in->need(n == 0 ||
             (out->first >= QUANTILE_MIN_BUCKET && out->first <= QUANTILE_MAX_BUCKET + 1 - static_cast<int32_t>(n)));
    for (uint32_t i = 0; i < n && !in->failed(); i++) {
        const uint64_t times = in->u64();
        in->need(times <= MAX_COUNT - *total);
        if (!in->failed()) *total += times;
        out->counts.push_back(times);
    }
}

void take_quantiles(byte_source* in, bool is_exact, uint64_t numbers, quantile_sketch_t* out) {
    uint64_t total = 0;
    out->is_exact = is_exact;
    if (is_exact) {
        take_quantile_list(in, out, &total);
    } else {
        total = out->zeros = in->u64();
        in->need(total <= MAX_COUNT);
        if (!in->failed()) take_buckets(in, &out->positive, &total);
        if (!in->failed()) take_buckets(in, &out->negative, &total);
    }
    in->need(total == numbers && total != 0);
}

void take_cell(byte_source* in, uint32_t aggregates, select_cell_t* cell) {
    cell->count = in->u64();
    cell->numbers = in->u64();
    in->need(cell->count <= MAX_COUNT && cell->numbers <= cell->count);
    for (compensated_sum_t* const sum : {&cell->sum, &cell->sum_of_squares}) {
        sum->sum = in->number();
        sum->lost = in->number();
    }
    cell->minimum = in->number();
    cell->maximum = in->number();
    const bool is_empty =
        std::isinf(cell->minimum) && cell->minimum > 0 && std::isinf(cell->maximum) && cell->maximum < 0;
    in->need(cell->numbers == 0 ? is_empty : cell->minimum <= cell->maximum);
    const uint8_t parts = in->u8();
    const auto has = [&](uint8_t part) { return (parts & part) != 0; };
    in->need(parts < 32 && !(has(DISTINCT_SET) && has(DISTINCT_SKETCH)) &&
             !(has(QUANTILE_LIST) && has(QUANTILE_SKETCH)));
    in->need((aggregates & SELECT_DC) != 0 || !(has(DISTINCT_SET) || has(DISTINCT_SKETCH)));
    in->need((aggregates & SELECT_VALUES) != 0 || !has(KEPT));
    in->need((aggregates & SELECT_QUANTILES) != 0 || !(has(QUANTILE_LIST) || has(QUANTILE_SKETCH)));
    if (in->failed()) return;
    if (has(DISTINCT_SET) || has(DISTINCT_SKETCH)) {
        cell->distinct.reset(new distinct_sketch_t());
        (has(DISTINCT_SET) ? take_distinct_set : take_distinct_sketch)(in, cell->distinct.get());
    }
    if (has(KEPT)) take_kept(in, (cell->values = std::make_unique<kept_values_t>()).get());
    if (has(QUANTILE_LIST) || has(QUANTILE_SKETCH)) {
        cell->quantiles.reset(new quantile_sketch_t());
        take_quantiles(in, has(QUANTILE_LIST), cell->numbers, cell->quantiles.get());
    }
}

int damaged(const byte_source& in, warm_rc_t* rc) {
    return _set_rc_verbose(rc, WARM_RC_CORRUPT, static_cast<uint32_t>(in.position()), "select table");
}

int take_groups(byte_source* in, uint32_t groups, select_table_t* table, warm_rc_t* rc) {
    std::string_view before;
    for (uint32_t i = 0; i < groups; i++) {
        const std::string_view texts = in->text();
        const auto fields = static_cast<size_t>(std::count(texts.begin(), texts.end(), '\0'));
        in->need(fields == table->group_fields && (texts.empty() || texts.back() == '\0') &&
                 (i == 0 || texts > before));
        if (in->failed()) return damaged(*in, rc);
        uint32_t number = 0;
        ST_TRY(select_group(table, texts, &number, rc));
        before = texts;
    }
    return 0;
}

int take_rows(byte_source* in, uint32_t rows, select_table_t* table, warm_rc_t* rc) {
    const size_t width = table->aggregates.size();
    for (uint32_t i = 0; i < rows; i++) {
        const auto bin = static_cast<int64_t>(in->u64());
        const uint32_t group = in->u32();
        const uint64_t count = in->u64();
        const bool follows =
            i == 0 || std::pair(table->rows.back().bin, table->rows.back().group) < std::pair(bin, group);
        in->need(follows && group < table->group_texts.size() && count <= MAX_COUNT);
        if (in->failed()) return damaged(*in, rc);
        uint32_t row = 0;
        ST_TRY(select_row(table, bin, group, &row, rc));
        table->rows[row].count = count;
        for (size_t k = 0; k < width; k++) {
            select_cell_t* const cell = &select_cells(table, row)[k];
            take_cell(in, table->aggregates[k], cell);
            if (in->failed()) return damaged(*in, rc);
            ST_TRY(select_grow(table, select_cell_size(*cell), rc));
        }
    }
    return 0;
}

int decode(std::span<const uint8_t> bytes, select_table_t* table, warm_rc_t* rc) {
    *table = {};
    if (bytes.size() < sizeof MAGIC + 8 || std::memcmp(bytes.data(), MAGIC, sizeof MAGIC) != 0) {
        return _set_rc_msg(rc, WARM_RC_BAD_MAGIC, "select table");
    }
    byte_source in(bytes.first(bytes.size() - 8));
    in.take(sizeof MAGIC);
    if (XXH64(bytes.data(), bytes.size() - 8, 0) != load_le64(bytes.data() + bytes.size() - 8)) return damaged(in, rc);
    table->group_fields = in.u32();
    const uint32_t projections = in.count(SELECT_MAX_PROJECTIONS, 4);
    in.need(table->group_fields <= SELECT_MAX_GROUPS);
    for (uint32_t i = 0; i < projections; i++) {
        table->aggregates.push_back(in.u32());
        in.need(table->aggregates.back() != 0 && table->aggregates.back() <= SELECT_ALL_AGGREGATES);
    }
    const uint32_t groups = in.u32(), rows = in.u32();
    if (in.failed()) return damaged(in, rc);
    ST_TRY(take_groups(&in, groups, table, rc));
    ST_TRY(take_rows(&in, rows, table, rc));
    return in.at_end() ? 0 : damaged(in, rc);
}

}  // namespace

void select_table_encode(const select_table_t& table, std::string* out) {
    using row_t = select_table_t::row_t;
    const auto before = [](const row_t& a, const row_t& b) {
        return std::pair(a.bin, a.group) < std::pair(b.bin, b.group);
    };
    ST_ASSERT(std::is_sorted(table.rows.begin(), table.rows.end(), before));
    ST_ASSERT(table.cells.size() == table.rows.size() * table.aggregates.size());
    const size_t begin = out->size();
    out->append(MAGIC, sizeof MAGIC);
    put32(out, static_cast<uint32_t>(table.group_fields));
    put32(out, static_cast<uint32_t>(table.aggregates.size()));
    for (const uint32_t aggregates : table.aggregates) put32(out, aggregates);
    put32(out, static_cast<uint32_t>(table.group_texts.size()));
    put32(out, static_cast<uint32_t>(table.rows.size()));
    for (const std::string* texts : table.group_texts) put_text(out, *texts);
    for (size_t i = 0; i < table.rows.size(); i++) {
        put64(out, static_cast<uint64_t>(table.rows[i].bin));
        put32(out, table.rows[i].group);
        put64(out, table.rows[i].count);
        for (const select_cell_t& cell : select_table_row(table, i).cells) put_cell(out, cell);
    }
    put64(out, XXH64(out->data() + begin, out->size() - begin, 0));
}

int select_table_decode(std::span<const uint8_t> bytes, select_table_t* table, warm_rc_t* rc) {
    try {
        return decode(bytes, table, rc);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

}  // namespace veldar
