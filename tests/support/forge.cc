#include "tests/support/forge.h"

#include <algorithm>
#include <bit>
#include <random>
#include <set>
#include <stdexcept>

#include "tests/support/forge_internal.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace forging {

void check(bool expressible, const std::string& what) {
    if (!expressible) throw std::invalid_argument("forge: " + what);
}

uint32_t bit_length(uint32_t v) {
    return static_cast<uint32_t>(std::bit_width(v));
}

// Companion widths are never 0: a value of 0 still takes one bit.
static uint32_t digits(uint32_t v) {
    return std::max(1u, bit_length(v));
}

void put_be(std::string* out, uint64_t v, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out->push_back(static_cast<char>(v >> shift));
}

static std::string vbe(uint32_t v) {
    std::string out;
    for (; v >= 0x80; v >>= 7) out.push_back(static_cast<char>(v | 0x80));
    out.push_back(static_cast<char>(v));
    return out;
}

void bit_string::put(uint64_t v, uint32_t nbits) {
    for (uint32_t i = 0; i < nbits; i++, bits++) {
        if (bits / 8 == bytes.size()) bytes.push_back('\0');
        if ((v >> i) & 1) bytes[bits / 8] = static_cast<char>(bytes[bits / 8] | (1 << (bits % 8)));
    }
}

std::string bit_string::whole_words() const {
    return bytes + std::string((8 - bytes.size() % 8) % 8, '\0');
}

namespace {

std::string rle_list(const std::vector<uint32_t>& numbers, bool collapse) {
    std::string out;
    for (size_t i = 0; i < numbers.size();) {
        if (i == 0) {
            out += vbe(numbers[i++]);
            continue;
        }
        uint32_t run = 0;
        while (collapse && i + run < numbers.size() && numbers[i + run] == numbers[i - 1] + run + 1) run++;
        if (run > 0) {
            out += '\0' + vbe(run);
            i += run;
        } else {
            out += vbe(numbers[i] - numbers[i - 1]);
            i++;
        }
    }
    return out;
}

std::string bmap_list(const std::vector<uint32_t>& numbers) {
    std::string bitmap((numbers.back() - numbers.front()) / 8 + 1, '\0');
    for (const uint32_t number : numbers) {
        const uint32_t k = number - numbers.front();
        bitmap[k / 8] = static_cast<char>(bitmap[k / 8] | (1 << (k % 8)));
    }
    return vbe(numbers.front()) + bitmap;
}

// Readers drop the tail of later chunks of such a list, so no file holds one.
bool bmap_readable(const std::vector<uint32_t>& numbers) {
    return !numbers.empty() &&
           (vbe(numbers.front()).size() < 4 || (numbers.back() - numbers.front()) / 8 + 1 + 5 <= 8192);
}

}  // namespace

std::string lexicon(const std::vector<std::string>& terms, uint32_t tperb, uint32_t uncompressed_size) {
    check(tperb >= 2 || (tperb == 1 && terms.size() == 1), "terms per block must be 2 or more");
    std::string blocks, ends;
    uint32_t total = 0;
    for (size_t i = 0; i < terms.size(); i++) {
        const std::string& term = terms[i];
        const size_t j = i % tperb;
        check(term.size() <= 2047, "term longer than 2047 bytes");
        total += static_cast<uint32_t>(term.size());
        if (j == 0) {
            if (i > 0) put_be(&ends, blocks.size(), 4);
            blocks += vbe(static_cast<uint32_t>(term.size())) + term;
            continue;
        }
        const std::string& before = terms[i - 1];
        const auto differ = std::mismatch(before.begin(), before.end(), term.begin(), term.end()).second;
        const auto shared = static_cast<uint32_t>(differ - term.begin());
        const std::string rest = term.substr(shared);
        blocks += vbe(shared);
        if (j != tperb - 1) blocks += vbe(static_cast<uint32_t>(rest.size()));
        blocks += rest;
    }
    if (!terms.empty()) put_be(&ends, blocks.size(), 4);
    std::string out;
    put_be(&out, terms.size(), 4);
    put_be(&out, tperb, 4);
    put_be(&out, uncompressed_size != 0 ? uncompressed_size : total, 4);
    return out + ends + blocks;
}

