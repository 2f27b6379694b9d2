#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <memory>
#include <string>

#include "CrashGuard.h"
#include "LargeText.h"
#include "ServiceSchemas.h"
#include "Support.h"
#include "XmlSchema.h"
#include "XmlText.h"
#include "ZelWsdlServlet.h"

namespace {

constexpr char kUri[] = "http://lusora.tembra.com/probe";

int Echo(const xmlNode* method, const HttpRequest& /*request*/, HttpResponse& response,
         ZelWsdlServlet& /*servlet*/) {
    response.status = 200;
    response.body =
        "\t\t<echo>" + XmlText::Escape(XmlText::ChildText(method, "text")) + "</echo>\n";
    return ZelServlet::kPostResponse;
}

class Probe : public ZelWsdlServlet {
public:
    explicit Probe(const std::string& name)
        : ZelWsdlServlet({name, "/probe", MatchMode::kExact, 0}, {Methods(), kUri, {}}) {}
    std::unique_ptr<ZelServlet> MakeInstance() const override {
        return std::make_unique<Probe>(GetName());
    }

protected:
    void RewriteDescription(std::string& /*text*/) const override {}

private:
    static const MethodTable& Methods() {
        static const MethodTable methods = {{"echo", Echo}};
        return methods;
    }
};

void WriteSchema(const std::string& file, const std::string& attributes) {
    std::ofstream(ServiceSchemas::kDirectory + file)
        << "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" " << attributes
        << "><xs:element name=\"echo\"><xs:complexType><xs:sequence>"
           "<xs:element name=\"text\" type=\"xs:string\"/>"
           "</xs:sequence></xs:complexType></xs:element></xs:schema>";
}

class ZelWsdlServletTest : public testing::Test {
protected:
    ZelWsdlServletTest() {
        WriteSchema("Probe.xsd", "");
        WriteSchema("Probe2.xsd", std::string("targetNamespace=\"") + kUri +
                                      "\" elementFormDefault=\"qualified\"");
    }

    HttpResponse Send(const std::string& body) {
        HttpRequest request;
        request.body = body;
        request.keepAlive = true;
        HttpResponse response;
        result_ = probe_.Service(request, response);
        return response;
    }

    static std::string Envelope(const std::string& body) {
        return "<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\"><e:Body>" + body +
               "</e:Body></e:Envelope>";
    }

    Probe probe_{"Probe"};
    int result_ = -1;
};

TEST_F(ZelWsdlServletTest, MethodsAreFoundAndWrapped) {
    const std::string answer =
        "<S:Envelope xmlns:S=\"http://schemas.xmlsoap.org/soap/envelope/\">\n\t<S:Body>\n"
        "\t\t<echo>a&amp;b</echo>\n"
        "\t</S:Body>\n</S:Envelope>\n";
    for (const std::string& body :
         {std::string("\n  <echo><text>a&amp;b</text></echo>\n"),
          std::string("<!-- one node before it --><echo><text>a&amp;b</text></echo>")}) {
        EXPECT_EQ(Send(Envelope(body)).body, answer) << body;
        EXPECT_EQ(result_, ZelServlet::kPostResponse);
    }
}

TEST_F(ZelWsdlServletTest, RefusalsAreFaults) {
    const std::string uri = std::string("{") + kUri + "}";
    const struct {
        std::string request;
        std::string message;
    } cases[] = {
        {Envelope("  \n"), "Method is empty for " + uri},
        {Envelope(" <!----><echo/>"), "Method is empty for " + uri},
        {Envelope("<Echo/>"), "Cannot find dispatch method for " + uri + "Echo"},
    };
    for (const auto& c : cases) {
        const HttpResponse response = Send(c.request);
        EXPECT_NE(response.body.find("<faultstring>" + c.message + "<"), std::string::npos);
        EXPECT_FALSE(response.keepAlive) << c.request;
        EXPECT_EQ(result_, 0);
    }
}

TEST_F(ZelWsdlServletTest, AMethodWithoutChildrenNeedsNoSchema) {
    EXPECT_NE(Send(Envelope("<echo/>")).body.find("<echo></echo>"), std::string::npos);
}

TEST_F(ZelWsdlServletTest, MissingSchemasRefuseEverythingWithChildren) {
    Probe other("Missing");
    HttpRequest request;
    request.body = Envelope("<echo><text/></echo>");
    HttpResponse response;
    EXPECT_EQ(other.Service(request, response), 0);
    EXPECT_NE(response.body.find("Validation 1 says:"), std::string::npos);
}

TEST_F(ZelWsdlServletTest, NothingIsReadForARequest) {
    std::ofstream("/tmp/further.xsd")
        << "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" targetNamespace=\"urn:x\">"
           "<xs:element name=\"unknown\" type=\"xs:int\"/></xs:schema>";
    // A schema named by the request would make its own rule for the unknown element.
    const std::string hint =
        "<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\" "
        "xmlns:i=\"http://www.w3.org/2001/XMLSchema-instance\" "
        "i:schemaLocation=\"urn:x file:///tmp/further.xsd\"><e:Header>"
        "<u:unknown xmlns:u=\"urn:x\">no number</u:unknown></e:Header>"
        "<e:Body><echo><text>t</text></echo></e:Body></e:Envelope>";
    EXPECT_NE(Send(hint).body.find("<echo>t</echo>"), std::string::npos);
}

/// What `make` returns for 0 to `count` - 1, one after the other.
template <typename Make>
std::string Repeat(int count, Make make) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += make(std::to_string(i));
    }
    return text;
}

