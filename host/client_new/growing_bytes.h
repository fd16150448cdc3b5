// Bytes of one terminal that wait to be sent or to become a frame. They are malloc's, so
// that memory shortage costs the terminal and not the process.
// Threads: any; works on its arguments only.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace client_new {

class GrowingBytes {
  public:
    [[nodiscard]] size_t size() const { return size_; }
    [[nodiscard]] bool empty() const { return size_ == 0; }
    // Valid until the next change.
    [[nodiscard]] std::string_view View() const { return {bytes_.get(), size_}; }

    // False: memory is short, and nothing was added.
    [[nodiscard]] bool Append(std::string_view added) {
        if (added.empty()) return true;
        if (added.size() > room_ - size_) {
            const size_t room = std::max(size_ + added.size(), room_ * 2);
            char* grown = static_cast<char*>(realloc(bytes_.get(), room));
            if (grown == nullptr) return false;
            (void)bytes_.release();  // realloc has taken it
            bytes_.reset(grown);
            room_ = room;
        }
        memcpy(bytes_.get() + size_, added.data(), added.size());
        size_ += added.size();
        return true;
    }
    // count is at most size().
    void DropFront(size_t count) {
        size_ -= count;
        if (count > 0 && size_ > 0) memmove(bytes_.get(), bytes_.get() + count, size_);
    }
    // Back to size, which is at most size().
    void Cut(size_t size) { size_ = size; }
    // Gives the memory back, too.
    void Clear() { *this = GrowingBytes(); }

    GrowingBytes() = default;
    GrowingBytes(GrowingBytes&& other) noexcept { *this = std::move(other); }
    GrowingBytes& operator=(GrowingBytes&& other) noexcept {
        bytes_ = std::move(other.bytes_);
        size_ = std::exchange(other.size_, 0);
        room_ = std::exchange(other.room_, 0);
        return *this;
    }

  private:
    struct Free {
        void operator()(char* memory) const { free(memory); }
    };
    std::unique_ptr<char, Free> bytes_;
    size_t size_ = 0;
    size_t room_ = 0;
};

}  // namespace client_new
