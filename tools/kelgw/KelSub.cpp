#include <fmt/format.h>
#include <kel/Kel.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "Command.h"
#include "KelValue.h"
#include "Mailbox.h"
#include "Times.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "One line for each record: source time, publication, quality, fields as TAG=TYPE:VALUE, strings in\n"
    "quotes. \"connected\" and \"disconnected\" tell of the publisher. Ctrl-C ends.\n"
    "\n"
    "  --count N    ends after N records\n"
    "  --for S      ends after S seconds; with --count, fewer than N records by then is exit code 1\n"
    "\n"
    "Examples:\n"
    "  kelgw kel sub plant/pump1\n"
    "  kelgw kel sub machine/load machine/memory --for 10\n"
    "  kelgw kel sub plant/pump1 --count 1 --for 5 --json | jq .fields\n";

struct Options {
  std::vector<std::string> publications;
  std::uint64_t count = 0;
  std::optional<double> seconds;
  bool full = false;
};

struct Event {
  enum class Kind : std::uint8_t { record, connected, disconnected, error };
  Kind kind;
  std::string publication;
  std::string text;
  KelData record;
};

/// Puts everything that the library tells into the mailbox.
class Listener : public KelSubscriptionListener {
 public:
  explicit Listener(Mailbox<Event>& target) : mailbox(target) {}
  void handleMessage(KelSubscription* subscription, KelData& data) override {
    mailbox.put({Event::Kind::record, subscription->getTopicName(), {}, data});
  }
  void connected(KelSubscription* subscription) override {
    mailbox.put({Event::Kind::connected, subscription->getTopicName(), {}, {}});
  }
  void disconnected(KelSubscription* subscription, char* reason) override {
    mailbox.put(
        {Event::Kind::disconnected, subscription->getTopicName(), reason == nullptr ? "" : reason, {}});
  }
  void handleException(KelSubscription* subscription, KelException& exception) override {
    mailbox.put({Event::Kind::error, subscription->getTopicName(), exception.what(), {}});
  }

 private:
  Mailbox<Event>& mailbox;
};

const char* wordOf(Event::Kind kind) {
  switch (kind) {
    case Event::Kind::record:
      return "record";
    case Event::Kind::connected:
      return "connected";
    case Event::Kind::disconnected:
      return "disconnected";
    case Event::Kind::error:
      return "error";
  }
  return "";
}

Json jsonOfEvent(const Event& event) {
  Json::Object object{{"event", Json(wordOf(event.kind))}, {"publication", Json(event.publication)}};
  if (event.kind == Event::Kind::record) {
    Json record = jsonOf(event.record);
    for (auto& member : std::get<Json::Object>(record.data)) {
      object.push_back(std::move(member));
    }
  } else {
    object.emplace_back("time", Json(showTimeMs(nowMs())));
    object.emplace_back("text", Json(event.text));
  }
  return object;
}

std::string lineOfEvent(const Event& event, std::size_t width, bool full, const Output& out) {
  if (event.kind != Event::Kind::record) {
    return fmt::format(
        "{:<24}  {:<{}}  {}{}{}", showTimeMs(nowMs()), escapeText(event.publication), width,
        out.styled(wordOf(event.kind), event.kind == Event::Kind::connected ? Style::good : Style::bad),
        event.text.empty() ? "" : ": ", escapeText(event.text));
  }
  const KelData& record = event.record;
  const bool good = record.getQuality() == 1;
  const std::string reason = escapeText(record.getReason());
  return fmt::format("{:<24}  {:<{}}  {}{}  {}", showTimeNs(record.getTimestamp().timeNanoseconds),
                     escapeText(event.publication), width,
                     out.styled(qualityWord(record.getQuality()), good ? Style::good : Style::bad),
                     reason.empty() ? "" : fmt::format(" ({})", reason), showFields(record, full ? 0 : 100));
}

/// Ends the subscriptions whatever way the command ends; the mailbox is closed first, so that no callback
/// waits.
class Subscriptions {
 public:
  Subscriptions(KelFactory& theFactory, Mailbox<Event>& theMailbox)
      : factory(theFactory), mailbox(theMailbox) {}
  ~Subscriptions() {
    mailbox.close();
    for (KelSubscription* const subscription : handles) {
      factory.releaseSubscription(subscription);
    }
  }
  Subscriptions(const Subscriptions&) = delete;
  Subscriptions& operator=(const Subscriptions&) = delete;
  void add(const std::string& name, KelSubscriptionListener& listener) {
    handles.push_back(factory.createSubscription(name.c_str(), &listener));
  }

 private:
  KelFactory& factory;
  Mailbox<Event>& mailbox;
  std::vector<KelSubscription*> handles;
};

int run(const Options& options, Context& context) {
  requireBroker(context.settings);
  KelOptions kelOptions;
  kelOptions.url = context.settings.kel;
  Mailbox<Event> mailbox;
  Listener listener(mailbox);
  const std::unique_ptr<KelFactory> factory(
      Kel::create(fmt::format("kelgw/{}", ::getpid()).c_str(), kelOptions));
  Subscriptions subscriptions(*factory, mailbox);
  std::size_t width = 0;
  for (const std::string& name : options.publications) {
    width = std::max(width, escapeText(name).size());
    subscriptions.add(name, listener);
  }

  using Clock = std::chrono::steady_clock;
  const auto span = spanOf(options.seconds);
  const auto end = span ? Clock::now() + *span : Clock::time_point::max();
  std::uint64_t records = 0;
  std::size_t failed = 0;  // subscriptions that cannot work; when none is left, there is nothing to wait for
  bool reading = true;
  while (reading && !context.stop && (options.count == 0 || records < options.count) && Clock::now() < end) {
    // Short waits, because a signal does not wake them.
    const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    const auto event =
        mailbox.take(std::min(std::chrono::milliseconds(100), rest + std::chrono::milliseconds(1)));
    if (!event) {
      reading = !context.out.readerGone();
      continue;
    }
    reading = context.out.json() ? context.out.event(jsonOfEvent(*event))
                                 : context.out.line(lineOfEvent(*event, width, options.full, context.out));
    records += event->kind == Event::Kind::record ? 1U : 0U;
    failed += event->kind == Event::Kind::error ? 1U : 0U;
    reading = reading && failed < options.publications.size();
  }
  if (failed != 0) {
    return exitNotHeld;
  }
  return options.count != 0 && records < options.count && !context.stop ? exitNotHeld : exitDone;
}

}  // namespace

void addKelSub(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command = parent.add_subcommand("sub", "Show the records of publications as they arrive");
  const auto options = std::make_shared<Options>();
  command->add_option("PUBLICATION", options->publications, "Names of publications")->required();
  command->add_option("--count", options->count, "End after this many records")->check(CLI::PositiveNumber);
  command->add_option("--for", options->seconds, "End after this many seconds")
      ->check(CLI::NonNegativeNumber)
      ->type_name("SECONDS");
  command->add_flag("--full", options->full, "Never shorten a long value");
  command->footer(footer);
  command->callback(
      [&chosen, options] { chosen.action = [options](Context& context) { return run(*options, context); }; });
}

}  // namespace kelgw
