// CliTestSupport: what the zebtrk command tests need around the programs:
// running a program with a time limit and capturing its output, decoding
// PNG files back to samples (libpng), and a small strict JSON parser to check
// that `ls --json` is valid JSON.
//
// Not thread-safe; one test thread.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace clitest {

struct SRun {
  int status = -1;  // exit code; 128 + signal when killed by a signal
  std::string out;
  std::string err;
};

// Runs `argv` with the environment changes `env` ("NAME=value" sets,
// "NAME" alone unsets) and returns its exit code and output. A program that
// runs longer than `limitSeconds` is killed (status 128 + SIGKILL), so a hung
// program fails the test instead of hanging it.
SRun Run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}, int limitSeconds = 60);

// A program started in the background, its stdout and stderr going to
// `logPath`. Kill() (also on destruction) sends SIGTERM and reaps it.
class Background {
 public:
  Background(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& logPath);
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  pid_t pid() const { return m_pid; }
  // Sends `signal` and waits for the exit; returns the status as SRun does.
  int Kill(int signal = 15);
  // Waits up to `limitSeconds` for the program to end by itself; -1 when it
  // is still running then.
  int Wait(int limitSeconds);

 private:
  pid_t m_pid = -1;
  int m_status = -1;
};

// True once a connection to `socketPath` is accepted, trying for up to
// `limitSeconds`.
bool WaitForSocket(const std::string& socketPath, int limitSeconds);
// True once the file at `path` contains `text`, trying for up to
// `limitSeconds`.
bool WaitForText(const std::string& path, const std::string& text, int limitSeconds);

struct SPng {
  unsigned int width = 0;
  unsigned int height = 0;
  int bitDepth = 0;
  int colourType = 0;
  std::vector<uint8_t> bytes;  // rows as stored: 16-bit samples big-endian
};
// Decodes the PNG file at `path`; false when libpng rejects it.
bool ReadPng(const std::string& path, SPng& png);

// A parsed JSON value.
struct JsonValue {
  enum class EType { kNull, kBool, kNumber, kString, kArray, kObject } type = EType::kNull;
  bool boolean = false;
  double number = 0;
  std::string string;
  std::vector<JsonValue> array;
  std::map<std::string, JsonValue> object;
};
// Parses `text` as one JSON document (RFC 8259; whitespace around it
// allowed). False, with `error` set, for anything else.
bool ParseJson(const std::string& text, JsonValue& value, std::string& error);

}  // namespace clitest
