#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "Dispatcher.h"

namespace {

using Parameters = std::map<std::string, std::string>;

const std::string kDirectory = "/app/zel/commands/test/";

std::string Install(const std::string& name, const std::string& script) {
    std::filesystem::create_directories(kDirectory);
    std::ofstream(kDirectory + name) << "#!/bin/sh\n" << script << "\n";
    std::filesystem::permissions(kDirectory + name, std::filesystem::perms::owner_all);
    return kDirectory + name;
}

/// As the agent runs: children are reaped by the system, and writing to the dead is no signal.
class DispatcherTest : public testing::Test {
protected:
    DispatcherTest() {
        struct sigaction action {};
        action.sa_handler = SIG_IGN;
        action.sa_flags = SA_NOCLDWAIT;
        sigaction(SIGCHLD, &action, nullptr);
    }

    int Run(const std::string& command, const Parameters& parameters = {}) {
        return Dispatcher::CommandExecution("test", command, parameters, result_);
    }
    std::string result_;
};

TEST_F(DispatcherTest, CommandsReallyRun) {
    Install("echo", "cat");
    EXPECT_EQ(Run("echo", {{"b", "2 $(id)"}, {"a", "x=y"}}), 0);
    EXPECT_EQ(result_, "a=x=y\nb=2 $(id)\n");
    Install("fail", "echo reason; exit 3");
    EXPECT_EQ(Run("fail"), 3);
    EXPECT_EQ(result_, "reason\n");
    Install("killed", "kill -9 $$");
    EXPECT_NE(Run("killed"), 0);
    EXPECT_NE(result_.find("signal 9"), std::string::npos) << result_;
}

TEST_F(DispatcherTest, WhatCannotRunSaysWhy) {
    std::ofstream(kDirectory + "plain") << "no program";
    const struct {
        const char* subsystem;
        const char* command;
        Parameters parameters;
        const char* reason;
    } cases[] = {
        {"..", "echo", {}, "subsystem name '..'"},
        {"", "echo", {}, "subsystem name ''"},
        {"test", "../test/echo", {}, "command name '../test/echo'"},
        {"test", "a b", {}, "command name 'a b'"},
        {"test", "none", {}, "No such file"},
        {"none", "none", {}, "No such file"},
        {"test", "echo", {{"a=b", ""}}, "parameter 'a=b'"},
        {"test", "echo", {{"a", "1\nb=2"}}, "parameter 'a'"},
    };
    Install("echo", "cat");
    for (const auto& c : cases) {
        EXPECT_NE(Dispatcher::CommandExecution(c.subsystem, c.command, c.parameters, result_), 0);
        EXPECT_NE(result_.find(c.reason), std::string::npos) << result_;
    }
}

TEST_F(DispatcherTest, CommandsSeeACleanProcess) {
    Install("look", "ls /proc/self/fd | tr '\\n' ' '; grep -E 'Sig(Blk|Ign)' /proc/self/status");
    const int leaked = open("/dev/null", O_RDONLY);
    EXPECT_EQ(Run("look"), 0);
    close(leaked);
    EXPECT_EQ(result_, "0 1 2 3 SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n")
        << "3 is the listing's own";
}

TEST_F(DispatcherTest, LargeInputAndOutputDoNotBlock) {
    Install("deaf", "head -c 3000000 /dev/zero | tr '\\0' x");
    EXPECT_EQ(Run("deaf", {{"large", std::string(1000000, 'y')}}), 0);
    EXPECT_EQ(result_.size(), ChildProcess::kMaxOutput);
    Install("wide", "cat");
    const std::string value(900000, 'z');
    EXPECT_EQ(Run("wide", {{"v", value}}), 0);
    EXPECT_EQ(result_, "v=" + value + "\n");
}

TEST_F(DispatcherTest, ManyCommandsAtOnce) {
    Install("echo", "cat");
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 5; ++i) {
                std::string result;
                const std::string value = std::to_string(t) + "." + std::to_string(i);
                EXPECT_EQ(Dispatcher::CommandExecution("test", "echo", {{"v", value}}, result), 0);
                EXPECT_EQ(result, "v=" + value + "\n");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
