// The process's single file system: built by many threads at once through
// the C functions and zeb::trk::instance(), then destroyed by the exit
// handlers while its monitoring thread waits. The singleton lives once per
// process, so every scenario runs in a child process of its own, which ends
// through std::exit; the test fails when the child reports a fault, a
// sanitizer ends it, or its scenario or exit does not end within its limit.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tests/hardening/HardeningSupport.h"
#include "tests/support/ScopedEnv.h"
#include "trk/zebtrk.h"

namespace hardening {
namespace {

enum class EService { kAnswering, kSilent, kNone, kBusy };

// --- In the child ----------------------------------------------------------

FakeService* g_fake = nullptr;
FakeDrive* g_drive = nullptr;

// An exit handler registered before the singleton exists, so it runs after
// the singleton's destructor: the service outlives the file system.
void StopService() {
  delete g_drive;
  delete g_fake;
  g_drive = nullptr;
  g_fake = nullptr;
}

int Fault(const std::string& what) {
  std::fprintf(stderr, "child: %s\n", what.c_str());
  return 2;
}

std::atomic<int> g_calls(0);
void CountCall(void*) { ++g_calls; }

long VersionChecks() {
  long count = 0;
  for (const Request& request : g_fake->Requests()) count += request.act() == "verCheck";
  return count;
}

// Eight threads released at once, each entering through another function;
// two of them register a handler.
int ConcurrentFirstCalls(EService service) {
  constexpr int kThreads = 8;
  std::atomic<bool> go(false);
  std::vector<zeb::trk::CTrkInterface*> seen(kThreads, nullptr);
  std::vector<zebDelegate> handles(kThreads, zebDelegate{});
  std::vector<int> listed(kThreads, -1);
  std::vector<std::thread> threads;
  for (int k = 0; k < kThreads; ++k) {
    threads.emplace_back([&, k] {
      while (!go) std::this_thread::yield();
      switch (k % 4) {
        case 0:
          seen[k] = zebtrk_Load();
          break;
        case 1:
          zebtrk_drivePresent();
          seen[k] = zeb::trk::instance();
          break;
        case 2:
          handles[k] = zebtrk_AddFilesChangedHandler(&CountCall, nullptr);
          seen[k] = zebtrk_Load();
          break;
        default: {
          zebtrk_DirectoryListing* listing = zebtrk_GetDirectoryListing("trk:///", nullptr);
          listed[k] = static_cast<int>(listing->entries.size());
          delete listing;
          seen[k] = zeb::trk::instance();
        }
      }
    });
  }
  go = true;
  for (std::thread& thread : threads) thread.join();

  for (int k = 0; k < kThreads; ++k) {
    if (seen[k] == nullptr || seen[k] != seen[0]) return Fault("threads saw different file systems");
    if (k % 4 == 3 && listed[k] != (service == EService::kNone ? 0 : 2)) return Fault("unexpected listing");
  }
  // The host releases its handles whatever happens (two at once).
  auto release = [&] {
    std::thread first([&] { zebtrk_RemoveFilesChangedHandler(handles[2]); });
    std::thread second([&] { zebtrk_RemoveFilesChangedHandler(handles[6]); });
    first.join();
    second.join();
  };
  if (service == EService::kNone) {
    release();
    return 0;
  }
  if (g_fake->ConnectionCount() != 2 || VersionChecks() != 2) return Fault("the file system was built twice");
  if (service == EService::kSilent) {
    release();
    return 0;
  }

  // Each registered handler is called once per refresh; removed from two
  // threads at once, neither is called again.
  // One event read is pending; the next one goes out once a refresh is over.
  g_drive->Post(1);
  if (!g_drive->WaitFor(kReadQueue, 2)) return Fault("no refresh after the first event");
  if (g_calls != 2) return Fault("the handlers were not called once each");
  release();
  g_drive->Post(1);
  if (!g_drive->WaitFor(kReadQueue, 3)) return Fault("no refresh after the second event");
  if (g_calls != 2) return Fault("a removed handler was called");
  if (service == EService::kBusy) g_drive->Post(1, 100000);  // exit amid refreshes
  return 0;
}

int RunScenario(EService service) {
  if (service != EService::kNone) {
    g_fake = new FakeService;
    g_drive = new FakeDrive(*g_fake);
    g_drive->SetMovies({{1, "a", 4, 4, 2}, {2, "b", 4, 4, 2}});
    if (service == EService::kSilent) {
      g_drive->FaultAlways(kReadQueue, Reply::Never());
      g_drive->FaultAlways(kDestroyQueue, Reply::Never());
    }
    if (!g_fake->Start()) return Fault("the fake service did not start");
    std::atexit(&StopService);
  }
  return ConcurrentFirstCalls(service);
}

// --- In the test -----------------------------------------------------------

// How long the whole scenario may take in the child; its exit alone may take
// kExitLimit (the file system gives a silent service a grace period of a few
// seconds).
constexpr unsigned int kScenarioSeconds = 60;

// Runs the scenario in a child that ends through std::exit (so the exit
// handlers destroy the singleton), and expects it to exit with status 0. An
// alarm ends a child whose scenario or exit takes longer than its limit.
void ExpectCleanExit(EService service) {
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    alarm(kScenarioSeconds);
    testsupport::ScopedEnv normal("ZEBTRK_ENABLE_EMULATOR", std::nullopt);
    const int status = RunScenario(service);
    alarm(static_cast<unsigned int>(kExitLimit.count()));
    std::exit(status);  // runs the exit handlers: the singleton's destructor
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_FALSE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
      << "the child hangs: in its scenario, or in its exit (the singleton's destruction)";
  ASSERT_TRUE(WIFEXITED(status)) << "the child died of signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the child reported a fault (see its output)";
}

TEST(SingletonTest, BuiltOnceByConcurrentFirstCallsAndDestroyedAtExit) { ExpectCleanExit(EService::kAnswering); }

TEST(SingletonTest, ExitWhileTheServiceIsSilent) { ExpectCleanExit(EService::kSilent); }

TEST(SingletonTest, ExitAmidRefreshes) { ExpectCleanExit(EService::kBusy); }

TEST(SingletonTest, BuiltConcurrentlyWithoutAService) { ExpectCleanExit(EService::kNone); }

}  // namespace
}  // namespace hardening