TEST(XmlSchemaTest, CollectedTextIsBoundedAndTellsTheNewest) {
    WriteSchema("Bounded.xsd", "");
    XmlSchema schema(std::string(ServiceSchemas::kDirectory) + "Bounded.xsd");
    const auto refuse = [&schema](const std::string& name) {
        const XmlText::Document document = XmlText::Parse("<echo><" + name + "/></echo>");
        std::string errors;
        EXPECT_FALSE(document == nullptr || schema.ValidateDocument(document.get(), errors));
        return errors;
    };
    const std::string longName(10000, 'n');
    for (int i = 0; i < 20; ++i) {
        const std::string errors = refuse(longName + std::to_string(i) + ".");
        EXPECT_LE(errors.size(), LatestMessages::kMaxText);
        EXPECT_TRUE(errors.starts_with("Element '" + longName)) << "a whole message";
        EXPECT_NE(errors.find("n" + std::to_string(i) + ".'"), std::string::npos);
        EXPECT_EQ(errors.find("n" + std::to_string(i - 7) + ".'"), std::string::npos);
    }
    // A message of 32768 bytes or more is not collected at all.
    EXPECT_EQ(refuse(std::string(40000, 'n')).find(std::string(20000, 'n')), std::string::npos);
}

TEST(XmlTextTest, WhatADocumentMayHoldIsLimited) {
    using S = const std::string&;
    const auto attributes = [](int count) {
        return Repeat(count, [](S i) { return " a" + i + "=''"; });
    };
    const auto namespaces = [](int count, S prefix) {
        return Repeat(count, [prefix](S i) { return " xmlns:" + prefix + i + "='u'"; });
    };
    const auto elements = [](int count, S element) {
        return Repeat(count, [element](S) { return element; });
    };
    const struct {
        std::string start, limit, above, end;
    } cases[] = {
        {"<a" + attributes(256), "", " b=''", "/>"},
        {"<a" + namespaces(256, "p"), "", " b=''", "/>"},
        {"<a" + namespaces(255, "p") + " b='", "", "' c='", "'/>"},
        {"<?xml version='1.0' encoding='ISO-8859-1'?><a" + attributes(256), "", " b=''", "/>"},
        {"<a>" + elements(9999, "<b/>"), "<!-- <b/> --><![CDATA[<b/>]]>", "<b/>", "</a>"},
        {"<a>" + elements(256, "<b" + attributes(256) + "/>"), "", "<b c=''/>", "</a>"},
        {"<a" + namespaces(256, "p") + "><b" + namespaces(256, "q"), "><c", "><c xmlns='u'",
         "/></b></a>"},
        {elements(256, "<a>"), "<a/>", "<a><a/></a>", elements(256, "</a>")},
        // A name in a namespace may be told with each attribute of its element.
        {"<a xmlns='" + std::string(100000, 'u') + "'><b" + attributes(160), "",
         " b='' c=''  d='' "
         "e='' f='' g='' h='' i=''",
         "/></a>"},
        {"<!DOCTYPE a SYSTEM 'x'", ">", "[]>", "<a/>"},
    };
    for (const auto& c : cases) {
        const auto type = XmlText::DocumentType::kNameOnly;
        EXPECT_TRUE(XmlText::Parse(c.start + c.limit + c.end, type)) << c.start.substr(0, 60);
        EXPECT_FALSE(XmlText::Parse(c.start + c.above + c.end, type)) << c.start.substr(0, 60);
    }
}

TEST(XmlSchemaTest, ConcurrentValidationsNeverTearTheText) {
    WriteSchema("Shared.xsd", "");
    XmlSchema schema(std::string(ServiceSchemas::kDirectory) + "Shared.xsd");
    InFourThreads([&schema](int t) {
        const std::string name = "own" + std::to_string(t);
        const XmlText::Document document = XmlText::Parse("<echo><" + name + "/></echo>");
        for (int i = 0; i < 50; ++i) {
            std::string errors;
            EXPECT_FALSE(schema.ValidateDocument(document.get(), errors));
            EXPECT_NE(errors.find("Element '" + name + "'"), std::string::npos);
            EXPECT_TRUE(errors.ends_with("\n"));
        }
    });
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
    const struct {
        std::string text;
        std::string escaped;
    } cases[] = {
        {"<a b=\"c\">&", "&lt;a b=&quot;c&quot;&gt;&amp;"},
        {"tab\tline\nreturn\r", "tab\tline\nreturn&#13;"},
        {std::string("nul\0bell\a", 9), "nul?bell?"},
        {"gr\xc3\xbc\xc3\x9f", "gr\xc3\xbc\xc3\x9f"},
        {"gr\xfc\xdf \xc3\xbc", "gr?? \xc3\xbc"},
        {"\xc0\x80 \xed\xa0\x80 \xef\xbf\xbf \xf0\x9f\x98", "?? ??? ? ???"},
        {"\xf0\x9f\x98\x80\x7f", "\xf0\x9f\x98\x80\x7f"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(XmlText::Escape(c.text), c.escaped);
        EXPECT_TRUE(XmlText::Parse("<a>" + c.escaped + "</a>")) << c.escaped;
    }
}

}  // namespace
