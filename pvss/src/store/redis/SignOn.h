// SignOn: what the first words to a server and from it have in common, whoever speaks them.
#pragma once

#include <string>

namespace pvss::redis {

/// Appends AUTH with the password in the file (none: an empty one). False with the reason in `error` when the
/// file cannot be used. Reads the file.
bool appendAuth(std::string& out, const std::string& user, const std::string& passFile, std::string& error);

/// Whether the first byte of an answer is that of TLS and of nothing that Redis says.
bool speaksTls(char first);

}  // namespace pvss::redis
