// The parts of the MQTT transport that need no broker: pauses, report lines, password files, reason texts.
#include <gmock/gmock.h>
#include <mosquitto.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "transport/mqtt/Backoff.h"
#include "transport/mqtt/Diagnosis.h"
#include "transport/mqtt/OutageReport.h"
#include "transport/mqtt/PasswordFile.h"
#include "transport/mqtt/Reasons.h"

namespace {

using namespace std::chrono_literals;
using kel::mqtt::Backoff;
using kel::mqtt::Mishap;
using kel::mqtt::OutageReport;
using kel::mqtt::readPasswordFile;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Optional;

TEST(Backoff, growsToItsCapAndStartsAnewAfterAReset) {
  Backoff backoff;
  std::vector<long> pauses;
  pauses.reserve(8);
  for (int i = 0; i < 8; ++i) pauses.push_back(backoff.next(1.0).count());
  EXPECT_THAT(pauses, ::testing::ElementsAre(100, 200, 400, 800, 1600, 2000, 2000, 2000));
  backoff.reset();
  EXPECT_EQ(backoff.next(1.0), 100ms);
}

TEST(Backoff, spreadsAPauseOverItsUpperHalf) {
  for (const double unit : {0.0, 0.25, 0.5, 0.999}) {
    Backoff backoff;
    backoff.next(unit);
    const auto pause = backoff.next(unit);
    EXPECT_GE(pause, 100ms);
    EXPECT_LE(pause, 200ms);
  }
  EXPECT_EQ(Backoff().next(0.0), 50ms);
}

class OutageReportTest : public ::testing::Test {
 protected:
  OutageReport report_{"mqtt://broker:1883"};
  OutageReport::TimePoint now_{1h};
};

TEST_F(OutageReportTest, saysNothingAboutAFirstSuccess) {
  EXPECT_EQ(report_.up(now_), std::nullopt);
}

TEST_F(OutageReportTest, tellsAFailureOnceAndItsEndOnce) {
  EXPECT_THAT(report_.failed("Connection refused", now_),
              Optional(HasSubstr("mqtt://broker:1883 cannot be reached: Connection refused")));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(report_.failed("Connection refused", now_ += 2s), std::nullopt);
  EXPECT_THAT(report_.up(now_ += 2s), Optional(HasSubstr("is back after 42 s (21 failed attempts)")));
  EXPECT_EQ(report_.up(now_), std::nullopt);
}

TEST_F(OutageReportTest, remindsOnceAMinuteWithTheCount) {
  int lines = 0;
  std::string last;
  for (int i = 0; i < 601; ++i, now_ += 1s) {
    if (const auto line = report_.failed("Connection refused", now_)) {
      ++lines;
      last = *line;
    }
  }
  EXPECT_EQ(lines, 11);
  EXPECT_THAT(last, HasSubstr("after 601 attempts in 600 s: Connection refused"));
}

TEST_F(OutageReportTest, tellsANewReasonSoonButNotEveryTime) {
  ASSERT_TRUE(report_.failed("Connection refused", now_));
  EXPECT_EQ(report_.failed("Not authorized", now_ += 1s), std::nullopt);
  EXPECT_THAT(report_.failed("Not authorized", now_ += 5s), Optional(HasSubstr("Not authorized")));
}

TEST_F(OutageReportTest, tellsALossWithItsReason) {
  EXPECT_THAT(report_.lost("the broker closed the connection", now_),
              Optional(HasSubstr("is lost: the broker closed the connection")));
  EXPECT_EQ(report_.failed("the broker closed the connection", now_ += 1s), std::nullopt);
  EXPECT_THAT(report_.up(now_ += 1s), Optional(HasSubstr("is back after 2 s (1 failed attempt)")));
}

TEST_F(OutageReportTest, doesNotFloodWhenALinkFlaps) {
  int lines = 0;
  std::string last;
  for (int i = 0; i < 300; ++i) {
    for (const auto& line : {report_.lost("gone", now_ += 100ms), report_.up(now_ += 100ms)}) {
      if (line) {
        ++lines;
        last = *line;
      }
    }
  }
  EXPECT_LE(lines, OutageReport::kBudget);
  EXPECT_THAT(report_.lost("gone", now_ += 2min), Optional(HasSubstr("lines left out")));
}

class PasswordFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kel-pass-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }
  std::string file(const std::string& text, mode_t mode = 0600) {
    const auto path = folder_ / "pass";
    std::ofstream(path, std::ios::binary) << text;
    ::chmod(path.c_str(), mode);
    return path;
  }
  std::filesystem::path folder_;
  std::string error_;
};

TEST_F(PasswordFileTest, takesTheFirstLineWithoutItsEnd) {
  EXPECT_THAT(readPasswordFile(file("secret"), error_), Optional(std::string("secret")));
  EXPECT_THAT(readPasswordFile(file("secret\n"), error_), Optional(std::string("secret")));
  EXPECT_THAT(readPasswordFile(file(" two words \r\nmore\n", 0400), error_),
              Optional(std::string(" two words ")));
}

TEST_F(PasswordFileTest, refusesAFileOpenToOthers) {
  for (const mode_t mode : {0640U, 0604U, 0620U, 0602U, 0610U}) {
    error_.clear();
    EXPECT_FALSE(readPasswordFile(file("secret", mode), error_));
    EXPECT_THAT(error_, HasSubstr("open to others"));
    EXPECT_THAT(error_, Not(HasSubstr("secret")));
  }
}