uint64_t next_section(uint64_t end) {
    return end - end % 8 + 8;
}

void pad_to(std::string* out, uint64_t at) {
    check(out->size() <= at, "sections overlap");
    out->resize(at, '\0');
}

namespace {

uint64_t mix(uint64_t seed, const std::string& text) {
    uint64_t h = 1469598103934665603u ^ (seed * 0x9E3779B97F4A7C15u);
    for (const char c : text) h = (h ^ static_cast<uint8_t>(c)) * 1099511628211u;
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9u;
    return h ^ (h >> 32);
}

// The header's numbers that several sections depend on.
struct widths {
    uint32_t count_nbits = 0, time_nbits = 0, addr_nbits = 32, addr_base = 0;
};

widths header_widths(const forge_picture& picture, const forge_options& options) {
    widths w;
    w.count_nbits = bit_length(static_cast<uint32_t>(picture.values.size()));
    w.time_nbits = bit_length(static_cast<uint32_t>(picture.latest) - static_cast<uint32_t>(picture.earliest));
    if (options.rev1() && !picture.values.empty()) {
        const auto [low, high] =
            std::minmax_element(picture.values.begin(), picture.values.end(),
                                [](const auto& a, const auto& b) { return a.address < b.address; });
        w.addr_base = low->address;
        w.addr_nbits = bit_length(high->address - low->address);
    } else if (options.rev1()) {
        w.addr_nbits = 0;
    }
    return w;
}

std::string values_section(const forge_picture& picture, const forge_options& options, const widths& w) {
    if (!(options.wflags & FORGE_PACKED)) {
        std::string out;
        for (const forge_event& v : picture.values) {
            put_be(&out, static_cast<uint32_t>(v.time), 4);
            put_be(&out, v.address, 4);
        }
        return out;
    }
    bit_string packed;
    for (const forge_event& v : picture.values) {
        packed.put(static_cast<uint32_t>(v.time) - static_cast<uint32_t>(picture.earliest), w.time_nbits);
        packed.put(v.address - w.addr_base, w.addr_nbits);
    }
    return packed.whole_words();
}

struct companions {
    std::string m, s, st, h, d;
    uint32_t m_nbits = 0, s_nbits = 0, st_nbits = 0, h_nbits = 0;
};

companions companion_arrays(const forge_picture& picture, const forge_options& options) {
    companions c;
    uint32_t largest_m = 0, largest_s = 0, largest_st = 0, largest_h = 0;
    for (const forge_event& v : picture.values) {
        check(options.companions || !v.deleted, "a deleted event needs the companion arrays");
        largest_m = std::max(largest_m, v.measure);
        if (!v.deleted) largest_s = std::max(largest_s, v.s);
        largest_st = std::max(largest_st, v.st);
        largest_h = std::max(largest_h, v.h);
    }
    if (!options.companions) return c;
    check((largest_m | largest_s | largest_st | largest_h) < 0x80000000, "companion values need 31 bits or fewer");
    c.m_nbits = options.measures_as_doubles ? 64 : digits(largest_m);
    c.s_nbits = digits(largest_s);
    c.st_nbits = digits(largest_st);
    c.h_nbits = digits(largest_h);
    bit_string m, s, st, h, d;
    for (const forge_event& v : picture.values) {
        const uint64_t raw = std::bit_cast<uint64_t>(static_cast<double>(v.measure));
        m.put(options.measures_as_doubles ? raw : v.measure, c.m_nbits);
        s.put(v.deleted ? 0xFFFFFFFFu : v.s, c.s_nbits);
        st.put(v.st, c.st_nbits);
        h.put(v.h, c.h_nbits);
        d.put(v.deleted ? 1 : 0, 1);
    }
    c.m = m.bytes;
    c.s = s.bytes;
    c.st = st.bytes;
    c.h = h.bytes;
    c.d = d.bytes;
    return c;
}

std::string metadata_section(const forge_picture& picture, const forge_options& options, const widths& w) {
    bit_string packed;
    std::string plain;
    for (const std::vector<uint32_t>& postings : picture.postings) {
        const auto count = static_cast<uint32_t>(postings.size());
        const int32_t latest = count == 0 ? picture.earliest : picture.values[postings.front()].time;
        const int32_t earliest = count == 0 ? picture.earliest : picture.values[postings.back()].time;
        if (options.legacy()) {
            put_be(&plain, count, 4);
            if (options.magic == "VelLex1") continue;
            put_be(&plain, static_cast<uint32_t>(earliest), 4);
            put_be(&plain, static_cast<uint32_t>(latest), 4);
        } else {
            packed.put(count, w.count_nbits);
            packed.put(static_cast<uint32_t>(earliest) - static_cast<uint32_t>(picture.earliest), w.time_nbits);
            packed.put(static_cast<uint32_t>(latest) - static_cast<uint32_t>(picture.earliest), w.time_nbits);
        }
    }
    if (!options.legacy()) return packed.whole_words();
    pad_to(&plain, next_section(plain.size()));
    return plain;
}

}  // namespace

