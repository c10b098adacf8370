#include "searchthing/base/list.h"

#include <cstdlib>
#include <new>

#include "libzero/assertions.h"

namespace veldar {

list_t* new_list(list_item_fn destructor) {
    return new (std::nothrow) list_t{nullptr, nullptr, 0, destructor};
}

int push_front(list_t* list, void* item) {
    list_node_s* node = new (std::nothrow) list_node_s{item, list->head};
    if (node == nullptr) return -1;
    // An emptied list still has the tail of its past: a freed node.
    if (list->head == nullptr) list->tail = node;
    list->head = node;
    list->count++;
    return 0;
}

list_node_s* append_list_node(list_t* list) {
    list_node_s* node = new (std::nothrow) list_node_s{nullptr, nullptr};
    if (node == nullptr) return nullptr;
    (list->head == nullptr ? list->head : list->tail->next) = node;
    list->tail = node;
    list->count++;
    return node;
}

void* pop_front(list_t* list) {
    list_node_s* node = list->head;
    if (node == nullptr) return nullptr;
    ST_ASSERT(list->count > 0 && (node->next == nullptr) == (list->count == 1));
    void* item = node->item;
    list->head = node->next;
    list->count--;
    delete node;
    return item;
}

void* top_front(const list_t* list) {
    return list->head == nullptr ? nullptr : list->head->item;
}

uint32_t get_count(const list_t* list) {
    return list->count;
}

void list_apply(const list_t* list, void (*fn)(void* item, void* context), void* context) {
    if (list == nullptr) return;
    for (const list_node_s* node = list->head; node != nullptr; node = node->next) fn(node->item, context);
}

void delete_list(list_t** list, bool free_items) {
    ST_ASSERT(list != nullptr && *list != nullptr);
    const list_item_fn release = (*list)->destructor != nullptr ? (*list)->destructor : std::free;
    while ((*list)->head != nullptr) {
        void* item = pop_front(*list);
        if (free_items) release(item);
    }
    delete *list;
    *list = nullptr;
}

}  // namespace veldar
