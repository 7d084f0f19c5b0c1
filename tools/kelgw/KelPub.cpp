#include <fmt/format.h>
#include <kel/Kel.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <thread>

#include "Command.h"
#include "KelValue.h"
#include "Mailbox.h"
#include "Times.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "A field is TAG=TYPE:VALUE; an empty TAG is the record's unnamed value. Types: boolean byte short int "
    "long\n"
    "float double string, and the array of each with [] behind: [1, 2, 3] or 1,2,3; quote items with "
    "commas.\n"
    "\n"
    "The publication lives as long as this command: when it ends, subscribers see it as disconnected. --hold "
    "keeps\n"
    "it alive for a while after the last record, --stay until Ctrl-C.\n"
    "\n"
    "Examples:\n"
    "  kelgw kel pub plant/boiler1 temperature=float:81.5 state=string:running --stay\n"
    "  kelgw kel pub plant/counter =long:42 --hold 30\n"
    "  kelgw kel pub plant/boiler1 'zones=double[]:80.1,82.4' 'names=string[]:[\"in\", \"out, upper\"]'\n"
    "  kelgw kel pub plant/load value=int:1 --repeat 100 --rate 10\n"
    "  kelgw kel pub plant/boiler1 temperature=float:81.5 --quality-bad \"sensor broken\" --stay\n";

struct Options {
  std::string publication;
  std::vector<std::string> fields;
  std::string badReason;
  std::string time;
  std::string publisher;
  std::uint64_t repeat = 1;
  double rate = 1;
  double holdSeconds = 1;
  bool stay = false;
  bool escapes = false;
  bool declareBad = false;
};

class ErrorHandler : public KelPublicationErrorHandler {
 public:
  void handleException(KelPublication* /*publication*/, KelException& exception) override {
    const Lock lock(mutex);
    reason = exception.what();
  }
  std::string last() {
    const Lock lock(mutex);
    return reason;
  }

 private:
  Mutex mutex;
  std::string reason KELGW_TOOL_THREAD(guarded_by(mutex));
};

/// Closes the publication whatever way the command ends.
struct Closer {
  KelFactory& factory;
  KelPublication* publication;
  ~Closer() { factory.destroyPublication(publication); }
};

/// Sleeps in short pieces, so that a signal ends it; false when it did.
bool pause(std::chrono::steady_clock::time_point until, const std::atomic<bool>& stop) {
  using namespace std::chrono;
  while (!stop && steady_clock::now() < until) {
    std::this_thread::sleep_for(
        std::min<steady_clock::duration>(milliseconds(50), until - steady_clock::now()));
  }
  return !stop;
}

