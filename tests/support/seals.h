// The seals of a directory's slices.
#pragma once

#include <string>

namespace veldar {

// What is wrong with the seals of the slices in the directory, a line each: one that differs, one that is damaged.
// Leftovers are not looked at. Empty for none.
std::string seal_troubles(const std::string& directory);
// How many slices of the directory have a seal.
size_t sealed_slices(const std::string& directory);

}  // namespace veldar
