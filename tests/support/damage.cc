#include "tests/support/damage.h"

#include <gtest/gtest.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"

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

void write_flipped(const std::string& path, std::string bytes, size_t at) {
    bytes[at] = static_cast<char>(bytes[at] ^ 1 << at % 8);
    write_file(path, bytes);
}

void damage_outcomes::add(const std::string& what, int status, const std::string& seen) {
    auto& [statuses, digest] = rows_[std::stoul(what.substr(what.rfind(' '))) / 16];
    statuses.insert(status);
    digest = XXH64(seen.data(), seen.size(), std::rotl(digest, 23) ^ static_cast<uint32_t>(status));
}

std::string damage_outcomes::text() const {
    std::string all;
    for (const auto& [row, outcome] : rows_) {
        char part[32];
        std::snprintf(part, sizeof part, "%04zx %016llx", 16 * row, static_cast<unsigned long long>(outcome.second));
        all += part;
        for (const int status : outcome.first) all += " " + std::to_string(status);
        all += "\n";
    }
    return all;
}

std::vector<std::string> data_rows(const std::string& name) {
    std::istringstream text(read_file(VELDAR_SOURCE_DIR "/tests/data/rows/" + name));
    std::vector<std::string> rows;
    for (std::string row; std::getline(text, row);) rows.push_back(row);
    return rows;
}

void expect_kept(const std::string& name, const std::string& outcomes) {
    if (SANITIZED_PART != 1) return;
    const std::string path = VELDAR_SOURCE_DIR "/tests/data/outcomes/" + name;
    if (::getenv("VELDAR_KEEP") != nullptr) write_file(path, outcomes);
    EXPECT_EQ(outcomes, read_file(path));
}

}  // namespace veldar