// Chooses every term's encoding. The first term is always RLE (no entry describes it), a duplicate names a term whose
// list is real, and a list that a bitmap reader would cut short stays RLE.
void choose_encodings(forge_picture* picture, const forge_options& options, std::vector<uint32_t>* dedup_target) {
    const bool tag2 = options.wflags & FORGE_TAG2;
    const bool tags = tag2 || (options.wflags & FORGE_TAG1);
    const size_t n = picture->terms.size();
    picture->encodings.assign(n, forge_encoding::rle);
    dedup_target->assign(n, 0);
    std::map<std::vector<uint32_t>, uint32_t> real;  // a list to a term that stores it
    const auto forced = [&](size_t t) {
        const auto it = options.forced.find(picture->terms[t]);
        return it == options.forced.end() ? nullptr : &it->second;
    };
    const bool mixed = options.lists == forge_lists::mixed;
    for (uint32_t t = 0; t < n; t++) {
        const std::vector<uint32_t>& list = picture->postings[t];
        const uint64_t h = mix(options.seed, picture->terms[t]);
        forge_encoding* encoding = &picture->encodings[t];
        if (forced(t) != nullptr) {
            *encoding = *forced(t);
        } else if (t > 0 && tag2 && mixed && list.size() == 1 && h % 4 != 0) {
            *encoding = forge_encoding::spo;
        } else if (t > 0 && tags && mixed && bmap_readable(list) && (h >> 8) % 2 == 0) {
            *encoding = forge_encoding::bmap;
        }
        const bool stored = *encoding == forge_encoding::rle || *encoding == forge_encoding::bmap;
        check(t > 0 || *encoding == forge_encoding::rle, "term 0 is RLE");
        check(stored || tag2, "SPO and DEDUP need the 2-bit tag");
        check(*encoding != forge_encoding::bmap || (tags && bmap_readable(list)), "BMAP not expressible");
        check(*encoding != forge_encoding::spo || list.size() == 1, "SPO needs a single posting");
        // Every second keeper is a later term, so that duplicates name terms on both sides of them.
        if (stored && !list.empty() && (!real.contains(list) || ((h >> 16) % 2 == 0 && t > 0))) real[list] = t;
    }
    for (uint32_t t = 1; t < n; t++) {
        const auto it = real.find(picture->postings[t]);
        const bool wanted = forced(t) != nullptr ? *forced(t) == forge_encoding::dedup
                                                 : tag2 && mixed && it != real.end() &&
                                                       (mix(options.seed, picture->terms[t]) >> 24) % 4 != 0;
        if (!wanted || (it != real.end() && it->second == t)) continue;
        check(it != real.end(), "DEDUP needs an equal list that is stored");
        picture->encodings[t] = forge_encoding::dedup;
        (*dedup_target)[t] = it->second;
    }
}

static bool collapses(const forge_options& options, const std::string& term) {
    if (options.runs == forge_runs::mixed) return (mix(options.seed, term) >> 40) % 2 == 0;
    return options.runs == forge_runs::collapsed;
}

void forge_lists_of(forge_picture* picture, const forge_options& options) {
    for (size_t t = 0; t < picture->terms.size(); t++) {
        std::string list;
        if (picture->encodings[t] == forge_encoding::rle) {
            list = rle_list(picture->postings[t], collapses(options, picture->terms[t]));
        } else if (picture->encodings[t] == forge_encoding::bmap) {
            list = bmap_list(picture->postings[t]);
        }
        picture->lists.push_back(std::move(list));
    }
}

