#include "tools/libveldar/query/query_language.h"

#include <algorithm>
#include <array>
#include <utility>

#include "searchthing/base/number.h"
#include "searchthing/search/query.h"
#include "tools/libveldar/formats/line_format.h"
#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/formats/unit_number.h"

namespace veldar::tool {

namespace {

constexpr size_t MAX_NESTING = 200;
constexpr size_t MAX_PLANS = 64;
constexpr size_t MAX_FIELD_NAME = 1000;  // leaves room for a value in a term

enum class node_kind { all, any, literal, comparison, phrase };

struct query_node {
    node_kind kind = node_kind::all;
    bool negated = false;              // leaves only, once negations are pushed down
    std::string text;                  // literal: the term; comparison: the field
    const char* op = "";               // comparison
    std::string number;                // comparison, as written
    raw_pattern pattern;               // phrase
    std::vector<query_node> children;  // all, any; of a phrase: the terms that its words are
};

query_node literal_node(std::string term) {
    query_node node;
    node.kind = node_kind::literal;
    node.text = std::move(term);
    return node;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
bool is_name_start(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '@';
}
bool is_name(char c) {
    return is_name_start(c) || (c >= '0' && c <= '9') || c == '.' || c == '-';
}

query_node phrase_node(std::string_view text, bool may_cut) {
    query_node node;
    node.kind = node_kind::phrase;
    std::vector<std::string> terms;
    node.pattern = phrase_pattern(text, may_cut, &terms);
    for (std::string& term : terms) node.children.push_back(literal_node(std::move(term)));
    return node;
}

// What stands behind a field's operator or as a word.
struct written_text {
    std::string text;
    bool quoted = false;
    bool inside = false;       // "~" follows: words that hold it count too
    std::string_view as_read;  // with its quotes, escapes and "~"
};

class query_parser {
  public:
    explicit query_parser(std::string_view text) : text_(text) {}

    // As found by parse(): where the words end that a "~" would change, and query_names.
    const std::vector<size_t>& word_ends() const { return word_ends_; }
    const std::vector<std::string>& fields() const { return fields_; }
    const std::vector<std::string>& compared() const { return compared_; }
    const std::vector<std::string>& odd_names() const { return odd_names_; }

    query_node parse() {
        skip_blanks();
        if (at_end()) fail("a term: the query is empty");
        query_node root = parse_any();
        if (!at_end()) fail("a term or the end of the query: this ')' closes nothing");
        return root;
    }

  private:
    [[noreturn]] void fail(const char* expected) const { throw query_error{position_, expected}; }
    bool at_end() const { return position_ >= text_.size(); }
    char here() const { return text_[position_]; }
    void skip_blanks() {
        while (!at_end() && is_blank(here())) position_++;
    }

    // Whether the keyword stands here, as a word of its own; it is consumed.
    bool accept(std::string_view keyword) {
        if (!text_.substr(position_).starts_with(keyword)) return false;
        const size_t end = position_ + keyword.size();
        if (end < text_.size() && !is_blank(text_[end]) && text_[end] != '(' && text_[end] != ')') return false;
        position_ = end;
        skip_blanks();
        return true;
    }

    query_node parse_any() {
        query_node any;
        any.kind = node_kind::any;
        do {
            any.children.push_back(parse_all());
        } while (accept("OR"));
        return any.children.size() == 1 ? std::move(any.children.front()) : std::move(any);
    }

    query_node parse_all() {
        query_node all;
        do {
            all.children.push_back(parse_condition());
            if (accept("AND") && (at_end() || here() == ')' || looking_at_or())) fail("a term after AND");
        } while (!at_end() && here() != ')' && !looking_at_or());
        return all.children.size() == 1 ? std::move(all.children.front()) : std::move(all);
    }

    bool looking_at_or() {
        const size_t before = position_;
        const bool found = accept("OR");
        position_ = before;
        return found;
    }

    query_node parse_condition() {
        if (at_end()) fail("a term");
        const size_t before = position_;
        if (accept("OR") || accept("AND")) {
            position_ = before;
            fail("a term before the operator");
        }
        bool negated = false;
        while (true) {
            if (accept("NOT")) {
                if (at_end()) fail("a term after NOT");
            } else if (here() == '-') {
                position_++;
                if (at_end() || is_blank(here())) fail("a term right after '-'");
            } else {
                break;
            }
            negated = !negated;
        }
        if (negated) negations_++;
        query_node node = parse_primary();
        skip_blanks();
        if (!negated) return node;
        negations_--;
        negate(&node);
        return node;
    }

    query_node parse_primary() {
        if (here() == '(') return parse_parentheses();
        if (here() == ')') fail("a term");
        if (here() != '"') return parse_word();
        const written_text quoted = take_written();
        if (!quoted.inside && at_operator()) return parse_field(quoted.text);
        return phrase_or_word(quoted);
    }

    query_node parse_parentheses() {
        const size_t opened = position_;
        if (++nesting_ > MAX_NESTING) fail("fewer parentheses inside each other");
        position_++;
        skip_blanks();
        query_node inner = parse_any();
        if (at_end()) {
            position_ = opened;
            fail("a ')' for this '('");
        }
        position_++;
        nesting_--;
        return inner;
    }

    std::string parse_quoted() {
        const size_t opened = position_++;
        std::string out;
        while (!at_end() && here() != '"') {
            const bool escape =
                text_.substr(position_).starts_with("\\\"") || text_.substr(position_).starts_with("\\\\");
            if (escape && position_ + 1 < text_.size()) position_++;
            out += here();
            position_++;
        }
        if (at_end()) {
            position_ = opened;
            fail("a closing quote for this one");
        }
        position_++;
        if (out.empty()) {
            position_ = opened;
            fail("a text between the quotes");
        }
        return out;
    }

    query_node parse_word() {
        const size_t begin = position_;
        if (is_name_start(here())) {
            while (!at_end() && is_name(here())) position_++;
            if (at_operator()) return parse_field(text_.substr(begin, position_ - begin));
            position_ = begin;
        }
        return phrase_or_word(take_written());
    }

    bool at_operator() const {
        if (at_end() || std::string_view("=!<>").find(here()) == std::string_view::npos) return false;
        return here() != '!' || text_.substr(position_).starts_with("!=");
    }

    // The quoted or bare text that stands here.
    written_text take_written() {
        const size_t begin = position_;
        written_text out;
        out.quoted = here() == '"';
        out.text = out.quoted ? parse_quoted() : take_bare();
        if (out.quoted && !at_end() && here() == '~') {
            out.inside = true;
            position_++;
        } else if (!out.quoted && out.text.size() > 1 && out.text.back() == '~') {
            out.inside = true;
            out.text.pop_back();
        }
        out.as_read = text_.substr(begin, position_ - begin);
        return out;
    }

    // The same behind a field's operator, where a value may stand in single quotes as well, as logs write them.
    written_text take_value() {
        const size_t close = here() == '\'' ? text_.find('\'', position_ + 1) : std::string_view::npos;
        if (close == std::string_view::npos || close == position_ + 1) return take_written();
        written_text out;
        out.text = text_.substr(position_ + 1, close - position_ - 1);
        out.as_read = text_.substr(position_, close + 1 - position_);
        out.quoted = true;
        position_ = close + 1;
        return out;
    }

    // Notes a word that "~" would find more of: not for numbers and short words, whose parts are everywhere.
    void note_word(const written_text& word) {
        const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
        const bool tells = word.text.size() > 2 && std::any_of(word.text.begin(), word.text.end(), is_letter);
        if (tells && !word.inside && negations_ % 2 == 0) word_ends_.push_back(position_);
    }

    std::string take_bare() {
        const size_t begin = position_;
        while (!at_end() && !is_blank(here()) && here() != '(' && here() != ')' && here() != '"') position_++;
        return std::string(text_.substr(begin, position_ - begin));
    }

    // A condition on the field; its operator comes next.
    query_node parse_field(std::string_view name) {
        struct spelling {
            const char* text;
            const char* op;
        };
        static constexpr std::array<spelling, 6> OPERATORS = {
            {{"!=", "!="}, {">=", "GTE"}, {"<=", "LTE"}, {">", "GT"}, {"<", "LT"}, {"=", "="}}};
        const auto* found = std::find_if(OPERATORS.begin(), OPERATORS.end(), [&](const spelling& one) {
            return text_.substr(position_).starts_with(one.text);
        });
        if (name.size() > MAX_FIELD_NAME) fail("a shorter field name before this");
        position_ += std::string_view(found->text).size();
        const bool equality = *found->op == '=' || *found->op == '!';
        if (at_end() || is_blank(here()) || here() == ')' || here() == '(') {
            fail(equality ? "a value right after the operator" : "a number right after the operator");
        }
        const size_t value_at = position_;
        const written_text value = take_value();
        (equality ? fields_ : compared_).push_back(fold_value(name));
        if (!equality) return comparison_node(name, found->op, value, value_at);
        if (*found->op == '=' && value.text.find('*') == std::string::npos) note_word(value);
        // What follows a copied value, where another one came next.
        while (value.quoted && !at_end() && (here() == ',' || here() == ';')) position_++;
        return equality_node(name, value, *found->op == '!');
    }

    // The value's terms: as it is meant here, and as a load would read the same characters in a line.
    static query_node value_node(std::string_view name, const written_text& value) {
        if (value.inside) return literal_node(fold_field_term(name, "*" + value.text + "*"));
        query_node node = literal_node(fold_field_term(name, value.text));
        if (value.text.find('*') != std::string::npos) return node;
        const std::string line = std::string(name).append("=").append(value.as_read);
        format_context context;
        parsed_line parsed;
        format_by_name("text")->parse(line, &context, &parsed);
        if (parsed.fields.size() != 1 || parsed.fields[0].name != name) return node;
        query_node other = literal_node(fold_field_term(name, parsed.fields[0].value));
        if (other.text == node.text || other.text.find('*') != std::string::npos) return node;
        query_node either;
        either.kind = node_kind::any;
        either.children = {std::move(node), std::move(other)};
        return either;
    }

    // `field!=value` holds for events that have the field, with other values only.
    static query_node equality_node(std::string_view name, const written_text& value, bool unequal) {
        query_node equal = value_node(name, value);
        if (!unequal) return equal;
        negate(&equal);
        query_node both;
        both.children.push_back(literal_node(fold_field_term(name, "*")));
        both.children.push_back(std::move(equal));
        return both;
    }

    query_node comparison_node(std::string_view name, const char* op, const written_text& value, size_t value_at) {
        double number = 0;
        const bool has_unit = unit_number(value.text, &number);
        if (value.inside || (!has_unit && !parse_query_number(value.text.c_str(), &number))) {
            position_ = value_at;
            fail("a number, perhaps with a unit such as ms, h, kB, MiB or %");
        }
        query_node node;
        node.kind = node_kind::comparison;
        node.text = fold_value(name);
        node.op = op;
        node.number = has_unit ? unit_text(number) : value.text;
        return node;
    }

    // A bare word that is exactly one token, or one with "*" among token characters, is a term of the index.
    query_node phrase_or_word(const written_text& written) {
        const std::string& text = written.text;
        const bool plain = std::all_of(text.begin(), text.end(), [](char c) { return in_word(c) || c == '*'; });
        const bool star = text.find('*') != std::string::npos;
        const std::string folded = fold_value(text);
        if (!written.quoted && text.find_first_not_of('*') == std::string::npos) return query_node();
        if (const size_t equals = text.find('='); !written.quoted && equals != 0 && equals != std::string::npos) {
            odd_names_.push_back(fold_value(text.substr(0, equals)));
        }
        if (plain && (written.inside || (star && !written.quoted))) {
            if (text.size() + 2 > TERM_MAX) fail("a shorter word before this");
            return literal_node(written.inside ? "*" + folded + "*" : folded);
        }
        term_set words;
        term_set_add_text(&words, text);
        const auto terms = term_set_terms(&words);
        if (star || written.inside || terms.size() != 1 || terms.front() != folded) {
            return phrase_node(text, written.quoted || written.inside);
        }
        if (!written.quoted) note_word(written);
        return literal_node(folded);
    }

    // Pushes a negation down to the leaves.
    static void negate(query_node* node) {
        if (node->kind != node_kind::all && node->kind != node_kind::any) {
            node->negated = !node->negated;
            return;
        }
        node->kind = node->kind == node_kind::all ? node_kind::any : node_kind::all;
        for (query_node& child : node->children) negate(&child);
    }

    std::string_view text_;
    size_t position_ = 0;
    size_t nesting_ = 0;
    size_t negations_ = 0;  // that the condition stands in
    std::vector<size_t> word_ends_;
    std::vector<std::string> fields_, compared_, odd_names_;  // folded
};

std::string bracket(std::string_view op, const std::string& inside) {
    return "[" + std::string(op) + (inside.empty() ? "" : " ") + inside + "]";
}

// The numbers of values with a unit stand in a field of their own. As a value that is no number is greater than any, the
// field itself is asked only in events without that one. The opposite of a comparison also holds for events without the
// field.
std::string comparison_text(const query_node& node) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 4> OPPOSITES = {
        {{"GT", "LTE"}, {"GTE", "LT"}, {"LT", "GTE"}, {"LTE", "GT"}}};
    const auto* opposite =
        std::find_if(OPPOSITES.begin(), OPPOSITES.end(), [&](const auto& pair) { return pair.first == node.op; });
    const std::string_view op = node.negated ? opposite->second : std::string_view(node.op);
    const std::string field = query_escape(node.text), numbers = field + std::string(NUMBER_SUFFIX), none = "::*";
    const std::string plain = bracket(op, field + " " + node.number) + " " + bracket("NOT", numbers + none);
    const std::string lacks = node.negated ? " " + bracket("NOT", field + none) : "";
    return bracket("OR", bracket(op, numbers + " " + node.number) + " " + bracket("AND", plain) + lacks);
}

bool holds_phrase(const query_node& node) {
    return node.kind == node_kind::phrase || (node.kind != node_kind::literal && node.kind != node_kind::comparison &&
                                              std::any_of(node.children.begin(), node.children.end(), holds_phrase));
}

// The bracket text of a node without phrases, as it stands inside a group.
std::string native_text(const query_node& node);

std::string children_text(const query_node& node) {
    std::string inside;
    for (const query_node& child : node.children) inside += (inside.empty() ? "" : " ") + native_text(child);
    return inside;
}

std::string native_text(const query_node& node) {
    if (node.kind == node_kind::literal)
        return node.negated ? bracket("NOT", query_escape(node.text)) : query_escape(node.text);
    if (node.kind == node_kind::comparison) return comparison_text(node);
    return bracket(node.kind == node_kind::any ? "OR" : "AND", children_text(node));
}

// The same as it stands directly inside an AND group.
std::string items_text(const query_node& node) {
    return node.kind == node_kind::all ? children_text(node) : native_text(node);
}

// The conditions of one plan before they are put into one group.
struct conjunction {
    std::string items;
    std::vector<raw_pattern> holds;
    std::vector<raw_pattern> lacks;
};

void add_items(std::string* items, const std::string& more) {
    if (!items->empty() && !more.empty()) *items += ' ';
    *items += more;
}

std::vector<conjunction> conjunctions_of(const query_node& node);

conjunction phrase_conjunction(const query_node& node) {
    conjunction out;
    if (node.negated) {
        out.lacks.push_back(node.pattern);
        return out;
    }
    for (const query_node& word : node.children) add_items(&out.items, native_text(word));
    out.holds.push_back(node.pattern);
    return out;
}

std::vector<conjunction> product(const query_node& node) {
    std::vector<conjunction> out(1);
    for (const query_node& child : node.children) {
        const std::vector<conjunction> factors = conjunctions_of(child);
        if (out.size() * factors.size() > MAX_PLANS) throw query_error{0, "fewer alternatives with quoted phrases"};
        std::vector<conjunction> next;
        for (const conjunction& left : out) {
            for (const conjunction& right : factors) {
                conjunction both = left;
                add_items(&both.items, right.items);
                both.holds.insert(both.holds.end(), right.holds.begin(), right.holds.end());
                both.lacks.insert(both.lacks.end(), right.lacks.begin(), right.lacks.end());
                next.push_back(std::move(both));
            }
        }
        out = std::move(next);
    }
    return out;
}

// Alternatives without phrases stay one group for the index; each with a phrase becomes a plan of its own.
std::vector<conjunction> sum(const query_node& node) {
    std::vector<conjunction> out;
    query_node indexed;
    indexed.kind = node_kind::any;
    for (const query_node& child : node.children) {
        if (!holds_phrase(child)) {
            indexed.children.push_back(child);
            continue;
        }
        for (conjunction& one : conjunctions_of(child)) out.push_back(std::move(one));
    }
    if (indexed.children.size() == 1) indexed = query_node(std::move(indexed.children.front()));
    if (indexed.kind != node_kind::any || !indexed.children.empty()) out.push_back({items_text(indexed), {}, {}});
    if (out.size() > MAX_PLANS) throw query_error{0, "fewer alternatives with quoted phrases"};
    return out;
}

std::vector<conjunction> conjunctions_of(const query_node& node) {
    if (node.kind == node_kind::phrase) return {phrase_conjunction(node)};
    if (!holds_phrase(node)) return {{items_text(node), {}, {}}};
    return node.kind == node_kind::all ? product(node) : sum(node);
}

}  // namespace

std::vector<query_plan> translate_query(std::string_view text) {
    if (const size_t nul = text.find('\0'); nul != std::string_view::npos) throw query_error{nul, "a text without NUL"};
    const query_node root = query_parser(text).parse();
    if (root.kind == node_kind::any && !holds_phrase(root)) return {{native_text(root), {}, {}}};
    std::vector<query_plan> plans;
    for (conjunction& one : conjunctions_of(root)) {
        plans.push_back({bracket("AND", one.items), std::move(one.holds), std::move(one.lacks)});
    }
    return plans;
}

bool record_passes(const query_plan& plan, std::string_view record, std::string* scratch) {
    fold_value(record, scratch);
    const auto in_record = [&](const raw_pattern& pattern) { return record_holds(*scratch, pattern); };
    return std::all_of(plan.holds.begin(), plan.holds.end(), in_record) &&
           std::none_of(plan.lacks.begin(), plan.lacks.end(), in_record);
}

std::string query_inside_words(std::string_view text) {
    query_parser parser(text);
    static_cast<void>(parser.parse());
    std::string out;
    size_t begin = 0;
    for (const size_t end : parser.word_ends()) {
        out.append(text.substr(begin, end - begin)).push_back('~');
        begin = end;
    }
    return begin == 0 ? out : out.append(text.substr(begin));
}

query_names query_names_of(std::string_view text) {
    query_parser parser(text);
    static_cast<void>(parser.parse());
    return {parser.fields(), parser.compared(), parser.odd_names()};
}

std::string explain_query_error(std::string_view text, const query_error& error) {
    std::string shown(text);
    for (char& c : shown) {
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    }
    // The caret stands under a character, not under a byte: continuation bytes of UTF-8 take no column.
    size_t column = 0;
    for (size_t i = 0; i < std::min(error.position, shown.size()); i++) {
        column += (static_cast<unsigned char>(shown[i]) & 0xC0) != 0x80 ? 1 : 0;
    }
    return "  " + shown + "\n  " + std::string(column, ' ') + "^ expected " + error.expected + "\n";
}

}  // namespace veldar::tool
