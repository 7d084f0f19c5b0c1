#include "pvss/StoreAdmin.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>

#include "basics/Values.h"
#include "store/ValueCodec.h"
#include "store/redis/AttributeText.h"
#include "store/redis/CatalogueText.h"
#include "store/redis/Functions.h"
#include "store/redis/StoreAdminImpl.h"

namespace pvss {

using redis::AdminCommand;
using redis::functionCall;
using redis::ReplyCursor;

namespace {

constexpr std::size_t catalogueChunk = 500;  // entries in one call; each call is one entry of the log
constexpr std::size_t valueChunk = 1000;     // values of a plan in one write

redis::StoreAddress addressOf(std::string address) {
  if (address.empty()) {
    const char* variable = std::getenv("PVSS_STORE");
    address = variable != nullptr ? variable : "";
  }
  if (address.empty()) {
    throw StoreError(StoreError::Kind::usage, "no store address is given and PVSS_STORE is not set");
  }
  if (address.starts_with("memory:")) {
    throw StoreError(StoreError::Kind::usage,
                     "store " + address +
                         ": a memory store lives inside the process that uses it and cannot "
                         "be reached from outside");
  }
  std::string error;
  auto parsed = redis::parseStoreAddress(address, error);
  if (!parsed) {
    throw StoreError(StoreError::Kind::usage, "store " + address.substr(0, address.find('?')) + ": " + error);
  }
  return *parsed;
}

std::string randomWriter() {
  // The store remembers every writer for a day and takes the writes of one it knows for repeated ones: 128
  // bits.
  constexpr std::string_view digits = "0123456789abcdef";
  std::random_device random;
  std::string out = "kelgw.";
  for (int word = 0; word < 4; ++word) {
    const std::uint32_t bits = random();
    for (unsigned shift = 0; shift < 32; shift += 4) out += digits[(bits >> shift) & 15U];
  }
  return out;
}

ElementAttributes attributesOf(const StoreWrite& write) {
  ElementAttributes out;
  if (write.value) {
    out.mask |= attributeValue;
    out.value = write.value;
  }
  if (write.invalid || write.value) {
    out.mask |= attributeInvalid;
    out.invalid = write.invalid.value_or(false);
  }
  if (write.userBit1) {
    out.mask |= attributeUserBit1;
    out.userBit1 = *write.userBit1;
  }
  if (write.userBit2) {
    out.mask |= attributeUserBit2;
    out.userBit2 = *write.userBit2;
  }
  return out;
}

}  // namespace

namespace redis {

void takeReading(ReplyCursor& reply, StoreReading& reading) {
  reply.array();
  reading.value.reset();
  if (reply.isNil()) {
    reply.skip();
  } else {
    const std::string_view text = reply.text();
    std::string error;
    if (reading.type != DPELEMENT_NOELEMENT) reading.value = parseValueText(reading.type, text, error);
  }
  reading.invalid = reply.text() != "0";
  reading.userBit1 = reply.text() == "1";
  reading.userBit2 = reply.text() == "1";
  reading.valueTimeMs = reply.integer();
  reading.invalidTimeMs = reply.integer();
}

StoreElement elementOf(CatalogueEntry entry) {
  StoreElement out;
  out.name = std::move(entry.name);
  out.type = entry.type;
  out.addressType = entry.addressType;
  out.driver = std::move(entry.driver);
  out.reference = std::move(entry.reference);
  out.disabled = entry.disabled;
  return out;
}

std::string_view infoField(std::string_view info, std::string_view name) {
  const std::string wanted = "\n" + std::string(name) + ":";
  const std::size_t begin = info.find(wanted);
  if (begin == std::string_view::npos) return {};
  info.remove_prefix(begin + wanted.size());
  return info.substr(0, info.find_first_of("\r\n"));
}

}  // namespace redis

// ---- What the calls share

StoreAdmin::Impl::Impl(redis::StoreAddress address, std::chrono::milliseconds limit)
    : link(std::move(address), limit), writer(randomWriter()) {
  link.connect();
}

void StoreAdmin::Impl::refuse(const std::string& text) const {
  throw StoreError(StoreError::Kind::refused, "store " + link.address().text + ": " + text);
}

void StoreAdmin::Impl::needFunctions() {
  if (functionsSeen_) return;
  std::string version;
  link.ask(functionCall("dp_version"), [&](ReplyCursor reply) { version = reply.text(); });
  if (version != redis::functionsVersion()) {
    refuse("it has function library " + version + ", this program needs " +
           std::string(redis::functionsVersion()) + ": run kelgw apply of the same release");
  }
  functionsSeen_ = true;
}

std::vector<DpElementType> StoreAdmin::Impl::typesOf(const std::vector<std::string>& names) {
  std::vector<DpElementType> types(names.size(), DPELEMENT_NOELEMENT);
  if (names.empty()) return types;
  AdminCommand command({"HMGET", "dp:cat"});
  for (const std::string& name : names) command.add(name);
  link.ask(command, [&](ReplyCursor reply) {
    reply.array();
    for (DpElementType& type : types) {
      CatalogueEntry entry;
      redis::parseCatalogueText(reply.text(), entry);
      type = entry.type;
    }
  });
  return types;
}

std::string StoreAdmin::Impl::runId() {
  std::string id;
  link.ask(AdminCommand({"INFO", "server"}),
           [&](ReplyCursor reply) { id = redis::infoField(reply.text(), "run_id"); });
  return id;
}

std::uint64_t StoreAdmin::Impl::sequence() {
  std::uint64_t out = 0;
  link.ask(AdminCommand({"GET", "dp:seq"}), [&](ReplyCursor reply) { out = reply.unsignedInteger(); });
  return out;
}

// ---- The public calls

StoreAdmin::StoreAdmin(std::string address, std::chrono::milliseconds limit)
    : impl_(std::make_unique<Impl>(addressOf(std::move(address)), limit)) {}
StoreAdmin::~StoreAdmin() = default;
StoreAdmin::StoreAdmin(StoreAdmin&&) noexcept = default;
StoreAdmin& StoreAdmin::operator=(StoreAdmin&&) noexcept = default;

const std::string& StoreAdmin::address() const {
  return impl_->link.address().text;
}

std::string_view StoreAdmin::ownFunctionsVersion() {
  return redis::functionsVersion();
}

std::string StoreAdmin::functionsVersion() {
  std::string version;
  try {
    impl_->link.ask(functionCall("dp_version"), [&](ReplyCursor reply) { version = reply.text(); });
  } catch (const StoreError& error) {
    if (std::string_view(error.what()).find("function library is missing") == std::string_view::npos) throw;
  }
  return version;
}

bool StoreAdmin::installFunctions() {
  bool same = false;
  impl_->link.ask(AdminCommand({"FUNCTION", "LIST", "LIBRARYNAME", "kelgw", "WITHCODE"}),
                  [&](ReplyCursor reply) {
                    if (reply.array() == 0) return;
                    for (std::size_t fields = reply.array(); fields >= 2; fields -= 2) {
                      if (reply.text() == "library_code") {
                        same = reply.text() == redis::functionsText();
                      } else {
                        reply.skip();
                      }
                    }
                  });
  if (same) return false;
  impl_->link.ask(AdminCommand({"FUNCTION", "LOAD", "REPLACE", redis::functionsText()}), {});
  return true;
}

std::vector<StoreElement> StoreAdmin::listElements() {
  std::vector<StoreElement> out;
  std::string broken;
  impl_->link.ask(AdminCommand({"HGETALL", "dp:cat"}), [&](ReplyCursor reply) {
    for (std::size_t items = reply.array(); items >= 2; items -= 2) {
      CatalogueEntry entry;
      entry.name = reply.text();
      if (!redis::parseCatalogueText(reply.text(), entry)) broken = entry.name;
      out.push_back(redis::elementOf(std::move(entry)));
    }
  });
  if (!broken.empty()) impl_->refuse("the catalogue entry of " + broken + " cannot be read");
  std::sort(out.begin(), out.end(),
            [](const StoreElement& a, const StoreElement& b) { return a.name < b.name; });
  return out;
}

StoreReadings StoreAdmin::readElements(const std::vector<std::string>& names) {
  StoreReadings out;
  out.readings.resize(names.size());
  std::vector<AdminCommand> commands{AdminCommand({"GET", "dp:seq"})};
  for (const std::string& name : names) {
    commands.push_back(AdminCommand({"HGET", "dp:cat", name}));
    commands.push_back(AdminCommand({"HMGET", "dp:d:" + name, "v", "i", "1", "2", "t", "ti"}));
  }
  impl_->link.askTogether(commands, [&](ReplyCursor reply) {
    reply.array();
    out.sequence = reply.unsignedInteger();
    for (std::size_t i = 0; i < names.size(); ++i) {
      StoreReading& reading = out.readings[i];
      reading.name = names[i];
      CatalogueEntry entry;
      redis::parseCatalogueText(reply.text(), entry);
      reading.type = entry.type;
      redis::takeReading(reply, reading);
    }
  });
  return out;
}

std::uint64_t StoreAdmin::write(const std::vector<StoreWrite>& writes, std::int64_t timeMs) {
  if (writes.empty()) return impl_->sequence();
  impl_->needFunctions();
  std::vector<std::string> names;
  names.reserve(writes.size());
  for (const StoreWrite& write : writes) names.push_back(write.name);
  const std::vector<DpElementType> types = impl_->typesOf(names);

  AdminCommand command = functionCall("dp_set");
  command.add(impl_->writer).add("").add(++impl_->clientSequence).add("0");
  command.add(timeMs == 0 ? std::string() : std::to_string(timeMs)).add("");
  for (std::size_t i = 0; i < writes.size(); ++i) {
    if (types[i] == DPELEMENT_NOELEMENT) impl_->refuse("no such element: " + names[i]);
    if (writes[i].value && writes[i].value->isA() != variableTypeOf(types[i])) {
      impl_->refuse("the value does not fit " + names[i] + ", which is of type " +
                    std::string(typeWord(types[i])));
    }
    std::string text;
    redis::appendAttributeText(attributesOf(writes[i]), text);
    if (text.empty()) impl_->refuse("nothing to write to " + names[i]);
    command.add(names[i]).add(text);
  }
  std::uint64_t sequence = 0;
  std::string missing;
  impl_->link.ask(command, [&](ReplyCursor reply) {
    if (reply.isArray()) {
      reply.array();
      sequence = reply.unsignedInteger();
      missing = reply.text();
    } else {
      sequence = reply.unsignedInteger();  // 0: the store knows a write of this writer and number
    }
  });
  if (!missing.empty()) impl_->refuse(missing);
  if (sequence == 0 && !impl_->link.repeated()) {
    impl_->refuse("nothing was written: the store took the write for a repeated one of " + impl_->writer +
                  "; call again");
  }
  return sequence != 0 ? sequence : impl_->sequence();
}

void StoreAdmin::putElements(const std::vector<StoreElement>& elements) {
  impl_->needFunctions();
  for (std::size_t first = 0; first < elements.size(); first += catalogueChunk) {
    AdminCommand command = functionCall("dp_put");
    command.add(impl_->writer);
    const std::size_t end = std::min(first + catalogueChunk, elements.size());
    for (std::size_t i = first; i < end; ++i) {
      const StoreElement& element = elements[i];
      if (typeWord(element.type).empty()) impl_->refuse(element.name + " has a type that cannot be stored");
      CatalogueEntry entry;
      entry.type = element.type;
      entry.addressType = element.addressType;
      entry.driver = element.driver;
      entry.reference = element.reference;
      entry.disabled = element.disabled;
      std::string text;
      redis::appendCatalogueText(entry, text);
      command.add(element.name).add(text);
    }
    impl_->link.ask(command, {});
  }
}

void StoreAdmin::removeElements(const std::vector<std::string>& names) {
  impl_->needFunctions();
  for (std::size_t first = 0; first < names.size(); first += catalogueChunk) {
    AdminCommand command = functionCall("dp_del");
    command.add(impl_->writer);
    const std::size_t end = std::min(first + catalogueChunk, names.size());
    for (std::size_t i = first; i < end; ++i) command.add(names[i]);
    impl_->link.ask(command, {});
  }
}

void StoreAdmin::apply(const StorePlan& plan) {
  putElements(plan.put);
  removeElements(plan.remove);
  for (std::size_t first = 0; first < plan.values.size(); first += valueChunk) {
    const std::size_t end = std::min(first + valueChunk, plan.values.size());
    const auto begin = plan.values.begin();
    write({begin + static_cast<std::ptrdiff_t>(first), begin + static_cast<std::ptrdiff_t>(end)},
          plan.timeMs);
  }
  // One write each: every list is a message of its own to whoever is connected to it.
  for (const StoreWrite& list : plan.lists) write({list}, plan.timeMs);
}

}  // namespace pvss
