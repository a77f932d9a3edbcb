#include "python/src/PythonErrors.h"

#include <pybind11/pybind11.h>

namespace py = pybind11;

namespace {

const char* ClassName(ModuleError::EKind kind) {
  switch (kind) {
    case ModuleError::EKind::kNoMovie:
      return "MovieNotFoundError";
    case ModuleError::EKind::kNoService:
      return "ServiceError";
    case ModuleError::EKind::kPermission:
      return "PermissionDeniedError";
    default:
      return "Error";
  }
}

}  // namespace

void PythonErrors::Install() {
  // Kept for the life of the interpreter, as pybind11 keeps its own
  // exception types; looked up by name when an error is raised.
  static py::handle errors = py::module_::import("zebtrk._errors").release();
  py::register_exception_translator([](std::exception_ptr pending) {
    if (!pending) return;
    try {
      std::rethrow_exception(pending);
    } catch (const ModuleError& error) {
      if (error.kind() == ModuleError::EKind::kIndex) {
        PyErr_SetString(PyExc_IndexError, error.what());
        return;
      }
      py::object type = errors.attr(ClassName(error.kind()));
      PyErr_SetString(type.ptr(), error.what());
    }
  });
}
