// A program outside the project: what an embedder's first build looks like.
#include <cstdio>

#include "searchthing/st_init.h"
#include "searchthing/tsidx_names.h"

int main() {
    veldar::st_filename_metadata_t meta;
    if (veldar::st_init("consumer") != 0 || veldar::st_tsidx_file_parse("/x/20-10-7.tsidx", &meta) != 1) return 1;
    std::puts("consumer: ok");
    return 0;
}
