// Topic names of the native profile.
//
//   kel/<group>/data/<publication>                    retained: the publication's last record
//   kel/<group>/claim/<publication>                   retained: who publishes it
//   kel/<group>/publisher/<publisher>/<incarnation>   retained, expires: who is alive
//   kel/<group>/ledger/<publisher>/<incarnation>      not retained: its ledger, when it was asked for
//   kel/<group>/probe                                 not retained: everybody alive, say so
//
// Names are topic levels. Bytes outside A-Za-z0-9._-/ are written %XX with capital digits, % too; a group has
// no '/' at all. Pure: no I/O, nothing shared.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kel {

/// The name as it stands in a topic, or nothing and why no topic can carry it: it is empty, or too long or
/// too deep for a broker.
[[nodiscard]] std::optional<std::string> encodeTopicName(std::string_view name, std::string& error);
/// The name behind a part of a topic; nothing for a '%' without two hex digits or a character that is not
/// coded.
[[nodiscard]] std::optional<std::string> decodeTopicName(std::string_view coded);

/// A publisher as records and claims name it: name, '/', incarnation.
struct PublisherId {
  std::string name;
  std::string incarnation;
  [[nodiscard]] std::string text() const { return name + "/" + incarnation; }
  /// Splits at the last '/'; nothing when there is none or no incarnation behind it.
  static std::optional<PublisherId> parse(std::string_view text);
  friend bool operator==(const PublisherId&, const PublisherId&) = default;
};

enum class TopicKind { data, claim, publisher, ledger, probe };

struct ParsedTopic {
  TopicKind kind = TopicKind::probe;
  std::string name;         ///< of the publication or the publisher
  std::string incarnation;  ///< of a publisher, also in a ledger's topic
};

/// The topics of one group. Names given to it must have passed encodeTopicName.
class TopicSpace {
 public:
  explicit TopicSpace(std::string_view group);

  [[nodiscard]] std::string data(std::string_view codedName) const {
    return prefix_ + "data/" + std::string(codedName);
  }
  [[nodiscard]] std::string claim(std::string_view codedName) const {
    return prefix_ + "claim/" + std::string(codedName);
  }
  [[nodiscard]] std::string publisher(std::string_view codedName, std::string_view incarnation) const {
    return prefix_ + "publisher/" + std::string(codedName) + "/" + std::string(incarnation);
  }
  [[nodiscard]] std::string ledger(std::string_view codedName, std::string_view incarnation) const {
    return prefix_ + "ledger/" + std::string(codedName) + "/" + std::string(incarnation);
  }
  [[nodiscard]] std::string probe() const { return prefix_ + "probe"; }
  [[nodiscard]] std::string allData() const { return prefix_ + "data/#"; }
  [[nodiscard]] std::string allClaims() const { return prefix_ + "claim/#"; }
  [[nodiscard]] std::string allPublishers() const { return prefix_ + "publisher/#"; }
  [[nodiscard]] std::string allLedgers() const { return prefix_ + "ledger/#"; }

  /// What a topic of this group means; nothing for any other topic.
  [[nodiscard]] std::optional<ParsedTopic> parse(std::string_view topic) const;
  /// Quick look: is this a data topic of this group?
  [[nodiscard]] bool isData(std::string_view topic) const { return topic.starts_with(dataPrefix_); }

 private:
  std::string prefix_;
  std::string dataPrefix_;
};

}  // namespace kel
