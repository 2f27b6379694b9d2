#pragma once

/// Owns one descriptor and closes it when it goes out of scope, unless it is negative.
class SocketGuard {
public:
    explicit SocketGuard(int descriptor = -1) : descriptor_(descriptor) {}
    virtual ~SocketGuard();
    SocketGuard(const SocketGuard&) = delete;
    SocketGuard& operator=(const SocketGuard&) = delete;

    int Get() const { return descriptor_; }
    /// Closes the descriptor held and takes another.
    void Reset(int descriptor = -1);
    /// Gives the descriptor away without closing it.
    int Release();

private:
    int descriptor_;
};
