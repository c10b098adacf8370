// A store: where `veldar load` keeps what it indexes.
//
//   store            "veldar store 1", what tells a store from any other directory
//   id               32 hexadecimal digits, drawn at random, by which others know the store wherever it lies. One that was
//                    made without gets it from the next load
//   lock             held by the one loader that may run
//   sources, sourcetypes, hosts
//                    dictionaries: the name on line n (from 0) has number n in the events; '%', CR and LF are
//                    percent-encoded
//   bucket-000001/   one index directory with its source map, and further ones when it is full
//     *.tsidx        slices
//     source.map     which addresses are which stretch of which file
//     points-N       access points into gzip file N
//     spool-N        the raw bytes that came through pipe N
//     deleted-N      empty: an event at address N was in a slice and no mark told so when it was deleted. It counts as
//                    indexed though its slice may be gone.
//   watched          logs that are or were followed ("veldar watch"): a line each, the time in nanoseconds from which on
//                    their pieces belong to them, a blank, the path
//   metrics/         one index directory of metrics, which "veldar metrics" fills
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/source_map.h"

namespace veldar::tool {

// Where a store keeps its metrics: one index directory, with no source map.
inline constexpr char STORE_METRICS[] = "metrics";
inline constexpr char STORE_WATCHED[] = "watched";

struct store_dictionary {
    line_file file;
    std::vector<std::string> names;
    std::unordered_map<std::string, uint32_t> numbers;
};

struct store_bucket {
    uint32_t number = 0;
    std::string directory;
    source_map map;
    uint64_t address_max = 0;  // greatest address that has been in a slice, as far as the bucket tells
    bool has_events = false;
};

struct store {
    std::string path;
    bool durable = true;
    unique_fd lock;
    store_dictionary sources, sourcetypes, hosts;
    std::vector<store_bucket> buckets;  // by number
};

// Whether the directory is a store. Throws failure_t when that cannot be told, also because its mark is damaged.
bool store_is(const std::string& path);
// What a directory, which need not be there, is to a store, in words; empty when it is none of its own. Throws failure_t.
std::string store_part(const std::string& directory);
// The store of a command: `option` when given, else $VELDAR_STORE, else the nearest ".veldar" that is a store in this
// directory or one above it, else ".veldar" here. Throws failure_t.
std::string store_choose(const std::string& option);
// The bucket directories of a store, oldest first. Throws failure_t.
std::vector<std::string> store_bucket_directories(const std::string& path);
// What a PATH names that is a store, its buckets and then its metrics, or one index directory. Throws failure_t.
std::vector<std::string> store_index_directories(const std::string& path);
// What tells a store or an index directory from every other: the id of the store and the name in it, or else the machine
// and the path.
// Throws failure_t.
std::string index_identity(const std::string& directory);
// Reads the names of a dictionary ("sources", "sourcetypes" or "hosts") of a store. False with errno set.
[[nodiscard]] bool store_read_names(const std::string& path, const char* dictionary, std::vector<std::string>* names);

// Makes a store unless it is one; waits for who makes it at the same time. Throws failure_t.
void store_make(const std::string& path, bool durable);
// Removes what killed loads left half written in an index directory that only loads into the store write to. The caller
// holds their lock. Throws failure_t.
void store_remove_leftovers(const std::string& directory);
// Notes that events of a bucket, `address` the greatest of them, are about to be deleted. Throws failure_t.
void store_note_deleted(const std::string& bucket_directory, uint64_t address);
// Opens a store for loading, making it when it does not exist, and waits until no other loader runs. Removes what
// killed loaders left half written. Throws failure_t.
void store_open_for_load(store* st, const std::string& path, bool durable);
// Makes the next bucket and returns it. Throws failure_t.
store_bucket* store_add_bucket(store* st);
// The number of a name, which is added when it is new. Throws failure_t.
uint32_t store_number(store_dictionary* dictionary, const std::string& name);

}  // namespace veldar::tool
