#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "Command.h"
#include "DpValue.h"
#include "Times.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "A value is read by the type of the element:\n"
    "  bit      true or false (1 0 on off yes no)\n"
    "  int uint whole numbers, 0x too      bit32  a number of 32 bits, 0x too\n"
    "  float    1.5, 2e-3, nan, inf, -inf  char   A, or '7' in quotes, or a number to 255\n"
    "  text     as it stands; with --escapes \\n \\t \\\\ \\xNN are understood\n"
    "  dyn_...  [1, 2, 3] or 1,2,3; [] is empty; items with commas in double quotes\n"
    "A value alone clears the invalid flag. A text that begins with - goes behind a lone --.\n"
    "\n"
    "Examples:\n"
    "  kelgw dp set Pump1.speed 12.5\n"
    "  kelgw dp set Pump1.offset -3\n"
    "  kelgw dp set Pump1.name \"main pump\"\n"
    "  kelgw dp set Pump1.steps '[1, 2, 3]'\n"
    "  kelgw dp set Pump1.speed 0 --invalid --time 2026-03-01T12:00:00Z\n"
    "  kelgw dp set Pump1.speed --bits 01          only the user bits: bit 2 off, bit 1 on\n";

struct Options {
  std::string name;
  std::string value;
  std::string bits;
  std::string time = "now";
  bool invalid = false;
  bool valid = false;
  bool escapes = false;
  bool hasValue = false;
};

bool bitOf(char digit) {
  if (digit != '0' && digit != '1') {
    throw CommandError(exitBadInput, "--bits takes two digits, bit 2 first: 00, 01, 10 or 11");
  }
  return digit == '1';
}

int run(const Options& options, Context& context) {
  if (!options.hasValue && !options.invalid && !options.valid && options.bits.empty()) {
    throw CommandError(exitBadInput, "nothing to set: give a VALUE, --invalid, --valid or --bits");
  }
  const std::int64_t timeMs = parseTimeMs(options.time, nowMs());
  pvss::StoreWrite write;
  write.name = elementName(options.name);
  if (!options.bits.empty()) {
    if (options.bits.size() != 2) {
      throw CommandError(exitBadInput, "--bits takes two digits, bit 2 first: 00, 01, 10 or 11");
    }
    write.userBit2 = bitOf(options.bits[0]);
    write.userBit1 = bitOf(options.bits[1]);
  }
  if (options.invalid || options.valid) {
    write.invalid = options.invalid;
  }
  pvss::StoreAdmin store = openStore(context.settings);
  const pvss::StoreReading before = store.readElements({write.name}).readings.at(0);
  const auto type = datumTypeOf(before.type);
  if (!type) {
    throw CommandError(exitNotHeld, fmt::format("no element is called \"{}\" (`kelgw dp ls` lists them all)",
                                                escapeText(options.name)));
  }
  if (options.hasValue) {
    try {
      write.value = variableOf(parseDatum(*type, options.value, options.escapes));
    } catch (const DatumError& error) {
      throw CommandError(exitBadInput, fmt::format("{} is of type {}: {}", escapeText(write.name),
                                                   typeName(before.type), error.what()));
    }
  }
  // The function library takes 0 as "now"; the very first millisecond of the epoch is nobody's source time.
  const std::uint64_t sequence = store.write({write}, timeMs);
  const pvss::StoreReading after = store.readElements({write.name}).readings.at(0);
  if (context.out.json()) {
    context.out.document(Json::Object{{"sequence", Json(sequence)}, {"element", jsonOf(after)}});
    return exitDone;
  }
  context.out.line(fmt::format("{} = {}{}  (was {})", escapeText(after.name), showValue(after, 200),
                               after.invalid ? " invalid" : "", showValue(before, 60)));
  return exitDone;
}

}  // namespace

void addDpSet(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command =
      parent.add_subcommand("set", "Write value, invalid flag or user bits of one element");
  const auto options = std::make_shared<Options>();
  command->add_option("NAME", options->name, "The element")->required();
  auto* const value = command->add_option("VALUE", options->value, "Its new value");
  auto* const invalid = command->add_flag("--invalid", options->invalid, "Mark the element invalid");
  command->add_flag("--valid", options->valid, "Mark the element valid")->excludes(invalid);
  command->add_option("--bits", options->bits, "User bits, bit 2 first: 00, 01, 10 or 11")->type_name("BITS");
  command
      ->add_option("--time", options->time,
                   "Source time: now, milliseconds since 1970, or 2026-03-01T12:00:00.250Z (UTC)")
      ->type_name("TIME")
      ->capture_default_str();
  command->add_flag("--escapes", options->escapes, "Understand \\n \\t \\\\ \\xNN in a text");
  command->footer(footer);
  command->callback([&chosen, options, value] {
    options->hasValue = value->count() > 0;
    chosen.action = [options](Context& context) { return run(*options, context); };
  });
}

}  // namespace kelgw
