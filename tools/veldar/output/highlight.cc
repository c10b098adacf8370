#include "tools/veldar/output/highlight.h"

#include <algorithm>
#include <utility>

#include "searchthing/search/tokenizer.h"
#include "tools/libveldar/formats/terms.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

constexpr std::string_view MARK_ON = "\033[1;31m", MARK_OFF = "\033[m";

using span_list = std::vector<std::pair<size_t, size_t>>;

void want(highlighter* wanted, std::string text) {
    if (text.find('*') != std::string::npos) {
        wanted->words.emplace_back(createMatcher(text.c_str()));
        if (wanted->words.back() == nullptr) wanted->words.pop_back();
    } else if (!text.empty()) {
        wanted->texts.push_back(std::move(text));
    }
}

// The literals of a bracket text that are not excluded; of a field term the value.
void want_literals(highlighter* wanted, const std::string& native) {
    tokenizer_t tokenizer;
    init_tokenizer(&tokenizer, native.c_str(), TOKEN_CASE_LOWER);
    char token[TOKEN_CAPACITY];
    size_t position;
    token_type_t type, op = T_OP_AND;
    while (next_token(&tokenizer, token, sizeof token, &position, &type) > 0) {
        if (type == T_OPEN_BRACE || type == T_CLOSE_BRACE) op = T_OP_AND;
        if (type != T_LITERAL && type != T_OPEN_BRACE && type != T_CLOSE_BRACE) op = type;
        if (type != T_LITERAL || (op != T_OP_AND && op != T_OP_OR)) continue;
        const std::string_view literal = token;
        const size_t colons = literal.find("::");
        want(wanted, std::string(colons == std::string_view::npos ? literal : literal.substr(colons + 2)));
    }
}

void find_text(std::string_view record, const std::string& text, span_list* spans) {
    for (size_t at = record.find(text); at != std::string_view::npos; at = record.find(text, at + 1)) {
        const size_t end = at + text.size();
        const bool begins = !in_word(text.front()) || word_begins_at(record, at);
        const bool ends = !in_word(text.back()) || word_ends_at(record, end);
        if (begins && ends) spans->emplace_back(at, end);
    }
}

void find_words(std::string_view record, const highlighter& wanted, span_list* spans) {
    const char* at = record.data();
    std::string text;
    for (std::string_view word; !(word = next_word(&at, record.data() + record.size())).empty();) {
        text.assign(word);
        const auto matches = [&](const auto& matcher) { return matcher_spans(text.c_str(), matcher.get()); };
        if (!std::any_of(wanted.words.begin(), wanted.words.end(), matches)) continue;
        const size_t begin = static_cast<size_t>(word.data() - record.data());
        spans->emplace_back(begin, begin + word.size());
    }
}

}  // namespace

highlighter highlight_of(const std::vector<query_plan>& plans) {
    highlighter wanted;
    for (const query_plan& plan : plans) {
        want_literals(&wanted, plan.native);
        for (const raw_pattern& pattern : plan.holds) {
            for (const raw_piece& piece : pattern.pieces) wanted.texts.push_back(piece.text);
        }
    }
    return wanted;
}

void highlight_put(const highlighter& wanted, std::string_view text, bool for_terminal, std::string* out) {
    const auto put = [&](std::string_view part) {
        for_terminal ? put_visible(out, part) : static_cast<void>(out->append(part));
    };
    span_list spans;
    const std::string folded = fold_value(text);
    for (const std::string& one : wanted.texts) find_text(folded, one, &spans);
    if (!wanted.words.empty()) find_words(folded, wanted, &spans);
    std::sort(spans.begin(), spans.end());
    size_t at = 0;
    for (size_t i = 0; i < spans.size();) {
        const size_t begin = spans[i].first;
        size_t end = spans[i].second;
        for (i++; i < spans.size() && spans[i].first <= end; i++) end = std::max(end, spans[i].second);
        put(text.substr(at, begin - at));
        out->append(MARK_ON);
        put(text.substr(begin, end - begin));
        out->append(MARK_OFF);
        at = end;
    }
    put(text.substr(at));
}

}  // namespace veldar::tool