// Entry k tells where the list of term k + 1 begins and how it is coded; the last entry is the total size.
std::string posting_offsets(const forge_picture& picture, const forge_options& options,
                            const std::vector<uint32_t>& dedup_target) {
    const uint32_t tag_bits = options.wflags & FORGE_TAG2 ? 2 : options.wflags & FORGE_TAG1 ? 1 : 0;
    const int width = options.magic == "Veldar3" || (options.wflags & FORGE_PLO32) ? 4 : 8;
    std::string out;
    uint64_t position = 0;
    const size_t n = picture.terms.size();
    for (size_t k = 0; k < n; k++) {
        position += picture.lists[k].size();
        uint64_t v = position, type = 0;
        if (k + 1 < n) {
            type = static_cast<uint64_t>(picture.encodings[k + 1]);
            if (picture.encodings[k + 1] == forge_encoding::spo) v = picture.postings[k + 1].front();
            if (picture.encodings[k + 1] == forge_encoding::dedup) v = dedup_target[k + 1];
        }
        const uint64_t entry = (v << tag_bits) + type;
        check(width == 8 || entry <= 0xFFFFFFFF, "posting offset does not fit 4 bytes");
        put_be(&out, entry, width);
    }
    return out;
}

namespace {

// Reversed terms in ascending order, and for each the number of the term it is the reverse of.
std::pair<std::string, std::vector<std::string>> reverse_terms(const std::vector<std::string>& terms) {
    std::vector<std::pair<std::string, uint32_t>> reversed;
    for (uint32_t t = 0; t < terms.size(); t++)
        reversed.emplace_back(std::string(terms[t].rbegin(), terms[t].rend()), t);
    std::sort(reversed.begin(), reversed.end());
    std::pair<std::string, std::vector<std::string>> out;
    for (const auto& [text, id] : reversed) {
        put_be(&out.first, id, 4);
        out.second.push_back(text);
    }
    return out;
}

std::string header(const forge_picture& picture, const forge_options& options, const widths& w, const companions& c) {
    std::string out = options.magic + '\0';
    for (const uint64_t v : std::initializer_list<uint64_t>{
             picture.values.size(), picture.num_postings, picture.terms.size(), c.m.size(), c.s.size(), c.st.size(),
             c.h.size(), c.d.size(), c.m_nbits, c.s_nbits, c.st_nbits, c.h_nbits, 1}) {
        put_be(&out, v, 4);
    }
    if (options.legacy()) return out;
    put_be(&out, static_cast<uint32_t>(picture.earliest), 4);
    put_be(&out, static_cast<uint32_t>(picture.latest), 4);
    put_be(&out, 0, 4);
    put_be(&out, options.wflags, 8);
    if (!options.rev1()) return out;
    uint32_t highest = 0;
    for (const forge_event& v : picture.values) highest = std::max(highest, v.address);
    put_be(&out, w.addr_base, 4);
    put_be(&out, highest, 4);
    put_be(&out, 0, 8);  // no column store
    put_be(&out, 0, 4);  // no dimension sets
    return out + std::string(20, '\0');
}

const std::set<std::string>& known_magics() {
    static const std::set<std::string> magics = {"Veldar3", "Veldar4", "Veldar5", "Veldar6", "VelLex1", "Msidx_2",
                                                 "_TSIDX7", "_TSIDX8", "_TSIDX9", "_MSIDX3", "_MSIDX4"};
    return magics;
}

}  // namespace
}  // namespace forging

using namespace forging;

std::string forge_options::name() const {
    static const std::pair<uint64_t, const char*> flags[] = {
        {FORGE_TAG1, "+tag1"}, {FORGE_TAG2, "+tag2"}, {FORGE_PACKED, "+packed"}, {FORGE_PLO32, "+plo32"}};
    std::string out = magic;
    for (const auto& [bit, text] : flags) {
        if (wflags & bit) out += text;
    }
    return out + (measures_as_doubles ? "+doubles" : "") + (mini ? "+mini" : "") + " tperb " + std::to_string(tperb);
}

