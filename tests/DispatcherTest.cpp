#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "ChildProcess.h"
#include "Dispatcher.h"
#include "Support.h"

namespace {

using Parameters = std::map<std::string, std::string>;

const std::string kDirectory = "/app/zel/commands/test/";

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
    InstallProgram(kDirectory + "echo", "cat");
    EXPECT_EQ(Run("echo", {{"b", "2 $(id)"}, {"a", "x=y"}}), 0);
    EXPECT_EQ(result_, "a=x=y\nb=2 $(id)\n");
    InstallProgram(kDirectory + "fail", "echo reason; exit 3");
    EXPECT_EQ(Run("fail"), 3);
    EXPECT_EQ(result_, "reason\n");
    InstallProgram(kDirectory + "killed", "kill -9 $$");
    EXPECT_NE(Run("killed"), 0);
    EXPECT_NE(result_.find("signal 9"), std::string::npos) << result_;
}

TEST_F(DispatcherTest, WhatCannotRunSaysWhy) {
    WriteFile(kDirectory + "plain", "no program");
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
    InstallProgram(kDirectory + "echo", "cat");
    for (const auto& c : cases) {
        EXPECT_NE(Dispatcher::CommandExecution(c.subsystem, c.command, c.parameters, result_), 0);
        EXPECT_NE(result_.find(c.reason), std::string::npos) << result_;
    }
}

TEST_F(DispatcherTest, LargeInputAndOutputDoNotBlock) {
    InstallProgram(kDirectory + "deaf", "head -c 3000000 /dev/zero | tr '\\0' x");
    EXPECT_EQ(Run("deaf", {{"large", std::string(1000000, 'y')}}), 0);
    EXPECT_EQ(result_.size(), ChildProcess::kMaxOutput);
    InstallProgram(kDirectory + "wide", "cat");
    const std::string value(900000, 'z');
    EXPECT_EQ(Run("wide", {{"v", value}}), 0);
    EXPECT_EQ(result_, "v=" + value + "\n");
}

}  // namespace
