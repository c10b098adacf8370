// The terms of an event that is in the index, cut once more from its raw record.
#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "tools/libveldar/load/log_event.h"
#include "tools/libveldar/query/event_source.h"

namespace veldar::tool {

struct event_terms {
    event_source* source = nullptr;  // with its names read
    log_event_maker maker;
    std::vector<field_view> fields;
};

// The terms that the load gave the event; valid until the next call. None and not known when the record cannot be
// read, which is told to the source's troubles.
std::span<const std::string_view> event_terms_of(event_terms* terms, const event_t& event, bool* is_known);
// The fields of the event as its record writes them; valid until the next call. None when it cannot be read, which is
// told to the source's troubles.
std::span<const field_view> event_fields_of(event_terms* terms, const event_t& event);

}  // namespace veldar::tool
