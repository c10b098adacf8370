// Generated events like those of web server logs, the same for the same arguments: 19 terms an event; a million events
// have about 380,000 distinct terms. Words, paths, clients and sizes are drawn by Zipf's law, request ids are unique.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace veldar {

inline constexpr uint32_t CORPUS_TERMS_PER_EVENT = 19;
inline constexpr uint32_t CORPUS_MILLION = 1000000;

struct corpus_event {
    int32_t time;      // never before that of the event before
    uint32_t address;  // where the event's line begins in corpus_write
    uint32_t first_term;
};

// All terms lie one after another in the order of the events, so that reading them costs what reading a log costs.
struct corpus {
    std::vector<corpus_event> events;
    std::string text;
    std::vector<uint32_t> term_ends;  // in `text`

    std::string_view term(uint32_t index) const {
        const uint32_t begin = index == 0 ? 0 : term_ends[index - 1];
        return {text.data() + begin, term_ends[index] - begin};
    }
};

corpus corpus_generate(uint32_t events, uint64_t seed = 1);
// A million events, made once a process.
const corpus& corpus_million();
// One line an event: its terms, separated by blanks.
void corpus_write(const corpus& events, const std::string& path);

}  // namespace veldar
