#include "tools/zebtrk/NameMatcher.h"

#include <algorithm>
#include <cctype>

namespace {

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

size_t NameMatcher::Distance(const std::string& a, const std::string& b) {
  // One row of the dynamic-programming table at a time.
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      const size_t substitute = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({above + 1, row[j - 1] + 1, substitute});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::vector<std::string> NameMatcher::Suggest(const std::string& query, const std::vector<std::string>& names,
                                              size_t limit) {
  const std::string lowerQuery = Lower(query);
  const size_t threshold = std::max<size_t>(2, query.size() / 3);
  struct Candidate {
    size_t score;
    size_t order;
  };
  std::vector<Candidate> candidates;
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string lowerName = Lower(names[i]);
    const size_t distance = Distance(lowerQuery, lowerName);
    const bool contains = !lowerQuery.empty() && lowerName.find(lowerQuery) != std::string::npos;
    // A name that contains the query ranks like a near miss.
    if (distance <= threshold || contains)
      candidates.push_back({contains ? std::min<size_t>(distance, 1) : distance, i});
  }
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Candidate& x, const Candidate& y) { return x.score < y.score; });
  std::vector<std::string> result;
  for (size_t i = 0; i < candidates.size() && result.size() < limit; ++i) {
    const std::string& name = names[candidates[i].order];
    if (std::find(result.begin(), result.end(), name) == result.end()) result.push_back(name);
  }
  return result;
}
