#include "pvss/Resources.h"

#include <fmt/core.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "config/ConfigFile.h"
#include "config/ReadFile.h"
#include "pvss/Settings.h"
#include "store/StoreFactory.h"

namespace {

constexpr const char* defaultFile = "config/config";

// Where reading stands.
struct Reader {
  std::string file;
  pvss::ConfigFile config;
  std::size_t section = 0;
  std::size_t entry = 0;
};

Reader& reader() {
  static Reader instance;
  return instance;
}

// A stream that takes nothing leaves nobody to tell.
void say(std::FILE* stream, const std::string& text) {
  static_cast<void>(std::fputs(text.c_str(), stream));
  static_cast<void>(std::fflush(stream));
}

[[noreturn]] void refuse(const std::string& message) {
  say(stderr, message + "\n");
  std::exit(2);
}

[[noreturn]] void refuseLine(int line, const std::string& reason) {
  refuse(reader().file + ":" + std::to_string(line) + ": " + reason);
}

template <class Number>
bool readNumber(std::string_view text, Number& number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// Takes our switches out of the command line; gives the configuration file that it names, if any.
std::string readCommandLine(int& argc, char** argv) {
  const std::string program = argc > 0 ? argv[0] : "manager";
  std::string file;
  for (int index = 1; index < argc; ++index) {
    const std::string_view word = argv[index];
    const auto value = [&]() -> std::string_view {
      if (index + 1 >= argc) {
        refuse(program + ": " + std::string(word) + " needs a value");
      }
      return argv[++index];
    };
    if (word == "-help") {
      Resources::helpFlag = PVSS_TRUE;
    } else if (word == "-helpdbg") {
      Resources::helpDbgFlag = PVSS_TRUE;
    } else if (word == "-config") {
      file = value();
      if (file.empty()) {
        refuse(program + ": -config needs a file name");
      }
    } else if (word == "-num") {
      const std::string_view text = value();
      if (!readNumber(text, Resources::ownManId.manNum) || Resources::ownManId.manNum < 1 ||
          Resources::ownManId.manNum > 255) {
        refuse(program + ": -num takes a manager number from 1 to 255, not '" + std::string(text) + "'");
      }
    } else {
      refuse(fmt::format("{0}: unknown switch '{1}', see {0} -help", program, word));
    }
  }
  if (argc > 1) {
    argc = 1;
    argv[1] = nullptr;
  }
  return file;
}

void readConfig(const std::string& named) {
  reader().file = named.empty() ? defaultFile : named;
  std::string text;
  if (const int reason = pvss::readFile(reader().file, text); reason != 0) {
    const bool unnamed = named.empty() && reason == ENOENT;
    if (unnamed && !pvss::Settings::current().storeAddress().empty()) {
      return;
    }
    refuse(reader().file + ": " + std::strerror(reason) +
           (unnamed ? "; name another file with -config, or set PVSS_STORE" : ""));
  }
  reader().config = pvss::ConfigFile::parse(text);
  if (reader().config.errorLine != 0) {
    refuseLine(reader().config.errorLine, reader().config.error);
  }
}

void standAtSection() {
  reader().entry = 0;
  Resources::keyWord = CharString();
  Resources::cfgStream.str({});
  Resources::cfgStream.clear();
  Resources::cfgState =
      reader().section < reader().config.sections.size() ? Resources::CFG_SECT_START : Resources::CFG_EOF;
}

void takeGeneralEntry(int line) {
  pvss::Settings& settings = pvss::Settings::current();
  CharString value;
  Resources::cfgStream >> value;
  if (Resources::keyWord.icmp("store") == 0) {
    settings.store = value.str();
  } else if (Resources::keyWord.icmp("backlogBytes") == 0) {
    std::size_t bytes = 0;
    if (!readNumber(value.view(), bytes) || bytes == 0) {
      refuseLine(line, "backlogBytes takes a number of bytes above 0, not '" + value.str() + "'");
    }
    settings.backlogBytes = bytes;
  } else if (Resources::keyWord.icmp("invalidAfter") == 0) {
    std::uint32_t seconds = 0;
    if (!readNumber(value.view(), seconds)) {
      refuseLine(line, "invalidAfter takes a number of seconds, 0 for never, not '" + value.str() + "'");
    }
    settings.invalidAfterSeconds = seconds;
  } else if (Resources::keyWord.icmp("system") == 0) {
    if (value.isEmpty() || value.find(':') != CharString::npos) {
      refuseLine(line, "system takes a name without ':', not '" + value.str() + "'");
    }
    settings.system = value.str();
  }
}

}  // namespace

PVSSboolean Resources::helpFlag = PVSS_FALSE;
PVSSboolean Resources::helpDbgFlag = PVSS_FALSE;
CharString Resources::keyWord;
std::istringstream Resources::cfgStream;
Resources::CfgState Resources::cfgState = Resources::CFG_EOF;
// Set while other static objects are built, so it must be there before any of them.
[[gnu::init_priority(101)]] CharString Resources::addVersionInfo;
ManagerIdentifier Resources::ownManId(0, API_MAN, 1);

void Resources::begin(int& argc, char** argv) {
  helpFlag = PVSS_FALSE;
  helpDbgFlag = PVSS_FALSE;
  ownManId = ManagerIdentifier(0, API_MAN, 1);
  pvss::Settings::current() = pvss::Settings();
  reader() = Reader();
  const std::string file = readCommandLine(argc, argv);
  if (!helpFlag && !helpDbgFlag) {
    readConfig(file);
  }
  standAtSection();
}

PVSSboolean Resources::isSection(const CharString& name) {
  return cfgState == CFG_SECT_START &&
         name.icmp(reader().config.sections[reader().section].name.c_str()) == 0;
}

void Resources::getNextEntry() {
  Reader& at = reader();
  if (at.section >= at.config.sections.size()) {
    cfgState = CFG_EOF;
    return;
  }
  const pvss::ConfigFile::Section& section = at.config.sections[at.section];
  if (at.entry >= section.entries.size()) {
    ++at.section;
    standAtSection();
    return;
  }
  const pvss::ConfigFile::Entry& entry = section.entries[at.entry++];
  keyWord = CharString(entry.key);
  cfgStream.str(entry.value);
  cfgStream.clear();
  cfgState = CFG_OK;
}

PVSSboolean Resources::generalSection() {
  if (cfgState == CFG_EOF) {
    return PVSS_FALSE;
  }
  const bool general = isSection("general");
  for (getNextEntry(); cfgState == CFG_OK; getNextEntry()) {
    if (general) {
      const Reader& at = reader();
      takeGeneralEntry(at.config.sections[at.section].entries[at.entry - 1].line);
    }
  }
  return cfgState != CFG_EOF;
}

void Resources::end(int& /*argc*/, char** /*argv*/) {
  if (helpFlag || helpDbgFlag) {
    return;
  }
  std::string problem;
  if (!pvss::makeStore(pvss::Settings::current().storeAddress(), problem)) {
    refuse(problem);
  }
}

void Resources::printHelp() {
  say(stdout,
      "Switches:\n"
      "  -config FILE  the configuration file; without it config/config below the working directory\n"
      "  -num N        the manager number, 1 to 255; without it 1\n"
      "  -help         this text\n"
      "  -helpdbg      how to see more of what the manager does\n"
      "\n"
      "Configuration file, '#' begins a comment:\n"
      "  [general]\n"
      "  store = \"redis://127.0.0.1:6379\"  where the data points are: memory:FILE, redis+unix://PATH,\n"
      "                                    redis://HOST:PORT, rediss://HOST:PORT,\n"
      "                                    redis+sentinel://HOST:PORT,HOST:PORT/MASTER; PVSS_STORE wins\n"
      "  backlogBytes = 67108864           room for writes that the store has not confirmed\n"
      "  invalidAfter = 10                 seconds without the store after which what is published is "
      "called\n"
      "                                    invalid, 0 for never\n"
      "  system = \"System1\"                name of the system that the data points belong to\n");
}

void Resources::printHelpDbg() {
  say(stdout,
      "KELGW_LOG sets what is written to standard error: trace, debug, info (without it), warn, error or "
      "off;\n"
      "\"info,pvss=debug,store=trace\" sets it room by room. One line each: time, room, level, what.\n");
}
