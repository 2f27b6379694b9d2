#pragma once

#include <chrono>
#include <cstddef>

/// Who works on a large XML text holds one of a few places meanwhile: the nodes of a document take
/// many times the memory of its text. What was taken goes back to the system in the end. A thread
/// that faults gives its place back.
class LargeText {
public:
    /// Texts of more bytes than this need a place.
    static constexpr std::size_t kSize = std::size_t{64} * 1024;
    static constexpr int kPlaces = 2;
    /// How long a text waits for its place.
    static constexpr std::chrono::seconds kPatience{20};

    /// Waits for a place, if a text of `size` bytes needs one. Whatever is locked while it is held
    /// is unlocked before it is given back.
    explicit LargeText(std::size_t size);
    ~LargeText();
    LargeText(const LargeText&) = delete;
    LargeText& operator=(const LargeText&) = delete;

    /// False when the wait was in vain.
    bool MayBeRead() const { return !isLarge_ || place_ != kNone; }

private:
    static constexpr int kNone = -1;

    bool isLarge_;
    int place_ = kNone;
};
