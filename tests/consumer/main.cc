// usage: consumer DIRECTORY
//
// A program outside the project: puts three events into a new index, and counts their terms.
#include <cstdio>
#include <filesystem>
#include <string>

#include "searchthing/st.h"

namespace {

bool put_event(veldar::THING* index, int time, uint32_t address, const std::string& word) {
    bool ok = veldar::st_txn_start(index, time, address, 0, 0, 0) == 0;
    for (const std::string& term : {std::string("host::web01"), word}) {
        ok = ok && veldar::st_txn_put(index, term.c_str(), term.size()) == 0;
    }
    return veldar::st_txn_close(index) == 0 && ok;
}

int print_term(const char* term, size_t, uint64_t count, void*) {
    std::printf("%d %s\n", static_cast<int>(count), term);
    return static_cast<int>(count);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || veldar::st_init("consumer") != 0) return 2;
    std::filesystem::create_directory(argv[1]);
    veldar::TSWRITEOPTS options;
    veldar::st_tsidx_write_opts_set_defaults(&options);
    veldar::THING* index = veldar::st_open_for_write(argv[1], 0, veldar::TSIDX_ORDINARY_WRITER, &options);
    if (index == nullptr) return 1;
    const bool stored = put_event(index, 1700000000, 0, "started") && put_event(index, 1700000001, 80, "ready") &&
                        put_event(index, 1700000002, 160, "ready");
    const bool right = veldar::st_distinct_apply_terms(index, nullptr, print_term, nullptr) == 6;
    if (!right) std::fprintf(stderr, "%s\n", veldar::warm_status_text(veldar::st_get_warm_rc(index)));
    return veldar::st_close(index) == 0 && stored && right ? 0 : 1;
}
