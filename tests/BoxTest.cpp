#include <gtest/gtest.h>

#include "Box.h"
#include "BoxChanges.h"
#include "BoxCommands.h"
#include "BoxName.h"
#include "BoxTable.h"

namespace {

constexpr char kAddress[] = "192.168.68.42";
constexpr char kList[] =
    "(DevId=host),(Serial=TAVO0012345),(Color=#be1110),(State=5),(Owner=me),(Kl30Voltage=12310),"
    "(NetworkType=0)";

std::string Show(const Box& box) {
    std::string shown;
    for (const auto& [name, value] : box.attributes) {
        shown.append(name).append("=").append(value).append(";");
    }
    return shown;
}

}  // namespace

TEST(BoxTest, AttributeListsAreReadWhateverTheyHold) {
    struct Case {
        const char* list;
        const char* attributes;
    };
    constexpr Case kCases[] = {
        {"", ""},
        {"(A=1),(B=2)", "A=1;B=2;"},
        {"(A=),(B=[x,y])", "A=;B=[x,y];"},
        {"(A=x (y), z),(B==)", "A=x (y), z;B==;"},
        {"(A=x\\29\\2C\\28B\\3d4),(B=\\5c29\\),(C=\\0\\zz\\c3\\b6\\2)",
         "A=x),(B=4;B=\\29\\;C=\\0\\zz\xC3\xB6\\2;"},
        {"(A=1),(A=2)", "A=1;"},
        {"(A=1,(B=2", "A=1,(B=2;"},
        {"A=1", "A=1;"},
        {"(((=),(=),(),(B", "((=;"},
        {"),(),(", ""},
    };
    for (const Case& each : kCases) {
        EXPECT_EQ(Show(Box::Read(kAddress, each.list)), each.attributes) << each.list;
    }
}

TEST(BoxTest, ColumnsSayWhatABoxIs) {
    struct Case {
        const char* list = nullptr;
        BoxTable::Row row;
    };
    const Case kCases[] = {
        {kList, {kAddress, "TAVO0012345", "host", "red", "reserved", "me", "12.3 V", "cable"}},
        {"(State=4),(Color=#123456),(NetworkType=1),(SignalStrength=70)",
         {kAddress, "", "", "#123456", "free", "", "", "WLAN 70"}},
        {"(State=x),(Color=\033[1m),(Kl30Voltage=-1),(NetworkType=2)",
         {kAddress, "", "", "?[1m", "x", "", "-1", "2"}},
        {"(Kl30Voltage=99999999999),(Owner=abcdefghijklmnopqrstuvwxyz0123456789)",
         {kAddress, "", "", "", "", "abcdefghijklmnopqrstuvw…", "99999999999", ""}},
    };
    for (const Case& each : kCases) {
        EXPECT_EQ(BoxTable::MakeLine(Box::Read(kAddress, each.list)).row, each.row) << each.list;
    }
}

TEST(BoxTest, TableIsAlignedAndColoredOnlyOnDemand) {
    std::vector<BoxTable::Line> lines = {
        BoxTable::MakeLine(Box::Read("10.0.0.1", kList)),
        BoxTable::MakeLine(Box::Read("10.0.0.22", "(Owner=Jörg),(Color=#zz1110),(State=4)"))};
    EXPECT_EQ(BoxTable::Render(lines, false),
              "ADDRESS    SERIAL       NAME  COLOR    STATE     OWNER  VOLTAGE  NETWORK\n"
              "10.0.0.1   TAVO0012345  host  red      reserved  me     12.3 V   cable\n"
              "10.0.0.22                     #zz1110  free      Jörg\n");
    lines.pop_back();
    lines[0].changed[4] = true;
    EXPECT_EQ(
        BoxTable::Render(lines, true),
        "\033[1mADDRESS   SERIAL       NAME  COLOR     STATE     OWNER  VOLTAGE  NETWORK\033[0m\n"
        "10.0.0.1  TAVO0012345  host  \033[48;2;190;17;16m  \033[0m red    "
        "\033[7mreserved\033[0m  me     12.3 V   cable\n");
}

