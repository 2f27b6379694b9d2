#include "AnyCase.h"
#include "CommandLine.h"
#include "ConnectorCommands.h"
#include "LogFollower.h"
#include "SelfTestResult.h"
#include "SoapClient.h"
#include "Support.h"

namespace {

using Words = std::vector<std::string>;

std::string Join(const Words& words) {
    std::string joined;
    for (const std::string& word : words) {
        joined += word + ";";
    }
    return joined;
}

TEST(ToolCommandsTest, TheBoxMayBeLeftOut) {
    for (const auto& [words, count, hasParameters, taken] :
         Table<Words, std::size_t, bool, const char*>{
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
             {{"sub", "a=1"}, 2, true, "-"}}) {
        Options got;
        const bool isTaken = CommandLine::TakeWords(words, count, hasParameters, got);
        EXPECT_EQ(isTaken ? got.box + "|" + Join(got.arguments) + "|" + Join(got.parameters) : "-",
                  taken)
            << Join(words);
    }
}

TEST(ToolCommandsTest, CommandLinesAreReadOrRefused) {
    for (const auto& [line, status, timeout, handle] :
         Table<std::vector<const char*>, ExitStatus, int, const char*>{
             {{"release", "--handle", "-12"}, ExitStatus::kDone, 10000, "-12"},
             {{"release", "box", "--handle=-12", "--timeout", "0.5"},
              ExitStatus::kDone,
              500,
              "-12"},
             {{"mode", "dhcp"}, ExitStatus::kDone, 60000, ""},
             {{"info", "--timeout", "0"}, ExitStatus::kUsage, 0, ""},
             {{"info", "--timeout", "x"}, ExitStatus::kUsage, 0, ""},
             {{"info", "--handle", "1"}, ExitStatus::kUsage, 0, ""},
             {{"reserve", "box"}, ExitStatus::kUsage, 0, ""},
             {{"find", "--state", "x"}, ExitStatus::kUsage, 0, ""},
             {{"find", "--state", "FREE"}, ExitStatus::kDone, 0, ""},
             {{"find", "--owner", ""}, ExitStatus::kUsage, 0, ""},
             {{"release", "--handle", ""}, ExitStatus::kUsage, 0, ""},
             {{"release", ""}, ExitStatus::kUsage, 0, ""},
             {{"release", "--handle", "--x", "--", "--handle"}, ExitStatus::kDone, 10000, "--x"},
             {{"release", "--", "--handle", "1"}, ExitStatus::kUsage, 0, ""},
             {{"lock", "-1", "--handle", "1"}, ExitStatus::kDone, 10000, "1"}}) {
        SCOPED_TRACE(testing::PrintToString(line));
        std::vector<const char*> arguments = line;
        arguments.insert(arguments.begin(), "zelctl");
        const auto parsed =
            CommandLine::Parse(static_cast<int>(arguments.size()), arguments.data());
        EXPECT_EQ(parsed.outcome.status, status);
        ASSERT_EQ(parsed.run != nullptr, status == ExitStatus::kDone);
        if (parsed.run != nullptr) {
            EXPECT_EQ(parsed.options.handle, handle);
            EXPECT_EQ(parsed.options.timeout.count(), timeout);
        }
    }
}

TEST(ToolCommandsTest, WhatIsWaitedForAReservedBoxMayBeLeftOut) {
    for (const auto& [behind, seconds, box] : Table<std::vector<const char*>, int, const char*>{
             {{}, 600, ""},
             {{"7"}, 7, ""},
             {{"0012345"}, 600, "0012345"},
             {{"10.0.0.1"}, 600, "10.0.0.1"},
             {{"bay-3", "--timeout", "5"}, 600, "bay-3"},
             {{"7", "bay-3"}, 7, "bay-3"},
             {{"--", "7"}, 600, "7"},
             {{"0"}, -1, ""},
             {{"86401"}, -1, ""}}) {
        SCOPED_TRACE(testing::PrintToString(behind));
        std::vector<const char*> line{"zelctl", "reserve", "--owner", "me", "--wait-free"};
        line.insert(line.end(), behind.begin(), behind.end());
        const auto parsed = CommandLine::Parse(static_cast<int>(line.size()), line.data());
        ASSERT_EQ(parsed.run != nullptr, seconds > 0);
        if (parsed.run != nullptr) {
            EXPECT_EQ(parsed.options.waitFree, std::chrono::seconds(seconds));
            EXPECT_EQ(parsed.options.box, box);
        }
    }
}

TEST(ToolCommandsTest, WhatHasNotPassedInASelfTestHasFailed) {
    for (const auto& [text, tests] : Table<const char*, const char*>{
             {"", ""},
             {"10-a: OK;20-b: FAILED (why: not);", "+10-a|;-20-b|why: not;"},
             {"a: OK (x;y: z);b: SKIPPED;c: OK (", "+a|x;y: z;-b|;+c|;"},
             {"no test;a: ok;b: OK", "-no test|;a: ok;+b|;"},
             {"a: FAILED (b: OK)", "-a|b: OK;"},
             {"a: OK ((x) b);c: OK (x) b", "+a|(x) b;+c|(x) b;"},
             {";;", ""}}) {
        std::string read;
        for (const SelfTestResult::Test& test : SelfTestResult::Read(text)) {
            read += (test.passed ? "+" : "-") + test.name + "|" + test.detail + ";";
        }
        EXPECT_EQ(read, tests) << text;
    }
}

TEST(ToolCommandsTest, NamesMatchInAnyCase) {
    for (const auto& [one, other, areEqual] :
         Table<const char*, const char*, bool>{{"", "", true},
                                               {"Müller", "MÜLLER", true},
                                               {"ЖЁ", "жё", true},
                                               {"a", "ab", false},
                                               {"ab", "a", false},
                                               {"a", "b", false},
                                               {"[", "{", false},
                                               {"\xff", "\xff", true},
                                               {"\xff", "\xfe", false},
                                               {"\xc3", "\xc3\xbc", false}}) {
        EXPECT_EQ(AnyCase::Equal(one, other), areEqual) << one << " " << other;
    }
}

TEST(ToolCommandsTest, AnswersOfStrangersAreJudged) {
    const auto soap = [](const std::string& inner) { return "<E><Body>" + inner + "</Body></E>"; };
    constexpr int kNotUnderstood = -2;
    testing::internal::CaptureStderr();
    for (const auto& [body, code] : Table<std::string, int>{
             {soap("<r><out><error>7</error></out></r>"), 7},
             {soap("\n <r><out><error>7x</error></out></r>"), -1},
             {soap("<r><out/></r>"), -1},
             {soap("<r/>"), -1},
             {soap("<Fault><faultstring>why</faultstring></Fault>"), kNotUnderstood},
             {soap("text"), kNotUnderstood},
             {"<E/>", kNotUnderstood},
             {"", kNotUnderstood},
             {std::string(100000, '<'), kNotUnderstood}}) {
        SoapClient::Answer answer;
        const ExitStatus status = SoapClient::Read(body, "box", answer).status;
        EXPECT_EQ(status, code == kNotUnderstood ? ExitStatus::kNotUnderstood : ExitStatus::kDone)
            << body;
        if (status == ExitStatus::kDone) {
            EXPECT_EQ(SoapClient::ErrorCode(answer).value_or(-1), code) << body;
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ToolCommandsTest, TheLogGoesOnThroughRotationAndRestart) {
    LogFollower follower;
    for (const auto& [current, older, fresh] : Table<const char*, const char*, const char*>{
             {"a\nb\npart", "", "a\nb\n"},
             {"a\nb\npart\n", "", "part\n"},
             {"a\nb\npart\n", "", ""},
             {"d\n", "a\nb\npart\nc\n", "c\nd\n"},  // renamed
             {"d\ne\n", "a\nb\npart\nc\n", "e\n"},
             {"x\n", "y\nz\n", "x\n"},  // begun anew
             {"", "", ""},
             {"x\n", "", "x\n"}}) {
        EXPECT_EQ(follower.Next(current, [text = older] { return text; }), fresh);
    }
}

TEST(ToolCommandsTest, DownloadsOfTheLogAreLeftOutOfIt) {
    const auto line = [](const char* thread, const std::string& text) {
        return std::string("2026-11-26 07:44:15.622036  debug   ") + thread + "    " + text + "\n";
    };
    const auto connection = [&](const char* host) {
        return line("88", std::string("Webservices connection from ") + host);
    };
    const auto request = [&](const char* thread, const char* url) {
        return line(thread, std::string("Passing request for '") + url + "' to FileDownload");
    };
    const auto download = [&](const char* thread, const char* log = "nativezel.log") {
        const std::string path = std::string("/tmp/log/") + log;
        return request(thread, ("/web/show.jsp?file=" + path).c_str()) +
               line(thread, "filename=" + path);
    };
    const auto end = [&](const char* thread) { return line(thread, "Closing connection to b"); };
    const std::string other = "udhcpc: started\n" + request("3", "/test") + end("3");
    DownloadFilter filter;
    for (const auto& [lines, rest] : Table<std::string, std::string>{
             {connection("a") + download("1") + download("1"), ""},
             {download("1") + other, other},
             {end("1") + end("1"), end("1")},
             // Two at a time, and one whose connection is told at the end.
             {connection("a") + connection("b") + download("1") + download("2") + connection("c"),
              ""},
             {request("3", "/test") + end("3"), connection("c") + request("3", "/test") + end("3")},
             {connection("c"), ""},
             {"", connection("c")},
             {connection("a") + connection("b") + download("5"), ""},
             {download("6") + connection("c"), ""},
             {download("4", "nativezel.1.log") + end("4") + end("2"), ""},
             // A connection that is kept for something else.
             {request("1", "/test") + end("1"), request("1", "/test") + end("1")},
             {connection("d") + download("1", "other.log"),
              connection("d") + download("1", "other.log")}}) {
        EXPECT_EQ(filter.Next(lines), rest);
    }
}

}  // namespace
