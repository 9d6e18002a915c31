#include "tools/closest.h"

#include <algorithm>
#include <cctype>

namespace qopci {

namespace {

// Optimal string alignment distance over lower-cased bytes.
size_t Distance(const std::string& a, const std::string& b) {
  auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t cost = lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) &&
          lower(a[i - 2]) == lower(b[j - 1]))
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

}  // namespace

std::string ClosestName(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  size_t best_distance = 0;
  for (const std::string& c : candidates) {
    size_t limit = std::max<size_t>(1, c.size() / 3);
    size_t dist = Distance(word, c);
    if (dist <= limit && (best.empty() || dist < best_distance)) {
      best = c;
      best_distance = dist;
    }
  }
  return best;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best = ClosestName(word, candidates);
  return best.empty() ? std::string() : " (did you mean \"" + best + "\"?)";
}

}  // namespace qopci
