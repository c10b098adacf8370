// Events on their way into an index directory, put in batches by a thread of its own beside the one that reads and
// parses. A few events, or a machine with one processor, need no thread: then the caller's puts them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/load/index_writer.h"

namespace veldar::tool {

struct event_batch {
    struct event {
        st_txn txn;
        uint32_t terms;
    };
    std::vector<event> events;
    std::vector<uint32_t> lengths;  // of the terms, event by event
    std::vector<char> texts;        // the terms, one behind another

    // What came of it.
    uint64_t slices = 0;           // written by the queue's writer so far
    uint32_t next_address = 0;     // of the event that found them written
    std::exception_ptr failure{};  // then the events from there on are lost
};

// For one thread. It is open until it is closed or has told a failure, whatever became of the writer meanwhile: who
// asks must not take a failure that nobody was told of for an end.
struct event_queue {
    index_writer writer;  // only these functions use it
    bool is_open = false;
    uint64_t slices = 0;        // that are known to be written
    uint32_t next_address = 0;  // every event put before the one with this address is in one of them

    event_batch filling, handed;
    std::mutex mutex;                     // of `busy`; `handed` and the writer are the thread's while it is set
    std::condition_variable_any changed;  // `busy` has
    bool busy = false;
    std::jthread thread;  // the last member: it ends before what it uses
};

// As index_writer_open, at write level 4. The queue is closed.
void event_queue_open(event_queue* queue, const std::string& directory, const index_limits& limits, bool durable);
// Puts the event, now or later. False when no index can hold it. Throws failure_t for a failure of the engine, also
// of an event put before: then the queue is closed, and what it had not put is dropped. std::bad_alloc leaves it as it
// was, or is told like a failure when it comes from the other thread.
bool event_queue_put(event_queue* queue, const st_txn& txn, term_set* terms);
// Puts what is left and writes it as a slice; `next_address` is that of the next event. Throws as event_queue_put.
void event_queue_sync(event_queue* queue, uint32_t next_address);
// Puts what is left of one that is open, syncs and closes, also when that fails. Throws as event_queue_put.
void event_queue_close(event_queue* queue);

}  // namespace veldar::tool
