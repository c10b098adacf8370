// A singly linked list of items that the caller owns. One thread at a time.
#pragma once

#include <cstdint>

namespace veldar {

struct list_node_s {
    void* item;
    list_node_s* next;
};
using list_item_fn = void (*)(void* item);
struct list_s {
    list_node_s* head;
    list_node_s* tail;  // meaningful only while head is not null
    uint32_t count;
    list_item_fn destructor;  // for delete_list; may be null
};
using list_t = list_s;

// An empty list, or null when memory is short. Ended by delete_list.
list_t* new_list(list_item_fn destructor);
// Inserts at the head: 0, or -1 with the list unchanged when memory is short.
[[nodiscard]] int push_front(list_t* list, void* item);
// Appends a node with a null item, which the caller fills; null when memory is short.
list_node_s* append_list_node(list_t* list);
// Removes the head and returns its item; null for an empty list.
void* pop_front(list_t* list);
void* top_front(const list_t* list);  // the head's item, or null
uint32_t get_count(const list_t* list);
// Calls the function with each item and the context, head to tail. A null list does nothing.
void list_apply(const list_t* list, void (*fn)(void* item, void* context), void* context);
// Frees the list and clears the caller's pointer; with the flag each item goes to the destructor first (to free when
// there is none).
void delete_list(list_t** list, bool free_items);

}  // namespace veldar
