// list_movies: the smallest host of the "trk:" plug-in. It builds the file
// system through the C interface, lists the movies, and reads the first
// frame of the first movie through the framework's classes: the URI handler
// gives the "trk:" file system, the plug-in's imager file type reads frames.
//
// Exit code 0 when a frame was read, 1 when there is no movie or it cannot
// be read.
#include <cstdio>
#include <memory>
#include <vector>

#include <zeb/CUriHandler.h>
#include <zeb/reduce/CReduceObjectArray.h>
#include <zebtrk/CTrkImagerFile.h>
#include <zebtrk/CTrkInterface.h>
#include <zebtrk/zebtrk.h>

int main() {
  zeb::trk::CTrkInterface* trk = zebtrk_Load();
  std::printf("drive present: %s\n", trk->drivePresent() ? "yes" : "no");

  std::unique_ptr<zebtrk_DirectoryListing> listing(zebtrk_GetDirectoryListing("trk:///", nullptr));
  for (const zeb::IFileSystem::CDirectoryEntry& entry : listing->entries) {
    std::printf("%s: %s frames of %s x %s, %lu bytes\n", entry.name.c_str(),
                entry.properties.GetValue("numFrames").c_str(), entry.properties.GetValue("width").c_str(),
                entry.properties.GetValue("height").c_str(), entry.size);
  }
  if (listing->entries.empty()) {
    std::printf("no movies\n");
    return 1;
  }

  zeb::IFileSystem* fileSystem = zeb::CUriHandler::instance()->FileSystemForPath("trk:");
  const zeb::CString path = zeb::CString("trk:///") + listing->entries[0].name;
  zeb::trk::CTrkImagerFile movie;
  if (!movie.Open(fileSystem, path, 0)) {
    std::printf("cannot open %s\n", path.c_str());
    return 1;
  }
  std::vector<unsigned short> frame(static_cast<size_t>(movie.xPixels()) * movie.yPixels());
  unsigned char preset = 0;
  zeb::reduce::CReduceObjectArray objects;
  if (!movie.GetFrame(frame.data(), 0, preset, objects)) {
    std::printf("cannot read frame 0 of %s\n", path.c_str());
    return 1;
  }
  unsigned short low = 65535, high = 0;
  for (unsigned short value : frame) {
    if (value < low) low = value;
    if (value > high) high = value;
  }
  std::printf("frame 0 of %s: %u x %u pixels, values %u to %u\n", path.c_str(), movie.xPixels(), movie.yPixels(), low,
              high);
  return 0;
}
