#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

// What the tests share. They run in simulated boxes, on the agent's own paths.

/// Cases, a row for each: for (const auto& [text, size] : Table<std::string, int>{{"a", 1}}) ...
template <typename... Columns>
using Table = std::vector<std::tuple<Columns...>>;

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

/// All that comes there until its end, or, where reading does not wait, until now.
inline std::string ReadToEnd(int descriptor) {
    std::string text;
    std::array<char, 4096> part{};
    for (ssize_t count = 0; (count = read(descriptor, part.data(), part.size())) > 0;) {
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    return text;
}

/// What a shell command prints, its errors included.
inline std::string OutputOf(const std::string& command) {
    FILE* const output = popen(("exec 2>&1; " + command).c_str(), "r");
    std::string text = ReadToEnd(fileno(output));
    pclose(output);
    return text;
}

inline std::string Times(std::size_t count, const std::string& text) {
    std::string all;
    while (count-- > 0) {
        all += text;
    }
    return all;
}

/// Expects each of the parts somewhere in `text`.
inline void ExpectParts(const std::string& text, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) {
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
    }
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

/// Runs `work` in a process that is killed within 3 ms, at a moment that `random` chooses.
inline void KillAtWork(std::mt19937& random, const std::function<void()>& work) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        work();
        _exit(0);
    }
    usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(random));
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
}

inline sockaddr_in Address(const char* dotted, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, dotted, &address.sin_addr);
    return address;
}

/// A socket of that type at that address; what does not come is given up there after 30 s.
inline int OpenSocket(int type, const char* dotted, std::uint16_t port) {
    const int descriptor = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const timeval timeout{30, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    const sockaddr_in own = Address(dotted, port);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
    return descriptor;
}
