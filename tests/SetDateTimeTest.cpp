#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <optional>
#include <string>

#include "SetDateTime.h"
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
        std::ofstream("/tmp/ca.conf") << "[ca]\ndefault_ca = box\n"
                                         "[box]\nnew_certs_dir = /tmp\ndatabase = /tmp/index\n"
                                         "rand_serial = yes\ndefault_md = sha256\n"
                                         "unique_subject = no\npolicy = any\n"
                                         "[any]\ncommonName = supplied\n";
        std::ofstream("/tmp/index") << "";
    }

    /// `end` is YYYYMMDDHHMMSSZ.
    static void MakeCertificate(const std::string& path, const std::string& end) {
        const std::string command =
            "openssl ca -batch -config /tmp/ca.conf -selfsign -keyfile /tmp/key -in /tmp/request"
            " -startdate 20200101000000Z -enddate " +
            end + " -notext -out " + path + " 2> /tmp/openssl.log";
        ASSERT_EQ(std::system(command.c_str()), 0) << end;
    }

    static void UseZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    void SetUp() override {
        UseZone("UTC0");
        config_.Set("wlan.conf.infra.security.level", "106", ZelConfig::Kind::kPersistent);
        ASSERT_TRUE(WlanEnterprise::WriteSupplicantFile("Hall 2", "TAVO0012345"));
    }

    int Set(int answer = 0) {
        set_.reset();
        return SetDateTime(config_,
                           [this, answer](const timeval& time) {
                               set_ = time.tv_sec;
                               EXPECT_EQ(time.tv_usec, 0);
                               errno = EPERM;
                               return answer;
                           })
            .Set();
    }

    ZelConfig config_;
    std::optional<std::int64_t> set_;  // what the clock was set to
};

TEST_F(SetDateTimeTest, OneDayBeforeTheEarlierEnd) {
    const struct {
        const char* ca;  // null: no such certificate
        const char* client;
        std::int64_t end;  // 0: the clock is not set
    } cases[] = {
        {"20300601120000Z", "20290101000000Z", kNewYear2029},
        {"20290101000000Z", "20300601120000Z", kNewYear2029},
        {"20300601120000Z", nullptr, kJune2030},
        {nullptr, "20290101000000Z", kNewYear2029},
        {nullptr, nullptr, 0},
        {"20400101000000Z", "20401231235959Z", kLast},
        {"20400101000000Z", "20290101000000Z", kNewYear2029},
    };
    for (const auto& c : cases) {
        std::remove("/config/cacert");
        std::remove("/config/clientcert");
        if (c.ca != nullptr) {
            MakeCertificate("/config/cacert", c.ca);
        }
        if (c.client != nullptr) {
            MakeCertificate("/config/clientcert", c.client);
        }
        EXPECT_EQ(Set(), c.end == 0 ? -1 : 0) << c.end;
        EXPECT_EQ(set_.value_or(0), c.end == 0 ? 0 : c.end - kDay) << c.end;
    }
}

TEST_F(SetDateTimeTest, TheLastSecondsOf32Bits) {
    const struct {
        const char* end;
        std::int64_t seconds;
    } cases[] = {
        {"20380119031407Z", kLast},
        // Left as it is, where the system can count that far.
        {"20380119031408Z", sizeof(std::time_t) > 4 ? kLast + 1 : -1},
        {"20380119031409Z", kLast},
        {"20380118235959Z", kLast - 11648},
        {"20390101000000Z", kLast},
        {"20500101000000Z", kLast},  // written in another form from this year on
        {"99991231235959Z", kLast},
    };
    for (const auto& c : cases) {
        MakeCertificate("/config/cacert", c.end);
        EXPECT_EQ(SetDateTime::ReadEndDate("ca_cert"), c.seconds) << c.end;
    }
}

TEST_F(SetDateTimeTest, DatesAreTakenAsLocalTime) {
    MakeCertificate("/config/cacert", "20300601120000Z");
    UseZone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(SetDateTime::ReadEndDate("ca_cert"), kJune2030 - 7200) << "summer";
    MakeCertificate("/config/cacert", "20290101000000Z");
    EXPECT_EQ(SetDateTime::ReadEndDate("ca_cert"), kNewYear2029 - 3600) << "winter";
}

TEST_F(SetDateTimeTest, OnlyForAnEnterpriseWlan) {
    MakeCertificate("/config/cacert", "20290101000000Z");
    const struct {
        const char* level;
        bool sets;
    } cases[] = {{"106", true}, {"108", true}, {"2", false}, {"105", false}, {"107", false},
                 {"-1", false}, {"", false},   {"x", false}, {"1060", false}};
    for (const auto& c : cases) {
        config_.Set("wlan.conf.infra.security.level", c.level, ZelConfig::Kind::kPersistent);
        EXPECT_EQ(Set(), 0) << c.level;
        EXPECT_EQ(set_.has_value(), c.sets) << c.level;
        EXPECT_EQ(Set(-1), c.sets ? -1 : 0) << c.level << ": the clock cannot be set";
    }
}

TEST_F(SetDateTimeTest, SupplicantFilesOfAllSorts) {
    MakeCertificate("/tmp/cert", "20290101000000Z");
    const struct {
        const char* text;
        bool found;
    } cases[] = {
        {"network={\n  ca_cert=\"/tmp/cert\"\n}\n", true},
        {"ca_cert=/tmp/cert", true},
        {"\tca_cert=\"/tmp/cert\"\n", true},
        {"  ca_cert2=\"/tmp/none\"\n  ca_cert=\"/tmp/cert\"\n", true},
        {"  ca_cert=\"\"\n", false},
        {"  ca_cert=\"\n", false},
        {"# ca_cert=\"/tmp/cert\"\n", false},
        {"  client_cert=\"/tmp/cert\"\n", false},
        {"  ca_cert=\"/tmp/key\"\n", false},
        {"  ca_cert=\"/tmp/cert;touch /tmp/ran\"\n", false},
        {"  ca_cert=\"$(touch /tmp/ran)\"\n", false},
    };
    for (const auto& c : cases) {
        std::ofstream(WlanEnterprise::kSupplicantFile) << c.text;
        EXPECT_EQ(SetDateTime::ReadEndDate("ca_cert"), c.found ? kNewYear2029 : -1) << c.text;
    }
    EXPECT_FALSE(std::ifstream("/tmp/ran"));
    std::remove(WlanEnterprise::kSupplicantFile);
    EXPECT_EQ(SetDateTime::ReadEndDate("ca_cert"), -1);
}

}  // namespace
