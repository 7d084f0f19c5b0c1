// The link to the store over TLS: whom it trusts, whom it is trusted by, and what it says when it is not.
#include <gmock/gmock.h>

#include <fstream>
#include <optional>

#include "Certificates.h"
#include "RedisProbe.h"
#include "pvss/TextVar.h"

namespace {

using pvss::StoreAdmin;
using pvss::StoreError;
using storetest::Certificates;
using storetest::countOf;
using storetest::name;
using storetest::prepare;
using storetest::RedisServer;
using storetest::StoreProbe;
using storetest::valueInStore;
using storetest::writeAll;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// The certificates are made once for all tests.
const Certificates& certificates() {
  static struct Folder {
    Folder() {
      std::string pattern = std::filesystem::temp_directory_path().string() + "/kelgw-tls-XXXXXX";
      if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
      path = pattern;
      made.emplace(path);
      made->authority("other");
      made->issue("server", "DNS:localhost,IP:127.0.0.1");
      made->issue("elsewhere", "DNS:store.plant,IP:10.1.2.3");
      made->issue("client", "DNS:gateway");
      made->issue("stranger", "DNS:gateway", "other");
      made->issueExpired("old", "DNS:localhost,IP:127.0.0.1");
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path;
    std::optional<Certificates> made;
  } folder;
  return *folder.made;
}

class RedisTls : public testing::Test {
 protected:
  void start(const std::string& certificate = "server", const std::vector<std::string>& more = {}) {
    const Certificates& files = certificates();
    std::vector<std::string> words{"--tls-port",
                                   tlsPort,
                                   "--bind",
                                   "127.0.0.1",
                                   "--tls-cert-file",
                                   files.cert(certificate),
                                   "--tls-key-file",
                                   files.key(certificate),
                                   "--tls-ca-cert-file",
                                   files.cert("ca")};
    words.insert(words.end(), more.begin(), more.end());
    server.start(words);
    prepare(server);
  }

  [[nodiscard]] std::string at(const std::string& host, const std::string& options) const {
    return "rediss://" + host + ":" + tlsPort + (options.empty() ? "" : "?" + options);
  }
  [[nodiscard]] static std::string authority() { return "ca=" + certificates().cert("ca"); }
  [[nodiscard]] static std::string shown(const std::string& who) {
    return "&cert=" + certificates().cert(who) + "&key=" + certificates().key(who);
  }
  std::string file(const std::string& fileName, const std::string& text, mode_t mode = 0600) const {
    std::string path = server.folder() + "/" + fileName;
    std::ofstream(path) << text;
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }

  /// What the store says about an address that must not work, to a manager and to a tool alike: one line that
  /// names the address, and no write comes through.
  std::string refusal(const std::string& address,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) const {
    const std::string keys = server.cli({"DBSIZE"});
    testing::internal::CaptureStderr();
    bool up = false;
    {
      pvss::redis::RedisStoreOptions options;
      options.limits.connect = limit;
      StoreProbe probe(address, "7.a", options);
      probe.during(std::chrono::milliseconds(700));
      up = !probe.greetings.empty();
      EXPECT_FALSE(probe.store().write(probe.batch(1, 1, name, 1)));
    }
    std::string said = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(up) << address;
    EXPECT_EQ(countOf(said, "\n"), 1U) << said;
    const std::string plain = address.substr(0, address.find('?'));
    EXPECT_THAT(said, HasSubstr("store " + plain + ": "));
    EXPECT_THAT(said, HasSubstr(" - trying again until it works"));
    std::string tool;
    try {
      StoreAdmin admin(address, limit);
      admin.write({{name, std::make_shared<FloatVar>(5), {}, {}, {}}});
      ADD_FAILURE() << "a tool came through at " << address;
    } catch (const StoreError& error) {
      tool = error.what();
      EXPECT_EQ(error.exitCode(), 3);
    }
    const std::string reason = said.substr(said.find(plain) + plain.size() + 2);
    EXPECT_EQ(tool, "store " + plain + ": " + reason.substr(0, reason.find(" - trying again")));
    EXPECT_EQ(server.cli({"DBSIZE"}), keys);
    EXPECT_EQ(valueInStore(server), "");
    return said;
  }

  RedisServer server{RedisServer::Keep::nothing, false};
  std::string tlsPort = RedisServer::freePort();
};

TEST_F(RedisTls, WorksByNameAndByNumberWithAClientCertificateAUserAndItsPassword) {
  start("server", {"--tls-auth-clients", "yes", "--user", "gw", "on", ">topsecret", "~dp:*", "+@all"});
  const std::string options =
      authority() + shown("client") + "&user=gw&passfile=" + file("pw", "topsecret\n");
  for (const char* host : {"localhost", "127.0.0.1"}) {
    StoreProbe probe(at(host, options), "7.a");
    ASSERT_TRUE(probe.untilUp()) << host;
    EXPECT_EQ(probe.greetings[0].address, "rediss://" + std::string(host) + ":" + tlsPort);
    const std::uint64_t last = probe.greetings[0].lastClientSequence;
    ASSERT_TRUE(writeAll(probe, last + 1, last + 2000));
    ASSERT_TRUE(probe.until([&] { return probe.changes.size() == 2000; }));
    EXPECT_EQ(valueInStore(server), std::to_string(last + 2000));
    EXPECT_TRUE(probe.downs.empty());
    StoreAdmin tool(at(host, options));
    EXPECT_EQ(tool.listElements().size(), 1U);
    EXPECT_EQ(tool.readElements({name}).readings.at(0).valueTimeMs,
              static_cast<std::int64_t>(1000 + last + 2000));
  }
}

TEST_F(RedisTls, LargeTextsPassBothWaysWhateverTheSizeOfARecord) {
  start("server", {"--tls-auth-clients", "no"});
  pvss::StoreElement element;
  element.name = "A.text";
  element.type = DPELEMENT_TEXT;
  StoreAdmin tool(at("localhost", authority()));
  tool.putElements({element});
  StoreProbe probe(at("localhost", authority()), "7.a");
  ASSERT_TRUE(probe.untilUp());
  // Around the 16 KiB of a record, and far above what a socket takes in one go.
  for (const std::size_t size : {1U, 16383U, 16384U, 16385U, 40000U, 6000000U}) {
    const std::string text(size, static_cast<char>('a' + size % 26));
    tool.write({{"A.text", std::make_shared<TextVar>(text.c_str()), {}, {}, {}}});
    const auto reading = tool.readElements({"A.text"}).readings.at(0);
    ASSERT_TRUE(reading.value);
    EXPECT_EQ(pvss::valueText(*reading.value), text) << size;
    const std::size_t changes = probe.changes.size();
    ASSERT_TRUE(probe.until([&] { return probe.changes.size() > changes; })) << size;
    EXPECT_EQ(StoreProbe::textOf(probe.changes.back().elements.at(0)), text) << size;
    // And as a manager writes: many batches waiting for room in the socket.
    pvss::WriteBatch batch;
    batch.clientSequence = size;
    batch.timeMs = 1;
    batch.elements.push_back({probe.intern("A.text"), pvss::attributeValue, false, false, false,
                              std::make_shared<TextVar>((text + "!").c_str())});
    ASSERT_TRUE(probe.store().write(batch));
    const std::size_t confirmed = probe.confirmations.size();
    ASSERT_TRUE(probe.until([&] { return probe.confirmations.size() > confirmed; })) << size;
    EXPECT_EQ(server.cli({"HSTRLEN", "dp:d:A.text", "v"}), std::to_string(size + 1));
  }
  EXPECT_TRUE(probe.downs.empty());
}

TEST_F(RedisTls, ServerThatHangsIsLeftAfterTheLimitAndTakenUpAgain) {
  start("server", {"--tls-auth-clients", "no"});
  pvss::redis::RedisStoreOptions options;
  options.logWait = std::chrono::milliseconds(100);
  options.limits.reply = std::chrono::milliseconds(600);
  options.limits.connect = std::chrono::milliseconds(600);
  StoreProbe probe(at("localhost", authority()), "7.a", options);
  ASSERT_TRUE(probe.untilUp());
  server.hold();
  ASSERT_TRUE(probe.store().write(probe.batch(1, 1, name, 1)));
  ASSERT_TRUE(probe.until([&] { return !probe.downs.empty(); }));
  EXPECT_THAT(probe.downs.at(0), HasSubstr("no answer within 600 ms"));
  probe.during(std::chrono::milliseconds(1000));
  server.letGo();
  ASSERT_TRUE(probe.untilUp(2));
  EXPECT_TRUE(writeAll(probe, probe.greetings[1].lastClientSequence + 1, 12));
}

TEST_F(RedisTls, RenewedFilesAreTakenUpWithoutARestart) {
  start("server", {"--tls-auth-clients", "no"});
  const std::string ca = server.folder() + "/ca.pem";
  std::filesystem::copy_file(certificates().cert("other"), ca);
  testing::internal::CaptureStderr();
  StoreProbe probe(at("localhost", "ca=" + ca), "7.a");
  probe.during(std::chrono::milliseconds(300));
  const bool early = !probe.greetings.empty();
  std::filesystem::copy_file(certificates().cert("ca"), ca,
                             std::filesystem::copy_options::overwrite_existing);
  const bool up = probe.untilUp();
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(early);
  EXPECT_TRUE(up);
  EXPECT_EQ(countOf(said, "\n"), 2U) << said;
  EXPECT_EQ(countOf(said, "is back"), 1U) << said;
}

TEST_F(RedisTls, AuthorityThatIsNotKnownIsRefused) {
  start("server", {"--tls-auth-clients", "no"});
  EXPECT_THAT(refusal(at("localhost", "")),
              AllOf(HasSubstr("authority that this system does not know"), HasSubstr("ca=FILE")));
  EXPECT_THAT(refusal(at("localhost", "ca=" + certificates().cert("other"))),
              HasSubstr("not signed by an authority in " + certificates().cert("other")));
}

TEST_F(RedisTls, CertificateForAnotherNameIsRefused) {
  start("elsewhere", {"--tls-auth-clients", "no"});
  EXPECT_THAT(refusal(at("localhost", authority())), HasSubstr("is not made for localhost: use the name"));
  EXPECT_THAT(refusal(at("127.0.0.1", authority())), HasSubstr("is not made for 127.0.0.1: use the name"));
}

TEST_F(RedisTls, ExpiredCertificateIsRefused) {
  start("old", {"--tls-auth-clients", "no"});
  EXPECT_THAT(refusal(at("localhost", authority())), AllOf(HasSubstr("has expired"), HasSubstr("renew it")));
}

TEST_F(RedisTls, MissingClientCertificateIsSaid) {
  for (const char* version : {"TLSv1.2", "TLSv1.3"}) {
    start("server", {"--tls-auth-clients", "yes", "--tls-protocols", version});
    EXPECT_THAT(refusal(at("localhost", authority())),
                HasSubstr("the server wants a certificate of this side: name one with cert=FILE&key=FILE"))
        << version;
    server.kill();
  }
}

TEST_F(RedisTls, ClientCertificateOfAnotherAuthorityIsSaid) {
  for (const char* version : {"TLSv1.2", "TLSv1.3"}) {
    start("server", {"--tls-auth-clients", "yes", "--tls-protocols", version});
    EXPECT_THAT(refusal(at("localhost", authority() + shown("stranger"))),
                AllOf(HasSubstr("does not accept the certificate in " + certificates().cert("stranger")),
                      HasSubstr("unknown CA")))
        << version;
    server.kill();
  }
}

TEST_F(RedisTls, OldVersionOfTheProtocolIsRefused) {
  start("server",
        {"--tls-auth-clients", "no", "--tls-protocols", "TLSv1.1", "--tls-ciphers", "ALL:@SECLEVEL=0"});
  EXPECT_THAT(refusal(at("localhost", authority())), HasSubstr("1.2 or newer is needed"));
}

TEST_F(RedisTls, PlainTextToATlsPortIsRefusedWithTheWayOut) {
  start("server", {"--tls-auth-clients", "no"});
  EXPECT_THAT(refusal("redis://localhost:" + tlsPort),
              HasSubstr("the server speaks TLS on this port; then use rediss://"));
}

TEST_F(RedisTls, TlsToAPlainPortIsRefusedWithTheWayOut) {
  const std::string port = RedisServer::freePort();
  start("server", {"--port", port});
  EXPECT_THAT(refusal("rediss://localhost:" + port + "?" + authority(), std::chrono::milliseconds(300)),
              AllOf(HasSubstr("TLS on this port"), HasSubstr("use redis:// for plain text")));
}

TEST_F(RedisTls, WrongPasswordAndMissingRightAreSaid) {
  start("server", {"--tls-auth-clients", "no", "--user", "gw", "on", ">topsecret", "~dp:*", "+@all", "--user",
                   "weak", "on", ">topsecret", "~dp:*", "+ping"});
  EXPECT_THAT(refusal(at("localhost", authority() + "&user=gw&passfile=" + file("bad", "guess\n"))),
              AllOf(HasSubstr("user, password or permission: WRONGPASS"), Not(HasSubstr("guess"))));
  const std::string pw = file("pw", "topsecret\n");
  testing::internal::CaptureStderr();
  StoreProbe probe(at("localhost", authority() + "&user=weak&passfile=" + pw), "7.a");
  probe.during(std::chrono::milliseconds(1000));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(probe.greetings.empty());
  EXPECT_EQ(countOf(said, "NOPERM"), 1U) << said;
  EXPECT_THAT(said, AllOf(HasSubstr("'fcall'"), Not(HasSubstr("topsecret"))));
}

TEST_F(RedisTls, FilesThatCannotBeUsedAreSaid) {
  start("server", {"--tls-auth-clients", "no"});
  const auto local = [this](const std::string& options) { return refusal(at("localhost", options)); };
  EXPECT_THAT(local("ca=/none"), HasSubstr("ca file /none: No such file"));
  EXPECT_THAT(local("ca=" + server.folder()), HasSubstr("not a regular file"));
  const std::string rubbish = file("rubbish", "nothing\n");
  EXPECT_THAT(local("ca=" + rubbish), HasSubstr("holds no certificate in PEM"));
  EXPECT_THAT(local(authority() + "&cert=" + rubbish + "&key=" + rubbish),
              HasSubstr("holds no certificate in PEM"));
  const std::string cert = "&cert=" + certificates().cert("client") + "&key=";
  EXPECT_THAT(local(authority() + cert + rubbish), HasSubstr("holds no private key in PEM"));
  EXPECT_THAT(local(authority() + cert + certificates().key("stranger")),
              HasSubstr("does not belong to the certificate"));
  const std::string open = server.folder() + "/open.key";
  std::filesystem::copy_file(certificates().key("client"), open);
  ASSERT_EQ(::chmod(open.c_str(), 0640), 0);
  EXPECT_THAT(local(authority() + cert + open),
              HasSubstr("open to others than its owner (mode 0640): chmod 600"));
  const std::string locked = server.folder() + "/locked.key";
  ASSERT_EQ(std::system(("umask 077; openssl pkey -in " + certificates().key("client") +
                         " -aes128 -passout pass:x -out " + locked)
                            .c_str()),
            0);
  EXPECT_THAT(local(authority() + cert + locked), HasSubstr("without a passphrase"));
  EXPECT_THAT(
      local(authority() + "&user=gw&passfile=" + file("seen", "topsecret\n", 0644)),
      AllOf(HasSubstr("seen is open to others than its owner (mode 0644)"), Not(HasSubstr("topsecret"))));
}

}  // namespace
