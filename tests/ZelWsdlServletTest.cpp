#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>

#include <string>

#include "CrashGuard.h"
#include "LargeText.h"
#include "ServiceSchemas.h"
#include "Support.h"
#include "XmlSchema.h"
#include "ZelWsdlServlet.h"

namespace {

/// A service of one operation, made here, and one handler of its own.
class Probe : public ZelWsdlServlet {
public:
    struct Device {
        std::string suffix;
    };
    explicit Probe(const std::string& name)
        : ZelWsdlServlet({name, "/probe", MatchMode::kExact, 0}, {Methods(), "urn:probe", {}}) {}
    std::unique_ptr<ZelServlet> MakeInstance() const override { return nullptr; }
    Device GetDevice() const { return {"!"}; }

protected:
    void RewriteDescription(std::string& /*text*/) const override {}

private:
    static Answer Echo(const Call<Device>& call) {
        const std::string text = call.Text("text");
        return text == "fault" ? Answer::Fault("<" + text + ">")
                               : Answer{"\t\t<echo>" + text + call.device.suffix + "</echo>\n"};
    }
    static int Late(const xmlNode*, const HttpRequest&, ServletResponse&, ZelWsdlServlet&) {
        return kPostResponse;
    }
    static const MethodTable& Methods() {
        static const MethodTable methods = {{"echo", Handle<Probe, Echo>}, {"late", Late}};
        return methods;
    }
};

std::string WriteSchema(const std::string& name, const std::string& attributes) {
    std::string path = ServiceSchemas::kDirectory + name;
    WriteFile(path, "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" " + attributes +
                        "><xs:element name=\"echo\"><xs:complexType><xs:sequence>"
                        "<xs:element name=\"text\" type=\"xs:string\"/>"
                        "</xs:sequence></xs:complexType></xs:element></xs:schema>");
    return path;
}

TEST(ZelWsdlServletTest, MethodsAreFoundAndAnswersWrapped) {
    WriteSchema("Probe.xsd", "");
    WriteSchema("Probe2.xsd", "targetNamespace=\"urn:probe\" elementFormDefault=\"qualified\"");
    WriteSchema("further.xsd", "targetNamespace=\"urn:x\"");
    const auto send = [](const std::string& service, const std::string& start,
                         const std::string& body, ServletResponse& response) {
        HttpRequest request;
        request.keepAlive = true;
        request.body = "<e:Envelope xmlns:e='http://schemas.xmlsoap.org/soap/envelope/'" + start +
                       "><e:Body>" + body + "</e:Body></e:Envelope>";
        return Probe(service).Service(request, response);
    };
    const std::string fault = "<faultstring>";
    // A schema named by the request would make its own rule for the unknown element.
    const std::string hint =
        " xmlns:i='http://www.w3.org/2001/XMLSchema-instance' i:schemaLocation='urn:x file://" +
        std::string(ServiceSchemas::kDirectory) +
        "further.xsd'><e:Header><x:echo xmlns:x='urn:x'>unknown</x:echo></e:Header";
    for (const auto& [service, start, body, answer] :
         Table<std::string, std::string, std::string, std::string>{
             {"Probe", "", "\n <echo><text>a</text></echo>\n", "<echo>a!</echo>"},
             {"Probe", "", "<!-- one node --><echo><text>a</text></echo>", "<echo>a!</echo>"},
             {"Probe", "", " <!-- two --><echo/>", fault + "Method is empty for {urn:probe}<"},
             {"Probe", "", "<ech/>", fault + "Cannot find dispatch method for {urn:probe}ech<"},
             {"Probe", "", "<echo><text>fault</text></echo>", fault + "<fault></faultstring>"},
             {"Probe", "", "<p:echo xmlns:p='urn:probe'><p:text/></p:echo>", "<echo>!</echo>"},
             {"Probe", "", "<p:echo xmlns:p='urn:x'><p:text/></p:echo>", "\nValidation 2 says:\n"},
             {"Probe", hint, "<echo><text>a</text></echo>", "<echo>a!</echo>"},
             {"Missing", "", "<echo><text/></echo>", fault + "Validation 1 says:\n"},
             {"Missing", "", "<echo/>", "<echo>!</echo>"},
         }) {
        ServletResponse response;
        EXPECT_EQ(send(service, start, body, response), 0);
        EXPECT_TRUE(response.body.starts_with("<S:Envelope ") &&
                    response.body.ends_with(">\n\t</S:Body>\n</S:Envelope>\n"));
        ExpectParts(response.body, {answer});
        EXPECT_EQ(response.keepAlive, answer.starts_with("<echo>")) << "no fault keeps it";
    }
    ServletResponse response;
    EXPECT_EQ(send("Probe", "", "<late/>", response), ZelServlet::kPostResponse);
}

/// What a schema says of a child that it does not know.
std::string Refuse(XmlSchema& schema, const std::string& name) {
    const XmlText::Document document = XmlText::Parse("<echo><" + name + "/></echo>");
    std::string errors;
    EXPECT_FALSE(document == nullptr || schema.ValidateDocument(document.get(), errors));
    return errors;
}

TEST(XmlSchemaTest, CollectedTextIsBoundedAndTellsTheNewest) {
    XmlSchema schema(WriteSchema("Bounded.xsd", ""));
    const std::string longName(10000, 'n');
    for (int i = 0; i < 20; ++i) {
        const std::string errors = Refuse(schema, longName + std::to_string(i) + ".");
        EXPECT_LE(errors.size(), LatestMessages::kMaxText);
        EXPECT_TRUE(errors.starts_with("Element '" + longName)) << "a whole message";
        EXPECT_NE(errors.find("n" + std::to_string(i) + ".'"), std::string::npos);
        EXPECT_EQ(errors.find("n" + std::to_string(i - 7) + ".'"), std::string::npos);
    }
    // A message of 32768 bytes or more is not collected at all.
    EXPECT_EQ(Refuse(schema, std::string(40000, 'n')).find(std::string(20000, 'n')),
              std::string::npos);
}

TEST(XmlSchemaTest, ConcurrentValidationsNeverTearTheText) {
    XmlSchema schema(WriteSchema("Shared.xsd", ""));
    InFourThreads([&schema](int t) {
        for (int i = 0; i < 50; ++i) {
            const std::string errors = Refuse(schema, "own" + std::to_string(t));
            ExpectParts(errors, {"Element 'own" + std::to_string(t) + "'"});
            EXPECT_TRUE(errors.ends_with("\n"));
        }
    });
}

TEST(XmlTextTest, WhatADocumentMayHoldIsLimited) {
    /// `count` pieces, "#" in each being its number.
    const auto many = [](int count, const std::string& piece) {
        const std::size_t mark = piece.find('#');
        std::string text;
        for (int i = 0; i < count; ++i) {
            text += piece;
            if (mark != std::string::npos) {
                text.replace(text.size() - piece.size() + mark, 1, std::to_string(i));
            }
        }
        return text;
    };
    const auto isRead = [](const std::string& start, const std::string& more,
                           const std::string& end) {
        return XmlText::Parse(start + more + end, XmlText::DocumentType::kNameOnly) != nullptr;
    };
    const std::string full = "<a" + many(256, " a#=''");
    for (const auto& [start, limit, above, end] :
         Table<std::string, std::string, std::string, std::string>{
             {full, "", " b=''", "/>"},
             {"<a" + many(256, " xmlns:p#='u'"), "", " b=''", "/>"},
             {"<a" + many(255, " xmlns:p#='u'") + " b='", "", "' c='", "'/>"},
             {"<?xml version='1.0' encoding='ISO-8859-1'?>" + full, "", " b=''", "/>"},
             {"<a>" + many(9999, "<b/>"), "<!-- <b/> --><![CDATA[<b/>]]>", "<b/>", "</a>"},
             {"<a>" + many(256, full + "/>"), "", "<b c=''/>", "</a>"},
             {"<a" + many(256, " xmlns:p#='u'") + "><b" + many(256, " xmlns:q#='u'"), "><c",
              "><c xmlns='u'", "/></b></a>"},
             {many(256, "<a>"), "<a/>", "<a><a/></a>", many(256, "</a>")},
             // A name in a namespace may be told with each attribute of its element.
             {"<a xmlns='" + std::string(100000, 'u') + "'><b" + many(160, " a#=''"), "",
              many(8, " b#=''"), "/></a>"},
             {"<!DOCTYPE a SYSTEM 'x'", ">", "[]>", "<a/>"},
         }) {
        EXPECT_TRUE(isRead(start, limit, end)) << start.substr(0, 60);
        EXPECT_FALSE(isRead(start, above, end)) << start.substr(0, 60);
    }
}

TEST(XmlTextTest, SmallTextsLeaveNothingBehind) {
    const auto inUse = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
    // An encoding, a document type, a namespace and a name that no other text has.
    const auto isRead = [](int number) {
        return XmlText::Parse(
                   "<?xml version='1.0' encoding='ISO-8859-1'?><!DOCTYPE a><p:a xmlns:p='u'>\xfc<" +
                       std::string(3500, 'n') + std::to_string(number) + "/></p:a>",
                   XmlText::DocumentType::kNameOnly) != nullptr;
    };
    EXPECT_TRUE(isRead(0));
    const std::size_t before = inUse();
    for (int i = 1; i < 2000; ++i) {
        EXPECT_TRUE(isRead(i));
    }
    EXPECT_LT(inUse(), before + 100000);
    const XmlText::Document document = XmlText::Parse("<p:a/>");
    ASSERT_TRUE(document);
    EXPECT_EQ(xmlDocGetRootElement(document.get())->ns, nullptr);
    for (const char* text : {"<!DOCTYPE a><a/>", "<a>\xfc</a>"}) {
        EXPECT_TRUE(isRead(1));
        EXPECT_FALSE(XmlText::Parse(text)) << text;
    }
}

TEST(LargeTextTest, AThreadThatFaultsGivesItsPlaceBack) {
    CrashGuard::Install();
    for (std::size_t i = 0; i <= LargeText::kMediumPlaces; ++i) {
        for (const std::size_t size : {LargeText::kSize + 1, LargeText::kSize}) {
            EXPECT_FALSE(CrashGuard::Run([size] {
                const LargeText place(size);
                EXPECT_TRUE(place.MayBeRead());
                raise(SIGSEGV);
            }));
        }
    }
}

TEST(XmlTextTest, EscapeLeavesOnlyWhatAParserTakes) {
    for (const auto& [text, escaped] : Table<std::string, std::string>{
             {"<a b=\"c\">&", "&lt;a b=&quot;c&quot;&gt;&amp;"},
             {"tab\tline\nreturn\r", "tab\tline\nreturn&#13;"},
             {std::string("nul\0bell\a", 9), "nul?bell?"},
             {"gr\xfc\xdf \xc3\xbc", "gr?? \xc3\xbc"},
             {"\xc0\x80 \xed\xa0\x80 \xef\xbf\xbf \xf0\x9f\x98", "?? ??? ? ???"},
             {"\xf0\x9f\x98\x80\x7f", "\xf0\x9f\x98\x80\x7f"},
         }) {
        EXPECT_EQ(XmlText::Escape(text), escaped);
        EXPECT_TRUE(XmlText::Parse("<a>" + escaped + "</a>")) << escaped;
    }
}

}  // namespace
