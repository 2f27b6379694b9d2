#include "SelfTest.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <vector>

#include "ChildProcess.h"
#include "DurableFile.h"
#include "LogHandler.h"
#include "LogText.h"

namespace {

constexpr char kTestDirectory[] = "/app/zel/selftest.d";
constexpr char kResultDirectory[] = "/tmp/selftest";
constexpr char kResultFile[] = "/tmp/selftest/result.txt";
constexpr std::chrono::seconds kTestTimeLimit{60};
constexpr int kInfo = 101;
constexpr int kError = 103;

LogHandler& Log() {
    return LogHandler::GetLogHandler("selftestloghandler");
}

std::vector<std::filesystem::path> FindTests() {
    constexpr auto kExecutable = std::filesystem::perms::owner_exec;
    std::vector<std::filesystem::path> tests;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(kTestDirectory, error)) {
        const bool hidden = entry.path().filename().string().starts_with('.');
        if (!hidden && entry.is_regular_file(error) &&
            (entry.status(error).permissions() & kExecutable) != std::filesystem::perms::none) {
            tests.push_back(entry.path());
        }
    }
    std::sort(tests.begin(), tests.end());
    return tests;
}

}  // namespace

LibSelfTestLogger::LibSelfTestLogger() {
    Log();
}

int SelfTest::DoSelfTest() {
    bool allPassed = true;
    std::string report;
    for (const std::filesystem::path& test : FindTests()) {
        const ChildProcess::Result run =
            ChildProcess::Run({.path = test.string(), .timeLimit = kTestTimeLimit});
        const bool passed = run.exitStatus == 0;
        allPassed &= passed;
        const std::string detail =
            run.failure.empty() ? run.output.substr(0, run.output.find('\n')) : run.failure;
        const std::string line = test.filename().string() + (passed ? ": OK" : ": FAILED") +
                                 (detail.empty() ? "" : " (" + detail + ")");
        Log().Log(passed ? kInfo : kError, "SelfTest", __LINE__, "%s", LogText::Of(line).c_str());
        report += line + "\n";
    }
    std::error_code error;
    std::filesystem::create_directories(kResultDirectory, error);
    if (!DurableFile::Replace(kResultFile, report, DurableFile::kPublic)) {
        Log().Log(kError, "SelfTest", __LINE__, "Can't write %s", kResultFile);
        return -1;
    }
    return allPassed ? 0 : 1;
}

std::string SelfTest::GetResultFileName() const {
    return kResultFile;
}
