#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// What the tests share. They run in simulated boxes, on the agent's own paths.

inline std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void WriteFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    EXPECT_TRUE(std::ofstream(path, std::ios::binary) << text << std::flush) << path;
}

/// Lays a program at `path`, in the place of what may be there, that runs `script`.
inline void InstallProgram(const std::string& path, const std::string& script) {
    std::filesystem::remove(path);  // it may be a link to other tools
    WriteFile(path, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(path, std::filesystem::perms(0755));
}

/// Waits for what happens beside the test; false when it does not.
inline bool Eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 3000 && !condition(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

/// Runs `work` with each number from 0 to 3, in as many threads at once.
inline void InFourThreads(const std::function<void(int)>& work) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(work, i);
    }
}

inline sockaddr_in Address(const char* dotted, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, dotted, &address.sin_addr);
    return address;
}
