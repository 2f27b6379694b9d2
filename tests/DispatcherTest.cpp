#include "ChildProcess.h"
#include "Dispatcher.h"
#include "Support.h"

TEST(DispatcherTest, CommandsRunOrTellWhyNot) {
    signal(SIGCHLD, SIG_IGN);  // as in the agent: the system reaps children
    const std::string directory = "/app/zel/commands/test/";
    WriteFile(directory + "plain", "no program");
    InstallProgram(directory + "echo", "cat");
    InstallProgram(directory + "fail", "echo reason; exit 3");
    InstallProgram(directory + "killed", "kill -9 $$");
    InstallProgram(directory + "deaf", "head -c 3000000 /dev/zero | tr '\\0' x");
    const std::string large(900000, 'z');
    constexpr int kWrong = -1;  // any other than 0, and the result says why
    using Parameters = std::map<std::string, std::string>;
    for (const auto& [subsystem, command, parameters, code, result] :
         Table<const char*, const char*, Parameters, int, std::string>{
             {"test", "echo", {{"b", "2 $(id)"}, {"a", "x=y"}}, 0, "a=x=y\nb=2 $(id)\n"},
             {"test", "echo", {{"v", large}}, 0, "v=" + large + "\n"},
             {"test", "deaf", {{"v", large}}, 0, std::string(ChildProcess::kMaxOutput, 'x')},
             {"test", "fail", {}, 3, "reason\n"},
             {"test", "killed", {}, kWrong, "signal 9"},
             {"..", "echo", {}, kWrong, "subsystem name '..'"},
             {"", "echo", {}, kWrong, "subsystem name ''"},
             {"test", "../test/echo", {}, kWrong, "command name '../test/echo'"},
             {"test", "a b", {}, kWrong, "command name 'a b'"},
             {"test", "plain", {}, kWrong, "Permission denied"},
             {"none", "none", {}, kWrong, "No such file"},
             {"test", "echo", {{"a=b", ""}}, kWrong, "parameter 'a=b'"},
             {"test", "echo", {{"a", "1\nb=2"}}, kWrong, "parameter 'a'"}}) {
        SCOPED_TRACE(std::string(subsystem) + "/" + command);
        std::string got;
        const int status = Dispatcher::CommandExecution(subsystem, command, parameters, got);
        EXPECT_TRUE(code == kWrong ? status != 0 : status == code) << status;
        EXPECT_TRUE(code == kWrong ? got.find(result) != got.npos : got == result) << got;
    }
}
