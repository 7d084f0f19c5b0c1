// Found by the fuzzer of claims: a publisher without a name ("/0a1b") was taken for one, although no
// publisher can be called so. A claim of it would have been answered, and shown with an empty name.
#include <gtest/gtest.h>

#include "data/RecordAccess.h"
#include "session/ControlPayload.h"
#include "wire/RecordCodec.h"
#include "wire/Topics.h"

namespace {

std::string claimOf(std::string_view publisher) {
  kel::Record record;
  record.setText(record.put("publisher"), publisher);
  record.setText(record.put("state"), "owner");
  return kel::encodeFields(record, 1);
}

TEST(ClaimOfNobody, IsNoClaim) {
  EXPECT_FALSE(kel::decodeClaim(claimOf("/0a1b")));
  EXPECT_FALSE(kel::decodeClaim(claimOf("gateway/")));
  EXPECT_FALSE(kel::decodeClaim(claimOf("gateway")));
  const auto claim = kel::decodeClaim(claimOf("plant/gateway/0a1b"));
  ASSERT_TRUE(claim);
  EXPECT_EQ(claim->publisher.name, "plant/gateway");
  EXPECT_EQ(claim->publisher.incarnation, "0a1b");
  EXPECT_TRUE(claim->owner);
}

TEST(ClaimOfNobody, IsNoPublisher) {
  EXPECT_FALSE(kel::PublisherId::parse("/0a1b"));
}

}  // namespace
