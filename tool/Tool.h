#pragma once

// The tool's spine around `main`: option parsing, the remove mode, signal
// handling and the placeholder credentials of the check and create modes.

#include "cli/GBSettings.h"
#include "connector/Finish.h"
#include "connector/OVConnectorIKEv2.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

// The one connector; set once by main, read by the signal handling.
extern std::shared_ptr<OVConnectorIKEv2> connector;
// Set once a terminating signal has been handled; main's wait loop ends.
extern std::atomic<bool> terminated;

namespace cli {
class GBOptionsHelper;
}

// Parses the command line into the "Current" settings level. On a parse
// error or --help, prints the help and finishes with status 1 (then
// returns null).
cli::GBSettingsRef parse_args(int argc, char** argv, const Finish& finish = finishProcess);

// Installs sig_handler for SIGUSR1, SIGINT, SIGTERM and SIGHUP.
void register_signal_handlers();
// The signal handler itself: only wakes the main run loop.
void sig_handler(int signal);

// Placeholder credentials from the unseeded C random generator.
std::string random_ip();
std::string random_username();

namespace tool {

// main's wait loop turns the main run loop in slices of this length,
// testing `terminated` between them.
inline constexpr std::chrono::milliseconds kRunLoopSlice{500};

// Registers the tool's six options, in the order the help lists them.
void register_tool_options(cli::GBOptionsHelper& options);

// The check-only and create-only values: create wins over check.
struct RunMode {
    bool checkOnly = false;
    bool createOnly = false;
};
RunMode run_mode(const cli::GBSettings& settings);

// The connector for the run: from the file "config" names, or from
// placeholder credentials in the check and create modes. Finishes with
// status 1 (then returns null) when the file does not exist or, in connect
// mode, when no file was given.
std::shared_ptr<OVConnectorIKEv2> build_connector(const cli::GBSettings& settings,
                                                  const RunMode& mode, const Finish& finish);

// Loads the preferences and removes the tool's profile, turning the main
// run loop until the completions finish (0 when removed or nothing to
// remove, 1 on errors).
void run_remove_mode(const Finish& finish);

// Opens /dev/null on each of the standard descriptors 0-2 that is closed,
// so that nothing the tool opens later takes their place. Called before
// anything is opened.
void make_standard_descriptors_valid();
// Ignores SIGPIPE and stops the tool as SIGTERM does when the reader of
// standard error goes away (a log write fails with EPIPE, or tend_controller
// finds its end of the pipe or socket closed).
void watch_controller();
// Between two slices of the run loop: writes the lines a slow reader of
// standard error could not take yet, and notices a reader that went away.
void tend_controller();

// The signal handler's work, on the main run loop's thread: log, disconnect once
// and mark the tool terminated. The current slice then ends as soon as the
// tunnel reports Disconnected (or Invalid), or at its deadline, so that the
// statuses of the tunnel going down are still logged.
void handle_signal(int signal);

}  // namespace tool
