#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "SetDateTime.h"
#include "Support.h"
#include "WlanEnterprise.h"

namespace {

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kLast = 2147483647;  // 2038-01-19 03:14:07 UTC
constexpr std::int64_t kJune2030 = 1906545600;
constexpr std::int64_t kNewYear2029 = 1861920000;

/// Makes certificates with the same tool that the box reads them with.
class SetDateTimeTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(std::system("cd /tmp && openssl req -newkey rsa:2048 -nodes -subj /CN=box"
                              " -keyout key -out request 2> /tmp/openssl.log"),
                  0);
        WriteFile("/tmp/ca.conf",
                  "[ca]\ndefault_ca = box\n[box]\nnew_certs_dir = /tmp\ndatabase = /tmp/index\n"
                  "rand_serial = yes\ndefault_md = sha256\nunique_subject = no\npolicy = any\n"
                  "[any]\ncommonName = supplied\n");
        WriteFile("/tmp/index", "");
    }

    void SetUp() override {
        config_.Set("wlan.conf.infra.security.level", "106", ZelConfig::Kind::kPersistent);
        ASSERT_TRUE(WlanEnterprise::WriteSupplicantFile("Hall 2", "TAVO0012345"));
    }
    ~SetDateTimeTest() override { UseZone("UTC0"); }

    /// `end` is YYYYMMDDHHMMSSZ; null: there is no such certificate.
    static void MakeCertificate(const std::string& path, const char* end) {
        std::remove(path.c_str());
        if (end != nullptr) {
            const std::string command =
                "openssl ca -batch -config /tmp/ca.conf -selfsign -keyfile /tmp/key"
                " -in /tmp/request -startdate 20200101000000Z -notext -enddate " +
                std::string(end) + " -out " + path + " 2> /tmp/openssl.log";
            ASSERT_EQ(std::system(command.c_str()), 0) << end;
        }
    }

    static void UseZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    /// What the clock is set to, if it answers that; 0: it is left alone.
    std::int64_t Set(int answer = 0, int expected = 0) {
        std::int64_t set = 0;
        const SetDateTime dateTime(config_, [&set, answer](const timeval& time) {
            set = time.tv_sec;
            EXPECT_EQ(time.tv_usec, 0);
            errno = EPERM;
            return answer;
        });
        EXPECT_EQ(dateTime.Set(), expected);
        return set;
    }

    ZelConfig config_;
};

TEST_F(SetDateTimeTest, OneDayBeforeTheEarlierEnd) {
    const struct {
        const char* ca;
        const char* client;
        std::int64_t end;
    } cases[] = {
        {"20300601120000Z", "20290101000000Z", kNewYear2029},
        {"20290101000000Z", "20300601120000Z", kNewYear2029},
        {"20300601120000Z", nullptr, kJune2030},
        {nullptr, "20290101000000Z", kNewYear2029},
        {"20400101000000Z", "20401231235959Z", kLast},
    };
    for (const auto& c : cases) {
        MakeCertificate("/config/cacert", c.ca);
        MakeCertificate("/config/clientcert", c.client);
        EXPECT_EQ(Set(), c.end - kDay);
    }
    for (const auto& [level, sets] :
         {std::pair{"108", true}, {"105", false}, {"107", false}, {"", false}, {"1060", false}}) {
        config_.Set("wlan.conf.infra.security.level", level, ZelConfig::Kind::kPersistent);
        EXPECT_EQ(Set(-1, sets ? -1 : 0) != 0, sets) << level << ": the clock cannot be set";
    }
    config_.Set("wlan.conf.infra.security.level", "106", ZelConfig::Kind::kPersistent);
    MakeCertificate("/config/cacert", nullptr);
    MakeCertificate("/config/clientcert", nullptr);
    EXPECT_EQ(Set(0, -1), 0) << "there is no certificate";
}

TEST_F(SetDateTimeTest, EndsAreLocalTimesThat32BitsCanCount) {
    const struct {
        const char* zone;
        const char* end;
        std::int64_t seconds;
    } cases[] = {
        {"UTC0", "20380119031407Z", kLast},
        // Left as it is, where the system can count that far.
        {"UTC0", "20380119031408Z", sizeof(std::time_t) > 4 ? kLast + 1 : -1},
        {"UTC0", "20380119031409Z", kLast},
        {"UTC0", "20380118235959Z", kLast - 11648},
        {"UTC0", "20390101000000Z", kLast},
        {"UTC0", "99991231235959Z", kLast},  // written in another form from 2050 on
        {"CET-1CEST,M3.5.0,M10.5.0/3", "20300601120000Z", kJune2030 - 7200},
        {"CET-1CEST,M3.5.0,M10.5.0/3", "20290101000000Z", kNewYear2029 - 3600},
    };
    for (const auto& c : cases) {
        UseZone(c.zone);
        MakeCertificate("/config/cacert", c.end);
        EXPECT_EQ(SetDateTime::ReadEndDate("ca_cert"), c.seconds) << c.zone << c.end;
    }
}

TEST_F(SetDateTimeTest, SupplicantFilesOfAllSorts) {
    MakeCertificate("/tmp/cert", "20290101000000Z");
    for (const auto& [text, found] : {std::pair{"ca_cert=/tmp/cert", true},
                                      {"\tca_cert=\"/tmp/cert\"\n", true},
                                      {"  ca_cert2=\"/tmp/none\"\n  ca_cert=\"/tmp/cert\"\n", true},
                                      {"  ca_cert=\"\"\n", false},
                                      {"  ca_cert=\"\n", false},
                                      {"# ca_cert=\"/tmp/cert\"\n", false},
                                      {"  ca_cert=\"/tmp/key\"\n", false},
                                      {"  ca_cert=\"/tmp/cert;touch /tmp/ran\"\n", false},
                                      {"  ca_cert=\"$(touch /tmp/ran)\"\n", false}}) {
        WriteFile(WlanEnterprise::kSupplicantFile, text);
        EXPECT_EQ(SetDateTime::ReadEndDate("ca_cert"), found ? kNewYear2029 : -1) << text;
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/ran"));
    std::remove(WlanEnterprise::kSupplicantFile);
    EXPECT_EQ(SetDateTime::ReadEndDate("ca_cert"), -1);
}

}  // namespace
