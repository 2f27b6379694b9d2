#include "Box.h"
#include "BoxChanges.h"
#include "BoxMemory.h"
#include "BoxName.h"
#include "Support.h"

namespace {

constexpr char kAddress[] = "192.168.68.42";

TEST(BoxTest, AttributeListsAreReadWhateverTheyHold) {
    for (const auto& [list, attributes] : Table<const char*, const char*>{
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
             {"),(),(", ""}}) {
        std::string shown;
        for (const auto& [name, value] : Box::Read(kAddress, list).attributes) {
            shown.append(name).append("=").append(value).append(";");
        }
        EXPECT_EQ(shown, attributes) << list;
    }
}

TEST(BoxTest, ChangesFromSearchToSearchAreTold) {
    const auto free =
        Box::Read("10.0.0.1", "(Serial=T1),(State=4),(Kl30Voltage=12310),(Counter=1)");
    const auto reserved =
        Box::Read("10.0.0.1", "(Serial=T1),(State=5),(Owner=me),(Kl30Voltage=12340),(Counter=2)");
    const auto other = Box::Read("10.0.0.2", "(Serial=T2),(State=4)");
    const auto twin = Box::Read("10.0.0.3", "(Serial=T2),(State=4)");
    BoxChanges changes;
    for (const auto& [boxes, expected, lines] :
         Table<std::vector<Box>, std::vector<std::string>, std::size_t>{
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
             {{other, twin},
              {"10.0.0.2 (T2) is one of 2 boxes with this serial number",
               "10.0.0.3 (T2) is there, free",
               "10.0.0.3 (T2) is one of 2 boxes with this serial number"},
              2},
             {{other}, {}, 2},
             {{other},
              {"10.0.0.2 (T2) is the only box with this serial number", "10.0.0.3 (T2) is gone"},
              2}}) {
        std::vector<BoxChanges::Change> news;
        EXPECT_EQ(changes.Next(boxes, news).size(), lines);
        std::vector<std::string> texts;
        for (const BoxChanges::Change& change : news) {
            texts.insert(texts.end(), change.texts.begin(), change.texts.end());
        }
        EXPECT_EQ(texts, expected);
    }
}

TEST(BoxTest, WhatWasSeenIsRememberedAndForgotten) {
    const auto box = [](const std::string& address, const std::string& list) {
        return Box::Read(address, list);
    };
    std::string kept;
    for (const auto& [boxes, now, expected] :
         Table<std::vector<Box>, BoxMemory::Seconds, const char*>{
             {{box("10.0.0.1", "(Serial=T\\091),(State=5),(Owner=me)")},
              100,
              "T?1@10.0.0.1 100/100;"},
             {{box("10.0.0.1", "(Serial=T\\091),(State=5),(Owner=me)")},
              101,
              "T?1@10.0.0.1 101/100;"},
             {{}, 105, "T?1@10.0.0.1 101/100;"},
             {{box("10.0.0.1", "(Serial=T\\091),(State=5),(Owner=you)")},
              106,
              "T?1@10.0.0.1 106/106;"},
             // Another address, twice; another box at the first one, without a number.
             {{box("10.0.0.2", "(Serial=T?1),(State=4)"), box("10.0.0.3", "(Serial=T?1)"),
               box("10.0.0.1", "")},
              107,
              "@10.0.0.1 107/0;T?1@10.0.0.2 107/0;T?1@10.0.0.3 107/0;"},
             // The clock is set back.
             {{}, 50, "@10.0.0.1 50/0;T?1@10.0.0.2 50/0;T?1@10.0.0.3 50/0;"},
             {{box("10.0.0.4", "(Serial=T4)")}, 61, "T4@10.0.0.4 61/0;"}}) {
        BoxMemory memory;
        memory.Read(kept);
        memory.Add(boxes, now, 10);
        std::string told;
        for (const auto& [key, entry] : memory.All()) {
            told += key.serial + "@" + key.address + " " + std::to_string(entry.lastSeen) + "/" +
                    std::to_string(entry.reservedSince) + ";";
        }
        EXPECT_EQ(told, expected);
        kept = memory.ToText();
    }
    BoxMemory memory;
    for (BoxMemory::Seconds now = 1; now <= 3; ++now) {
        std::vector<Box> boxes(4000);
        for (std::size_t i = 0; i < boxes.size(); ++i) {
            boxes[i].address = std::to_string(now) + "-" + std::to_string(i);
        }
        memory.Add(boxes, now, 10);
    }
    EXPECT_EQ(memory.All().size(), BoxMemory::kMaxEntries);
    EXPECT_TRUE(memory.All().contains({"", "2-0"}) && memory.All().contains({"", "3-3999"}));
}

TEST(BoxTest, NamesAreCutAtThePortAndTheOnlyBoxNeedsNone) {
    for (const auto& [name, host, port] :
         Table<const char*, const char*, int>{{"10.0.0.1", "10.0.0.1", 0},
                                              {"10.0.0.1:80", "10.0.0.1", 80},
                                              {"box:65535", "box", 65535},
                                              {"box:65536", "-", 0},
                                              {"box:0", "-", 0},
                                              {"box:", "-", 0},
                                              {":80", "-", 0},
                                              {"box:8x", "-", 0},
                                              {"box:-1", "-", 0}}) {
        const auto parts = BoxName::Split(name);
        EXPECT_EQ(parts ? parts->host : "-", host) << name;
        EXPECT_EQ(parts && parts->port ? *parts->port : 0, port) << name;
    }
    const Box one = Box::Read("10.0.0.1", "(Serial=T1)");
    BoxAddress address;
    EXPECT_EQ(BoxName::ChooseOnly({}, address).status, ExitStatus::kUnreachable);
    EXPECT_EQ(BoxName::ChooseOnly({one}, address).status, ExitStatus::kDone);
    EXPECT_EQ(address.ToText(), "10.0.0.1:5302");
    const Outcome outcome =
        BoxName::ChooseOnly({one, Box::Read("10.0.0.2", "(Serial=\033)")}, address);
    EXPECT_EQ(outcome.status, ExitStatus::kUsage);
    EXPECT_EQ(outcome.text, "2 boxes answer, name one: 10.0.0.1 (T1), 10.0.0.2 (?)");
}

}  // namespace
