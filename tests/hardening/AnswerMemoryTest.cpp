// What an answer costs in memory. The decoder trusts announced counts and
// lengths (it allocates before it reads), so a few bytes from the service
// can ask for gigabytes. Each case runs one command in a child process over
// a socketpair (CTrkClient::Adopt), with the answer followed by the end of
// the stream, and measures the child's peak resident memory above where it
// started and what it still holds afterwards. The peaks are bounded and
// nothing may be kept once the command has returned. docs/reliability.md
// records the numbers.
//
// Only in builds without sanitizers: their allocators end the process on a
// refused allocation instead of throwing, and their shadow memory blurs the
// numbers.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <zeb/CMemFile.h>

#include "client/CTrkClient.h"
#include "ipc/LocalSocket.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr long kMiB = 1024;  // in KiB, the unit of the measurements

enum class ECommand { kList, kInfoFile };

struct Case {
  const char* name;
  std::vector<unsigned char> answer;
  ECommand command;
  bool succeeds;
  long peakLimitKiB;  // at most this much above the start
};

std::vector<unsigned char> Bytes(std::initializer_list<unsigned char> bytes) { return bytes; }

// {"result": {"data": <bin32 of `size` bytes>}}, whole.
std::vector<unsigned char> InfoFileAnswer(uint32_t size) {
  std::vector<unsigned char> bytes = {0x81, 0xA6, 'r', 'e', 's', 'u', 'l', 't', 0x81, 0xA4, 'd', 'a', 't', 'a', 0xC6,
                                      static_cast<unsigned char>(size >> 24), static_cast<unsigned char>(size >> 16),
                                      static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)};
  bytes.resize(bytes.size() + size, 0x5A);
  return bytes;
}

// An array32 of `count` fixints, whole: every element arrives.
std::vector<unsigned char> ArrayAnswer(uint32_t count) {
  std::vector<unsigned char> bytes = {0xDD, static_cast<unsigned char>(count >> 24),
                                      static_cast<unsigned char>(count >> 16), static_cast<unsigned char>(count >> 8),
                                      static_cast<unsigned char>(count)};
  bytes.resize(bytes.size() + count, 0x01);
  return bytes;
}

std::vector<Case> Cases() {
  return {
      // Headers alone, then the end of the stream.
      {"str32 of 2^32-1", Bytes({0xDB, 0xFF, 0xFF, 0xFF, 0xFF}), ECommand::kList, false, 4096 * kMiB + 64 * kMiB},
      {"bin32 of 2^32-1", Bytes({0xC6, 0xFF, 0xFF, 0xFF, 0xFF}), ECommand::kList, false, 64 * kMiB},
      {"array32 of 2^32-1", Bytes({0xDD, 0xFF, 0xFF, 0xFF, 0xFF}), ECommand::kList, false, 64 * kMiB},
      {"map32 of 2^32-1", Bytes({0xDF, 0xFF, 0xFF, 0xFF, 0xFF}), ECommand::kList, false, 64 * kMiB},
      {"array32 of 2^24", Bytes({0xDD, 0x01, 0x00, 0x00, 0x00}), ECommand::kList, false, 384 * kMiB + 64 * kMiB},
      {"map32 of 2^24", Bytes({0xDF, 0x01, 0x00, 0x00, 0x00}), ECommand::kList, false, 512 * kMiB + 64 * kMiB},
      // Realistic big answers that arrive whole.
      {"16 MiB information file", InfoFileAnswer(16u << 20), ECommand::kInfoFile, true, 64 * kMiB},
      {"array of 2^18 integers", ArrayAnswer(1u << 18), ECommand::kList, false, 6 * kMiB + 32 * kMiB},
  };
}

long ResidentKiB() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long PeakKiB() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

struct Measured {
  bool result = false;
  long peakKiB = 0;  // peak resident memory above the start
  long keptKiB = 0;  // resident memory above the start once the command returned
};

// In the child: the command over a socketpair whose other end sends the
// version answer, then `answer`, then ends the stream.
Measured Measure(const Case& c) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::_Exit(3);
  const std::vector<unsigned char> version = {0x81, 0xA6, 'r', 'e', 's', 'u', 'l', 't', 0x81, 0xA3, 'v', 'e', 'r', 0x00};
  std::thread service([&] {
    LocalSocket peer(ends[1]);
    peer.Write(version.data(), version.size());
    peer.Write(c.answer.data(), c.answer.size());
    shutdown(ends[1], SHUT_WR);
    char sink[256];
    while (recv(ends[1], sink, sizeof sink, 0) > 0) {
    }
  });
  Measured measured;
  {
    CTrkClient client;
    zeb::TSharedPtr<zeb::IFile> file = zeb::CMemFile::Create();
    if (!client.Adopt(LocalSocket(ends[0]))) std::_Exit(4);
    const long start = ResidentKiB();
    unsigned int count = 0;
    measured.result = c.command == ECommand::kList ? client.ListMovies(count) : client.ReadInfoFile(0, file);
    measured.peakKiB = PeakKiB() - start;
    file = zeb::TSharedPtr<zeb::IFile>();
    measured.keptKiB = ResidentKiB() - start;
  }  // the client closes its end; the service thread sees the end
  service.join();
  return measured;
}

Measured MeasureInChild(const Case& c) {
  int pipeEnds[2];
  if (pipe(pipeEnds) != 0) return {};
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(pipeEnds[0]);
    const Measured m = Measure(c);
    if (write(pipeEnds[1], &m, sizeof m) != static_cast<ssize_t>(sizeof m)) std::_Exit(5);
    std::_Exit(0);
  }
  close(pipeEnds[1]);
  Measured m;
  const bool got = read(pipeEnds[0], &m, sizeof m) == static_cast<ssize_t>(sizeof m);
  close(pipeEnds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(got && WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the measuring child failed";
  return m;
}

TEST(AnswerMemoryTest, PeaksAreBoundedAndNothingIsKept) {
  if (kSanitized) GTEST_SKIP() << "sanitizer allocators end the process on a refused allocation";
  std::printf("%-28s %12s %12s\n", "answer", "peak MiB", "kept MiB");
  for (const Case& c : Cases()) {
    SCOPED_TRACE(c.name);
    const Measured m = MeasureInChild(c);
    std::printf("%-28s %12.1f %12.1f\n", c.name, m.peakKiB / 1024.0, m.keptKiB / 1024.0);
    EXPECT_EQ(m.result, c.succeeds);
    EXPECT_LE(m.peakKiB, c.peakLimitKiB);
    // The client (and its decoder) live as long as the host's connection:
    // what one answer made them allocate must be given back.
    EXPECT_LE(m.keptKiB, 8 * kMiB);
  }
}

}  // namespace
