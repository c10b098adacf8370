// usage: consumer DIRECTORY
//
// A program outside the project: puts three events into a new index, and counts the terms of the slice that they
// became.
#include <cstdio>
#include <filesystem>
#include <string>

#include "searchthing/st.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/slice/warmslice_meta.h"

namespace {

bool put_event(veldar::THING* index, int time, uint32_t address, const std::string& word) {
    bool ok = veldar::st_txn_start(index, time, address, 0, 0, 0) == 0;
    for (const std::string& term : {std::string("host::web01"), word}) {
        ok = ok && veldar::st_txn_put(index, term.c_str(), term.size()) == 0;
    }
    return veldar::st_txn_close(index) == 0 && ok;
}

int print_term(int32_t id, const char* term, size_t, void* context) {
    veldar::warm_rc_t rc;
    uint32_t count = 0;
    if (veldar::get_meta_count(static_cast<veldar::WARM*>(context), static_cast<uint32_t>(id), nullptr, &count, &rc))
        return -1;
    std::printf("%u %s\n", count, term);
    return 1;
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
    if (veldar::st_close(index) != 0 || !stored) return 1;

    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        if (entry.path().extension() != ".tsidx") continue;
        veldar::warm_rc_t rc;
        veldar::WARM* slice = veldar::st_warm_slice_open_rdonly(entry.path().c_str(), &rc);
        if (slice == nullptr) {
            std::fprintf(stderr, "%s: %d %s\n", entry.path().c_str(), rc.warm_rc, rc.message);
            return 1;
        }
        const auto terms = veldar::st_fclex_apply(slice->lexicon, nullptr, print_term, slice, nullptr);
        return veldar::st_warm_slice_close(slice) == 0 && terms == 3 ? 0 : 1;
    }
    return 1;
}
