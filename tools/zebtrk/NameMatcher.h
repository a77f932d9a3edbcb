// NameMatcher: finds the names closest to a mistyped one, for "did you
// mean" suggestions (edit distance, with a bonus for names that contain the
// query).
//
// Stateless; pure functions; any thread.
#pragma once

#include <string>
#include <vector>

class NameMatcher {
 public:
  // Levenshtein distance (insertions, deletions, substitutions, each 1),
  // byte-wise and case-sensitive.
  static size_t Distance(const std::string& a, const std::string& b);

  // Up to `limit` of `names` that are close to `query`, closest first (ties
  // in the order of `names`). A name is close when its distance, ignoring
  // ASCII case, is at most max(2, query length / 3), or when it contains the
  // query ignoring case. Empty when nothing is close.
  static std::vector<std::string> Suggest(const std::string& query, const std::vector<std::string>& names,
                                          size_t limit = 3);
};
