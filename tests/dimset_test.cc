#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "searchthing/columns/dimset_io.h"
#include "searchthing/postings/bitmap.h"
#include "tests/support/damage.h"
#include "tests/support/faults.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

using words_t = std::vector<uint32_t>;

struct less {
    bool operator()(const words_t& a, const words_t& b) const {
        return ds_dimset_compare(ds_dimset_at(a.data()), ds_dimset_at(b.data())) < 0;
    }
};
using model = std::set<words_t, less>;

// A committed set of terms below `terms`, built as the hot slice does, dimensions and columns in any order.
words_t random_set(std::mt19937_64& random, uint32_t terms) {
    words_t words(64);
    ds_dimset_t* ds = ds_dimset_at(words.data());
    ds_dimset_init(ds, random() % 2 ? DS_NO_TERM : 0, 1, static_cast<uint32_t>(random() % terms));
    std::set<uint32_t> used;
    for (uint64_t n = random() % 12 + 1; n != 0; n--) {
        const auto term = static_cast<uint32_t>(random() % terms);
        if (!used.insert(term).second) continue;
        (ds->num_columns == 0 || random() % 2) ? ds_dimset_add_optcol(ds, term) : ds_dimset_add_optdim(ds, term);
    }
    words_t same(terms);
    for (uint32_t i = 0; i < terms; i++) same[i] = i;
    warm_rc_t rc;
    EXPECT_EQ(ds_translate_term_ids(ds, same, &rc, true), 0);
    words.resize(ds->_num_words);
    return words;
}

template <typename Sets>
std::string section_of(const Sets& sets) {
    uint32_t total = 0;
    std::vector<const ds_dimset_t*> pointers;
    for (const words_t& words : sets) total += static_cast<uint32_t>(words.size());
    for (const words_t& words : sets) pointers.push_back(ds_dimset_at(words.data()));
    const auto count = static_cast<uint32_t>(sets.size());
    const uint64_t size = st_dimsets_size(count, total);
    std::vector<uint64_t> bytes(size / 8 + 1);
    auto* const at = reinterpret_cast<uint8_t*>(bytes.data());
    EXPECT_EQ(st_dimset_create(at, size - 4, pointers.data(), count), WARM_RC_CAPACITY);
    EXPECT_EQ(st_dimset_create(at, size, pointers.data(), count), 0);
    return {reinterpret_cast<const char*>(at), size};
}

int collect(uint32_t id, const ds_dimset_t* ds, void* ctx, warm_rc_t*) {
    auto* const all = static_cast<std::vector<words_t>*>(ctx);
    EXPECT_EQ(id, all->size());
    all->emplace_back(ds_dimset_words(ds), ds_dimset_words(ds) + ds->_num_words);
    return 0;
}

// A slice that is nothing but a posting-offset entry and dimension sets, and the reader's view of any bytes there.
struct section_file {
    explicit section_file(const std::string& section, uint32_t num_dimsets) {
        warm_header_init(&header, "_MSIDX4");
        header.num_terms.set(1);
        header.num_values.set(1);
        header.num_dimsets.set(num_dimsets);
        at = warm_next_section(_offset_fclex(&header));
        std::string file(at, '\0');  // the only list has 0 bytes and begins where the sets do, less one gap
        fd = open_file(path.file("s"), file + section);
    }
    int read(ds_verify_t verify, std::vector<words_t>* out) const {
        warm_rc_t rc;
        ds_reader_t reader;
        int status = ds_reader_open(&reader, fd.get(), at, &rc);
        if (status == 0) status = ds_reader_apply(&reader, verify, collect, out, &rc);
        ds_reader_close(&reader);
        EXPECT_EQ(status, rc.warm_rc);
        return status;
    }
    temp_dir path;
    unique_fd fd;
    st_warm_slice_body header;
    uint64_t at = 0;
};

