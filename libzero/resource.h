// Owners of the three things that the engine holds: a descriptor, a shared mapping, a zeroed array. Each is move-only
// and releases what it holds, so that a function which returns early needs no clean-up code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

namespace veldar {

// A file descriptor; -1 when empty.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1);
    // Closes now and tells how it went: the result of close(2), 0 for an empty owner. The descriptor is gone either
    // way.
    [[nodiscard]] int close_checked();

  private:
    int fd_ = -1;
};

// A shared memory map of a file's first bytes.
class file_map {
  public:
    file_map() = default;
    file_map(file_map&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          writable_(other.writable_) {}
    file_map& operator=(file_map&& other) noexcept {
        if (this != &other) {
            reset();
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
            writable_ = other.writable_;
        }
        return *this;
    }
    file_map(const file_map&) = delete;
    file_map& operator=(const file_map&) = delete;
    ~file_map() { reset(); }

    // Maps the first `size` bytes; the caller has checked that the file reaches that far. False with errno set on
    // failure.
    [[nodiscard]] bool map(int fd, size_t size, bool writable);
    // Flushes a writable map synchronously: the result of msync(2). 0 when nothing is mapped, and for a read-only map,
    // which has nothing to flush: the system would flush the whole file and wait for the disk.
    [[nodiscard]] int sync();
    // Unmaps now: the result of munmap(2), 0 when nothing is mapped.
    [[nodiscard]] int unmap();
    void reset() { static_cast<void>(unmap()); }

    uint8_t* data() const { return static_cast<uint8_t*>(data_); }
    size_t size() const { return size_; }
    std::span<const uint8_t> bytes() const { return {data(), size_}; }

  private:
    void* data_ = nullptr;
    size_t size_ = 0;
    bool writable_ = false;
};

// A zeroed array of plain elements. Allocation is explicit and reports failure; nothing here throws.
template <typename T>
class buffer {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
    static_assert(alignof(T) <= alignof(std::max_align_t), "calloc aligns no further");

  public:
    buffer() = default;
    buffer(buffer&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    buffer& operator=(buffer&& other) noexcept {
        if (this != &other) {
            std::free(data_);
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
        }
        return *this;
    }
    buffer(const buffer&) = delete;
    buffer& operator=(const buffer&) = delete;
    ~buffer() { std::free(data_); }

    // Replaces the content by `count` zeroed elements. False when memory is short; the buffer is then empty.
    [[nodiscard]] bool alloc(size_t count) {
        reset();
        data_ = static_cast<T*>(std::calloc(count == 0 ? 1 : count, sizeof(T)));
        size_ = data_ == nullptr ? 0 : count;
        return data_ != nullptr;
    }

    void reset() {
        std::free(std::exchange(data_, nullptr));
        size_ = 0;
    }

    // Zeroes the elements in place.
    void clear() {
        if (data_ != nullptr) std::memset(static_cast<void*>(data_), 0, size_ * sizeof(T));
    }

    T* data() const { return data_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    // Checked where the library's own containers are.
    T& operator[](size_t index) const { return span()[index]; }
    T* begin() const { return data_; }
    T* end() const { return data_ + size_; }
    std::span<T> span() const { return {data_, size_}; }

  private:
    T* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace veldar
