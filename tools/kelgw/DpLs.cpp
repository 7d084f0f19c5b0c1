#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "Command.h"
#include "DpValue.h"
#include "Pattern.h"
#include "Plan.h"

namespace kelgw {
namespace {

constexpr const char* footer =
    "Patterns: * is any text, ? is one character; quote them, or the shell takes them.\n"
    "FED FROM is the address of an element that the gateway writes: publication, then the tag.\n"
    "\n"
    "Examples:\n"
    "  kelgw dp ls\n"
    "  kelgw dp ls 'Boiler1.*'\n"
    "  kelgw dp ls --json | jq -r '.elements[].name'\n";

Json jsonOfAddress(const pvss::StoreElement& element) {
  if (element.addressType == 0) {
    return {};
  }
  const std::size_t at = element.reference.find(fieldSeparator);
  const std::string tag = at == std::string::npos ? "" : element.reference.substr(at + 1);
  return Json::Object{{"type", Json(element.addressType)},
                      {"driver", Json(element.driver)},
                      {"publication", Json(element.reference.substr(0, at))},
                      {"tag", Json(tag)}};
}

int run(const std::string& wanted, Context& context) {
  pvss::StoreAdmin store = openStore(context.settings);
  const std::string pattern = elementName(wanted);
  Table table({"ELEMENT", "TYPE", "FED FROM"});
  Json::Array elements;
  for (const pvss::StoreElement& element : store.listElements()) {
    if (!pattern.empty() && !matches(pattern, element.name)) {
      continue;
    }
    table.row({escapeText(element.name), std::string(typeName(element.type)),
               element.addressType == 0 ? std::string() : showReference(element)});
    elements.push_back(Json::Object{{"name", Json(element.name)},
                                    {"type", Json(std::string(typeName(element.type)))},
                                    {"address", jsonOfAddress(element)}});
  }
  const bool none = elements.empty();
  if (context.out.json()) {
    context.out.document(Json::Object{{"elements", Json(std::move(elements))}});
  } else if (!none) {
    context.out.table(table);
  }
  if (none) {
    context.out.remark(pattern.empty() ? "the store has no elements yet; `kelgw apply PLANT` makes them"
                                       : fmt::format("no element matches \"{}\"", escapeText(wanted)));
  }
  return none && !pattern.empty() ? exitNotHeld : exitDone;
}

}  // namespace

void addDpLs(CLI::App& parent, Chosen& chosen) {
  CLI::App* const command =
      parent.add_subcommand("ls", "List the elements of the store with type and address");
  const auto pattern = std::make_shared<std::string>();
  command->add_option("PATTERN", *pattern, "Only elements whose name matches");
  command->footer(footer);
  command->callback(
      [&chosen, pattern] { chosen.action = [pattern](Context& context) { return run(*pattern, context); }; });
}

}  // namespace kelgw
