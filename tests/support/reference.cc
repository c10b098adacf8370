#include "tests/support/reference.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace veldar {

namespace {

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (std::string(" \t\n[]\\").find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

const char* op_name(reference_op op) {
    static const char* const names[] = {"LT", "LTE", "GT", "GTE", "EQ", "NEQ"};
    return names[static_cast<int>(op)];
}

std::set<uint32_t> both(const std::set<uint32_t>& a, const std::set<uint32_t>& b) {
    std::set<uint32_t> out;
    std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::inserter(out, out.end()));
    return out;
}

}  // namespace

reference_query reference_query::group_and(std::vector<reference_query> children) {
    return {.kind = kind_t::and_group, .text = {}, .children = std::move(children)};
}
reference_query reference_query::group_or(std::vector<reference_query> children) {
    return {.kind = kind_t::or_group, .text = {}, .children = std::move(children)};
}
reference_query reference_query::term(std::string text) {
    return {.kind = kind_t::literal, .text = std::move(text), .children = {}};
}
reference_query reference_query::not_term(std::string text) {
    return {.kind = kind_t::not_literal, .text = std::move(text), .children = {}};
}
reference_query reference_query::compare(reference_op op, std::string field, double number) {
    return {.kind = kind_t::comparison, .text = std::move(field), .op = op, .number = number, .children = {}};
}

std::string reference_query::notation() const {
    char number_text[40];
    switch (kind) {
        case kind_t::literal:
            return escaped(text);
        case kind_t::not_literal:
            return "[NOT " + escaped(text) + "]";
        case kind_t::comparison:
            std::snprintf(number_text, sizeof number_text, "%.17g", number);
            return std::string("[") + op_name(op) + " " + escaped(text) + " " + number_text + "]";
        case kind_t::and_group:
        case kind_t::or_group:
            break;
    }
    std::string out = kind == kind_t::and_group ? "[AND" : "[OR";
    for (const reference_query& child : children) out += " " + child.notation();
    return out + "]";
}

reference_index::reference_index(const std::vector<forge_event>& events) {
    const forge_picture picture = forge_number(events);
    values_ = picture.values;
    for (uint32_t number = 0; number < values_.size(); number++) all_.insert(number);
    for (size_t id = 0; id < picture.terms.size(); id++) {
        const std::vector<uint32_t>& numbers = picture.postings[id];
        terms_[picture.terms[id]] = {.postings = {numbers.begin(), numbers.end()},
                                     .earliest = values_[numbers.back()].time,
                                     .latest = values_[numbers.front()].time};
    }
}

bool reference_index::wildcard_matches(const std::string& needle, const std::string& term) {
    if (needle.empty()) return true;
    if (needle.find('*') == std::string::npos) return needle == term;
    const size_t first_star = needle.find('*'), last_star = needle.rfind('*');
    const std::string start = needle.substr(0, first_star), end = needle.substr(last_star + 1);
    if (term.compare(0, start.size(), start) != 0) return false;
    size_t at = start.size();
    for (size_t i = first_star; i < last_star;) {
        const size_t next = needle.find('*', i + 1);
        const std::string piece = needle.substr(i + 1, next - i - 1);
        if (!piece.empty()) {
            at = term.find(piece, at);
            if (at == std::string::npos) return false;
            at += piece.size();
        }
        i = next;
    }
    if (end.empty()) return true;
    while ((at = term.find(end, at)) != std::string::npos) {
        at += end.size();
        if (at == term.size()) return true;
    }
    return false;
}

bool reference_index::compare_matches(reference_op op, const std::string& value, double number) {
    if (value.empty()) return op == reference_op::lt || op == reference_op::lte || op == reference_op::neq;
    char* end = nullptr;
    errno = 0;
    const double x = std::strtod(value.c_str(), &end);
    if (*end != '\0' || errno == ERANGE) {
        return op == reference_op::gt || op == reference_op::gte || op == reference_op::neq;
    }
    switch (op) {
        case reference_op::lt:
            return x < number;
        case reference_op::lte:
            return x <= number;
        case reference_op::gt:
            return x > number;
        case reference_op::gte:
            return x >= number;
        case reference_op::eq:
            return x >= number && x <= number;
        case reference_op::neq:
            return !(x >= number && x <= number);
    }
    return false;
}

std::set<uint32_t> reference_index::literal(const std::string& text) const {
    std::set<uint32_t> out;
    for (const auto& [term, postings] : terms_) {
        const bool hit = text.find('*') == std::string::npos ? term == text : wildcard_matches(text, term);
        if (hit) out.insert(postings.postings.begin(), postings.postings.end());
    }
    return out;
}

std::set<uint32_t> reference_index::complement(const std::set<uint32_t>& of) const {
    std::set<uint32_t> out;
    std::set_difference(all_.begin(), all_.end(), of.begin(), of.end(), std::inserter(out, out.end()));
    return out;
}

// With `neq_matches_missing`, NEQ is "no value of the field equals the number", so an event without the field matches.
std::set<uint32_t> reference_index::comparison(const reference_query& query, bool neq_matches_missing) const {
    const bool inverted = query.op == reference_op::neq && neq_matches_missing;
    const std::string prefix = query.text + "::";
    std::set<uint32_t> out;
    for (const auto& [term, postings] : terms_) {
        if (query.text.empty() || term.compare(0, prefix.size(), prefix) != 0) continue;
        const reference_op op = inverted ? reference_op::eq : query.op;
        if (compare_matches(op, term.substr(prefix.size()), query.number)) {
            out.insert(postings.postings.begin(), postings.postings.end());
        }
    }
    return inverted ? complement(out) : out;
}

std::set<uint32_t> reference_index::matches(const reference_query& query, bool neq_matches_missing) const {
    switch (query.kind) {
        case reference_query::kind_t::literal:
            return literal(query.text);
        case reference_query::kind_t::not_literal:
            return complement(literal(query.text));
        case reference_query::kind_t::comparison:
            return comparison(query, neq_matches_missing);
        case reference_query::kind_t::and_group: {
            std::set<uint32_t> out = all_;
            for (const reference_query& child : query.children) out = both(out, matches(child, neq_matches_missing));
            return out;
        }
        case reference_query::kind_t::or_group: {
            std::set<uint32_t> out;
            for (const reference_query& child : query.children) out.merge(matches(child, neq_matches_missing));
            return out;
        }
    }
    return {};
}

std::vector<uint32_t> reference_index::search(const reference_query& query, const reference_bounds& bounds) const {
    std::vector<uint32_t> out;
    for (const uint32_t number : matches(query, bounds.neq_matches_missing)) {
        const forge_event& value = values_[number];
        if (value.deleted || value.time < bounds.earliest || value.time > bounds.latest) continue;
        if (bounds.cumspan != 0 && static_cast<uint32_t>(value.time) % bounds.cumspan != 0) continue;
        out.push_back(number);
    }
    return out;
}

}  // namespace veldar
