#include "tools/libveldar/load/event_queue.h"

#include <new>
#include <span>
#include <string_view>
#include <utility>

#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

constexpr size_t BATCH_BYTES = 256 << 10;  // of terms
// Any index holds an event of so many terms of so many bytes.
constexpr size_t SMALL_TERMS = 1 << 14, SMALL_BYTES = 1 << 20;

void clear(event_batch* batch) {
    batch->events.clear();
    batch->lengths.clear();
    batch->texts.clear();
    batch->failure = nullptr;
}

void note_slices(event_batch* batch, const index_writer& writer, uint32_t address) {
    const uint64_t slices = index_writer_slices(&writer);
    if (slices == batch->slices) return;
    batch->slices = slices;
    batch->next_address = address;
}

void put_events(event_batch* batch, index_writer* writer) {
    std::vector<std::string_view> terms;
    const char* text = batch->texts.data();
    const uint32_t* length = batch->lengths.data();
    for (const event_batch::event& event : batch->events) {
        terms.clear();
        for (uint32_t i = 0; i < event.terms; i++) {
            terms.emplace_back(text, *length);
            text += *length++;
        }
        if (!index_writer_put(writer, event.txn, terms)) {
            throw failure_t{OUTCOME_IO, writer->directory + ": the index refused an event of " +
                                            std::to_string(event.terms) + " terms"};
        }
        note_slices(batch, *writer, event.txn.address);
    }
}

void put_handed(event_queue* queue) {
    try {
        put_events(&queue->handed, &queue->writer);
    } catch (...) {
        queue->handed.failure = std::current_exception();
    }
}

void work(const std::stop_token& stop, event_queue* queue) {
    std::unique_lock guard(queue->mutex);
    while (queue->changed.wait(guard, stop, [queue] { return queue->busy; })) {
        guard.unlock();
        put_handed(queue);
        guard.lock();
        queue->busy = false;
        queue->changed.notify_all();
    }
}

void take_outcome(event_queue* queue) {
    event_batch* const batch = &queue->handed;
    queue->slices = batch->slices;
    queue->next_address = batch->next_address;
    const std::exception_ptr failure = std::exchange(batch->failure, nullptr);
    clear(batch);
    if (failure == nullptr) return;
    queue->is_open = false;
    clear(&queue->filling);
    std::rethrow_exception(failure);
}

void wait_for_thread(event_queue* queue) {
    std::unique_lock guard(queue->mutex);
    queue->changed.wait(guard, [queue] { return !queue->busy; });
    guard.unlock();
    take_outcome(queue);
}

bool has_thread(event_queue* queue) {
    if (queue->thread.joinable()) return true;
    if (std::thread::hardware_concurrency() < 2) return false;
    try {
        queue->thread = std::jthread([queue](const std::stop_token& stop) { work(stop, queue); });
    } catch (const std::exception&) {  // no memory or no thread to be had
        return false;
    }
    return true;
}

void swap_batches(event_queue* queue) {
    queue->filling.slices = queue->handed.slices;
    queue->filling.next_address = queue->handed.next_address;
    std::swap(queue->filling, queue->handed);
}

void hand_over(event_queue* queue) {
    wait_for_thread(queue);
    swap_batches(queue);
    if (!has_thread(queue)) {
        put_handed(queue);
        return take_outcome(queue);
    }
    const std::lock_guard guard(queue->mutex);
    queue->busy = true;
    queue->changed.notify_all();
}

// All of the event or nothing.
void append(event_batch* batch, const st_txn& txn, const term_set& terms) {
    const size_t texts = batch->texts.size(), lengths = batch->lengths.size();
    try {
        term_set_append(terms, &batch->texts, &batch->lengths);
        batch->events.push_back({txn, static_cast<uint32_t>(terms.lengths.size())});
    } catch (const std::bad_alloc&) {
        batch->texts.resize(texts);
        batch->lengths.resize(lengths);
        throw;
    }
}

bool put_now(event_queue* queue, const st_txn& txn, std::span<const std::string_view> terms) {
    bool put = false;
    try {
        put = index_writer_put(&queue->writer, txn, terms);
        note_slices(&queue->handed, queue->writer, txn.address);
    } catch (...) {
        queue->handed.failure = std::current_exception();
    }
    take_outcome(queue);
    return put;
}

void finish(event_queue* queue) {
    wait_for_thread(queue);
    swap_batches(queue);
    put_handed(queue);
    take_outcome(queue);
}

}  // namespace

void event_queue_open(event_queue* queue, const std::string& directory, const index_limits& limits, bool durable) {
    index_writer_open(&queue->writer, directory, 4, false, limits, durable);
    queue->slices = queue->handed.slices = 0;
    queue->is_open = true;
}

bool event_queue_put(event_queue* queue, const st_txn& txn, term_set* terms) {
    if (terms->lengths.size() > SMALL_TERMS || terms->arena_used > SMALL_BYTES) {
        finish(queue);
        return put_now(queue, txn, term_set_terms(terms));
    }
    append(&queue->filling, txn, *terms);
    if (queue->filling.texts.size() >= BATCH_BYTES) hand_over(queue);
    return true;
}

void event_queue_sync(event_queue* queue, uint32_t next_address) {
    finish(queue);
    queue->is_open = false;  // unless it succeeds
    index_writer_sync(&queue->writer);
    queue->is_open = true;
    queue->slices = queue->handed.slices = index_writer_slices(&queue->writer);
    queue->next_address = queue->handed.next_address = next_address;
}

void event_queue_close(event_queue* queue) {
    finish(queue);
    queue->is_open = false;
    index_writer_close(&queue->writer);
}

}  // namespace veldar::tool
