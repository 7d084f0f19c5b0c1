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

/// One option; the complaint when it cannot be taken, empty when all is well.
std::string takeOption(std::string_view key, const std::string& value, StoreAddress& out) {
  if (key == "user") {
    out.user = value;
  } else if (key == "passfile") {
    out.passFile = value;
  } else if (key == "db") {
    if (!number(value, 0, 1000000, out.database)) return "db=" + value + " is no database number";
  } else if (key == "ca" || key == "cert" || key == "key") {
    if (!out.tls) return std::string(key) + "= needs rediss:// or rediss+sentinel://";
    (key == "ca" ? out.tlsFiles.ca : key == "cert" ? out.tlsFiles.cert : out.tlsFiles.key) = value;
  } else if (key == "sentineluser" || key == "sentinelpassfile") {
    if (!out.bySentinel()) return std::string(key) + "= needs an address with sentinels";
    (key == "sentineluser" ? out.sentinelUser : out.sentinelPassFile) = value;
  } else if (key == "password" || key == "pass") {
    return "a secret must not stand in the address; name a file that holds it with passfile=FILE";
  } else {
    return "unknown option '" + std::string(key) +
           "' (known: user, passfile, db; over TLS ca, cert, key; with Sentinel sentineluser, "
           "sentinelpassfile)";
  }
  return {};
}

bool parseOptions(std::string_view options, StoreAddress& out, std::string& error) {
  while (!options.empty()) {
    const std::size_t end = options.find('&');
    const std::string_view option = options.substr(0, end);
    options.remove_prefix(end == std::string_view::npos ? options.size() : end + 1);
    const std::size_t equals = option.find('=');
    const std::string value =
        equals == std::string_view::npos ? std::string() : decoded(option.substr(equals + 1));
    error = takeOption(option.substr(0, equals), value, out);
    if (!error.empty()) return false;
  }
  if (out.tls && out.bySentinel() && out.tlsFiles.ca.empty()) {
    error =
        "rediss+sentinel:// needs ca=FILE: the server is the one that a sentinel names, and any host can "
        "have a "
        "certificate of the system's authorities for its own name";
    return false;
  }
  if (out.tlsFiles.cert.empty() != out.tlsFiles.key.empty()) {
    error = "cert= and key= go together";
    return false;
  }
  return true;
}

bool parsePlace(std::string_view rest, int defaultPort, ServerPlace& out, std::string& error) {
  out.port = defaultPort;
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
  if (!isHost(out.host)) {
    error = "the host is no name and no number";
    return false;
  }
  if (hasPort && !number(port, 1, 65535, out.port)) {
    error = "'" + std::string(port) + "' is no port";
    return false;
  }
  return true;
}

/// Splits "hosts/path"; a user or a secret before the hosts is refused.
bool splitHosts(std::string_view rest, std::string_view& hosts, std::string_view& path, std::string& error) {
  if (rest.find('@') != std::string_view::npos) {
    error = "user and secret must not stand before the host; use ?user=NAME&passfile=FILE";
    return false;
  }
  const std::size_t slash = rest.find('/');
  hosts = rest.substr(0, slash);
  path = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
  return true;
}

bool parseServer(std::string_view rest, StoreAddress& out, std::string& error) {
  std::string_view host;
  std::string_view database;
  if (!splitHosts(rest, host, database, error)) return false;
  if (!database.empty() && !number(database, 0, 1000000, out.database)) {
    error = "/" + std::string(database) + " is no database number";
    return false;
  }
  return parsePlace(host, 6379, out.places.emplace_back(), error);
}

bool parseSentinels(std::string_view rest, StoreAddress& out, std::string& error) {
  std::string_view hosts;
  std::string_view name;
  if (!splitHosts(rest, hosts, name, error)) return false;
  out.masterName = decoded(name);
  if (out.masterName.empty()) {
    error = "the name of the master is missing, as in redis+sentinel://host1,host2:26379/mymaster";
    return false;
  }
  while (true) {
    const std::size_t comma = hosts.find(',');
    if (!parsePlace(hosts.substr(0, comma), 26379, out.places.emplace_back(), error)) return false;
    if (comma == std::string_view::npos) return true;
    hosts.remove_prefix(comma + 1);
  }
}

bool parseLocal(std::string_view rest, StoreAddress& out, std::string& error) {
  ServerPlace& place = out.places.emplace_back();
  place.path = decoded(rest);
  if (place.path.empty() || place.path.front() != '/') {
    error = "redis+unix:// needs the full path of the socket, as in redis+unix:///run/redis/redis.sock";
    return false;
  }
  if (place.path.size() >= sizeof(sockaddr_un::sun_path)) {
    error = "the path of the socket is longer than the system allows";
    return false;
  }
  return true;
}

}  // namespace

std::string ServerPlace::text() const {
  if (!path.empty()) return path;
  const bool brackets = host.find(':') != std::string::npos;
  return (brackets ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool isHost(std::string_view text) {
  constexpr std::string_view known = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-_:%";
  return !text.empty() && text.size() <= 255 && text.find_first_not_of(known) == std::string_view::npos;
}

std::optional<StoreAddress> parseStoreAddress(std::string_view address, std::string& error) {
  StoreAddress out;
  std::string_view rest = address;
  const std::size_t question = rest.find('?');
  const std::string_view options =
      question == std::string_view::npos ? std::string_view() : rest.substr(question + 1);
  rest = rest.substr(0, question);
  out.text = rest;
  bool good = false;
  if (takePrefix(rest, "redis+unix://")) {
    good = parseLocal(rest, out, error);
  } else if (takePrefix(rest, "redis://") || (out.tls = takePrefix(rest, "rediss://"))) {
    good = parseServer(rest, out, error);
  } else if (takePrefix(rest, "redis+sentinel://") || (out.tls = takePrefix(rest, "rediss+sentinel://"))) {
    good = parseSentinels(rest, out, error);
  } else {
    error =
        "not the address of a Redis store (redis+unix:///path, redis://host:port, rediss://host:port, "
        "redis+sentinel://host:port,host:port/master)";
  }
  if (!good || !parseOptions(options, out, error)) return std::nullopt;
  return out;
}

}  // namespace pvss::redis