TEST(BoxTest, ChangesFromSearchToSearchAreTold) {
    const auto free =
        Box::Read("10.0.0.1", "(Serial=T1),(State=4),(Kl30Voltage=12310),(Counter=1)");
    const auto reserved =
        Box::Read("10.0.0.1", "(Serial=T1),(State=5),(Owner=me),(Kl30Voltage=12340),(Counter=2)");
    const auto other = Box::Read("10.0.0.2", "(Serial=T2),(State=4)");
    struct Case {
        std::vector<Box> boxes;
        BoxChanges::Texts texts;
        std::size_t lines;
    };
    const Case kCases[] = {
        {{free}, {"10.0.0.1 (T1) is there, free"}, 1},
        {{free}, {}, 1},
        {{reserved, other},
         {"10.0.0.1 (T1) STATE 'free' -> 'reserved'", "10.0.0.1 (T1) OWNER '' -> 'me'",
          "10.0.0.2 (T2) is there, free"},
         2},
        {{other}, {}, 2},
        {{reserved, other}, {}, 2},
        {{other}, {}, 2},
        {{other}, {"10.0.0.1 (T1) is gone"}, 2},
        {{other}, {}, 1},
    };
    BoxChanges changes;
    for (const Case& each : kCases) {
        BoxChanges::Texts texts;
        EXPECT_EQ(changes.Next(each.boxes, texts).size(), each.lines);
        EXPECT_EQ(texts, each.texts);
    }
}

TEST(BoxTest, FiltersAndSerialNumbersMatchWholly) {
    const Box box = Box::Read(kAddress, kList);
    struct Case {
        Options options;
        bool isWanted = false;
    };
    const auto with = [](std::string Options::*option, const char* value) {
        Options options;
        options.*option = value;
        return options;
    };
    const Case kCases[] = {
        {{}, true},
        {with(&Options::color, "red"), true},
        {with(&Options::color, "#be1110"), true},
        {with(&Options::color, "re"), false},
        {with(&Options::serial, "TAVO0012345"), true},
        {with(&Options::serial, "0012345"), true},
        {with(&Options::serial, "12345"), false},
        {with(&Options::serial, "TAVO"), false},
        {with(&Options::state, "reserved"), true},
        {with(&Options::state, "free"), false},
        {with(&Options::owner, "me"), true},
        {with(&Options::owner, "m"), false},
    };
    for (const Case& each : kCases) {
        EXPECT_EQ(BoxCommands::IsWanted(box, each.options), each.isWanted)
            << each.options.color << each.options.serial << each.options.state
            << each.options.owner;
    }
}

TEST(BoxTest, NamesAreCutAtThePort) {
    struct Case {
        const char* name;
        const char* parts;
    };
    constexpr Case kCases[] = {
        {"10.0.0.1", "10.0.0.1"},
        {"10.0.0.1:80", "10.0.0.1 80"},
        {"box:65535", "box 65535"},
        {"box:65536", "-"},
        {"box:0", "-"},
        {"box:", "-"},
        {":80", "-"},
        {"box:8x", "-"},
        {"box:-1", "-"},
    };
    for (const Case& each : kCases) {
        const auto parts = BoxName::Split(each.name);
        EXPECT_EQ(!parts        ? "-"
                  : parts->port ? parts->host + " " + std::to_string(*parts->port)
                                : parts->host,
                  each.parts);
    }
}

TEST(BoxTest, WithoutANameTheOnlyBoxIsChosen) {
    const Box one = Box::Read("10.0.0.1", "(Serial=T1)");
    const Box two = Box::Read("10.0.0.2", "(Serial=\033)");
    BoxAddress address;
    EXPECT_EQ(BoxName::ChooseOnly({}, address).status, ExitStatus::kUnreachable);
    EXPECT_EQ(BoxName::ChooseOnly({one}, address).status, ExitStatus::kDone);
    EXPECT_EQ(address.ToText(), "10.0.0.1:5302");
    const Outcome outcome = BoxName::ChooseOnly({one, two}, address);
    EXPECT_EQ(outcome.status, ExitStatus::kUsage);
    EXPECT_EQ(outcome.text, "2 boxes answer, name one: 10.0.0.1 (T1), 10.0.0.2 (?)");
}
