// A lexicon like that of a million log lines: 380,000 distinct words, numbers, addresses and fields, about 16 bytes
// each.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/lexicon/fclex.h"

namespace veldar {

inline std::vector<std::string> lexicon_terms(size_t count) {
    static const char* const formats[] = {"clientip::10.%u.%u.%u", "10.%u.%u.%u", "path::/shop/item/%u/%u?p=%u",
                                          "session::%08x%04x%04x", "%08x-%x-%x",  "bytes::%u%.0u%.0u",
                                          "user::user%u_%u%.0u",   "req%u%u%.0u", "amid%u.%u.%u"};
    std::mt19937 rng(1);
    std::set<std::string> terms;
    char text[64];
    while (terms.size() < count) {
        const size_t kind = rng() % 9;
        const auto first = static_cast<unsigned>(kind == 3 || kind == 4 ? rng() : rng() % 250);
        const auto second = static_cast<unsigned>(rng() % 250);
        const auto third = static_cast<unsigned>(rng() % 250);
        std::snprintf(text, sizeof text, formats[kind], first, second, third);
        terms.insert(text);
    }
    return {terms.begin(), terms.end()};
}

// The terms as a lexicon in an unnamed file, in the page cache.
struct lexicon_in_file {
    explicit lexicon_in_file(const std::vector<std::string>& terms) {
        std::vector<const char*> pointers;
        uint64_t length = 0;
        for (const std::string& term : terms) {
            pointers.push_back(term.c_str());
            length += term.size();
        }
        body.resize(fclex_body_bound(terms.size(), length, 8));
        FCLEX* created = st_fclex_create(body.data(), body.size(), pointers.data(), static_cast<uint32_t>(terms.size()),
                                         8, static_cast<uint32_t>(length));
        body.resize(st_fclex_size(created));
        st_fclex_close(created);
        fd.reset(::memfd_create("lexicon", MFD_CLOEXEC));
        if (::write(fd.get(), body.data(), body.size()) != static_cast<ssize_t>(body.size())) std::abort();
        lex = st_fclex_open_fd(fd.get(), 0);
    }
    ~lexicon_in_file() { st_fclex_close(lex); }
    lexicon_in_file(const lexicon_in_file&) = delete;
    lexicon_in_file& operator=(const lexicon_in_file&) = delete;

    std::vector<uint8_t> body;
    unique_fd fd;
    FCLEX* lex = nullptr;
};

}  // namespace veldar
