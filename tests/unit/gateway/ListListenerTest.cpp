// The listener of the lists: what the platform delivers is handed to its side.
#include <pvss/IntegerVar.h>
#include <pvss/TextVar.h>

#include "Gateway.h"
#include "kelManager.h"

namespace gateway_test {
namespace {

class RecordingSide final : public CkelManager {
 public:
  void updateConfig(const DynVar* list) override { lists.push_back(gateway_test::describe(list)); }
  Lines lists;
};

class ListListener : public ::testing::Test {
 protected:
  RecordingSide side;
  ConfigListChangeListener listener{side};
};

TEST_F(ListListener, isAHotLink) {
  EXPECT_EQ(listener.isA(), WaitForAnswer::KIND_HOTLINK);
}

TEST_F(ListListener, answerWithAnEmptyListIsHandedOver) {
  DpMsgAnswer answer;
  answer.addGroup().append(DpIdentifier(1, 1), new DynVar(TEXT_VAR));
  listener.callBack(answer);
  EXPECT_EQ(side.lists, Lines{"dyn []"});
}

TEST_F(ListListener, answerWithoutGroupsDoesNothing) {
  DpMsgAnswer answer;
  EXPECT_EQ(printedBy([&] { listener.callBack(answer); }), "");
  EXPECT_TRUE(side.lists.empty());
}

TEST_F(ListListener, groupsAndItemsAreTakenInOrder) {
  DpMsgAnswer answer;
  AnswerGroup& first = answer.addGroup();
  first.append(DpIdentifier(1, 1), textList({"a"}).clone());
  first.append(DpIdentifier(1, 1), textList({"b"}).clone());
  answer.addGroup().append(DpIdentifier(1, 1), textList({"c"}).clone());
  listener.hotLinkCallBack(answer);
  EXPECT_EQ(side.lists, (Lines{"dyn [text a]", "dyn [text b]", "dyn [text c]"}));
}

TEST_F(ListListener, hotLinkWithTwoItemsIsTwoUpdates) {
  DpHLGroup group;
  group.append(DpIdentifier(1, 1), textList({"a", "b"}).clone());
  group.append(DpIdentifier(1, 1), textList({}).clone());
  listener.hotLinkCallBack(group);
  EXPECT_EQ(side.lists, (Lines{"dyn [text a, text b]", "dyn []"}));
}

TEST_F(ListListener, itemWithoutListIsReportedAndTheNextOneTaken) {
  DpMsgAnswer answer;
  AnswerGroup& group = answer.addGroup();
  group.append(DpIdentifier(1, 1), nullptr);
  group.append(DpIdentifier(1, 1), textList({"a"}).clone());
  EXPECT_EQ(printedBy([&] { listener.callBack(answer); }),
            "ERROR: kelManager 26 ConfigListChangeListener::callBack - client list is missing\n");
  DpHLGroup change;
  change.append(DpIdentifier(1, 1), nullptr);
  change.append(DpIdentifier(1, 1), textList({"b"}).clone());
  EXPECT_EQ(printedBy([&] { listener.hotLinkCallBack(change); }),
            "ERROR: kelManager 43 ConfigListChangeListener::hotLinkCallBack - client list is missing\n");
  EXPECT_EQ(side.lists, (Lines{"dyn [text a]", "dyn [text b]"}));
}

TEST_F(ListListener, whatIsNoListOfTextsIsTakenForAnEmptyOne) {
  DpMsgAnswer answer;
  answer.addGroup().append(DpIdentifier(1, 1), new TextVar("A.x"));
  listener.callBack(answer);
  DpHLGroup change;
  change.append(DpIdentifier(1, 1), new IntegerVar(7));
  change.append(DpIdentifier(1, 1), new DynVar(INTEGER_VAR));
  listener.hotLinkCallBack(change);
  EXPECT_EQ(side.lists, (Lines{"dyn []", "dyn []", "dyn []"}));
}

TEST(ListTexts, onlyTextsAreTaken) {
  EXPECT_EQ(textsOf(textList({"a", "b"})), (std::vector<CharString>{"a", "b"}));
  DynVar numbers(INTEGER_VAR);
  numbers.append(IntegerVar(1));
  EXPECT_TRUE(textsOf(numbers).empty());
}

}  // namespace
}  // namespace gateway_test
