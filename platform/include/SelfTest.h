#pragma once

#include <string>

/// Makes sure that the log handler of the self-test library, "selftestloghandler", exists.
class LibSelfTestLogger {
public:
    LibSelfTestLogger();
};

/// The device's self test.
class SelfTest {
public:
    /// Runs every test, one after the other, and writes one line per test to the result file,
    /// which is replaced as a whole. Returns 0 when all tests passed, 1 when one failed, -1 when
    /// the result could not be written.
    [[nodiscard]] int DoSelfTest();

    /// Path of the result file.
    std::string GetResultFileName() const;
};
