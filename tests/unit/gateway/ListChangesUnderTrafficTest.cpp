// Lists and addresses that change all the time while records come in from several publishers. Nothing may be
// torn, dropped or reported; the thread sanitizer watches.
#include <gmock/gmock.h>
#include <kel/Kel.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "Gateway.h"
#include "KelApiResources.h"

namespace gateway_test {
namespace {

constexpr std::size_t publicationCount = 4;
constexpr std::size_t tagCount = 3;
constexpr std::size_t elementCount = 12;
constexpr std::size_t steadyCount = 2;  // of the first publications one element each that never changes
constexpr int changesToMake = 400;
constexpr int lastRecord = 10'000'000;

std::string publicationName(std::size_t p) {
  return "traffic/" + std::to_string(p);
}
std::string tagName(std::size_t t) {
  return "t" + std::to_string(t);
}
std::string elementName(std::size_t e) {
  return "E" + std::to_string(e) + ".v";
}

std::string steadyName(std::size_t p) {
  return "Steady" + std::to_string(p) + ".v";
}
/// No two values are alike: the record's number, and in the last two digits publication and tag.
int valueOf(int record, std::size_t publication, std::size_t tag) {
  return record * 100 + static_cast<int>(publication * 10 + tag);
}

/// Sends records of one publication until it is told to send the last one.
class Publisher {
 public:
  explicit Publisher(std::size_t number)
      : number_(number),
        factory_(Kel::create(("publisher" + std::to_string(number)).c_str())),
        publication_(factory_->createPublication(publicationName(number).c_str(), &handler_)),
        thread_([this] { run(); }) {}
  ~Publisher() {
    finish();
    thread_.join();
  }
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;
  void finish() { finishing_ = true; }

  std::atomic<int> sent{0};  ///< number of the last record but the very last one

 private:
  class Handler final : public KelPublicationErrorHandler {
   public:
    void handleException(KelPublication* /*publication*/, KelException& exception) override {
      ADD_FAILURE() << exception.what();
    }
  };
  void run() {
    for (int record = 1; !finishing_; ++record) {
      send(record);
      sent = record;
      if (record % 16 == 0) {
        factory_->flush(std::chrono::milliseconds(1000));  // not more than the broker takes
      }
      std::this_thread::yield();
    }
    send(lastRecord);
  }
  void send(int record) {
    KelData data;
    for (std::size_t t = 0; t < tagCount; ++t) {
      data.insert(valueOf(record, number_, t), tagName(t).c_str());
    }
    publication_->send(data, KelTimestamp(std::int64_t{record} * 1'000'000));
  }

  const std::size_t number_;

  Handler handler_;
  std::unique_ptr<KelFactory> factory_;
  KelPublication* publication_;
  std::atomic<bool> finishing_{false};
  std::thread thread_;
};

/// Changes lists and addresses whenever the manager dispatches, also while an update waits, and looks at
/// every write.
class Unrest final : public pvss::testing::ManagerObserver {
 public:
  Unrest(pvss::testing::MemoryPlant& plant, std::vector<std::unique_ptr<Publisher>>& publishers)
      : plant_(plant), publishers_(publishers) {}

  void onDispatch(long /*sec*/, long usec) override {
    ++dispatches_;
    if (changes < changesToMake) {
      // A starved publisher is waited for a while: lists that change without traffic show nothing.
      const bool paced = records > changes || dispatches_ - changedAt_ > 100;
      if (paced && (usec != 1000 ? random_() % 24 == 0 : random_() % 2 == 0)) {
        change();
      }
    } else if (usec == 1000 && !settled_) {
      for (std::size_t e = 0; e < elementCount; ++e) {
        address(e, e % publicationCount, e % tagCount);
      }
      writeList(std::vector<bool>(elementCount, true));
      settled_ = true;
      settledAt_ = dispatches_;
    } else if (settled_ && usec == 1000 && dispatches_ > settledAt_ + 50 && records > changesToMake) {
      for (const auto& publisher : publishers_) {
        publisher->finish();
      }
      bool allThere = true;
      for (std::size_t e = 0; e < elementCount && allThere; ++e) {
        const auto seen = plant_.read(elementName(e));
        allThere = isValue(seen, valueOf(lastRecord, e % publicationCount, e % tagCount));
      }
      for (std::size_t p = 0; p < steadyCount && allThere; ++p) {
        allThere = isValue(plant_.read(steadyName(p)), valueOf(lastRecord, p, 0));
      }
      if (allThere) {
        KelApiManager::doExit = PVSS_TRUE;
      }
    }
  }

