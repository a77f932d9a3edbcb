// _zebtrk: the compiled half of the zebtrk package. It exposes the plug-in
// (PluginHost), its change handlers (ChangeHandlers) and movie files
// (MovieReader) at the level of plain values and NumPy arrays; the package's
// Python layer (zebtrk/__init__.py) builds Drive and Movie on top.
//
// Every call that reaches the plug-in runs with the GIL released (see
// PluginHost for why); values are converted to Python objects afterwards.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>

#include "python/src/ChangeHandlers.h"
#include "python/src/MovieReader.h"
#include "python/src/PluginHost.h"
#include "python/src/PythonErrors.h"

namespace py = pybind11;

namespace {

typedef py::call_guard<py::gil_scoped_release> Unlocked;

py::dict Record(const Movie& movie) {
  py::dict properties;
  for (const auto& property : movie.properties) properties[py::str(property.first)] = py::str(property.second);
  py::dict record;
  record["name"] = movie.name;
  record["path"] = movie.path;
  record["size"] = movie.size;
  record["time_ticks"] = movie.timeTicks;
  record["width"] = movie.width;
  record["height"] = movie.height;
  record["frames"] = movie.frames;
  record["index"] = movie.index;
  record["start_time"] = movie.startTime;
  record["end_time"] = movie.endTime;
  record["duration_us"] = movie.durationUs;
  record["properties"] = properties;
  return record;
}

// Destroys a reader without the GIL: closing the file is a service request.
struct ReaderDeleter {
  void operator()(MovieReader* reader) const {
    if (PyGILState_Check()) {
      py::gil_scoped_release unlocked;
      delete reader;
    } else {
      delete reader;
    }
  }
};
typedef std::unique_ptr<MovieReader, ReaderDeleter> ReaderPointer;

ReaderPointer OpenReader(const std::string& name) {
  py::gil_scoped_release unlocked;
  const Movie movie = PluginHost::Instance().Find(name, false);
  return ReaderPointer(new MovieReader(movie));
}

typedef py::array_t<uint16_t, py::array::c_style> FrameArray;

// Frames first, first + step, ... (as many as `frames` holds) read straight
// into the memory of `frames`, a C-contiguous (count, height, width) uint16
// array, without the GIL. Ctrl-C (any pending signal handler that raises)
// stops a long read.
FrameArray ReadInto(MovieReader& reader, FrameArray frames, uint64_t first, int64_t step) {
  const Movie& movie = reader.movie();
  if (frames.ndim() != 3 || frames.shape(1) != movie.height || frames.shape(2) != movie.width ||
      !frames.writeable()) {
    throw py::value_error("out must be a writable C-contiguous uint16 array of shape (n, " +
                          std::to_string(movie.height) + ", " + std::to_string(movie.width) + ")");
  }
  void* out = frames.mutable_data();
  const uint64_t count = static_cast<uint64_t>(frames.shape(0));
  bool complete;
  {
    py::gil_scoped_release unlocked;
    complete = reader.Read(first, count, step, out, [] {
      py::gil_scoped_acquire gil;
      return PyErr_CheckSignals() == 0;
    });
  }
  if (!complete) throw py::error_already_set();
  return frames;
}

FrameArray ReadFrames(MovieReader& reader, uint64_t first, uint64_t count, int64_t step) {
  const Movie& movie = reader.movie();
  FrameArray frames({static_cast<py::ssize_t>(count), static_cast<py::ssize_t>(movie.height),
                     static_cast<py::ssize_t>(movie.width)});
  return ReadInto(reader, frames, first, step);
}

}  // namespace

PYBIND11_MODULE(_zebtrk, m) {
  m.doc() = "The zebtrk plug-in hosted in Python (use the zebtrk package, not this module)";
  PythonErrors::Install();

  m.def("start", [] {
    py::gil_scoped_release unlocked;
    PluginHost::Instance().Start();
    return PluginHost::Instance().emulator();
  });
  m.def("present", [] { return PluginHost::Instance().DrivePresent(); }, Unlocked());
  m.def("movies", [] {
    std::vector<Movie> movies;
    {
      py::gil_scoped_release unlocked;
      movies = PluginHost::Instance().List();
    }
    py::list records;
    for (const Movie& movie : movies) records.append(Record(movie));
    return records;
  });
  m.def("find", [](const std::string& query, bool allowNumber) {
    Movie movie;
    {
      py::gil_scoped_release unlocked;
      movie = PluginHost::Instance().Find(query, allowNumber);
    }
    return Record(movie);
  });
  m.def("remove", [](const std::string& name) { PluginHost::Instance().Remove(name); }, Unlocked());
  m.def("info_text", [](const std::string& name) {
    std::string text;
    {
      py::gil_scoped_release unlocked;
      PluginHost& host = PluginHost::Instance();
      text = host.ReadInfo(host.Find(name, false));
    }
    // The information file is text the recorder wrote: undecodable bytes
    // are kept visible rather than failing the whole property.
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "replace"));
  });
  m.def("plugin_path", &PluginHost::PluginPath);
  m.def("cache_dir", &PluginHost::CacheDir);

  m.def("add_handler", [](py::object callback) { return ChangeHandlers::Instance().Add(std::move(callback)); });
  m.def("remove_handler", [](long id) { return ChangeHandlers::Instance().Remove(id); });
  m.def("shutdown", [] { ChangeHandlers::Instance().Shutdown(); });

  py::class_<MovieReader, ReaderPointer>(m, "MovieFile")
      .def(py::init(&OpenReader))
      .def("read", &ReadFrames, py::arg("first"), py::arg("count"), py::arg("step") = 1)
      .def("read_into", &ReadInto, py::arg("out").noconvert(), py::arg("first"), py::arg("step") = 1)
      .def("close", &MovieReader::Close, Unlocked());
}
