// What the comparison asks of an index: the same events, the same questions, one answer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace veldar {

// Events with all of `all`, one of `any` (unless that is empty) and none of `none`, from one time to another, both
// inclusive.
struct question {
    std::string name;
    std::vector<std::string> all, any, none;
    int32_t from = INT32_MIN, to = INT32_MAX;
};

class peer {
  public:
    peer() = default;
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;
    virtual ~peer() = default;

    virtual std::string name() const = 0;
    // Events come in order of time, their numbers ascending from 0. Terms may come twice.
    virtual void put(uint32_t number, int32_t time, const std::vector<std::string_view>& terms) = 0;
    // Writes, merges as far as the index can, and opens what is there for questions.
    virtual void finish() = 0;
    virtual uint64_t count(const question& asked) = 0;
    // The numbers of the newest events, the newest first.
    virtual std::vector<uint32_t> newest(const question& asked, uint32_t most) = 0;
    // How many terms hold the text.
    virtual uint64_t terms_with(const std::string& text) = 0;
};

// In an empty directory each.
std::unique_ptr<peer> make_veldar(const std::string& directory);
std::unique_ptr<peer> make_sqlite(const std::string& directory);
std::unique_ptr<peer> make_xapian(const std::string& directory);

}  // namespace veldar
