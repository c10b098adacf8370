#include "tests/support/damage.h"

#include <algorithm>

namespace veldar {

size_t damage_sweep(const std::string& bytes, const damage_options& options, const damage_fn& f) {
    size_t calls = 0;
    const size_t to = std::min(options.to, bytes.size());
    const auto call = [&](const std::string& damaged, const char* what, size_t at) {
        if (damaged == bytes) return;
        calls++;
        f(damaged, what + std::string(" at byte ") + std::to_string(at));
    };
    for (size_t at = options.from; at < to; at += options.truncation_step) call(bytes.substr(0, at), "cut", at);
    std::string damaged = bytes;
    for (size_t at = options.from; at < to; at += options.flip_step) {
        damaged[at] = static_cast<char>(~bytes[at]);
        call(damaged, "all bits flipped", at);
        damaged[at] = static_cast<char>(bytes[at] ^ 1);
        call(damaged, "lowest bit flipped", at);
        damaged[at] = bytes[at];
    }
    const std::pair<const char*, std::string> words[] = {{"word 0", std::string(4, '\0')},
                                                         {"word 1 big-endian", std::string("\0\0\0\1", 4)},
                                                         {"word 1 little-endian", std::string("\1\0\0\0", 4)},
                                                         {"word all-ones", std::string(4, '\xFF')}};
    for (size_t at = options.from; at + 4 <= to; at += options.word_step) {
        for (const auto& [what, word] : words) {
            damaged.replace(at, 4, word);
            call(damaged, what, at);
        }
        damaged.replace(at, 4, bytes, at, 4);
    }
    return calls;
}

}  // namespace veldar
