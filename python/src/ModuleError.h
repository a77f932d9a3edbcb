// ModuleError: an error of the zebtrk Python module's C++ side, with the kind
// of Python exception it becomes (PythonErrors installs the translation).
//
// A plain value, thrown on any thread (with or without the GIL).
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
