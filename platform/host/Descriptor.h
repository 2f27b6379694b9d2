#pragma once

#include <unistd.h>

/// Owns a descriptor; a negative one is none.
class Descriptor {
public:
    explicit Descriptor(int value = -1) : value_(value) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return value_; }
    void Set(int value) {
        Close();
        value_ = value;
    }
    void Close() {
        if (value_ >= 0) {
            close(value_);
        }
        value_ = -1;
    }

private:
    int value_;
};
