#include "SelfTest.h"
#include "Support.h"

TEST(SelfTestTest, TestsRunInNameOrderAndReportALineEach) {
    const std::string directory = "/app/zel/selftest.d/";
    const auto expect = [](int status, const std::string& results) {
        EXPECT_EQ(SelfTest().DoSelfTest(), status);
        EXPECT_EQ(ReadFile(SelfTest().GetResultFileName()), results);
    };
    std::filesystem::remove_all(directory);
    expect(0, "");
    InstallProgram(directory + "20-b", "echo two; echo lines");
    InstallProgram(directory + "10-a", "true");
    WriteFile(directory + "30-no-program", "#!/bin/sh\nexit 1\n");
    InstallProgram(directory + ".hidden", "exit 1");
    expect(0, "10-a: OK\n20-b: OK (two)\n");
    InstallProgram(directory + "15-broken", "echo too hot; exit 2");
    InstallProgram(directory + "16-killed", "kill -9 $$");
    expect(1, "10-a: OK\n15-broken: FAILED (too hot)\n16-killed: FAILED (" + directory +
                  "16-killed was ended by signal 9)\n20-b: OK (two)\n");
    std::filesystem::remove_all("/tmp/selftest");
    WriteFile("/tmp/selftest", "in the way");
    EXPECT_EQ(SelfTest().DoSelfTest(), -1);
}
