// PluginLoader: loads libzebtrk.so the way a zeb host loads a plug-in, finds
// its seven C functions and reaches its "trk:" file system.
//
// The library is found at $ZEBTRK_PLUGIN when that variable is set and not
// empty, otherwise at <folder of this program>/<bin-to-lib>/libzebtrk.so
// (the library folder beside the program's bin folder, in the build tree and
// in an installed tree alike).
//
// Ownership: the object owns the dlopen handle. Loading only runs the
// library's static initialiser (which registers the "TRK Imager File" type);
// Start() constructs the file system. The destructor withdraws what the
// library registered with the framework (the "trk:" scheme, the imager type)
// and then unloads it, which destroys the file system; everything obtained
// from the plug-in (files, imager files, handlers) must be released first.
//
// Threads: construct, Start and destroy on one thread; the function pointers
// may be called from any thread, as the plug-in allows.
#pragma once

#include <string>

#include <zeb/IFileSystem.h>
#include <zeb/zebDelegate.h>

class PluginLoader {
 public:
  // The plug-in's C interface. zebtrk_Load returns the file system object,
  // which this host only needs built: it is typed as an opaque pointer.
  typedef void* (*LoadFunction)();
  typedef bool (*DrivePresentFunction)();
  typedef zebDelegate (*AddHandlerFunction)(void (*callback)(void*), void* userData);
  typedef void (*RemoveHandlerFunction)(zebDelegate handler);
  typedef zeb::IFileSystem::CDirectoryListing* (*GetDirectoryListingFunction)(const char* path, const char* filter);
  typedef zeb::IFileSystem::CDirectoryEntry* (*GetInfoFunction)(const char* path);
  typedef bool (*RemoveFileFunction)(const char* path);

  // The imager file type and URI scheme the plug-in registers.
  static constexpr const char* kImagerType = "TRK Imager File";
  static constexpr const char* kScheme = "trk:";

  // Where the library is looked for (see above); never empty.
  static std::string DefaultPath();

  // dlopens `path` and resolves the seven functions. Failure: CliError
  // kExitPlugin naming the path and the loader's reason.
  explicit PluginLoader(const std::string& path);
  ~PluginLoader();
  PluginLoader(const PluginLoader&) = delete;
  PluginLoader& operator=(const PluginLoader&) = delete;

  // Constructs the plug-in's file system (zebtrk_Load) and returns the file
  // system that the URI handler now gives for "trk:". Failure (nothing
  // registered): CliError kExitPlugin. Calling it again returns the same.
  zeb::IFileSystem* Start();

  const std::string& path() const { return m_path; }

  DrivePresentFunction drivePresent = nullptr;
  AddHandlerFunction addFilesChangedHandler = nullptr;
  RemoveHandlerFunction removeFilesChangedHandler = nullptr;
  GetDirectoryListingFunction getDirectoryListing = nullptr;
  GetInfoFunction getInfo = nullptr;
  RemoveFileFunction removeFile = nullptr;

 private:
  // The address of `name` in the library; CliError kExitPlugin when absent.
  void* Symbol(const char* name);

  std::string m_path;
  void* m_handle = nullptr;
  LoadFunction m_load = nullptr;
  zeb::IFileSystem* m_fileSystem = nullptr;
};