forge_picture forge_number(const std::vector<forge_event>& events, const std::vector<std::string>& bare_terms) {
    forge_picture picture;
    picture.values = events;
    std::stable_sort(picture.values.begin(), picture.values.end(), [](const forge_event& a, const forge_event& b) {
        return a.time != b.time ? a.time > b.time : a.address > b.address;
    });
    std::map<std::string, std::vector<uint32_t>> postings;
    for (const std::string& term : bare_terms) postings[term];
    for (uint32_t number = 0; number < picture.values.size(); number++) {
        for (const std::string& term : picture.values[number].terms) {
            std::vector<uint32_t>& list = postings[term];
            if (list.empty() || list.back() != number) list.push_back(number);
        }
    }
    for (auto& [term, list] : postings) {
        check(term.find('\0') == std::string::npos, "a term holds a NUL");
        picture.num_postings += static_cast<uint32_t>(list.size());
        picture.terms.push_back(term);
        picture.postings.push_back(std::move(list));
    }
    if (!picture.values.empty()) {
        picture.latest = picture.values.front().time;
        picture.earliest = picture.values.back().time;
    }
    return picture;
}

std::string forge_slice(const std::vector<forge_event>& events, const forge_options& options, forge_picture* result) {
    check(known_magics().contains(options.magic), "unknown magic " + options.magic);
    check(!options.legacy() || options.wflags == 0, "this header has no flag word");
    check((options.wflags & ~(FORGE_TAG1 | FORGE_TAG2 | FORGE_PACKED | FORGE_PLO32)) == 0, "flags not forged");
    forge_picture picture = forge_number(events, options.bare_terms);
    const widths w = header_widths(picture, options);
    const companions c = companion_arrays(picture, options);
    forge_offsets& at = picture.at;

    std::string out = header(picture, options, w, c);
    const auto section = [&out](const std::string& bytes) {
        const uint64_t start = next_section(out.size());
        pad_to(&out, start);
        out += bytes;
        return start;
    };
    at.values = section(values_section(picture, options, w));
    at.m = section(c.m);
    at.s = section(c.s);
    at.st = section(c.st);
    at.h = section(c.h);
    at.d = section(c.d);
    at.posting_offsets = next_section(out.size());
    if (options.mini) {
        pad_to(&out, at.posting_offsets);
        at.end = out.size();
        if (result != nullptr) *result = std::move(picture);
        return out;
    }

    std::vector<uint32_t> dedup_target;
    choose_encodings(&picture, options, &dedup_target);
    forge_lists_of(&picture, options);
    const bool has_offsets = !picture.values.empty();
    section(has_offsets ? posting_offsets(picture, options, dedup_target) : std::string());
    at.metadata = section(metadata_section(picture, options, w));
    const bool reverse = options.magic == "Veldar3" || options.magic == "Veldar4" || options.magic == "Veldar5";
    const auto [table, reversed] = reverse_terms(picture.terms);
    at.reverse_terms = out.size();
    if (reverse) out += table;
    at.lexicon = out.size();
    out += lexicon(picture.terms, options.tperb, options.uncompressed_size);
    if (reverse) {
        pad_to(&out, at.lexicon + (out.size() - at.lexicon + 3) / 4 * 4);
        at.reverse_lexicon = out.size();
        out += lexicon(reversed, options.tperb, 0);
    }
    at.postings = out.size();
    for (const std::string& list : picture.lists) out += list;
    if (options.magic.find("sidx_") == 1 || options.magic.find("MSIDX") == 1) {
        at.dimsets = section("DSMAGIC0" + std::string(8, '\0'));
    }
    if (options.pad_to_8) pad_to(&out, (out.size() + 7) / 8 * 8);
    at.end = out.size();
    if (result != nullptr) *result = std::move(picture);
    return out;
}

std::string forge_file_name(const std::vector<forge_event>& events, uint64_t id, bool mini) {
    const forge_picture picture = forge_number(events);
    return std::to_string(picture.latest) + "-" + std::to_string(picture.earliest) + "-" + std::to_string(id) +
           (mini ? ".mini.tsidx" : ".tsidx");
}

