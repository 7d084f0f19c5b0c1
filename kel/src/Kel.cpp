#include "kel/Kel.h"

#include <chrono>
#include <system_error>

#include "Log.h"
#include "session/Session.h"
#include "transport/MakeTransport.h"
#include "wire/RecordCodec.h"

namespace {

std::int64_t systemNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

/// Who gave the address or name in the call hears of it by the exception alone; what comes from outside is
/// also said.
[[noreturn]] void refuse(const std::string& reason, const char* remedy = nullptr) {
  if (remedy != nullptr) kel::log(kel::LogLevel::error, reason + " - " + remedy);
  throw KelException(reason);
}

}  // namespace

KelFactory* Kel::create(const char* publisherName) {
  return create(publisherName, KelOptions{});
}

KelFactory* Kel::create(const char* publisherName, const KelOptions& given) {
  KelOptions options = given;
  if (!options.wallClockNanoseconds) options.wallClockNanoseconds = systemNanoseconds;
  std::string error;
  const auto url = kel::chosenUrl(options.url, error);
  const char* const remedy = options.url.empty() ? "correct KEL_URL and start again" : nullptr;
  if (!url) refuse(error, remedy);
  std::string incarnation = options.incarnation.empty() ? kel::randomIncarnation() : options.incarnation;
  if (incarnation.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ") !=
      std::string::npos) {
    refuse("an incarnation may hold letters and digits only");
  }
  std::string name = publisherName == nullptr ? "" : publisherName;
  if (name.empty()) name = "unnamed-" + incarnation;
  if (!kel::encodeTopicName(name, error)) {
    refuse("no publisher can be called '" + name + "': " + error, "choose another publisher's name");
  }
  if (name.size() + 1 + incarnation.size() > kel::longestPublisher) {
    refuse("no publisher can be called '" + name.substr(0, 60) +
               "...': name and incarnation have more than " + std::to_string(kel::longestPublisher - 1) +
               " bytes",
           "choose a shorter publisher's name");
  }
  try {
    auto transport = kel::makeTransport(*url, error);
    if (!transport) refuse(error, remedy);
    return new kel::Session(std::move(name), std::move(incarnation), *url, options, std::move(transport));
  } catch (const std::system_error& shortage) {
    refuse("no link to a broker can be made: " + std::string(shortage.what()),
           "give this process more descriptors or threads and start again");
  }
}
