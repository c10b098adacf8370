#include "tools/veldar/query/query_language.h"

#include <algorithm>
#include <array>
#include <utility>

#include "searchthing/base/number.h"
#include "tools/veldar/formats/terms.h"

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

// A condition on the raw text: its whole words as terms, and its pieces between "*" to be found in a record. A word
// that touches a "*" may be cut, so only its piece counts.
query_node phrase_node(std::string_view text) {
    query_node node;
    node.kind = node_kind::phrase;
    const std::string folded = fold_value(text);
    size_t begin = 0;
    while (begin <= folded.size()) {
        const size_t end = std::min(folded.find('*', begin), folded.size());
        if (end > begin) {
            node.pattern.pieces.push_back({folded.substr(begin, end - begin), begin == 0 && in_word(folded[begin]),
                                           end == folded.size() && in_word(folded[end - 1])});
        }
        begin = end + 1;
    }
    std::string whole;  // the text without the words that touch a "*"
    for (size_t i = 0; i < folded.size(); i++) {
        if (folded[i] != '*') {
            whole += folded[i];
            continue;
        }
        while (!whole.empty() && in_word(whole.back())) whole.pop_back();
        while (i + 1 < folded.size() && in_word(folded[i + 1])) i++;
        whole += ' ';
    }
    term_set words;
    term_set_add_text(&words, whole);
    for (const std::string_view word : term_set_terms(&words)) node.children.push_back(literal_node(std::string(word)));
    return node;
}

class query_parser {
  public:
    explicit query_parser(std::string_view text) : text_(text) {}

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
        query_node node = parse_primary();
        skip_blanks();
        if (negated) negate(&node);
        return node;
    }

    query_node parse_primary() {
        if (here() == '(') return parse_parentheses();
        if (here() == ')') fail("a term");
        if (here() == '"') return phrase_or_word(parse_quoted(), true);
        return parse_word();
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
            if (here() == '\\' && position_ + 1 < text_.size()) position_++;
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
            const std::string_view name = text_.substr(begin, position_ - begin);
            if (!at_end() && std::string_view("=!<>").find(here()) != std::string_view::npos) {
                if (here() != '!' || text_.substr(position_).starts_with("!=")) return parse_field(name);
            }
            position_ = begin;
        }
        return phrase_or_word(take_bare(), false);
    }

    std::string take_bare() {
        const size_t begin = position_;
        while (!at_end() && !is_blank(here()) && here() != '(' && here() != ')' && here() != '"') position_++;
        return std::string(text_.substr(begin, position_ - begin));
    }

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
        const std::string value = here() == '"' ? parse_quoted() : take_bare();
        if (equality) return equality_node(name, value, *found->op == '!');
        return comparison_node(name, found->op, value, value_at);
    }

    // `field!=value` holds for events that have the field, with other values only.
    static query_node equality_node(std::string_view name, const std::string& value, bool unequal) {
        query_node equal = literal_node(fold_field_term(name, value));
        if (!unequal) return equal;
        equal.negated = true;
        query_node both;
        both.children.push_back(literal_node(fold_field_term(name, "*")));
        both.children.push_back(std::move(equal));
        return both;
    }

    query_node comparison_node(std::string_view name, const char* op, const std::string& value, size_t value_at) {
        double number = 0;
        if (!parse_query_number(value.c_str(), &number)) {
            position_ = value_at;
            fail("a number");
        }
        query_node node;
        node.kind = node_kind::comparison;
        node.text = fold_value(name);
        node.op = op;
        node.number = value;
        return node;
    }

    // A bare word that is exactly one token, or one with "*" among token characters, is a term of the index.
    query_node phrase_or_word(const std::string& text, bool quoted) const {
        const bool plain = std::all_of(text.begin(), text.end(), [](char c) { return in_word(c) || c == '*'; });
        const bool star = text.find('*') != std::string::npos;
        const std::string folded = fold_value(text);
        if (!quoted && text.find_first_not_of('*') == std::string::npos) return query_node();
        if (!quoted && plain && star) {
            if (text.size() > TERM_MAX) fail("a shorter word before this");
            return literal_node(folded);
        }
        term_set words;
        term_set_add_text(&words, text);
        const auto terms = term_set_terms(&words);
        if (!star && terms.size() == 1 && terms.front() == folded) return literal_node(folded);
        return phrase_node(text);
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
};

std::string escape(const std::string& literal) {
    std::string out;
    for (const char c : literal) {
        if (std::string_view(" \t\n[]\\").find(c) != std::string_view::npos) out += '\\';
        out += c;
    }
    return out;
}

std::string bracket(std::string_view op, const std::string& inside) {
    return "[" + std::string(op) + (inside.empty() ? "" : " ") + inside + "]";
}

// The opposite of a comparison also holds for events without the field.
std::string comparison_text(const query_node& node) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 4> OPPOSITES = {
        {{"GT", "LTE"}, {"GTE", "LT"}, {"LT", "GTE"}, {"LTE", "GT"}}};
    const std::string operands = escape(node.text) + " " + node.number;
    if (!node.negated) return bracket(node.op, operands);
    const auto* opposite =
        std::find_if(OPPOSITES.begin(), OPPOSITES.end(), [&](const auto& pair) { return pair.first == node.op; });
    return "[OR " + bracket(opposite->second, operands) + " " + bracket("NOT", escape(node.text) + "::*") + "]";
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
    if (node.kind == node_kind::literal) return node.negated ? bracket("NOT", escape(node.text)) : escape(node.text);
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

// Whether the occurrence at [begin, end) of the line stands at the ends of words, as the piece asks.
bool stands_whole(std::string_view line, size_t begin, size_t end, const raw_piece& piece) {
    return (!piece.whole_begin || word_begins_at(line, begin)) && (!piece.whole_end || word_ends_at(line, end));
}

bool line_holds(std::string_view line, const raw_pattern& pattern) {
    size_t from = 0;
    for (const raw_piece& piece : pattern.pieces) {
        size_t at = line.find(piece.text, from);
        while (at != std::string_view::npos && !stands_whole(line, at, at + piece.text.size(), piece)) {
            at = line.find(piece.text, at + 1);
        }
        if (at == std::string_view::npos) return false;
        from = at + piece.text.size();
    }
    return true;
}

// Pieces are looked for line by line, a single piece in the whole record at once.
bool record_holds(std::string_view record, const raw_pattern& pattern) {
    if (pattern.pieces.size() < 2) return line_holds(record, pattern);
    size_t begin = 0;
    while (begin <= record.size()) {
        const size_t end = std::min(record.find('\n', begin), record.size());
        if (line_holds(record.substr(begin, end - begin), pattern)) return true;
        begin = end + 1;
    }
    return false;
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
