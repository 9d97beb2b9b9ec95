// Exit codes of the okv2 command. The plug-in's own result codes (0, 1, 2, 3, 6, 7; plugin/host_abi.h) are
// passed on as they are; every other code stays clear of them.
#pragma once

namespace zel::tool {

enum ExitCode : int {
  kExitOk = 0,
  kExitFailed = 1,        // any other failure: out of memory, say
  kExitInvalid = 2,       // not a model directory, or not a regular file
  kExitUnsupported = 3,   // well-formed input of a kind that is refused
  kExitIoError = 6,       // the operating system refused to read or write a file
  kExitCorrupted = 7,     // damaged input
  kExitBadContainer = 8,  // the container breaks its format
  kExitLoss = 9,          // --strict, and something would be lost
  kExitDifferent = 10,    // what was compared is not equal
  kExitUsage = 64,        // the command line is wrong
  kExitNoPlugin = 69,     // the plug-in cannot be loaded
  kExitNoOutput = 73,     // the output file is refused or cannot be created
  kExitStdout = 74,       // standard output cannot be written
};

inline constexpr char kExitCodesHelp[] =
    "Exit codes:\n"
    "   0  success\n"
    "   1  any other failure\n"
    "   2  invalid input: not a model directory, or not a regular file\n"
    "   3  unsupported input\n"
    "   6  the operating system refused to read or write a file\n"
    "   7  damaged input\n"
    "   8  the container breaks its format\n"
    "   9  with --strict: something would be lost\n"
    "  10  what was compared differs\n"
    "  64  wrong usage\n"
    "  69  the plug-in cannot be loaded\n"
    "  73  the output is refused or cannot be created\n"
    "  74  standard output cannot be written\n";

}  // namespace zel::tool
