#pragma once

#include <string>
#include <string_view>
#include <vector>

/// What a box says of its self test: "10-voltage: OK (12310 mV);20-flash: FAILED;".
namespace SelfTestResult {

struct Test {
    std::string name;
    bool passed = false;
    std::string status;  ///< the word; all but "OK" have not passed
    std::string detail;  ///< what stands in the parentheses behind it

    std::string ToText() const;
};

/// A part that has not that form belongs to the detail of the test before it; the first one is a
/// test that has not passed.
std::vector<Test> Read(std::string_view text);

}  // namespace SelfTestResult
