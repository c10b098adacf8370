// The reference index: sorted maps over the same events, which answer every question by brute force.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/forge.h"

namespace veldar {

enum class reference_op { lt, lte, gt, gte, eq, neq };

// One node of a query: a group of nodes, a literal (with "*" as wildcard), a negated literal, or a comparison.
struct reference_query {
    enum class kind_t { and_group, or_group, literal, not_literal, comparison };
    kind_t kind = kind_t::and_group;
    std::string text;  // the literal, or the comparison's field
    reference_op op = reference_op::eq;
    double number = 0;
    std::vector<reference_query> children;  // of a group

    static reference_query group_and(std::vector<reference_query> children);
    static reference_query group_or(std::vector<reference_query> children);
    static reference_query term(std::string text);
    static reference_query not_term(std::string text);
    static reference_query compare(reference_op op, std::string field, double number);

    // The bracket notation, with blanks, brackets and backslashes of literals escaped.
    std::string notation() const;
};

struct reference_bounds {
    int32_t earliest = INT32_MIN;  // inclusive
    int32_t latest = INT32_MAX;    // inclusive
    uint32_t cumspan = 0;          // 0, or: only events whose time, unsigned, is a multiple of it
    bool neq_matches_missing = false;
};

struct reference_term {
    std::set<uint32_t> postings;  // value numbers
    int32_t earliest = 0, latest = 0;
    uint32_t count() const { return static_cast<uint32_t>(postings.size()); }
};

class reference_index {
  public:
    explicit reference_index(const std::vector<forge_event>& events);

    const std::map<std::string, reference_term>& terms() const { return terms_; }
    const std::vector<forge_event>& values() const { return values_; }  // by value number, newest first

    // Value numbers that match, ascending (newest first): within the bounds, not deleted, on the cumulative span.
    std::vector<uint32_t> search(const reference_query& query, const reference_bounds& bounds) const;
    // The match alone, before the bounds, the deletes and the span.
    std::set<uint32_t> matches(const reference_query& query, bool neq_matches_missing) const;

    // "*" is any run of bytes; the text behind the last "*" is looked for from left to right without overlap, and only
    // an occurrence found so that ends the term counts: "*aa" does not match "aaa".
    static bool wildcard_matches(const std::string& needle, const std::string& term);
    // The rule of a comparison for the text behind "field::"; `neq` here is the plain one.
    static bool compare_matches(reference_op op, const std::string& value, double number);

  private:
    std::set<uint32_t> literal(const std::string& text) const;
    std::set<uint32_t> comparison(const reference_query& query, bool neq_matches_missing) const;
    std::set<uint32_t> complement(const std::set<uint32_t>& of) const;

    std::vector<forge_event> values_;
    std::map<std::string, reference_term> terms_;
    std::set<uint32_t> all_;
};

}  // namespace veldar
