// An index in a program of your own: put events, make them durable, find them again.
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "searchthing/st.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    veldar::st_init("embed");  // signs the lock files of this process
    std::filesystem::create_directories(argv[1]);
    veldar::TSWRITEOPTS options;
    veldar::st_tsidx_write_opts_set_defaults(&options);
    veldar::THING* index = veldar::st_open_for_write(argv[1], 0, veldar::TSIDX_ORDINARY_WRITER, &options);
    if (index == nullptr) return 1;

    for (uint32_t i = 0; i < 1000; i++) {  // one event a second; its address says where you keep it
        veldar::st_txn_start(index, static_cast<veldar::st_time_t>(1700000000 + i), i, 0, 0, 0);
        veldar::st_txn_put(index, i % 10 == 0 ? "error" : "info", i % 10 == 0 ? 5 : 4);
        if (veldar::st_txn_close(index) != 0) return 1;  // this event is not in the index
    }
    if (veldar::st_sync(index) != 0) return 1;  // the events since the last good sync are not

    veldar::QUERY query;
    veldar::st_query_init(&query);
    query.lispy = "[AND error]";
    veldar::st_tsval newest[5];
    const int count = veldar::st_query(index, &query, newest, 5, 1);
    for (int i = 0; i < count; i++) std::printf("time %d address %u\n", newest[i].time, newest[i].address);
    return veldar::st_close(index) == 0 && count == 5 ? 0 : 1;
}
