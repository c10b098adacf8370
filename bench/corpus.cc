#include "bench/corpus.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "libzero/xorshift128plus.h"

namespace veldar {

namespace {

// Numbers 0 to n - 1, number k about as often as 1 / (k + 1): the inverse of the continuous distribution.
class zipf {
  public:
    explicit zipf(uint32_t n) : n_(n) {}
    uint32_t draw(xorshift128plus_state* rng) const {
        const double rank = std::exp(xorshift128plus_get_ratio(rng) * std::log(static_cast<double>(n_) + 1.0));
        return std::min(static_cast<uint32_t>(rank) - 1, n_ - 1);
    }

  private:
    uint32_t n_;
};

std::string word(uint32_t number) {
    static constexpr std::array<const char*, 16> syllables = {"ka", "ro", "mi",  "ten", "su", "la",  "dor", "ve",
                                                              "an", "gi", "por", "es",  "tu", "nal", "be",  "ix"};
    std::string text;
    for (uint32_t rest = number + 16; rest != 0; rest /= 16) text += syllables[rest % 16];
    return text;
}

std::string client(uint32_t number) {
    const uint32_t mixed = number * 2654435761u;
    return std::to_string(mixed >> 24) + "." + std::to_string(mixed >> 16 & 255) + "." +
           std::to_string(mixed >> 8 & 255) + "." + std::to_string(number % 255);
}

std::string request_id(xorshift128plus_state* rng) {
    char text[24];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(xorshift128plus_next(rng)));
    return text;
}

struct writer {
    corpus* out;
    void term(std::string_view text) const {
        out->text += text;
        out->term_ends.push_back(static_cast<uint32_t>(out->text.size()));
    }
};

}  // namespace

corpus corpus_generate(uint32_t events, uint64_t seed) {
    static constexpr std::array<const char*, 8> statuses = {"200", "200", "304", "404", "301", "500", "200", "403"};
    static constexpr std::array<const char*, 4> methods = {"get", "get", "post", "head"};
    xorshift128plus_state rng;
    xorshift128plus_init_with_seed(&rng, seed);
    const zipf words(30000), clients(20000), sizes(40000), paths(8000), hosts(20);
    corpus result;
    result.events.reserve(events);
    result.term_ends.reserve(size_t{events} * CORPUS_TERMS_PER_EVENT);
    const writer out{&result};
    int32_t time = 1700000000;
    for (uint32_t i = 0; i < events; i++) {
        time += xorshift128plus_next(&rng) % 4 == 0 ? 1 : 0;
        const uint32_t first = static_cast<uint32_t>(result.term_ends.size());
        result.events.push_back({time, static_cast<uint32_t>(result.text.size() + first), first});
        const std::string ip = client(clients.draw(&rng));
        const std::string bytes = std::to_string(120 + 7 * sizes.draw(&rng));
        const uint32_t path = paths.draw(&rng);
        const std::string status = statuses[xorshift128plus_next(&rng) % statuses.size()];
        const std::string method = methods[xorshift128plus_next(&rng) % methods.size()];
        out.term("host::web" + std::to_string(hosts.draw(&rng)));
        out.term("source::/var/log/nginx/access.log");
        out.term("sourcetype::access_combined");
        out.term(ip);
        out.term("clientip::" + ip);
        out.term(method);
        out.term("method::" + method);
        out.term(word(path % 97));
        out.term(word(path));
        out.term("path::/" + word(path % 97) + "/" + word(path));
        out.term(status);
        out.term("status::" + status);
        out.term(bytes);
        out.term("bytes::" + bytes);
        // Two events of nine carry an id of their own; the others one more word.
        out.term(i % 9 < 2 ? request_id(&rng) : word(words.draw(&rng)));
        while (result.term_ends.size() < first + CORPUS_TERMS_PER_EVENT) out.term(word(words.draw(&rng)));
    }
    return result;
}

const corpus& corpus_million() {
    static const corpus events = corpus_generate(CORPUS_MILLION);
    return events;
}

void corpus_write(const corpus& events, const std::string& path) {
    std::ofstream out(path, std::ios::binary);
    std::string line;
    for (const corpus_event& event : events.events) {
        line.clear();
        for (uint32_t i = 0; i < CORPUS_TERMS_PER_EVENT; i++) {
            line += events.term(event.first_term + i);
            line += i + 1 == CORPUS_TERMS_PER_EVENT ? '\n' : ' ';
        }
        out.write(line.data(), static_cast<std::streamsize>(line.size()));
    }
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace veldar
