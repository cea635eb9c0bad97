// zormeshctl's commands: builds one command message from a subcommand and its arguments, sends
// it to a daemon's command socket and prints the decoded reply. Kept apart from main() so that
// tests run whole command lines in-process.
#pragma once

#include <ostream>

namespace ctl {

// Exit statuses, the same for every subcommand.
constexpr int EXIT_REPLY = 0;      // a reply came (or a local subcommand succeeded)
constexpr int EXIT_USAGE = 1;      // bad usage or a refused value; nothing was sent
constexpr int EXIT_NO_CONNECT = 2; // the socket could not be reached
constexpr int EXIT_NO_REPLY = 3;   // the daemon closed the connection without a whole reply

// Runs one command line (argv[0] is the program name); output goes to `out`, messages to
// `err`. Returns the exit status.
int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace ctl
