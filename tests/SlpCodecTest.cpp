#include <algorithm>
#include <cstring>

#include "SlpCodec.h"
#include "SlpPeer.h"
#include "slpBase.h"

namespace {

const std::string kLifetime("\0\xFF\xFA", 3);  // of 65530 seconds, behind a reserved byte

std::string Show(const std::optional<std::string>& text) {
    return text ? "'" + *text + "'" : "-";
}

SlpCodec::Datagram ToDatagram(const std::string& bytes) {
    SlpCodec::Datagram datagram{};
    std::memcpy(datagram.data(), bytes.data(), std::min(bytes.size(), datagram.size()));
    return datagram;
}

/// All that a codec reads, in one line.
std::string Decoded(const std::string& bytes) {
    const auto message = SlpCodec::Decode(ToDatagram(bytes));
    if (!message) {
        return "nothing";
    }
    const auto& head =
        std::visit([](const SlpHead& any) -> const SlpHead& { return any; }, *message);
    std::string shown = std::to_string(head.functionId) + " xid " + std::to_string(head.xid) +
                        " '" + head.languageTag + "'";
    if (const auto* const request = std::get_if<SlpRequest>(&*message)) {
        return shown + " pr " + Show(request->prList) + " scope " + Show(request->scopeList) +
               " type " + Show(request->serviceType) + " url " + Show(request->url) + " tags " +
               Show(request->tagList) + " authority " + Show(request->namingAuthority);
    }
    const auto& reply = std::get<SlpReply>(*message);
    shown += " error " + std::to_string(reply.errorCode);
    for (const SlpUrlEntry& entry : reply.urlEntries) {
        shown += " " + std::to_string(entry.lifetime) + " '" + entry.url + "'";
    }
    return shown + " attributes " + Show(reply.attrList) + " types " + Show(reply.serviceTypeList);
}

template <typename Record>
std::string Encoded(std::uint32_t function, Record record) {
    record.functionId = function;
    record.xid = 0x81FE;
    if (record.languageTag.empty()) {
        record.languageTag = "en";
    }
    SlpCodec::Datagram datagram{};
    datagram.fill(0xFF);
    const std::size_t size = SlpCodec::Encode(record, datagram);
    return {datagram.begin(), datagram.begin() + static_cast<std::ptrdiff_t>(size)};
}

TEST(SlpCodecTest, MessagesAsSent) {
    SlpRequest request;
    EXPECT_EQ(Encoded(1, request), "") << "no service type";
    EXPECT_EQ(Encoded(6, request), Message(6, 0x81FE, Zeros(4) + Text("default") + Zeros(6)));
    EXPECT_EQ(Encoded(9, request), Message(9, 0x81FE, Zeros(2) + Text("default") + Zeros(4)));
    request.serviceType = "s:x";
    EXPECT_EQ(Encoded(1, request),
              std::string("\x02\x01\x00\x00\x24\x00\x00\x00\x00\x00\x81\xFE\x00\x02"
                          "en\x00\x00\x00\x03s:x\x00\x07"
                          "default\x00\x00\x00\x00",
                          36));
    request.prList = "10.0.0.1";
    request.scopeList = "a,b";
    request.url = "url";
    request.tagList = "t1,t2";
    request.namingAuthority = "never sent";
    SlpReply reply;
    reply.errorCode = 0x0102;
    reply.urlEntries = {{65530, "service:x"}, {1, ""}};
    reply.attrList = "(a=1)";
    reply.serviceTypeList = "service:a,";
    const std::string responders = Text("10.0.0.1");
    for (std::uint32_t function = 0; function < 0x10B; ++function) {
        const std::string body =
            function == 1   ? responders + Text("s:x") + Text("a,b") + Zeros(4)
            : function == 6 ? responders + Text("url") + Text("a,b") + Text("t1,t2") + Zeros(4)
            : function == 9 ? responders + Text("a,b") + Zeros(4)
            : function == 2 ? Word(0x0102) + Word(2) + kLifetime + Text("service:x") + Zeros(2) +
                                  Word(1) + Zeros(4)
            : function == 7  ? Word(0x0102) + Text("(a=1)") + Zeros(2)
            : function == 10 ? Word(0x0102) + Text("service:a,") + Zeros(1)
                             : "";
        const bool isReply = function == 2 || function == 7 || function == 10;
        const std::string message =
            body.empty() ? "" : Message(static_cast<std::uint8_t>(function), 0x81FE, body);
        EXPECT_EQ(Encoded(function, request), isReply ? "" : message) << function;
        EXPECT_EQ(Encoded(function, reply), isReply ? message : "") << function;
    }
}

TEST(SlpCodecTest, WhatIsTooLongIsCutAtTheEndOfTheDatagram) {
    SlpReply reply;
    reply.attrList = std::string(70000, 'a');
    EXPECT_EQ(Encoded(7, reply), std::string("\x02\x07\x00\x05\x78", 5) +
                                     Message(7, 0x81FE, "").substr(5) + Zeros(2) +
                                     Text(std::string(1400 - 20, 'a')));
    reply.urlEntries.assign(70000, {1, "url"});
    EXPECT_EQ(Encoded(2, reply).size(), 1400U);
    for (const std::size_t length : {4070U, 4079U, 4080U, 4081U, 4082U, 4083U, 70000U}) {
        SlpRequest request;
        request.languageTag = std::string(length, 'e');
        request.url = "url";
        const std::string bytes = Encoded(6, request);
        EXPECT_LE(bytes.size(), 4096U) << length;
        EXPECT_EQ(SlpCodec::DeclaredLength(ToDatagram(bytes)), bytes.size()) << length;
    }
}

TEST(SlpCodecTest, MessagesAsRead) {
    for (const auto& [bytes, message] : Table<std::string, const char*>{
             {Message(1, 0x8001, Text("10.0.0.1") + Text("service:a") + Text("default") + Zeros(4)),
              "1 xid 32769 'en' pr '10.0.0.1' scope 'default' type 'service:a' url - tags - "
              "authority "
              "-"},
             {Message(6, 1, Zeros(4) + Text("s") + Text("t1,t2") + Zeros(2), "de-DE"),
              "6 xid 1 'de-DE' pr - scope 's' type - url - tags 't1,t2' authority -"},
             {Message(6, 1, Zeros(2) + Text("service:a") + Text("default") + Zeros(4)),
              "6 xid 1 'en' pr - scope 'default' type - url 'service:a' tags - authority -"},
             {Message(9, 1, Zeros(2) + Text("iana") + Text("s")),
              "9 xid 1 'en' pr - scope 's' type - url - tags - authority 'iana'"},
             {Message(9, 1, Zeros(2) + Word(0xFFFF) + Text("default")),
              "9 xid 1 'en' pr - scope 'default' type - url - tags - authority ''"},
             {Message(1, 1, Text(std::string("p\0q", 3)) + Text("s") + Zeros(6)),
              "1 xid 1 'en' pr 'p' scope 's' type '' url - tags - authority -"},
             {Message(1, 1, ""), "1 xid 1 'en' pr - scope '' type - url - tags - authority -"},
             // The byte behind an entry is taken for the next one's first.
             {Message(2, 1,
                      Word(9) + Word(2) + kLifetime + Text("service:x") + Zeros(1) +
                          std::string("\1\2\0\2ab", 6)),
              "2 xid 1 'en' error 9 65530 'service:x' 258 'ab' attributes - types -"},
             {Message(7, 1, Zeros(2) + Text("(a=\xE4)") + Zeros(1)),
              "7 xid 1 'en' error 0 attributes '(a=\xE4)' types -"},
             {Message(7, 1, Word(3)), "7 xid 1 'en' error 3 attributes '' types -"},
             {Message(10, 1, Zeros(2) + Text("service:a,b")),
              "10 xid 1 'en' error 0 attributes - types 'service:a,b'"},
             {Message(3, 1, Zeros(8)), "nothing"},
             {Message(8, 1, Zeros(8)), "nothing"},
             {Message(0x87, 1, Zeros(8)), "nothing"}}) {
        EXPECT_EQ(Decoded(bytes), message) << testing::PrintToString(bytes);
    }
}

/// Lengths that promise more than there is; the address sanitizer watches. SlpFuzz tries any
/// others.
TEST(SlpCodecTest, NothingIsReadBehindTheDatagram) {
    const auto read = [](const std::string& bytes) {
        return std::get<SlpReply>(*SlpCodec::Decode(ToDatagram(bytes)));
    };
    std::string full = Message(7, 1, Zeros(2) + Word(0xFFFF) + std::string(4076, 'a'));
    ASSERT_EQ(full.size(), 4096U);
    EXPECT_EQ(read(full).attrList, std::string(4076, 'a'));
    full.replace(12, 2, Word(0xFFFF));
    std::replace(full.begin() + 14, full.end(), '\0', 'b');
    EXPECT_EQ(read(full).languageTag.size(), 4082U);
    EXPECT_LE(read(Message(2, 1, Zeros(2) + Word(0xFFFF))).urlEntries.size(), 4096U / 5)
        << "not what it promises";
}

TEST(SlpCodecTest, SearchForAnAttribute) {
    for (const auto& [given, name, result, expected] :
         Table<const char*, const char*, int, const char*>{
             {"(a=1),(ClusterIP=10.0.0.5)", "ClusterIP", 0, "10.0.0.5"},
             {"(a=1),(ClusterIP=10.0.0.5)", "Cluster", -1, "-"},
             {"(a=1),(ClusterIP=10.0.0.5)", "clusterip", -1, "-"},
             {"a=1)(b=x=y", "b", 0, "x=y"},
             {"(a=1,2),(b)", "a", 0, "1"},
             {"(keyword),(b)", "b", -1, "-"},
             {"(a=),(a=2)", "a", 0, ""},
             {"(=v)", "", 0, "v"},
             {"", "a", -1, "-"},
             {"(((,,,)))", "a", -1, "-"}}) {
        std::string list = given;
        std::string value = "-";
        EXPECT_EQ(SlpBase::FindAttribute(list, name, value), result) << given;
        EXPECT_EQ(value, expected) << given;
    }
    std::string list = "(a=1),(b=2),(c=3)";
    std::string value;
    SlpBase::FindAttribute(list, "b", value);
    std::replace(list.begin(), list.end(), '\0', '|');
    EXPECT_EQ(list, "(a|1|,(b|2|,(c=3)") << "cut in place";
}

}  // namespace