TEST(Dimset, WordsAndViews) {
    words_t words(12);
    ds_dimset_t* ds = ds_dimset_at(words.data());
    ds_dimset_init(ds, 11, 12, 10);
    ds_dimset_add_optdim(ds, 30);
    for (const auto view : {ds_dimset_opt_dims, ds_dimset_opt_cols, ds_dimset_opt_fields, ds_dimset_all_dims}) {
        EXPECT_EQ(view(ds).data(), nullptr) << "a set without a column exposes nothing";
    }
    warm_rc_t rc;
    EXPECT_EQ(ds_translate_term_ids(ds, words, &rc, true), WARM_RC_CORRUPT);
    ds_dimset_add_optcol(ds, 41);
    ds_dimset_add_optcol(ds, 40);
    ds_dimset_add_optdim(ds, 20);
    EXPECT_EQ(words, (words_t{9, 2, 10, 11, 12, 30, 20, 40, 41, 0, 0, 0}));
    EXPECT_EQ(ds_dimset_hash(ds), 26836u);
    EXPECT_EQ(ds_dimset_hash_step(ds), 2953000137u);
    words_t copy(9), small = {4, 1, 2, 3};
    EXPECT_EQ(ds_copy(ds_dimset_at(copy.data()), 8, ds), WARM_RC_CAPACITY);
    EXPECT_EQ(ds_copy(ds_dimset_at(copy.data()), 9, ds), 0);
    EXPECT_TRUE(std::equal(copy.begin(), copy.end(), words.begin()));
    char text[512] = {};
    std::FILE* const out = ::fmemopen(text, sizeof text, "w");
    for (const int verbosity : {3, 2}) ds_dimset_print(out, ds, 7, verbosity);
    ds_dimset_print(out, ds_dimset_at(small.data()), 8, 3);
    std::fclose(out);
    EXPECT_STREQ(text,
                 "\tdsid=7 num_words=9 num_columns=2 h=10 s=11 st=12 dims0=30 dims1=20 cols0=40 cols1=41\n"
                 "\tdsid=7 num_words=9 metric=2 h=10 s=11 st=12 fields0=30 fields1=20 fields2=40 fields3=41\n"
                 "\tdsid=8 -- INVALID DIMSET num_words=4 too small\n");
}

TEST(Dimset, SectionsAndTheirMerge) {
    for (uint64_t seed = 1; seed <= 40; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        const uint32_t sources = static_cast<uint32_t>(random() % 5);
        std::vector<std::unique_ptr<section_file>> files;
        std::vector<model> models(sources);
        std::vector<words_t> maps(sources);
        std::vector<int> fds;
        std::vector<const st_warm_slice_body*> headers;
        std::vector<uint64_t> offsets;
        std::vector<std::span<const uint32_t>> term_maps;
        const auto mapped = [&maps](uint32_t s, words_t words) {
            for (size_t i = 2; i < words.size(); i++)
                words[i] = words[i] == DS_NO_TERM ? DS_NO_TERM : maps[s][words[i]];
            return words;
        };
        model expected;
        for (uint32_t s = 0; s < sources; s++) {
            const uint64_t count = random() % 3 == 0 ? random() % 3 : random() % 3000;
            while (models[s].size() < count) models[s].insert(random_set(random, 40));
            for (uint32_t term = 0, id = 0; term < 40; term++) {
                maps[s].push_back(seed % 8 == 0 ? term : id += 1 + (random() % 4 == 0));
            }
            for (const words_t& words : models[s]) expected.insert(mapped(s, words));
            const auto n = static_cast<uint32_t>(models[s].size());
            files.push_back(std::make_unique<section_file>(section_of(models[s]), n));
            std::vector<words_t> read;
            ASSERT_EQ(files[s]->read(DS_VERIFY_V3, &read), 0);
            ASSERT_TRUE(std::equal(read.begin(), read.end(), models[s].begin(), models[s].end()));
            fds.push_back(files[s]->fd.get());
            headers.push_back(&files[s]->header);
            offsets.push_back(files[s]->at - 8);
            term_maps.push_back(maps[s]);
        }
        ds_merge_info_t info;
        ds_writer_t writer;
        warm_rc_t rc;
        ASSERT_EQ(st_dimset_merge(sources, fds.data(), headers.data(), offsets.data(),
                                  seed % 8 == 0 ? nullptr : term_maps.data(), &info, &writer, &rc),
                  0)
            << rc.message;
        ASSERT_EQ(info.num_dimsets, expected.size());
        const temp_dir dir;
        const unique_fd out = open_file(dir.file("m"));
        uint64_t end = 0;
        ASSERT_EQ(ds_writer_flush(&writer, out.get(), &end, 0, &rc), 0);
        EXPECT_EQ(read_file(dir.file("m")), section_of(expected));
        const std::vector<words_t> merged(expected.begin(), expected.end());
        for (uint32_t s = 0; s < sources; s++) {
            uint32_t old_id = 0;
            for (const words_t& words : models[s]) {
                ASSERT_EQ(merged[info.dimset_old2new_id_maps[s][old_id++]], mapped(s, words));
            }
        }
    }
}