  // A record's list is whole: for each element value and both bits, then for each element the flag.
  void onDpSetTimed(const TimeVar& /*time*/, const DpIdValueList& values, unsigned int /*flags*/) override {
    const Lines items = describe(values);
    std::size_t triples = 0;
    while (3 * triples < items.size() && items[3 * triples].find("._value") != std::string::npos) {
      ++triples;
    }
    if (triples == 0) {
      return;  // connections come and go
    }
    ++records;
    ASSERT_EQ(items.size(), 4 * triples) << testing::PrintToString(items);
    std::set<int> origins;  // of one call: one record of one publication
    for (std::size_t i = 0; i < triples; ++i) {
      const std::string element = items[3 * i].substr(0, items[3 * i].find(':'));
      EXPECT_THAT(items[3 * i + 1], testing::StartsWith(element + ":_original.._userbit1 = "));
      EXPECT_THAT(items[3 * i + 2], testing::StartsWith(element + ":_original.._userbit2 = "));
      EXPECT_THAT(items[3 * triples + i], testing::StartsWith(element + ":_original.._exp_inv = "));
      const int value = std::stoi(items[3 * i].substr(items[3 * i].find(" = int ") + 7));
      origins.insert(value / 10);
      for (std::size_t p = 0; p < steadyCount; ++p) {
        if (element == steadyName(p)) {
          EXPECT_EQ(value % 100, valueOf(0, p, 0));
          steady[p].push_back(value / 100);
        }
      }
    }
    EXPECT_EQ(origins.size(), 1U) << testing::PrintToString(items);
  }

  int changes = 0;
  int records = 0;
  std::array<std::vector<int>, steadyCount>
      steady;  ///< numbers of the records that reached the steady elements

 private:
  static bool isValue(const pvss::testing::ElementView& seen, int value) {
    return describe(seen.value.get()) == "int " + std::to_string(value) && !seen.invalid;
  }
  void change() {
    ++changes;
    changedAt_ = dispatches_;
    switch (random_() % 4) {
      case 0:
        address(random_() % elementCount, random_() % publicationCount, random_() % tagCount);
        break;
      case 1:
        plant_.setAddress(elementName(random_() % elementCount), 0, "", "");
        break;
      default:
        break;
    }
    std::vector<bool> listed(elementCount);
    for (std::size_t e = 0; e < elementCount; ++e) {
      listed[e] = random_() % 3 != 0;
    }
    writeList(listed);
  }
  void address(std::size_t element, std::size_t publication, std::size_t tag) {
    plant_.setAddress(elementName(element), 1, "KEL", reference(publicationName(publication), tagName(tag)));
  }
  void writeList(const std::vector<bool>& listed) {
    std::vector<std::string> names;
    for (std::size_t e = 0; e < elementCount; ++e) {
      if (listed[e]) {
        names.push_back(elementName(e));
      }
    }
    for (std::size_t p = 0; p < steadyCount; ++p) {
      names.insert(names.begin() + static_cast<std::ptrdiff_t>(random_() % (names.size() + 1)),
                   steadyName(p));
    }
    plant_.writeTexts("Gw.clients", names);
  }

