#include "SharedSelfTest.h"

#include <fstream>

#include "LogText.h"
#include "SelfTest.h"
#include "ZelLog.h"

std::string SharedSelfTest::Run() {
    const unsigned begunBefore = begun_;
    const std::unique_lock lock = mutex_.LockInTurn(kTimeout);
    if (!lock) {
        ZEL_ERROR("The self test at work takes too long, no result is told");
        return "";
    }
    SelfTest selfTest;
    if (done_ <= begunBefore) {
        const unsigned test = ++begun_;
        static_cast<void>(selfTest.DoSelfTest());  // what has failed is told by its line
        done_ = test;
    }
    std::ifstream file(selfTest.GetResultFileName());
    std::string lines;
    for (std::string line; std::getline(file, line);) {
        ZEL_DEBUG("Read line: '%s'", LogText::Of(line).c_str());
        lines += line + ";";
    }
    return lines;
}
