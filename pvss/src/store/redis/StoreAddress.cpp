#include "store/redis/StoreAddress.h"

#include <sys/un.h>

#include <charconv>

namespace pvss::redis {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string decoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 && hexDigit(text[i + 2]) >= 0) {
      out += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

bool number(std::string_view text, int lowest, int highest, int& out) {
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), out);
  return code == std::errc{} && end == text.data() + text.size() && out >= lowest && out <= highest;
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

bool parseOptions(std::string_view options, StoreAddress& out, std::string& error) {
  while (!options.empty()) {
    const std::size_t end = options.find('&');
    const std::string_view option = options.substr(0, end);
    options.remove_prefix(end == std::string_view::npos ? options.size() : end + 1);
    const std::size_t equals = option.find('=');
    const std::string_view key = option.substr(0, equals);
    const std::string value =
        equals == std::string_view::npos ? std::string() : decoded(option.substr(equals + 1));
    if (key == "user") {
      out.user = value;
    } else if (key == "passfile") {
      out.passFile = value;
    } else if (key == "db") {
      if (!number(value, 0, 1000000, out.database)) {
        error = "db=" + value + " is no database number";
        return false;
      }
    } else if (key == "password" || key == "pass") {
      error = "a secret must not stand in the address; name a file that holds it with passfile=FILE";
      return false;
    } else {
      error = "unknown option '" + std::string(key) + "' (known: user, passfile, db)";
      return false;
    }
  }
  return true;
}

bool parseHost(std::string_view rest, StoreAddress& out, std::string& error) {
  if (rest.find('@') != std::string_view::npos) {
    error = "user and secret must not stand before the host; use ?user=NAME&passfile=FILE";
    return false;
  }
  if (const std::size_t slash = rest.find('/'); slash != std::string_view::npos) {
    const std::string_view database = rest.substr(slash + 1);
    rest = rest.substr(0, slash);
    if (!database.empty() && !number(database, 0, 1000000, out.database)) {
      error = "/" + std::string(database) + " is no database number";
      return false;
    }
  }
  std::string_view port;
  bool hasPort = false;
  if (rest.starts_with('[')) {
    const std::size_t close = rest.find(']');
    if (close == std::string_view::npos) {
      error = "the ']' of the host is missing";
      return false;
    }
    out.host = rest.substr(1, close - 1);
    rest.remove_prefix(close + 1);
    if (hasPort = rest.starts_with(':'); hasPort) port = rest.substr(1);
  } else {
    const std::size_t colon = rest.rfind(':');
    out.host = rest.substr(0, colon);
    if (hasPort = colon != std::string_view::npos; hasPort) port = rest.substr(colon + 1);
  }
  if (out.host.empty()) {
    error = "the host is missing";
    return false;
  }
  if (hasPort && !number(port, 1, 65535, out.port)) {
    error = "'" + std::string(port) + "' is no port";
    return false;
  }
  return true;
}

}  // namespace

std::optional<StoreAddress> parseStoreAddress(std::string_view address, std::string& error) {
  StoreAddress out;
  std::string_view rest = address;
  const std::size_t question = rest.find('?');
  const std::string_view options =
      question == std::string_view::npos ? std::string_view() : rest.substr(question + 1);
  rest = rest.substr(0, question);
  out.text = rest;
  if (takePrefix(rest, "redis+unix://")) {
    out.kind = StoreAddress::Kind::local;
    out.path = decoded(rest);
    if (out.path.empty() || out.path.front() != '/') {
      error = "redis+unix:// needs the full path of the socket, as in redis+unix:///run/redis/redis.sock";
      return std::nullopt;
    }
    if (out.path.size() >= sizeof(sockaddr_un::sun_path)) {
      error = "the path of the socket is longer than the system allows";
      return std::nullopt;
    }
  } else if (takePrefix(rest, "redis://")) {
    out.kind = StoreAddress::Kind::tcp;
    if (!parseHost(rest, out, error)) return std::nullopt;
  } else if (takePrefix(rest, "rediss://")) {
    out.kind = StoreAddress::Kind::tls;
    if (!parseHost(rest, out, error)) return std::nullopt;
    error = "rediss:// needs TLS, which this build does not have";
    return std::nullopt;
  } else {
    error = "not the address of a Redis store (redis+unix:///path, redis://host:port)";
    return std::nullopt;
  }
  if (!parseOptions(options, out, error)) return std::nullopt;
  return out;
}

}  // namespace pvss::redis