TEST_F(PasswordFileTest, refusesWhatHoldsNoPassword) {
  EXPECT_FALSE(readPasswordFile(file(""), error_));
  EXPECT_THAT(error_, HasSubstr("holds no password"));
  EXPECT_FALSE(readPasswordFile(file("\nsecond line\n"), error_));
  EXPECT_FALSE(readPasswordFile(file(std::string(70000, 'x')), error_));
  EXPECT_FALSE(readPasswordFile(file(std::string("a\0b", 3)), error_));
  EXPECT_THAT(error_, HasSubstr("MQTT"));
  EXPECT_FALSE(readPasswordFile(folder_.string(), error_));
  EXPECT_THAT(error_, HasSubstr("regular file"));
  EXPECT_FALSE(readPasswordFile((folder_ / "none").string(), error_));
  EXPECT_THAT(error_, HasSubstr("No such file"));
  const std::string fifo = (folder_ / "fifo").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(readPasswordFile(fifo, error_));
}

TEST(Reasons, areWordsWithTheirNumber) {
  EXPECT_EQ(kel::mqtt::reasonText(0x87), "Not authorized (code 135)");
  EXPECT_EQ(kel::mqtt::reasonText(5), "not authorised. (code 5)");
  EXPECT_EQ(kel::mqtt::libraryText(MOSQ_ERR_ERRNO, ECONNREFUSED, {}), "Connection refused");
  EXPECT_EQ(kel::mqtt::libraryText(MOSQ_ERR_TLS, 0, "certificate verify failed"),
            "TLS: certificate verify failed");
}

kel::mqtt::MqttOptions tlsOptions() {
  kel::mqtt::MqttOptions options;
  options.host = "broker";
  options.port = 8883;
  options.tls = true;
  options.caFile = "/ca.pem";
  options.certFile = "/our.pem";
  options.keyFile = "/our.key";
  return options;
}

TEST(Diagnosis, givesOneSentenceForOneCauseHoweverItWasSeen) {
  const auto options = tlsOptions();
  const std::string refused =
      "TLS: the broker does not accept our certificate /our.pem; is it signed by an authority that the "
      "broker "
      "knows, and still valid?";
  Mishap alert{MOSQ_ERR_ERRNO, EPROTO,
               "OpenSSL Error[0]: error:0A000418:SSL routines::tlsv1 alert unknown ca"};
  EXPECT_EQ(diagnosis(alert, options), refused);
  Mishap reset{MOSQ_ERR_ERRNO, ECONNRESET, {}};
  reset.sawPeer = true;
  EXPECT_EQ(diagnosis(reset, options), refused);
  reset.savedErrno = EPROTO;
  EXPECT_EQ(diagnosis(reset, options), refused);
  Mishap closed{MOSQ_ERR_CONN_LOST, 0, {}};
  closed.handshakeDone = true;
  EXPECT_EQ(diagnosis(closed, options), refused);

  const std::string deaf =
      "TLS: the broker does not speak it on port 8883; use its port for TLS, or mqtt:// if it has none";
  EXPECT_EQ(diagnosis(Mishap{MOSQ_ERR_ERRNO, ECONNRESET, {}}, options), deaf);
  EXPECT_EQ(diagnosis(Mishap{MOSQ_ERR_TLS, 0, "SSL routines::wrong version number"}, options), deaf);
  EXPECT_EQ(diagnosis(Mishap{MOSQ_ERR_ERRNO, EPROTO, "SSL routines::unexpected eof while reading"}, options),
            deaf);

  auto plain = options;
  plain.tls = false;
  EXPECT_THAT(diagnosis(Mishap{MOSQ_ERR_CONN_LOST, 0, {}}, plain), HasSubstr("if it wants TLS on port 8883"));
  EXPECT_EQ(diagnosis(Mishap{MOSQ_ERR_CONN_LOST, 0, {}}, plain),
            diagnosis(Mishap{MOSQ_ERR_ERRNO, ECONNRESET, {}}, plain));
  EXPECT_EQ(diagnosis(Mishap{MOSQ_ERR_ERRNO, ECONNREFUSED, {}}, plain), "Connection refused");
}

TEST(Diagnosis, tellsWhyTheBrokersCertificateIsNotGoodEnough) {
  auto options = tlsOptions();
  Mishap mishap{MOSQ_ERR_TLS, 0,
                "Error: host name verification failed.; SSL routines::certificate verify failed"};
  mishap.verifyResult = X509_V_ERR_UNSPECIFIED;
  EXPECT_THAT(diagnosis(mishap, options), HasSubstr("is not made out to broker"));
  mishap.said = "SSL routines::certificate verify failed";
  mishap.verifyResult = X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN;
  EXPECT_THAT(diagnosis(mishap, options),
              AllOf(HasSubstr("cannot be trusted by /ca.pem"), HasSubstr("ca=FILE")));
  options.caFile.clear();
  EXPECT_THAT(diagnosis(mishap, options), HasSubstr("this system's certificate authorities"));
  mishap.verifyResult = X509_V_ERR_CERT_HAS_EXPIRED;
  EXPECT_THAT(diagnosis(mishap, options), HasSubstr("out of date"));
}

TEST(Diagnosis, asksForACertificateWhereThereIsNone) {
  auto options = tlsOptions();
  options.certFile.clear();
  Mishap mishap{MOSQ_ERR_ERRNO, EPROTO, "SSL routines::tlsv13 alert certificate required"};
  EXPECT_THAT(diagnosis(mishap, options), HasSubstr("cert=FILE and key=FILE"));
}

TEST(Diagnosis, leavesALinkThatWasUpAlone) {
  Mishap mishap{MOSQ_ERR_CONN_LOST, 0, {}};
  mishap.greeted = true;
  mishap.sawPeer = true;
  EXPECT_EQ(diagnosis(mishap, tlsOptions()), "the broker closed the connection");
}

}  // namespace
