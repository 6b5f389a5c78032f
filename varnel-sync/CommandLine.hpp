#pragma once
// The command-line tool as a library: `run` parses the arguments, runs the command and
// returns the exit status, printing only to the streams of `io`. The one-file `main`
// supplies the process's streams, terminal facts and Ctrl-C handling.

#include "varnel-sync/Context.hpp"

#include <string>
#include <vector>

namespace varnel::cli {

// `arguments` excludes the program name. Never throws: every failure is printed on
// io.err as a sentence (and, with --json, as an error document on io.out) and becomes
// its exit status.
int run(const std::vector<std::string>& arguments, Io& io);

// "varnel-sync 0.1.0 (build 42, revision 1ced8c8f0a1b)"
std::string versionText();

}  // namespace varnel::cli