  pvss::testing::MemoryPlant& plant_;
  std::vector<std::unique_ptr<Publisher>>& publishers_;
  std::mt19937 random_{5};
  int dispatches_ = 0;
  int changedAt_ = 0;
  bool settled_ = false;
  int settledAt_ = 0;
};

class ListChanges : public Gateway {};

TEST_F(ListChanges, underFullTrafficTearDropAndReportNothing) {
  setenv("KEL_URL", "loopback:traffic", 1);
  KelApiManager::kelFactory = Kel::create("gateway");
  KelApiResources::clientSourceName = "Gw.clients";
  plant.addElement("Gw.clients", DPELEMENT_DYNTEXT);
  plant.setRecording(false);
  for (std::size_t e = 0; e < elementCount; ++e) {
    addClient(elementName(e), DPELEMENT_INT, publicationName(e % publicationCount), tagName(e % tagCount));
  }
  for (std::size_t p = 0; p < steadyCount; ++p) {
    addClient(steadyName(p), DPELEMENT_INT, publicationName(p), tagName(0));
  }
  plant.writeTexts("Gw.clients", {steadyName(0), steadyName(1)});

  std::vector<std::unique_ptr<Publisher>> publishers;
  for (std::size_t p = 0; p < publicationCount; ++p) {
    publishers.push_back(std::make_unique<Publisher>(p));
  }
  Unrest unrest(plant, publishers);
  plant.observe(&unrest);
  const std::string printed = printedBy([this] {
    manager.emplace();
    manager->run();
  });
  plant.observe(nullptr);
  printedBy([this] { manager.reset(); });
  std::array<int, steadyCount> sent{};
  for (std::size_t p = 0; p < steadyCount; ++p) {
    sent[p] = publishers[p]->sent;
  }
  publishers.clear();
  const auto superseded = static_cast<std::uint64_t>(KelApiManager::kelFactory->counters().superseded);
  delete KelApiManager::kelFactory;
  KelApiManager::kelFactory = nullptr;
  KelApiResources::clientSourceName = "";
  unsetenv("KEL_URL");

  EXPECT_EQ(unrest.changes, changesToMake);
  EXPECT_GT(unrest.records, changesToMake);  // there was traffic
  // No record is lost to the elements that stay, whatever happens to those beside them; one that comes twice
  // was asked for again for a new mapping.
  std::uint64_t missing = 0;
  for (std::size_t p = 0; p < steadyCount; ++p) {
    const std::vector<int>& came = unrest.steady[p];
    ASSERT_FALSE(came.empty());
    EXPECT_TRUE(std::is_sorted(came.begin(), came.end()));
    EXPECT_EQ(came.back(), lastRecord);
    const std::set<int> numbers(came.begin(), came.end());
    missing += static_cast<std::uint64_t>(sent[p] - came.front() + 2) - numbers.size();
  }
  EXPECT_LE(missing, superseded);
  const auto known = testing::AnyOf(
      testing::ContainsRegex("^Created DPEWrapper for DPE (E|Steady)[0-9]+.v$"),
      testing::ContainsRegex("^Destroyed DPEWrapper for DPE (E|Steady)[0-9]+.v$"),
      testing::ContainsRegex("^Created subscription to traffic/[0-9]$"),
      testing::ContainsRegex("^Destroyed subscription to traffic/[0-9]$"),
      testing::ContainsRegex(
          "^Created client mapping between DPE (E|Steady)[0-9]+.v and publication traffic/[0-9].t[0-9]$"),
      testing::ContainsRegex(
          "^Destroyed client mapping between DPE (E|Steady)[0-9]+.v and publication traffic/[0-9].t[0-9]$"),
      // An address that goes while it is being read is read as empty.
      testing::ContainsRegex("^ERROR: CdpeWrapper 92 DPE E[0-9]+.v has bad driver id $"),
      testing::ContainsRegex("^ERROR: CdpeWrapper 54 Address config does not exist for E[0-9]+.v$"),
      testing::ContainsRegex("^ERROR: KELClientManager 114 DPE E[0-9]+.v is not a valid DPE - ignoring$"));
  std::map<std::string, int> kinds;
  std::istringstream lines(printed);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_THAT(line, known);
    ++kinds[line.substr(0, line.find(' ', line.find(' ') + 1))];
  }
  EXPECT_EQ(kinds["Created subscription"], kinds["Destroyed subscription"] + 4);
  EXPECT_EQ(kinds["Created client"],
            kinds["Destroyed client"] + static_cast<int>(elementCount + steadyCount));
  EXPECT_EQ(kinds["Created DPEWrapper"],
            kinds["Destroyed DPEWrapper"] + static_cast<int>(elementCount + steadyCount));
}

}  // namespace
}  // namespace gateway_test
