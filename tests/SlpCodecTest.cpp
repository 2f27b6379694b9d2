#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "SlpCodec.h"
#include "SlpPeer.h"
#include "slpBase.h"

namespace {

std::string Show(const std::optional<std::string>& text) {
    return text ? "'" + *text + "'" : "-";
}

/// All that a codec reads, in one line.
std::string Show(const std::optional<SlpMessage>& message) {
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

SlpCodec::Datagram ToDatagram(const std::string& bytes) {
    SlpCodec::Datagram datagram{};
    std::memcpy(datagram.data(), bytes.data(), std::min(bytes.size(), datagram.size()));
    return datagram;
}

std::string Decoded(const std::string& bytes) {
    return Show(SlpCodec::Decode(ToDatagram(bytes)));
}

template <typename Record>
std::string Encoded(std::uint32_t function, const std::function<void(Record&)>& fill) {
    Record record;
    record.functionId = function;
    record.xid = 0x81FE;
    record.languageTag = "en";
    fill(record);
    SlpCodec::Datagram datagram{};
    datagram.fill(0xFF);
    const std::size_t size = SlpCodec::Encode(record, datagram);
    return {datagram.begin(), datagram.begin() + static_cast<std::ptrdiff_t>(size)};
}

std::string EncodedRequest(std::uint32_t function, const std::function<void(SlpRequest&)>& fill) {
    return Encoded<SlpRequest>(function, fill);
}

std::string EncodedReply(std::uint32_t function, const std::function<void(SlpReply&)>& fill) {
    return Encoded<SlpReply>(function, fill);
}

TEST(SlpCodecTest, RequestsAsSent) {
    const std::string bytes = EncodedRequest(1, [](SlpRequest& r) { r.serviceType = "s:x"; });
    EXPECT_EQ(bytes, std::string("\x02\x01\x00\x00\x24\x00\x00\x00\x00\x00\x81\xFE\x00\x02"
                                 "en\x00\x00\x00\x03s:x\x00\x07"
                                 "default\x00\x00\x00\x00",
                                 36));
    const auto fill = [](SlpRequest& r) {
        r.prList = "10.0.0.1";
        r.serviceType = "service";
        r.scopeList = "a,b";
        r.url = "url";
        r.tagList = "t1,t2";
        r.namingAuthority = "never sent";
    };
    EXPECT_EQ(EncodedRequest(1, fill),
              Message(1, 0x81FE, Text("10.0.0.1") + Text("service") + Text("a,b") + Zeros(4)));
    EXPECT_EQ(EncodedRequest(6, fill),
              Message(6, 0x81FE,
                      Text("10.0.0.1") + Text("url") + Text("a,b") + Text("t1,t2") + Zeros(4)));
    EXPECT_EQ(EncodedRequest(9, fill),
              Message(9, 0x81FE, Text("10.0.0.1") + Text("a,b") + Zeros(4)));
    const auto nothing = [](SlpRequest&) {};
    EXPECT_EQ(EncodedRequest(1, nothing), "") << "no service type";
    EXPECT_EQ(EncodedRequest(6, nothing),
              Message(6, 0x81FE, Zeros(4) + Text("default") + Zeros(6)));
    EXPECT_EQ(EncodedRequest(9, nothing),
              Message(9, 0x81FE, Zeros(2) + Text("default") + Zeros(4)));
    for (const std::uint32_t function : {0U, 2U, 3U, 5U, 8U, 10U, 11U, 257U}) {
        EXPECT_EQ(EncodedRequest(function, fill), "") << function;
    }
}

TEST(SlpCodecTest, RepliesAsSent) {
    const auto fill = [](SlpReply& r) {
        r.errorCode = 0x0102;
        r.urlEntries = {{65530, "service:x"}, {1, ""}};
        r.attrList = "(a=1)";
        r.serviceTypeList = "service:a,";
    };
    EXPECT_EQ(
        EncodedReply(2,
                     [](SlpReply& r) {
                         r.urlEntries = {{65530, "service:x"}};
                     }),
        Message(2, 0x81FE,
                Zeros(2) + Word(1) + std::string("\0\xFF\xFA", 3) + Text("service:x") + Zeros(2)));
    EXPECT_EQ(EncodedReply(2, fill),
              Message(2, 0x81FE,
                      Word(0x0102) + Word(2) + std::string("\0\xFF\xFA", 3) + Text("service:x") +
                          Zeros(1) + std::string("\0\0\x01", 3) + Zeros(2) + Zeros(1) + Zeros(1)));
    EXPECT_EQ(EncodedReply(7, fill), Message(7, 0x81FE, Word(0x0102) + Text("(a=1)") + Zeros(2)));
    EXPECT_EQ(EncodedReply(10, fill),
              Message(10, 0x81FE, Word(0x0102) + Text("service:a,") + Zeros(1)));
    for (const std::uint32_t function : {0U, 1U, 6U, 9U, 11U, 258U}) {
        EXPECT_EQ(EncodedReply(function, fill), "") << function;
    }
}

TEST(SlpCodecTest, WhatIsTooLongIsCutAtTheEndOfTheDatagram) {
    const std::string head = Message(7, 0x81FE, "").substr(5);
    const std::string cut =
        EncodedReply(7, [](SlpReply& r) { r.attrList = std::string(70000, 'a'); });
    EXPECT_EQ(cut, std::string("\x02\x07\x00\x05\x78", 5) + head + Zeros(2) +
                       Text(std::string(1400 - 20, 'a')));
    for (const std::size_t length : {4070U, 4079U, 4080U, 4081U, 4082U, 4083U, 70000U}) {
        const std::string bytes = EncodedRequest(6, [length](SlpRequest& r) {
            r.languageTag = std::string(length, 'e');
            r.url = "url";
        });
        EXPECT_LE(bytes.size(), 4096U) << length;
        EXPECT_EQ(SlpCodec::DeclaredLength(ToDatagram(bytes)), bytes.size()) << length;
    }
    const std::string many = EncodedReply(2, [](SlpReply& r) {
        r.urlEntries.assign(70000, {1, "url"});
    });
    EXPECT_EQ(many.size(), 1400U);
}

TEST(SlpCodecTest, MessagesAsRead) {
    const std::string entry = std::string("\0\xFF\xFA", 3) + Text("service:x");
    const struct {
        std::string bytes;
        const char* message;
    } cases[] = {
        {Message(1, 0x8001, Text("10.0.0.1") + Text("service:a") + Text("default") + Zeros(4)),
         "1 xid 32769 'en' pr '10.0.0.1' scope 'default' type 'service:a' url - tags - authority "
         "-"},
        {Message(6, 1, Zeros(2) + Text("service:a") + Text("default") + Zeros(4)),
         "6 xid 1 'en' pr - scope 'default' type - url 'service:a' tags - authority -"},
        {Message(6, 1, Zeros(4) + Text("s") + Text("t1,t2") + Zeros(2), "de-DE"),
         "6 xid 1 'de-DE' pr - scope 's' type - url - tags 't1,t2' authority -"},
        {Message(9, 1, Zeros(2) + Text("iana") + Text("s")),
         "9 xid 1 'en' pr - scope 's' type - url - tags - authority 'iana'"},
        {Message(9, 1, Zeros(2) + Word(0xFFFF) + Text("default")),
         "9 xid 1 'en' pr - scope 'default' type - url - tags - authority ''"},
        {Message(1, 1, Text(std::string("p\0q", 3)) + Text("s") + Zeros(6)),
         "1 xid 1 'en' pr 'p' scope 's' type '' url - tags - authority -"},
        {Message(1, 1, ""), "1 xid 1 'en' pr - scope '' type - url - tags - authority -"},
        {Message(2, 1, Word(9) + Word(1) + entry + Zeros(2)),
         "2 xid 1 'en' error 9 65530 'service:x' attributes - types -"},
        // The byte behind an entry is taken for the next one's first.
        {Message(2, 1, Zeros(2) + Word(2) + entry + Zeros(1) + std::string("\1\2\0\2ab", 6)),
         "2 xid 1 'en' error 0 65530 'service:x' 258 'ab' attributes - types -"},
        {Message(7, 1, Zeros(2) + Text("(a=\xE4)") + Zeros(1)),
         "7 xid 1 'en' error 0 attributes '(a=\xE4)' types -"},
        {Message(7, 1, Word(3)), "7 xid 1 'en' error 3 attributes '' types -"},
        {Message(10, 1, Zeros(2) + Text("service:a,b")),
         "10 xid 1 'en' error 0 attributes - types 'service:a,b'"},
        {Message(3, 1, Zeros(8)), "nothing"},
        {Message(8, 1, Zeros(8)), "nothing"},
        {Message(0x87, 1, Zeros(8)), "nothing"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Decoded(c.bytes), c.message) << testing::PrintToString(c.bytes);
    }
}

/// Lengths that promise more than there is; the address sanitizer watches. SlpFuzz tries any
/// others.
TEST(SlpCodecTest, NothingIsReadBehindTheDatagram) {
    const std::string full = Message(7, 1, Zeros(2) + Word(0xFFFF) + std::string(4076, 'a'));
    ASSERT_EQ(full.size(), 4096U);
    const auto attributes = SlpCodec::Decode(ToDatagram(full));
    EXPECT_EQ(std::get<SlpReply>(*attributes).attrList, std::string(4076, 'a'));
    std::string tag = full;
    tag.replace(12, 2, Word(0xFFFF));
    std::replace(tag.begin() + 14, tag.end(), '\0', 'b');
    EXPECT_EQ(std::get<SlpReply>(*SlpCodec::Decode(ToDatagram(tag))).languageTag.size(), 4082U);
    const auto urls = SlpCodec::Decode(ToDatagram(Message(2, 1, Zeros(2) + Word(0xFFFF))));
    EXPECT_LE(std::get<SlpReply>(*urls).urlEntries.size(), 4096U / 5) << "not what it promises";
}

TEST(SlpCodecTest, SearchForAnAttribute) {
    const struct {
        const char* list;
        const char* name;
        int result;
        const char* value;
    } cases[] = {
        {"(a=1),(ClusterIP=10.0.0.5)", "ClusterIP", 0, "10.0.0.5"},
        {"(a=1),(ClusterIP=10.0.0.5)", "Cluster", -1, "-"},
        {"(a=1),(ClusterIP=10.0.0.5)", "clusterip", -1, "-"},
        {"a=1)(b=x=y", "b", 0, "x=y"},
        {"(a=1,2),(b)", "a", 0, "1"},
        {"(keyword),(b)", "b", -1, "-"},
        {"(a=),(a=2)", "a", 0, ""},
        {"(=v)", "", 0, "v"},
        {"", "a", -1, "-"},
        {"(((,,,)))", "a", -1, "-"},
    };
    for (const auto& c : cases) {
        std::string list = c.list;
        std::string value = "-";
        EXPECT_EQ(SlpBase::FindAttribute(list, c.name, value), c.result) << c.list;
        EXPECT_EQ(value, c.value) << c.list;
    }
    std::string list = "(a=1),(b=2),(c=3)";
    std::string value;
    SlpBase::FindAttribute(list, "b", value);
    EXPECT_EQ(list, std::string("(a\0"
                                "1\0,(b\0"
                                "2\0,(c=3)",
                                17))
        << "cut in place";
}

}  // namespace
