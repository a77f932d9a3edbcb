#include "tests/support/ScopedEnv.h"

#include <cstdlib>

namespace testsupport {

namespace {

void Apply(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
}

}  // namespace

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : m_name(std::move(name)) {
  if (const char* old = std::getenv(m_name.c_str())) m_previous = old;
  Apply(m_name, value);
}

ScopedEnv::~ScopedEnv() { Apply(m_name, m_previous); }

}  // namespace testsupport
