#include "tools/libveldar/load/put_line.h"

#include <charconv>
#include <cstring>

namespace veldar::tool {

namespace {

// The next field of the line, without its tab; false at the line's end.
bool next_field(std::string_view* line, std::string_view* field) {
    const void* const tab = line->empty() ? nullptr : std::memchr(line->data(), '\t', line->size());
    if (tab == nullptr) return false;
    const size_t size = static_cast<size_t>(static_cast<const char*>(tab) - line->data());
    *field = line->substr(0, size);
    line->remove_prefix(size + 1);
    return true;
}

template <typename T>
bool parse_number(std::string_view text, T* out) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *out);
    return error == std::errc() && end == text.data() + text.size();
}

bool parse_time(std::string_view text, st_txn* txn) {
    txn->subsecond = 0;
    const size_t point = text.find('.');
    if (!parse_number(text.substr(0, point), &txn->time)) return false;
    if (point == std::string_view::npos) return true;
    const std::string_view digits = text.substr(point + 1);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos) return false;
    uint32_t nanoseconds = 0;
    for (size_t i = 0; i < 9; i++) {
        nanoseconds = nanoseconds * 10 + (i < digits.size() ? static_cast<uint32_t>(digits[i] - '0') : 0);
    }
    // The fraction counts on from the second, so -0.25 is three quarters behind -1.
    if (text.starts_with('-') && nanoseconds != 0) {
        if (txn->time == INT32_MIN) return false;
        txn->time--;
        nanoseconds = 1000000000 - nanoseconds;
    }
    txn->subsecond = encode_subsecond(nanoseconds);
    return true;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes the percent codes of one term in place. False for a bad code and for a NUL byte.
bool decode_term(char* term, size_t* size) {
    size_t out = 0;
    for (size_t in = 0; in < *size; in++) {
        char c = term[in];
        if (c == '%') {
            if (*size - in < 3) return false;
            const int high = hex_digit(term[in + 1]), low = hex_digit(term[in + 2]);
            if (high < 0 || low < 0 || (high == 0 && low == 0)) return false;
            c = static_cast<char>(high * 16 + low);
            in += 2;
        }
        term[out++] = c;
    }
    *size = out;
    return true;
}

const char* parse_terms(std::span<char> text, std::vector<std::string_view>* terms) {
    const bool encoded = std::memchr(text.data(), '%', text.size()) != nullptr;
    if (std::memchr(text.data(), '\0', text.size()) != nullptr) return "a term holds a NUL byte";
    for (size_t at = 0; at < text.size();) {
        char* const begin = text.data() + at;
        const void* const blank = std::memchr(begin, ' ', text.size() - at);
        const size_t whole =
            blank == nullptr ? text.size() - at : static_cast<size_t>(static_cast<const char*>(blank) - begin);
        size_t size = whole;
        if (encoded && !decode_term(begin, &size)) return "a term holds a bad percent code";
        if (size > 0) terms->emplace_back(begin, size);
        at += whole + 1;
    }
    return terms->empty() ? "no terms" : nullptr;
}

}  // namespace

const char* put_line_parse(std::span<char> bytes, put_event* event) {
    std::string_view line(bytes.data(), bytes.size());
    if (line.ends_with('\r')) line.remove_suffix(1);
    event->terms.clear();
    std::string_view time, address, source, sourcetype, host, measure;
    if (!next_field(&line, &time) || !next_field(&line, &address) || !next_field(&line, &source) ||
        !next_field(&line, &sourcetype) || !next_field(&line, &host) || !next_field(&line, &measure)) {
        return "fewer than seven fields separated by tabs";
    }
    if (line.empty()) return "no terms";
    if (line.find('\t') != std::string_view::npos) return "more than seven fields";
    st_txn* const txn = &event->txn;
    constexpr uint32_t NUMBERS_END = uint32_t{1} << 31;
    if (!parse_time(time, txn)) return "the time is not seconds, with or without a fraction";
    if (!parse_number(address, &txn->address)) return "the address is not a number below 2^32";
    if (!parse_number(source, &txn->source)) return "the source is not a number";
    if (txn->source >= NUMBERS_END && txn->source != ST_DELETED_SOURCE) return "the source is not below 2^31";
    if (!parse_number(sourcetype, &txn->source_type) || txn->source_type >= NUMBERS_END) {
        return "the sourcetype is not a number below 2^31";
    }
    if (!parse_number(host, &txn->host) || txn->host >= NUMBERS_END) return "the host is not a number below 2^31";
    // An event directory keeps the measure of a value in the record's seek address.
    if (!parse_number(measure, &txn->seek_address)) return "the measure is not a number";
    return parse_terms(bytes.subspan(static_cast<size_t>(line.data() - bytes.data()), line.size()), &event->terms);
}

uint64_t encode_subsecond(uint32_t nanoseconds) {
    if (nanoseconds == 0) return 0;
    uint32_t zeros = 0;
    for (uint32_t place = 100000000; nanoseconds < place; place /= 10) zeros++;
    while (nanoseconds % 10 == 0) nanoseconds /= 10;
    return (uint64_t{2} * nanoseconds + 1) << zeros;
}

}  // namespace veldar::tool
