#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CommandLine.h"
#include "ConnectorCommands.h"
#include "LogFollower.h"
#include "SoapClient.h"

namespace {

using Words = std::vector<std::string>;

std::string Join(const Words& words) {
    std::string joined;
    for (const std::string& word : words) {
        joined += word + ";";
    }
    return joined;
}

}  // namespace

TEST(ToolCommandsTest, TheBoxMayBeLeftOut) {
    struct Case {
        Words words;
        std::size_t count;
        bool hasParameters;
        const char* taken;
    };
    const Case kCases[] = {
        {{}, 0, false, "||"},
        {{"box"}, 0, false, "box||"},
        {{"a", "b"}, 0, false, "-"},
        {{"host"}, 1, false, "|host;|"},
        {{"box", "host"}, 1, false, "box|host;|"},
        {{}, 1, false, "-"},
        {{"sub", "cmd"}, 2, true, "|sub;cmd;|"},
        {{"box", "sub", "cmd", "a=1", "b=", "c=x=y"}, 2, true, "box|sub;cmd;|a=1;b=;c=x=y;"},
        {{"sub", "cmd", "a=1"}, 2, true, "|sub;cmd;|a=1;"},
        {{"sub", "cmd", "a=1", "b"}, 2, true, "-"},
        {{"sub", "cmd", "=1"}, 2, true, "-"},
        {{"sub", "a=1"}, 2, true, "-"},
    };
    for (const Case& each : kCases) {
        Options options;
        const bool taken =
            CommandLine::TakeWords(each.words, each.count, each.hasParameters, options);
        EXPECT_EQ(taken
                      ? options.box + "|" + Join(options.arguments) + "|" + Join(options.parameters)
                      : "-",
                  each.taken)
            << Join(each.words);
    }
}

TEST(ToolCommandsTest, CommandLinesAreReadOrRefused) {
    struct Case {
        Words line;
        ExitStatus status;
        int timeout;
        const char* handle;
    };
    const Case kCases[] = {
        {{"release", "--handle", "-12"}, ExitStatus::kDone, 10000, "-12"},
        {{"release", "box", "--handle=-12", "--timeout", "0.5"}, ExitStatus::kDone, 500, "-12"},
        {{"mode", "dhcp"}, ExitStatus::kDone, 60000, ""},
        {{"info", "--timeout", "0"}, ExitStatus::kUsage, 0, ""},
        {{"info", "--timeout", "x"}, ExitStatus::kUsage, 0, ""},
        {{"info", "--handle", "1"}, ExitStatus::kUsage, 0, ""},
        {{"reserve", "box"}, ExitStatus::kUsage, 0, ""},
        {{"find", "--state", "x"}, ExitStatus::kUsage, 0, ""},
    };
    for (const Case& each : kCases) {
        std::vector<const char*> arguments = {"zelctl"};
        for (const std::string& word : each.line) {
            arguments.push_back(word.c_str());
        }
        const auto parsed =
            CommandLine::Parse(static_cast<int>(arguments.size()), arguments.data());
        EXPECT_EQ(parsed.status, each.status) << Join(each.line);
        EXPECT_EQ(parsed.run != nullptr, each.status == ExitStatus::kDone);
        if (parsed.run != nullptr) {
            EXPECT_EQ(parsed.options.handle, each.handle);
            EXPECT_EQ(parsed.options.timeout.count(), each.timeout);
        }
    }
}

TEST(ToolCommandsTest, ParametersBecomeElements) {
    EXPECT_EQ(ConnectorCommands::ParameterElements({"a=1", "b=<x=y>"}),
              "<pParameters><key>a</key><value>1</value></pParameters>"
              "<pParameters><key>b</key><value>&lt;x=y&gt;</value></pParameters>");
}

TEST(ToolCommandsTest, AnswersOfStrangersAreJudged) {
    const std::string deep(100000, '<');
    struct Case {
        std::string body;
        ExitStatus status;
        int code;
    };
    const auto soap = [](const std::string& inner) { return "<E><Body>" + inner + "</Body></E>"; };
    const Case kCases[] = {
        {soap("<r><out><error>7</error></out></r>"), ExitStatus::kDone, 7},
        {soap("\n <r><out><error>7x</error></out></r>"), ExitStatus::kDone, -1},
        {soap("<r><out/></r>"), ExitStatus::kDone, -1},
        {soap("<r/>"), ExitStatus::kDone, -1},
        {soap("<Fault><faultstring>why</faultstring></Fault>"), ExitStatus::kNotUnderstood, -1},
        {soap("text"), ExitStatus::kNotUnderstood, -1},
        {"<E/>", ExitStatus::kNotUnderstood, -1},
        {"", ExitStatus::kNotUnderstood, -1},
        {deep, ExitStatus::kNotUnderstood, -1},
        {"<!DOCTYPE E [<!ENTITY e 'x'>]>" + soap("<r>&e;</r>"), ExitStatus::kNotUnderstood, -1},
    };
    testing::internal::CaptureStderr();
    for (const Case& each : kCases) {
        SoapClient::Answer answer;
        EXPECT_EQ(SoapClient::Read(each.body, "box", answer).status, each.status) << each.body;
        if (each.status == ExitStatus::kDone) {
            EXPECT_EQ(SoapClient::ErrorCode(answer).value_or(-1), each.code) << each.body;
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ToolCommandsTest, TheLogGoesOnThroughRotationAndRestart) {
    struct Case {
        const char* current;
        const char* older;
        const char* fresh;
    };
    constexpr Case kCases[] = {
        {"a\nb\npart", "", "a\nb\n"},
        {"a\nb\npart\n", "", "part\n"},
        {"a\nb\npart\n", "", ""},
        {"d\n", "a\nb\npart\nc\n", "c\nd\n"},  // renamed
        {"d\ne\n", "a\nb\npart\nc\n", "e\n"},
        {"x\n", "y\nz\n", "x\n"},  // begun anew
        {"", "", ""},
        {"x\n", "", "x\n"},
    };
    LogFollower follower;
    for (const Case& each : kCases) {
        EXPECT_EQ(follower.Next(each.current, [&each] { return each.older; }), each.fresh);
    }
}
