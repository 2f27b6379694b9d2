#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "SelfTest.h"

namespace {

const std::string kDirectory = "/app/zel/selftest.d/";

void Install(const std::string& name, const std::string& script, bool executable = true) {
    std::filesystem::create_directories(kDirectory);
    std::ofstream(kDirectory + name) << "#!/bin/sh\n" << script << "\n";
    if (executable) {
        std::filesystem::permissions(kDirectory + name, std::filesystem::perms::owner_all);
    }
}

std::string Results() {
    std::ostringstream text;
    text << std::ifstream(SelfTest().GetResultFileName()).rdbuf();
    return text.str();
}

TEST(SelfTestTest, TestsRunInNameOrderAndReportALineEach) {
    std::filesystem::remove_all(kDirectory);
    EXPECT_EQ(SelfTest().DoSelfTest(), 0);
    EXPECT_EQ(Results(), "") << "no tests, no lines";

    Install("20-b", "echo two; echo lines");
    Install("10-a", "true");
    Install("30-no-program", "exit 1", false);
    Install(".hidden", "exit 1");
    EXPECT_EQ(SelfTest().DoSelfTest(), 0);
    EXPECT_EQ(Results(), "10-a: OK\n20-b: OK (two)\n");

    Install("15-broken", "echo too hot; exit 2");
    Install("16-killed", "kill -9 $$");
    EXPECT_EQ(SelfTest().DoSelfTest(), 1);
    EXPECT_EQ(Results(), "10-a: OK\n15-broken: FAILED (too hot)\n16-killed: FAILED (" + kDirectory +
                             "16-killed was ended by signal 9)\n20-b: OK (two)\n");

    std::filesystem::remove_all("/tmp/selftest");
    std::ofstream("/tmp/selftest") << "in the way";
    EXPECT_EQ(SelfTest().DoSelfTest(), -1);
}

TEST(SelfTestTest, TheBoxPassesItsOwnTests) {
    EXPECT_EQ(SelfTest().DoSelfTest(), 0) << Results();
    EXPECT_NE(Results().find("10-voltage: OK (12310 mV)\n"), std::string::npos) << Results();
}

}  // namespace
