// PythonErrors: turns ModuleError into the package's Python exception
// classes (zebtrk._errors) through a pybind11 exception translator.
//
// Install runs once, at module import; the translator runs with the GIL
// held, like every pybind11 translator.
#pragma once

#include "python/src/ModuleError.h"

class PythonErrors {
 public:
  // Registers the translator; zebtrk._errors must be importable.
  static void Install();
};
