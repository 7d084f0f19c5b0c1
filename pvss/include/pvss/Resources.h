// Resources: command line and configuration file.
//
// Purpose    Reads `[section]` headers and `key = value` lines one after the other; the manager's own section
//            is read by its caller, all others by generalSection(). `#` begins a comment; a value with blanks
//            stands in double quotes.
// Switches   -config FILE (default config/config below the working directory), -num N, -help, -helpdbg.
// Thread     Main thread only; static data, begin() starts anew each time it is called.
// Errors     A switch that does not exist, a file that cannot be read, a line without '=', an unterminated
//            quote, an impossible value of a general entry: one line on standard error (file, line, reason),
//            then the process exits with 2.
#pragma once

#include <sstream>

#include "pvss/CharString.h"
#include "pvss/ManagerIdentifier.h"
#include "pvss/PVSSboolean.h"

class Resources {
 public:
  enum CfgState { CFG_EOF = 0, CFG_SECT_START = 1, CFG_OK = 2 };

  /// Reads the command line (taking out what it understands) and the file, and stands at the first section.
  static void begin(int& argc, char** argv);
  /// True while standing at the start of the named section; upper and lower case are the same.
  static PVSSboolean isSection(const CharString& name);
  /// Goes to the next entry (cfgState CFG_OK, keyWord and cfgStream set), section or end.
  static void getNextEntry();
  /// Reads `[general]`, passes over any other section. False at the end of the file.
  static PVSSboolean generalSection();
  /// Ends reading and checks that the manager knows its store.
  static void end(int& argc, char** argv);
  /// The switches, on standard output.
  static void printHelp();
  static void printHelpDbg();

  static PVSSboolean helpFlag;
  static PVSSboolean helpDbgFlag;
  static CharString keyWord;            ///< key of the current entry
  static std::istringstream cfgStream;  ///< stands at the value of the current entry
  static CfgState cfgState;
  static CharString
      addVersionInfo;  ///< shown with the manager's heartbeat; usable during static initialisation
  static ManagerIdentifier ownManId;  ///< manNum is the number of this process, 1 unless -num says otherwise
};
