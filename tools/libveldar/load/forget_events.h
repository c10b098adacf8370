// Deleting the events that came from one file.
#pragma once

#include <cstdint>

#include "tools/libveldar/store/store.h"

namespace veldar::tool {

// Marks those of a bucket as deleted, wherever the stretches of the file lie, and returns how many were not before. The
// caller holds the store's lock and has the bucket settled. Repeating it after a failure ends right. Throws
// failure_t, also when not all of the bucket can be read: then nothing of it is deleted.
uint64_t forget_events(const store_bucket& bucket, uint32_t number);

}  // namespace veldar::tool
