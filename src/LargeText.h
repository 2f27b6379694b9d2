#pragma once

#include <chrono>
#include <cstddef>

#include "HeldMutex.h"

/// Who works on a large XML text holds one of a few places meanwhile: the nodes of a document take
/// many times the memory of its text. A thread that faults gives its place back.
class LargeText {
public:
    /// Texts of more bytes than this need one of kPlaces.
    static constexpr std::size_t kSize = std::size_t{64} * 1024;
    static constexpr std::size_t kPlaces = 2;
    /// Texts of more bytes than this, up to kSize, need one of kMediumPlaces. Those of clients that
    /// want something are smaller.
    static constexpr std::size_t kMediumSize = std::size_t{4} * 1024;
    static constexpr std::size_t kMediumPlaces = 8;
    /// How long a text waits for its place, and how many wait at a time for those of one size:
    /// their connections give way to nobody.
    static constexpr std::chrono::seconds kTimeout{20};
    static constexpr int kMaxWaiting = 64;

    /// Waits for a place, if a text of `size` bytes needs one. Whatever is locked while it is held
    /// is unlocked before it is given back.
    explicit LargeText(std::size_t size);
    /// What the text has taken of the memory goes back to the system.
    ~LargeText();
    LargeText(const LargeText&) = delete;
    LargeText& operator=(const LargeText&) = delete;

    /// False when the wait was in vain, or too many were waiting.
    [[nodiscard]] bool MayBeRead() const { return !needsPlace_ || place_ != nullptr; }

private:
    bool needsPlace_;
    HeldMutex* place_ = nullptr;
};