int run(const Options& options, Context& context) {
  using namespace std::chrono;
  if (options.fields.empty() && !options.declareBad) {
    throw CommandError(exitBadInput,
                       "nothing to publish: give at least one TAG=TYPE:VALUE, or --quality-bad REASON");
  }
  KelData record;
  for (const std::string& text : options.fields) {
    const KelField field = parseKelField(text, options.escapes);
    if (record.getValueType(field.tag.c_str()) != 0) {
      throw CommandError(exitBadInput, fmt::format("the field \"{}\" is given twice", escapeText(field.tag)));
    }
    insertField(record, field);
  }
  const bool ownTime = !options.time.empty();
  const std::int64_t fixedMs = ownTime ? parseTimeMs(options.time, nowMs()) : 0;

  requireBroker(context.settings);
  KelOptions kelOptions;
  kelOptions.url = context.settings.kel;
  const std::string publisher =
      options.publisher.empty() ? fmt::format("kelgw/{}", ::getpid()) : options.publisher;
  ErrorHandler handler;
  const std::unique_ptr<KelFactory> factory(Kel::create(publisher.c_str(), kelOptions));
  const Closer closer{*factory, factory->createPublication(options.publication.c_str(), &handler)};

  const auto start = steady_clock::now();
  for (std::uint64_t sent = 0; !options.fields.empty() && sent < options.repeat && !context.stop; ++sent) {
    if (!pause(start + duration_cast<steady_clock::duration>(
                           duration<double>(static_cast<double>(sent) / options.rate)),
               context.stop)) {
      break;
    }
    const std::int64_t timeMs = ownTime ? fixedMs : nowMs();
    closer.publication->send(record, KelTimestamp(timeMs * 1'000'000));
  }
  if (options.declareBad) {
    closer.publication->declareBad(options.badReason.c_str());
  }
  const bool taken = factory->flush(context.settings.limit());
  const KelCounters counters = factory->counters();
  if (counters.acknowledged < counters.sends || counters.sends == 0) {
    // The library says why on a thread of its own.
    const auto end = steady_clock::now() + milliseconds(500);
    while (handler.last().empty() &&
           pause(std::min(end, steady_clock::now() + milliseconds(20)), context.stop) &&
           steady_clock::now() < end) {
    }
  }
  if (context.out.json()) {
    context.out.document(Json::Object{{"publication", Json(options.publication)},
                                      {"publisher", Json(publisher)},
                                      {"sent", Json(counters.sends)},
                                      {"acknowledged", Json(counters.acknowledged)},
                                      {"superseded", Json(counters.outgoingSuperseded)},
                                      {"refused", Json(counters.refused)},
                                      {"error", Json(handler.last())}});
  } else {
    context.out.line(fmt::format("{}: {} sent, {} acknowledged by the broker",
                                 escapeText(options.publication), counters.sends, counters.acknowledged));
  }
  const std::string reason = handler.last();
  if (!reason.empty()) {
    context.out.remark(escapeText(reason));
  }
  if (!taken || counters.refused != 0 || counters.acknowledged == 0) {
    if (reason.empty()) {
      throw CommandError(
          exitUnreachable,
          fmt::format("the broker at {} has not taken over every record within {} s",
                      escapeText(brokerAddress(context.settings)), context.settings.limitSeconds));
    }
    return exitNotHeld;
  }
  pause(options.stay
            ? steady_clock::time_point::max()
            : steady_clock::now() + milliseconds(static_cast<std::int64_t>(options.holdSeconds * 1000)),
        context.stop);
  return exitDone;
}

}  // namespace

void addKelPub(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command = parent.add_subcommand("pub", "Publish records");
  const auto options = std::make_shared<Options>();
  command->add_option("PUBLICATION", options->publication, "Name of the publication")->required();
  command->add_option("FIELD", options->fields, "TAG=TYPE:VALUE ...");
  auto* const bad =
      command->add_option("--quality-bad", options->badReason, "Declare the publication bad with this reason")
          ->type_name("REASON");
  command->add_option("--time", options->time, "Source time instead of now: as for `kelgw dp set`")
      ->type_name("TIME");
  command->add_option("--publisher", options->publisher, "Publisher's name (default: kelgw/PROCESS)")
      ->type_name("NAME");
  command->add_option("--repeat", options->repeat, "Send the record this often")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  command->add_option("--rate", options->rate, "Records a second with --repeat")
      ->check(CLI::Range(0.001, 1e6))
      ->type_name("PER_SECOND")
      ->capture_default_str();
  auto* const hold =
      command->add_option("--hold", options->holdSeconds, "Stay alive so long after the last record")
          ->check(CLI::NonNegativeNumber)
          ->type_name("SECONDS")
          ->capture_default_str();
  command->add_flag("--stay", options->stay, "Stay alive until Ctrl-C")->excludes(hold);
  command->add_flag("--escapes", options->escapes, "Understand \\n \\t \\\\ \\xNN in a string");
  command->footer(footer);
  command->callback([&chosen, options, bad] {
    options->declareBad = bad->count() > 0;
    chosen.action = [options](Context& context) { return run(*options, context); };
  });
}

}  // namespace kelgw
