// PythonErrors: the errors of the zebtrk Python module, raised in C++ as
// ModuleError and turned into the package's Python exception classes
// (zebtrk._errors) by a translator that the module installs.
//
// ModuleError is a plain value, thrown on any thread; the translator runs with
// the GIL held, like every pybind11 translator.
#pragma once

#include <stdexcept>
#include <string>

class ModuleError : public std::runtime_error {
 public:
  enum class EKind {
    kFailure,     // zebtrk.Error
    kNoMovie,     // zebtrk.MovieNotFoundError (KeyError, FileNotFoundError)
    kNoService,   // zebtrk.ServiceError (ConnectionError)
    kPermission,  // zebtrk.PermissionDeniedError (PermissionError)
    kIndex,       // IndexError
  };

  ModuleError(EKind kind, const std::string& message) : std::runtime_error(message), m_kind(kind) {}
  EKind kind() const { return m_kind; }

 private:
  EKind m_kind;
};

class PythonErrors {
 public:
  // Registers the translator; zebtrk._errors must be importable.
  static void Install();
};