std::string forge_file(const std::string& directory, const std::vector<forge_event>& events,
                       const forge_options& options, uint64_t id, forge_picture* picture) {
    const std::string path = directory + "/" + forge_file_name(events, id, options.mini);
    write_file(path, forge_slice(events, options, picture));
    return path;
}

forge_options forge_as_created(uint32_t level) {
    forge_options options;
    options.magic = level == 1 ? "Veldar6" : level == 2 ? "_TSIDX7" : level == 3 ? "_TSIDX8" : "_TSIDX9";
    options.lists = forge_lists::rle;
    options.runs = forge_runs::plain;
    options.pad_to_8 = true;
    return options;
}

std::vector<forge_options> forge_event_kinds() {
    std::vector<forge_options> kinds;
    const auto add = [&kinds](const char* magic, uint64_t wflags) {
        static constexpr uint32_t block_sizes[] = {8, 2, 64, 3};
        forge_options options;
        options.magic = magic;
        options.wflags = wflags;
        options.tperb = block_sizes[kinds.size() % 4];
        options.runs = kinds.size() % 3 == 2 ? forge_runs::mixed : forge_runs::collapsed;
        options.seed = kinds.size() + 1;
        kinds.push_back(options);
    };
    for (const char* magic : {"Veldar3", "Veldar4", "Veldar5", "Veldar6", "VelLex1"}) add(magic, 0);
    for (const char* magic : {"_TSIDX7", "_TSIDX8", "_TSIDX9"}) {
        for (const uint64_t tag : {uint64_t{0}, FORGE_TAG1, FORGE_TAG2, FORGE_TAG1 | FORGE_TAG2}) {
            for (const uint64_t packed : {uint64_t{0}, FORGE_PACKED}) {
                for (const uint64_t plo32 : {uint64_t{0}, FORGE_PLO32}) add(magic, tag | packed | plo32);
            }
        }
    }
    return kinds;
}

std::vector<forge_options> forge_all_kinds() {
    std::vector<forge_options> kinds = forge_event_kinds();
    for (const char* magic : {"Msidx_2", "_MSIDX3", "_MSIDX4"}) {
        forge_options options;
        options.magic = magic;
        options.wflags = options.legacy() ? 0 : FORGE_TAG1;
        kinds.push_back(options);
    }
    forge_options first_generation;
    first_generation.magic = "Veldar6";
    first_generation.measures_as_doubles = true;
    kinds.push_back(first_generation);
    return kinds;
}

std::vector<forge_event> forge_random_events(uint64_t seed, uint32_t count) {
    std::mt19937_64 random(seed);
    const auto below = [&random](uint64_t limit) { return static_cast<uint32_t>(random() % limit); };
    std::vector<forge_event> events;
    int32_t time = static_cast<int32_t>(1700000000 + below(1000));
    for (uint32_t i = 0; i < count; i++) {
        forge_event event;
        if (below(4) != 0) time += static_cast<int32_t>(below(below(20) == 0 ? 1000 : 3));
        event.time = time - static_cast<int32_t>(below(10) == 0 ? below(60) : 0);
        event.address = 1000 + i * 97;
        event.measure = below(1000);
        event.s = below(6);
        event.st = below(3);
        event.h = below(40);
        event.deleted = below(16) == 0;
        event.terms = {"all", "host::web" + std::to_string(event.h), "status::" + std::to_string(200 + 100 * below(4)),
                       "bytes::" + std::to_string(below(50) * 37)};
        if (below(2) == 0) event.terms.push_back("half");
        if (below(10) == 0) event.terms.push_back("tenth");
        if (i / 50 % 2 == 0) event.terms.push_back("burst");
        if (i / 50 % 2 == 0) event.terms.push_back("twin::burst");  // an equal list: a duplicate
        if (below(3) == 0) event.terms.push_back("bytes::" + std::string(below(2) == 0 ? "" : "-"));
        for (uint32_t k = below(4); k > 0; k--) event.terms.push_back("word" + std::to_string(below(count + 5)));
        if (below(20) == 0) event.terms.push_back("rare/" + std::to_string(i) + "/" + std::string(below(90), 'x'));
        events.push_back(std::move(event));
    }
    std::shuffle(events.begin(), events.end(), random);
    return events;
}

}  // namespace veldar
