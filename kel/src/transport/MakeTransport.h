// The transport that an address asks for.
#pragma once

#include <memory>
#include <string>

#include "KelUrl.h"
#include "transport/KelTransport.h"

namespace kel {

/// Not started yet; nothing, and the reason in `error`, when the address cannot work.
std::unique_ptr<KelTransport> makeTransport(const KelUrl& url, std::string& error);

/// The address to use: `given`, or KEL_URL, or the default. Nothing, and the reason, when it is not an
/// address.
std::optional<KelUrl> chosenUrl(const std::string& given, std::string& error);

/// A new process run: letters and digits that nobody else has.
std::string randomIncarnation();

}  // namespace kel