// A walk of chosen sets, and one that a failed read interrupts: what it had read ahead may be overwritten.
TEST(Dimset, WalksOfSomeSets) {
    std::mt19937_64 random(9);
    model sets;
    while (sets.size() < 3000) sets.insert(random_set(random, 40));
    const section_file file(section_of(sets), 3000);
    const std::vector<words_t> all(sets.begin(), sets.end());
    warm_rc_t rc;
    ds_reader_t reader;
    ASSERT_EQ(ds_reader_open(&reader, file.fd.get(), file.at, &rc), 0);
    bitmap_and_bounds_t filter;
    filter.begin = 100;
    filter.end = 2900;
    ASSERT_TRUE(filter.bm.alloc(_calc_bitmap_size(filter.begin, filter.end)));
    for (size_t i = 0; i < 350; i++) filter.bm[i] = 0x03;
    std::set<uint32_t> expected, visited;
    for (uint32_t bit = 0; bit < 2800; bit++) {
        if (const uint32_t set = 2999 - (100 + bit); set >= 500 && bit % 8 < 2) expected.insert(set);
    }
    const auto visit = [](uint32_t id, const ds_dimset_t*, void* ctx, warm_rc_t*) {
        return static_cast<std::set<uint32_t>*>(ctx)->insert(id).second ? 0 : 1;
    };
    EXPECT_EQ(ds_reader_apply_within_dimset_chunk(&reader, 500, 3000, &filter, DS_VERIFY_V3, visit, &visited, &rc), 0);
    EXPECT_EQ(visited, expected);
    ds_reader_close(&reader);

    ASSERT_EQ(ds_reader_open(&reader, file.fd.get(), file.at, &rc), 0);
    words_t words(64);
    const auto read = [&](uint32_t id) { return ds_reader_read(&reader, id, ds_dimset_at(words.data()), 64, &rc); };
    for (const uint32_t id : {2500u, 2501u, 2499u}) EXPECT_EQ(read(id), 0) << "2501 and on are read ahead";
    {
        const fault_step half(fault_action::shorten, 1);
        EXPECT_EQ(read(2500), WARM_RC_SHORT_READ);
    }
    EXPECT_EQ(ds_reader_read(&reader, 2501, ds_dimset_at(words.data()), 4, &rc), WARM_RC_CORRUPT) << "no room";
    EXPECT_EQ(read(3000), WARM_RC_CAPACITY);
    EXPECT_EQ(rc.detail, 3000u) << "no such set";
    EXPECT_EQ(read(2501), 0);
    EXPECT_TRUE(std::equal(all[2501].begin(), all[2501].end(), words.begin()));
    ds_reader_close(&reader);
}

