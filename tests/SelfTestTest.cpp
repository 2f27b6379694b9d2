#include <gtest/gtest.h>

#include <string>

#include "SelfTest.h"
#include "Support.h"

namespace {

const std::string kDirectory = "/app/zel/selftest.d/";

std::string Results() {
    return ReadFile(SelfTest().GetResultFileName());
}

TEST(SelfTestTest, TestsRunInNameOrderAndReportALineEach) {
    std::filesystem::remove_all(kDirectory);
    EXPECT_EQ(SelfTest().DoSelfTest(), 0);
    EXPECT_EQ(Results(), "") << "no tests, no lines";

    InstallProgram(kDirectory + "20-b", "echo two; echo lines");
    InstallProgram(kDirectory + "10-a", "true");
    WriteFile(kDirectory + "30-no-program", "#!/bin/sh\nexit 1\n");
    InstallProgram(kDirectory + ".hidden", "exit 1");
    EXPECT_EQ(SelfTest().DoSelfTest(), 0);
    EXPECT_EQ(Results(), "10-a: OK\n20-b: OK (two)\n");

    InstallProgram(kDirectory + "15-broken", "echo too hot; exit 2");
    InstallProgram(kDirectory + "16-killed", "kill -9 $$");
    EXPECT_EQ(SelfTest().DoSelfTest(), 1);
    EXPECT_EQ(Results(), "10-a: OK\n15-broken: FAILED (too hot)\n16-killed: FAILED (" + kDirectory +
                             "16-killed was ended by signal 9)\n20-b: OK (two)\n");

    std::filesystem::remove_all("/tmp/selftest");
    std::ofstream("/tmp/selftest") << "in the way";
    EXPECT_EQ(SelfTest().DoSelfTest(), -1);
}

}  // namespace
