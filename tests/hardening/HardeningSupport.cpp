#include "tests/hardening/HardeningSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

#include "tests/support/ScopedEnv.h"
#include "trk/STrkInterfaceData.h"

namespace hardening {

// --- Scenario --------------------------------------------------------------

namespace {

// ThreadSanitizer starts a thread of its own with the process's first
// thread; one thread made and joined before the first count keeps that
// thread out of every difference.
size_t CountThreads() {
  static const bool warmedUp = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)warmedUp;
  return testsupport::ThreadCount();
}

}  // namespace

Scenario::Scenario() : m_resources(), m_threads(CountThreads()) {}

std::string Scenario::Leaks() const {
  // A joined thread may still show for a moment while the kernel releases
  // it; wait for the count to settle (bounded) before calling it a leak.
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  size_t threads = CountThreads();
  while (threads > m_threads && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    threads = CountThreads();
  }
  std::string text = m_resources.Leaks();
  // Fewer threads than before is no leak: a thread of an earlier scenario
  // may still have shown when the first count was taken.
  if (threads > m_threads) {
    text += "threads: " + std::to_string(threads) + " now, " + std::to_string(m_threads) + " before\n";
  }
  return text;
}

// --- File systems ----------------------------------------------------------

std::unique_ptr<zeb::trk::CTrkInterface> MakeFileSystem() {
  testsupport::ScopedEnv normal("ZEBTRK_ENABLE_EMULATOR", std::nullopt);
  return std::unique_ptr<zeb::trk::CTrkInterface>(new zeb::trk::CTrkInterface);
}

void DestroyWithin(std::unique_ptr<zeb::trk::CTrkInterface>& fs, std::chrono::seconds limit) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> returned = done->get_future();
  zeb::trk::CTrkInterface* raw = fs.release();
  std::thread destroyer([raw, done] {
    delete raw;
    done->set_value();
  });
  if (returned.wait_for(limit) != std::future_status::ready) {
    ADD_FAILURE() << "destroying the file system did not return within " << limit.count() << " s";
    std::fprintf(stderr, "FATAL: the file system's destructor hangs; ending the test program\n");
    std::fflush(nullptr);
    std::_Exit(1);
  }
  destroyer.join();
}

bool MonitoringEnded(zeb::trk::CTrkInterface& fs) {
  zeb::trk::STrkInterfaceData& data = *fs.data();
  std::unique_lock<std::mutex> guard(data.monitorLock);
  return data.monitorCondition.wait_for(guard, kPatience, [&] { return data.monitorEnded; });
}

long WrongBytes(zeb::trk::CTrkInterface& fs, const std::string& path, unsigned int fileId, size_t frameBytes,
                size_t size) {
  zeb::TSharedPtr<zeb::IFile> file = fs.OpenFile(path.c_str(), 0);
  if (!file || file->GetSize() <= 0 || (size && static_cast<size_t>(file->GetSize()) != size)) return 1;
  size = static_cast<size_t>(file->GetSize());
  std::vector<unsigned char> bytes(1000);
  long wrong = 0;
  for (size_t at = 0; at < size;) {
    const unsigned int got = file->Read(bytes.data(), static_cast<unsigned int>(bytes.size()));
    if (got == 0) return wrong + 1;
    for (unsigned int i = 0; i < got; ++i, ++at) {
      wrong += bytes[i] != PatternByte(fileId, at / frameBytes, at % frameBytes);
    }
  }
  return wrong;
}

std::vector<std::string> Names(const zeb::IFileSystem::CDirectoryListing& listing) {
  std::vector<std::string> names;
  for (const auto& entry : listing.entries) names.push_back(entry.name.c_str());
  return names;
}

}  // namespace hardening
