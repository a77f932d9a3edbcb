// ScopedEnv: sets (or unsets) one environment variable for the life of the
// object and puts the previous state back on destruction. Tests that touch the
// cache directory use it to point HOME at a TempDir.
//
// Environment changes are process-wide: use only while no other thread reads
// the environment.
#pragma once

#include <optional>
#include <string>

namespace testsupport {

class ScopedEnv {
 public:
  // value == nullopt unsets the variable.
  ScopedEnv(std::string name, std::optional<std::string> value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string m_name;
  std::optional<std::string> m_previous;
};

}  // namespace testsupport
