// The least pace that a peer must keep: 512 bytes a second, over any two minutes. A slow
// but honest line keeps it; a peer that sends a byte now and then does not.
// Header only; host/ uses it too.
// Threads: one owner.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

class Pace {
  public:
    static constexpr int64_t WINDOW_MS = 120000;
    static constexpr uint64_t BYTES_PER_S = 512;

    // Begins at now_ms, monotonic, with no bytes.
    explicit Pace(int64_t now_ms, int64_t window_ms = WINDOW_MS)
        : window_ms_(window_ms), samples_{Sample{now_ms, 0}} {}

    // total_bytes have come since the beginning. False: too few of them in the window
    // that ends now. To be asked every few seconds at least; who asks less often is more
    // patient.
    [[nodiscard]] bool Keeps(int64_t now_ms, uint64_t total_bytes) {
        // The window begins at the last sample that is old enough.
        while (count_ > 1 && now_ms - At(1).at_ms >= window_ms_) Drop();
        const Sample& begin = At(0);
        const bool full = now_ms - begin.at_ms >= window_ms_;
        const uint64_t needed = BYTES_PER_S * static_cast<uint64_t>(window_ms_) / 1000;
        const bool keeps = !full || total_bytes - begin.bytes >= needed;
        if (count_ < samples_.size() && now_ms - At(count_ - 1).at_ms >= window_ms_ / STEPS) {
            ++count_;
            samples_[(first_ + count_ - 1) % samples_.size()] = {now_ms, total_bytes};
        }
        return keeps;
    }

  private:
    struct Sample {
        int64_t at_ms;
        uint64_t bytes;
    };
    // A window is at most this part longer than it should be.
    static constexpr int STEPS = 24;

    [[nodiscard]] const Sample& At(size_t index) const {
        return samples_[(first_ + index) % samples_.size()];
    }
    void Drop() {
        first_ = (first_ + 1) % samples_.size();
        --count_;
    }

    int64_t window_ms_;
    std::array<Sample, STEPS + 2> samples_;
    size_t first_ = 0;
    size_t count_ = 1;
};
