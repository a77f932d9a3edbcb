// CliError: an error that ends a zebtrk command, with the message a user
// reads on stderr and the process exit code that scripts test.
//
// Thrown by the command-line tool's classes and caught once, in
// Commands::Run, which prints "zebtrk: <message>" and returns the code.
// A plain value; any thread.
#pragma once

#include <stdexcept>
#include <string>

// Exit codes of the zebtrk command (also listed by `zebtrk --help`).
enum ExitCode : int {
  kExitOk = 0,
  kExitFailure = 1,       // an operation failed (read, remove, watch set-up)
  kExitUsage = 2,         // bad command line or frame range
  kExitNoService = 3,     // the movie service is not running, gone or foreign
  kExitNoDrive = 4,       // the service reports no drive
  kExitNoMovie = 5,       // no movie of that name
  kExitOutput = 6,        // output folder missing/not writable, write failed
  kExitPlugin = 7,        // plug-in library not found or not usable
  kExitTimeout = 8,       // the service did not answer within the time limit
  kExitInterrupted = 130  // a command stopped by SIGINT/SIGTERM
};

class CliError : public std::runtime_error {
 public:
  CliError(ExitCode code, const std::string& message) : std::runtime_error(message), m_code(code) {}
  ExitCode code() const { return m_code; }

 private:
  ExitCode m_code;
};
