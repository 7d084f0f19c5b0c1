#include "session/PeerTable.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

using namespace std::chrono_literals;
const PeerTable::Time t0{};

TEST(PeerTable, TakesAKeptPresenceForUnconfirmed) {
  PeerTable peers;
  const auto change = peers.sawPresence("gw/1", true, t0, 10s);
  EXPECT_TRUE(change.changed);
  EXPECT_EQ(change.state, PeerState::unconfirmed);
  EXPECT_TRUE(peers.known("gw/1"));
  EXPECT_FALSE(peers.alive("gw/1"));
  EXPECT_TRUE(peers.anyUnconfirmed());
}

TEST(PeerTable, TakesALivePresenceForAlive) {
  PeerTable peers;
  peers.sawPresence("gw/1", true, t0, 10s);
  EXPECT_TRUE(peers.sawPresence("gw/1", false, t0, 10s).changed);
  EXPECT_TRUE(peers.alive("gw/1"));
  EXPECT_FALSE(peers.sawPresence("gw/1", false, t0, 10s).changed);
  EXPECT_FALSE(peers.sawPresence("gw/1", true, t0, 10s).changed);
  EXPECT_TRUE(peers.alive("gw/1"));
}

TEST(PeerTable, ForgetsWhoIsNotHeardOf) {
  PeerTable peers;
  peers.sawPresence("kept/1", true, t0, 10s);
  peers.sawPresence("live/1", false, t0, 10s);
  peers.sawPresence("kept/1", true, t0 + 5s, 10s);  // says nothing
  peers.sawPresence("live/1", false, t0 + 5s, 10s);
  EXPECT_TRUE(peers.expire(t0 + 9s).empty());
  EXPECT_EQ(peers.expire(t0 + 10s), std::vector<std::string>{"kept/1"});
  EXPECT_TRUE(peers.expire(t0 + 14s).empty());
  EXPECT_EQ(peers.expire(t0 + 15s), std::vector<std::string>{"live/1"});
  EXPECT_FALSE(peers.known("live/1"));
}

TEST(PeerTable, ForgivesATimeInWhichNobodyListened) {
  PeerTable peers;
  peers.sawPresence("live/1", false, t0, 10s);
  peers.forgive(30s);
  EXPECT_TRUE(peers.expire(t0 + 35s).empty());
  EXPECT_EQ(peers.expire(t0 + 40s).size(), 1U);
}

TEST(PeerTable, GivesEachTheTimeThatItAsksFor) {
  PeerTable peers;
  peers.sawPresence("quick/1", false, t0, 2s);
  peers.sawPresence("slow/1", false, t0, 60s);
  peers.sawPresence("slow/1", true, t0 + 1s, 2s);  // what was kept is older
  EXPECT_EQ(peers.expire(t0 + 2s), std::vector<std::string>{"quick/1"});
  EXPECT_TRUE(peers.expire(t0 + 59s).empty());
  EXPECT_EQ(peers.expire(t0 + 60s), std::vector<std::string>{"slow/1"});
}

TEST(PeerTable, BelievesNoPresenceThatAsksForHours) {
  PeerTable peers;
  peers.sawPresence("kept/1", true, t0, 2h);
  peers.sawPresence("live/1", false, t0, 2h);
  EXPECT_TRUE(peers.expire(t0 + 9s).empty());
  EXPECT_EQ(peers.expire(t0 + 10s), std::vector<std::string>{"kept/1"});
  EXPECT_TRUE(peers.expire(t0 + 119s).empty());
  EXPECT_EQ(peers.expire(t0 + 120s), std::vector<std::string>{"live/1"});
}

TEST(PeerTable, GivesWhoIsConfirmedItsWholeTime) {
  PeerTable peers;
  peers.sawPresence("gw/1", true, t0, 60s);
  peers.sawPresence("gw/1", false, t0 + 1s, 60s);
  EXPECT_TRUE(peers.expire(t0 + 60s).empty());
  EXPECT_EQ(peers.expire(t0 + 61s).size(), 1U);
}

TEST(PeerTable, KnowsSoManyAndSaysOnceAMinuteThatThereAreMore) {
  PeerTable peers;
  for (std::size_t i = 0; i < PeerTable::mostPeers; ++i) {
    peers.sawPresence("n" + std::to_string(i) + "/1", true, t0, 10s);
  }
  EXPECT_EQ(peers.complaint(t0), "");
  EXPECT_EQ(peers.sawPresence("more/1", false, t0, 10s).state, PeerState::gone);
  peers.sawPresence("more/2", true, t0, 10s);
  EXPECT_FALSE(peers.known("more/1"));
  EXPECT_TRUE(peers.sawPresence("n1/1", false, t0, 10s).changed) << "who is known stays known";
  const std::string line = peers.complaint(t0);
  EXPECT_TRUE(line.starts_with("2 presences of publishers are passed over, the last one of 'more'")) << line;
  peers.sawPresence("more/3", true, t0, 10s);
  EXPECT_EQ(peers.complaint(t0 + 59s), "");
  EXPECT_TRUE(peers.complaint(t0 + 60s).starts_with("1 presences"));
  peers.expire(t0 + 10s);
  EXPECT_TRUE(peers.sawPresence("more/1", false, t0 + 10s, 10s).changed);
  EXPECT_FALSE(peers.sawPresence(std::string(1000, 'x') + "/1", false, t0 + 10s, 10s).changed);
}

TEST(PeerTable, OneNameCannotTakeTheRoomOfOthers) {
  PeerTable peers;
  for (std::size_t i = 0; i < 2 * PeerTable::mostPeers; ++i) {
    peers.sawPresence("flood/" + std::to_string(i), false, t0, 10s);
  }
  EXPECT_EQ(peers.named("flood").size(), PeerTable::mostOfOneName);
  EXPECT_TRUE(peers.sawPresence("other/1", false, t0, 10s).changed);
  const std::string line = peers.complaint(t0);
  EXPECT_NE(line.find("the last one of 'flood'"), std::string::npos) << line;
  EXPECT_TRUE(peers.remove("flood/0", "withdrawn"));
  EXPECT_TRUE(peers.sawPresence("flood/again", false, t0, 10s).changed) << "one has made room";
  EXPECT_FALSE(peers.sawPresence("flood/more", false, t0, 10s).changed);
  peers.clear("link down");
  EXPECT_TRUE(peers.sawPresence("flood/more", false, t0, 10s).changed);
}

TEST(PeerTable, FindsEverybodyUnderAName) {
  PeerTable peers;
  peers.sawPresence("gw/1", false, t0, 10s);
  peers.sawPresence("gw/2", true, t0, 10s);
  peers.sawPresence("gw2/3", false, t0, 10s);
  peers.sawPresence("gw/sub/4", false, t0, 10s);
  EXPECT_EQ(peers.named("gw").size(), 2U);
  EXPECT_EQ(peers.named("gw/sub"), std::vector<std::string>{"gw/sub/4"});
  EXPECT_TRUE(peers.remove("gw/1", "test"));
  EXPECT_FALSE(peers.remove("gw/1", "test"));
  EXPECT_EQ(peers.named("gw"), std::vector<std::string>{"gw/2"});
}

}  // namespace
}  // namespace kel