// Every word of a section set to what can be read wrong, and every length cut: a status or the same sets.
TEST(Dimset, DamageEndsInAStatus) {
    std::mt19937_64 random(7);
    model sets;
    while (sets.size() < 5) sets.insert(random_set(random, 9));
    const std::string good = section_of(sets);
    const auto merge_alone = [](const section_file& file) {
        ds_merge_info_t info;
        ds_writer_t writer;
        warm_rc_t rc;
        const int fd = file.fd.get();
        const st_warm_slice_body* header = &file.header;
        const uint64_t offset = file.at - 8;
        const words_t map = {0, 1, 2, 3, 4, 5, 6, 7, 8};
        const std::span<const uint32_t> maps[] = {map};
        return st_dimset_merge(1, &fd, &header, &offset, maps, &info, &writer, &rc);
    };
    damage_outcomes outcomes;
    const auto look = [&](const std::string& section, size_t at) {
        const section_file file(section, 5);
        const std::string what = "byte " + std::to_string(at);
        for (const ds_verify_t verify : {DS_VERIFY_NONE, DS_VERIFY_V2, DS_VERIFY_V3}) {
            std::vector<words_t> read;
            std::string seen;
            const int status = file.read(verify, &read);
            for (const words_t& set : read) seen.append(reinterpret_cast<const char*>(set.data()), 4 * set.size());
            outcomes.add(what, status, seen);
        }
        outcomes.add(what, merge_alone(file), "");
    };
    // Sets that come twice, or the wrong way round.
    for (const std::vector<words_t>& wrong :
         {std::vector<words_t>{*sets.begin(), *sets.begin()}, std::vector<words_t>{*sets.rbegin(), *sets.begin()}}) {
        const section_file file(section_of(wrong), 2);
        std::vector<words_t> read;
        EXPECT_EQ(file.read(DS_VERIFY_V3, &read), WARM_RC_CORRUPT);
        EXPECT_EQ(read.size(), 1u);
        EXPECT_EQ(merge_alone(file), wrong[0] == wrong[1] ? 0 : WARM_RC_CORRUPT);
    }
    for (size_t at = 0; at < good.size(); at += 4) {
        look(good.substr(0, at + at % 3), at);
        for (const uint32_t value : {0u, 1u, 5u, 6u, 8193u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
            std::string bad = good;
            store_le32(bad.data() + at, value);
            look(bad, at);
        }
    }
    expect_kept("dimset-damage", outcomes.text());
    const words_t six = {6, 1, 1, DS_NO_TERM, DS_NO_TERM, 2};
    ds_merge_info_t info;
    ds_writer_t writer;
    warm_rc_t rc;
    for (const auto& [room, status] : {std::pair(1u, WARM_RC_CAPACITY), {2u, WARM_RC_DIMSET_BUFFER}}) {
        ASSERT_EQ(ds_writer_open(&writer, room, 11, &rc), 0);
        EXPECT_EQ(ds_writer_append(&writer, ds_dimset_at(six.data()), &rc), 0);
        EXPECT_EQ(ds_writer_append(&writer, ds_dimset_at(six.data()), &rc), status);
    }
    // Sections that together have more words than a section can.
    const section_file much(section_of(model()), 0);
    const int fds[] = {much.fd.get(), much.fd.get()};
    const st_warm_slice_body* const headers[] = {&much.header, &much.header};
    const uint64_t offsets[] = {much.at - 8, much.at - 8};
    ds_header_t header;
    ds_header_init(&header, 0, 0x80000000);
    ASSERT_EQ(::pwrite(much.fd.get(), &header, sizeof header, static_cast<off_t>(much.at)), int64_t{sizeof header});
    ASSERT_EQ(::ftruncate(much.fd.get(), off_t{9} << 30), 0);
    EXPECT_EQ(st_dimset_merge(2, fds, headers, offsets, nullptr, &info, &writer, &rc), WARM_RC_DOES_NOT_FIT);
    EXPECT_EQ(st_dimset_merge(65, nullptr, nullptr, nullptr, nullptr, &info, &writer, &rc), WARM_RC_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace veldar
