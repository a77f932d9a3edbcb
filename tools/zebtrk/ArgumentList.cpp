#include "tools/zebtrk/ArgumentList.h"

#include "tools/zebtrk/CliError.h"

ArgumentList::ArgumentList(const std::string& command, const std::vector<std::string>& args,
                           const std::set<std::string>& flags, const std::set<std::string>& valued)
    : m_command(command) {
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (optionsEnded || word.size() < 2 || word[0] != '-') {
      m_positional.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    std::string name = word == "-h" ? "--help" : word;
    std::string value;
    bool hasValue = false;
    const size_t equals = name.find('=');
    if (equals != std::string::npos && name.compare(0, 2, "--") == 0) {
      value = name.substr(equals + 1);
      name = name.substr(0, equals);
      hasValue = true;
    }
    if (name == "--help" || flags.count(name)) {
      if (hasValue) throw CliError(kExitUsage, command + ": " + name + " takes no value");
      m_options[name] = "";
    } else if (valued.count(name)) {
      if (!hasValue) {
        if (i + 1 >= args.size()) throw CliError(kExitUsage, command + ": " + name + " needs a value");
        value = args[++i];
      }
      m_options[name] = value;
    } else {
      throw CliError(kExitUsage, command + ": unknown option " + word + " (see zebtrk " + command + " --help)");
    }
  }
}

bool ArgumentList::Has(const std::string& option) const { return m_options.count(option) != 0; }

std::string ArgumentList::Value(const std::string& option, const std::string& fallback) const {
  const auto found = m_options.find(option);
  return found == m_options.end() ? fallback : found->second;
}

void ArgumentList::ExpectPositional(size_t min, size_t max, const std::string& usage) const {
  if (m_positional.size() >= min && m_positional.size() <= max) return;
  const std::string what = m_positional.size() < min ? "missing argument" : "too many arguments";
  throw CliError(kExitUsage, m_command + ": " + what + "; usage: " + usage);
}
