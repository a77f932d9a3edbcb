// ArgumentList: the arguments of one zebtrk command, split into options and
// positional arguments.
//
// Options are long ("--json", "--frames A:B" or "--frames=A:B"); "-h" is
// "--help"; "--" ends the options (so a movie named "--x" can be given).
// Unknown options and missing values are usage errors.
//
// A plain value; one thread.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

class ArgumentList {
 public:
  // Splits `args` (the words after the command name). `flags` are options
  // without a value, `valued` options with one; "--help" is always known.
  // Failure: CliError kExitUsage naming the command and the bad word.
  ArgumentList(const std::string& command, const std::vector<std::string>& args, const std::set<std::string>& flags,
               const std::set<std::string>& valued);

  bool Has(const std::string& option) const;
  // The option's value, or `fallback` when it was not given.
  std::string Value(const std::string& option, const std::string& fallback = "") const;
  const std::vector<std::string>& positional() const { return m_positional; }
  // CliError kExitUsage ("<command>: <what>; usage: <usage>") unless there are
  // `min` to `max` positional arguments.
  void ExpectPositional(size_t min, size_t max, const std::string& usage) const;

 private:
  std::string m_command;
  std::map<std::string, std::string> m_options;
  std::vector<std::string> m_positional;
};
