// A singly linked list of borrowed items.
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
    list_node_s* tail;
    uint32_t count;
    list_item_fn destructor;
};
using list_t = list_s;

list_t* new_list(list_item_fn destructor);
int push_front(list_t* list, void* item);
list_node_s* append_list_node(list_t* list);
void* pop_front(list_t* list);
void* top_front(const list_t* list);
uint32_t get_count(const list_t* list);
void list_apply(const list_t* list, void (*fn)(void* item, void* context), void* context);
void delete_list(list_t** list, bool free_items);

}  // namespace veldar
