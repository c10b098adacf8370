// Makes random queries for the property tests of searches.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "searchthing/base/number.h"
#include "tests/support/reference.h"

namespace veldar {

// Random queries over the terms of one slice, with terms that are not there among them.
class query_maker {
  public:
    query_maker(const reference_index& reference, uint64_t seed) : random_(seed) {
        for (const auto& [term, record] : reference.terms()) {
            terms_.push_back(term);
            if (const size_t colons = term.find("::"); colons != std::string::npos) {
                fields_.push_back(term.substr(0, colons));
                values_.push_back(term.substr(colons + 2));
            }
        }
        for (const forge_event& value : reference.values()) times_.push_back(value.time);
    }

    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

    reference_query group(uint32_t depth) {
        std::vector<reference_query> children;
        const uint32_t size = below(4) + (depth == 0 ? 1 : 0);
        for (uint32_t i = 0; i < size; i++) children.push_back(item(depth));
        return below(2) == 0 ? reference_query::group_and(std::move(children))
                             : reference_query::group_or(std::move(children));
    }

    reference_bounds bounds() {
        reference_bounds out;
        if (below(3) == 0)
            out.earliest = times_[below(static_cast<uint32_t>(times_.size()))] + static_cast<int>(below(3)) - 1;
        if (below(3) == 0)
            out.latest = times_[below(static_cast<uint32_t>(times_.size()))] + static_cast<int>(below(3)) - 1;
        if (below(8) == 0) out.cumspan = below(5);
        out.neq_matches_missing = below(2) == 0;
        return out;
    }

  private:
    reference_query item(uint32_t depth) {
        const uint32_t kind = below(10);
        if (kind < 2 && depth < 4) return group(depth + 1);
        if (kind < 4) return reference_query::not_term(literal());
        if (kind < 6 && !fields_.empty()) return comparison();
        return reference_query::term(literal());
    }

    std::string any_term() { return terms_[below(static_cast<uint32_t>(terms_.size()))]; }

    std::string literal() {
        std::string text = any_term();
        const uint32_t kind = below(8);
        if (kind == 0) return text.empty() ? "*" : text.substr(0, below(static_cast<uint32_t>(text.size()))) + "*";
        if (kind == 1 && !text.empty()) return "*" + text.substr(below(static_cast<uint32_t>(text.size())));
        if (kind == 2 && text.size() > 2)
            return "*" + text.substr(1, below(static_cast<uint32_t>(text.size() - 1))) + "*";
        if (kind == 3) text += "absent";
        return text.empty() ? "absent" : text;
    }

    reference_query comparison() {
        static constexpr double NUMBERS[] = {0, 1, -1, 5, 200, 404, 1e9, 0.5};
        const uint32_t at = below(static_cast<uint32_t>(fields_.size()));
        double number = NUMBERS[below(8)];
        if (below(2) == 0) parse_query_number(values_[at].c_str(), &number);
        const std::string field = below(10) == 0 ? "nofield" : fields_[at];
        return reference_query::compare(static_cast<reference_op>(below(6)), field, number);
    }

    std::mt19937_64 random_;
    std::vector<std::string> terms_, fields_, values_;
    std::vector<int32_t> times_;
};

}  // namespace veldar
