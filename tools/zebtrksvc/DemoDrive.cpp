#include "tools/zebtrksvc/DemoDrive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include <zeb/CDateTime.h>
#include <zeb/CLocalFileSystem.h>
#include <zeb/file/CRawImagerFile.h>
#include <zeb/file/CRawImagerWriter.h>
#include <zeb/file/SRawImagerInfo.h>

#include "ipc/strprintf.h"
#include "tools/zebtrksvc/ThermalScene.h"
#include "tools/zebtrksvc/UniqueFd.h"

namespace zebtrksvc {
namespace {

const char* const kNames[] = {
    "Harbour Pass",      "Ridge Line - East", "Night Ferry",     "Runway 27 Approach",
    "Forest Edge",       "Substation Survey", "Coastal Sweep",   "Stack Plume",
    "Tunnel Exit",       "Bridge Deck - North", "Roof Inspection", "Rail Yard",
    "Quarry Rim",        "Wind Farm Row 3",   "Pipeline Crossing", "Market Square",
};
constexpr unsigned kNameCount = sizeof(kNames) / sizeof(kNames[0]);

struct Size {
  uint32_t width, height;
};
const Size kSizes[] = {{320, 240}, {640, 512}, {384, 288}};
const double kRates[] = {30, 50, 60, 25};

// 2024-05-02 08:00:00 UTC in seconds since 1970.
constexpr long kDemoStartUnixSeconds = 1714636800L;

uint64_t Mix(uint64_t& state) {
  uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

zeb::file::SRawImagerInfo Layout(const MovieSpec& spec) {
  zeb::file::SRawImagerInfo layout;
  layout.width = spec.width;
  layout.height = spec.height;
  layout.frames = spec.frames;
  layout.hasTiming = true;
  layout.firstFrameTicks = spec.firstFrameTicks;
  layout.framePeriodTicks = spec.framePeriodTicks;
  return layout;
}

bool PutFrames(const std::string& dataPath, const MovieSpec& spec, std::string& error) {
  zeb::file::CRawImagerWriter writer;
  if (!writer.Create(zeb::fileSystem(), zeb::CString(dataPath.c_str()), Layout(spec))) {
    error = strprintf("cannot create \"%s\"", dataPath.c_str());
    return false;
  }
  const ThermalScene scene(spec.width, spec.height, spec.frames, spec.seed);
  std::vector<uint16_t> pixels(static_cast<size_t>(spec.width) * spec.height);
  for (uint32_t frame = 0; frame < spec.frames; ++frame) {
    scene.Render(frame, pixels.data());
    if (!writer.PutFrame(pixels.data())) {
      error = strprintf("cannot write frame %u of \"%s\"", frame, dataPath.c_str());
      return false;
    }
  }
  if (!writer.Finish()) {
    error = strprintf("cannot write the information file of \"%s\"", dataPath.c_str());
    return false;
  }
  return true;
}

// The first and the last frame written, the rest left as a hole; then the
// information file in the framework's own text.
bool PutSparse(const std::string& dataPath, const MovieSpec& spec, std::string& error) {
  const zeb::file::SRawImagerInfo layout = Layout(spec);
  UniqueFd data(open(dataPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!data.valid()) {
    error = strprintf("cannot create \"%s\": %s", dataPath.c_str(), std::strerror(errno));
    return false;
  }
  const ThermalScene scene(spec.width, spec.height, spec.frames, spec.seed);
  std::vector<uint16_t> pixels(static_cast<size_t>(spec.width) * spec.height);
  const uint32_t ends[2] = {0, spec.frames - 1};
  for (uint32_t frame : ends) {
    scene.Render(frame, pixels.data());
    const uint64_t bytes = layout.frameBytes();
    const off_t offset = static_cast<off_t>(uint64_t{frame} * bytes);
    if (pwrite(data.get(), pixels.data(), bytes, offset) != static_cast<ssize_t>(bytes)) {
      error = strprintf("cannot write frame %u of \"%s\"", frame, dataPath.c_str());
      return false;
    }
  }
  if (ftruncate(data.get(), static_cast<off_t>(layout.dataBytes())) != 0) {
    error = strprintf("cannot size \"%s\": %s", dataPath.c_str(), std::strerror(errno));
    return false;
  }
  data.reset();
  const zeb::CString infoPath = zeb::file::CRawImagerFile::InfoPath(zeb::CString(dataPath.c_str()));
  zeb::TSharedPtr<zeb::IFile> info = zeb::fileSystem()->OpenFile(infoPath, zeb::IFile::kModeCreateWrite);
  const zeb::CString text = layout.ToText();
  if (!info || !info->WriteBytes(text.c_str(), static_cast<unsigned int>(text.length()))) {
    error = strprintf("cannot write \"%s\"", infoPath.c_str());
    return false;
  }
  info->Flush();
  return true;
}

}  // namespace

std::string MovieSpec::stem() const {
  return std::to_string(number) + "-" + name;
}

long DemoDrive::DefaultStartTicks() {
  return zeb::CDateTime::kUnixEpochTicks + kDemoStartUnixSeconds * zeb::CDateTime::kTicksPerSecond;
}

long DemoDrive::PeriodForRate(double rate) {
  if (!(rate > 0)) return 0;
  return std::lround(zeb::CDateTime::kTicksPerSecond / rate);
}

std::vector<MovieSpec> DemoDrive::Plan(unsigned count, uint64_t seed, uint32_t frames) {
  std::vector<MovieSpec> plan;
  uint64_t state = seed;
  long start = DefaultStartTicks();
  for (unsigned i = 0; i < count; ++i) {
    MovieSpec spec;
    spec.number = i + 1;
    spec.name = kNames[i % kNameCount];
    if (i >= kNameCount) spec.name += " " + std::to_string(i / kNameCount + 1);
    const Size size = kSizes[i % (sizeof(kSizes) / sizeof(kSizes[0]))];
    spec.width = size.width;
    spec.height = size.height;
    // Larger pictures get fewer frames, keeping a demo drive quick to write.
    const bool large = size.width >= 640;
    spec.frames = frames != 0 ? frames : (large ? 30 + Mix(state) % 61 : 50 + Mix(state) % 151);
    spec.framePeriodTicks = PeriodForRate(kRates[Mix(state) % (sizeof(kRates) / sizeof(kRates[0]))]);
    // Minutes apart, at odd microseconds, so the time codes carry fractions.
    start += static_cast<long>(Mix(state) % 1800 + 600) * zeb::CDateTime::kTicksPerSecond +
             static_cast<long>(Mix(state) % 1000000) * 10;
    spec.firstFrameTicks = start;
    spec.seed = Mix(state);
    plan.push_back(spec);
  }
  return plan;
}

bool DemoDrive::WriteMovie(const std::string& folder, const MovieSpec& spec, std::string& error) {
  if (spec.name.empty() || spec.name.find('/') != std::string::npos) {
    error = "a movie name must not be empty nor contain '/'";
    return false;
  }
  if (!Layout(spec).IsValid()) {
    error = strprintf("unusable movie layout %ux%u, %u frames (width and height 1 to 65535, "
                      "at least one frame, a frame below 2 GiB)",
                      spec.width, spec.height, spec.frames);
    return false;
  }
  if (!zeb::fileSystem()->MakeDir(zeb::CString(folder.c_str()), true)) {
    error = strprintf("cannot make the folder \"%s\"", folder.c_str());
    return false;
  }
  const std::string dataPath = folder + "/" + spec.stem() + ".dat";
  return spec.sparse ? PutSparse(dataPath, spec, error) : PutFrames(dataPath, spec, error);
}

}  // namespace zebtrksvc
