#pragma once

#include <chrono>
#include <string>
#include <vector>

/// What the command line says. An option that was not given is empty.
struct Options {
    std::string box;
    /// The words behind the box that the command needs; then those with an equals sign.
    std::vector<std::string> arguments;
    std::vector<std::string> parameters;

    std::chrono::milliseconds timeout{10000};
    std::chrono::milliseconds wait{2000};
    std::chrono::milliseconds interval{5000};
    /// How long to wait for a box that is reserved; 0 when it is not waited for.
    std::chrono::milliseconds waitFree{0};

    std::string color;
    std::string serial;
    std::string state;
    std::string owner;
    std::string lock;
    std::string handle;
    std::string output;
    std::string stateFile;
    std::chrono::seconds forget{0};
    bool json = false;
    bool follow = false;
    bool agent = false;
    bool ownerLabel = false;
    bool temperature = false;
    bool noWait = false;
};
