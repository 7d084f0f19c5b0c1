// KelBrowser: what there is in a Kel group, seen from outside.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <kel/KelData.h>
#include <kel/KelLedger.h>

/// One process run of a publisher, as its presence record tells.
struct KelPublisherInfo {
  enum class Liveness {
    unconfirmed,  ///< its presence was found, but it has given no sign of life yet
    alive,        ///< heard of within the time that the look took
  };
  std::string name;
  std::string incarnation;
  Liveness liveness = Liveness::unconfirmed;
  std::string host;
  std::int64_t process = 0;
  std::int64_t startedNanoseconds = 0;           ///< since 1970
  std::map<std::string, std::int64_t> counters;  ///< names as in KelCounters
};

/// One publication that has a record or an owner.
struct KelPublicationInfo {
  enum class Liveness {
    closed,       ///< claimed, but nothing is published
    ownerGone,    ///< a record is there, but its publisher is not
    unconfirmed,  ///< its publisher has given no sign of life yet
    alive,        ///< its publisher is alive
    foreign,      ///< published by something that does not say who it is
  };
  std::string name;
  Liveness liveness = Liveness::closed;
  std::string owner;        ///< publisher's name, empty when nobody says
  std::string incarnation;  ///< of the owner
  bool hasRecord = false;
  bool readable = true;     ///< false: what is published there is not a record
  std::string decodeError;  ///< why it is not
  std::size_t payloadBytes = 0;
  KelData record;  ///< the last one
};

/// Makes a link of its own, looks, and ends it. It has no presence and is seen by nobody.
class KelBrowser {
 public:
  /// `url` as in KelOptions. Throws KelException when it is not an address.
  explicit KelBrowser(const std::string& url = {});
  ~KelBrowser();
  KelBrowser(const KelBrowser&) = delete;
  KelBrowser& operator=(const KelBrowser&) = delete;

  /// Takes a fresh look at the group: blocks until everything that the broker keeps has been seen and
  /// everyone alive has answered, at most `limit`. False when the broker could not be reached; error() says
  /// why.
  bool look(std::chrono::milliseconds limit);
  /// As look, and asks everyone alive for its ledger. Who does not answer within 2 s of the last answer has
  /// none.
  bool lookWithLedgers(std::chrono::milliseconds limit);
  [[nodiscard]] const std::string& error() const;

  /// What the last look saw, by name.
  [[nodiscard]] const std::vector<KelPublisherInfo>& publishers() const;
  [[nodiscard]] const std::vector<KelPublicationInfo>& publications() const;
  /// Those that have come whole; only after lookWithLedgers.
  [[nodiscard]] const std::vector<KelLedger>& ledgers() const;

 private:
  class Look;
  std::unique_ptr<Look> look_;
};
