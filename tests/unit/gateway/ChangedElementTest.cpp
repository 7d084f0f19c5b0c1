// Elements that change their type or are deleted under the gateway's feet: nothing wrong is published as
// good.
#include <pvss/Bit32Var.h>
#include <pvss/BitVar.h>
#include <pvss/CharVar.h>
#include <pvss/FloatVar.h>
#include <pvss/IntegerVar.h>
#include <pvss/TextVar.h>
#include <pvss/UIntegerVar.h>

#include <array>

#include "Gateway.h"
#include "KELClientManager.h"
#include "kelManager.h"
#include "kelPubGroup.h"
#include "kelPublicationManager.h"

namespace gateway_test {
namespace {

struct Pair {
  DpElementType before;
  DpElementType after;
};

std::shared_ptr<const Variable> valueOf(DpElementType type) {
  switch (type) {
    case DPELEMENT_BIT:
      return std::make_shared<const BitVar>(true);
    case DPELEMENT_CHAR:
      return std::make_shared<const CharVar>('A');
    case DPELEMENT_INT:
      return std::make_shared<const IntegerVar>(65);
    case DPELEMENT_UINT:
      return std::make_shared<const UIntegerVar>(65U);
    case DPELEMENT_FLOAT:
      return std::make_shared<const FloatVar>(6.5);
    case DPELEMENT_32BIT:
      return std::make_shared<const Bit32Var>(65U);
    default:
      return std::make_shared<const TextVar>("x");
  }
}

void PrintTo(const Pair& pair, std::ostream* out) {
  *out << describe(valueOf(pair.before).get()) << " to " << describe(valueOf(pair.after).get());
}

class ChangedElement : public Gateway, public ::testing::WithParamInterface<Pair> {
 protected:
  void TearDown() override {
    printedBy([this] {
      gdelayedPubThread.stopInOrder();
      group.reset();
    });
  }
  void make(DpElementType type) {
    plant.addElement("A.v", type);
    plant.write("A.v", *valueOf(type), 1000);
    start();
    tuple = {"A.v", "a"};
    list.push_back(&tuple);
    printedBy([this] {
      group = std::make_unique<CkelPubGroup>("Out", 0, list);
      settle();
    });
    const auto sent = kel.takeSent();
    ASSERT_EQ(sent.size(), 1U);
    ASSERT_TRUE(sent[0].good);
  }
  /// "good", or the reason for which the publication was declared bad, of everything sent.
  Lines sentAfter(const std::function<void()>& action) {
    printed = printedBy([&] {
      action();
      settle();
    });
    Lines lines;
    for (const FakeKelFactory::Sent& sent : kel.takeSent()) {
      lines.push_back(sent.good ? "good" : sent.reason);
    }
    return lines;
  }

  std::unique_ptr<CkelPubGroup> group;
  CdpeMappingTuple tuple{"", ""};
  CvectorOfdpeMappingTuples list;
  std::string printed;
};

TEST_P(ChangedElement, declaresThePublicationBadUntilTheTypeIsBack) {
  make(GetParam().before);
  const std::string reason = "1 PVSS dpe's set to invalid";
  EXPECT_EQ(sentAfter([this] { plant.addElement("A.v", GetParam().after); }), Lines{reason});
  EXPECT_EQ(sentAfter([this] { plant.write("A.v", *valueOf(GetParam().after), 2000); }), Lines{reason});
  sentAfter([this] { plant.addElement("A.v", GetParam().before); });
  EXPECT_EQ(sentAfter([this] { plant.write("A.v", *valueOf(GetParam().before), 3000); }), Lines{"good"});
}

std::vector<Pair> allPairs() {
  constexpr std::array scalars{DPELEMENT_BIT,   DPELEMENT_CHAR,  DPELEMENT_INT, DPELEMENT_UINT,
                               DPELEMENT_FLOAT, DPELEMENT_32BIT, DPELEMENT_TEXT};
  std::vector<Pair> pairs;
  for (const DpElementType before : scalars) {
    for (const DpElementType after : scalars) {
      if (before != after) {
        pairs.push_back({before, after});
      }
    }
  }
  return pairs;
}
INSTANTIATE_TEST_SUITE_P(scalars, ChangedElement, ::testing::ValuesIn(allPairs()));

using DeletedElement = ChangedElement;
TEST_F(DeletedElement, declaresThePublicationBadUntilItIsWrittenAgain) {
  make(DPELEMENT_TEXT);
  EXPECT_EQ(sentAfter([this] { plant.removeElement("A.v"); }), Lines{"1 PVSS dpe's set to invalid"});
  sentAfter([this] { plant.addElement("A.v", DPELEMENT_TEXT); });
  EXPECT_EQ(sentAfter([this] { plant.write("A.v", TextVar("again"), 2000); }), Lines{"good"});
}

class ChangedList : public Gateway {};

TEST_F(ChangedList, keepsTheLastGoodListWhenItsElementBecomesAnother) {
  plant.addElement("Gw.clients", DPELEMENT_DYNTEXT);
  addClient("C.x", DPELEMENT_FLOAT, "in", "t");
  plant.writeTexts("Gw.clients", {"C.x"});
  start();
  CkelClientManager clients;
  ConfigListChangeListener listener(clients);
  DpIdentifier id;
  ASSERT_TRUE(Manager::getId("Gw.clients", id));
  printedBy([&] {
    Manager::dpConnect(id, Manager::eventId, &listener, 0);
    settle();
  });
  ASSERT_NE(kel.subscription("in"), nullptr);
  const std::string printed = printedBy([&] {
    plant.addElement("Gw.clients", DPELEMENT_INT);
    plant.write("Gw.clients", IntegerVar(3));
    settle();
  });
  EXPECT_NE(kel.subscription("in"), nullptr) << printed;
  EXPECT_EQ(printed,
            "ERROR: kelManager 43 ConfigListChangeListener::hotLinkCallBack - client list is missing\n"
            "ERROR: kelManager 43 ConfigListChangeListener::hotLinkCallBack - client list is missing\n");
  printedBy([&] {
    plant.addElement("Gw.clients", DPELEMENT_DYNTEXT);
    plant.writeTexts("Gw.clients", {});
    settle();
  });
  EXPECT_EQ(kel.subscription("in"), nullptr);
}

}  // namespace
}  // namespace gateway_test
