// ClosestName: the candidate nearest to a word a user mistyped, for "did you mean" hints in
// error and warning texts (an unknown flag, manifest key, column or subcommand).
//
// Threading: a pure function; safe from any thread.
#ifndef QOPCI_TOOLS_CLOSEST_H_
#define QOPCI_TOOLS_CLOSEST_H_

#include <string>
#include <vector>

namespace qopci {

// The candidate with the smallest edit distance to `word` (insertions, deletions,
// substitutions and swaps of neighbours, ignoring case), or "" when none is close: a
// candidate is close when at most a third of its letters (at least one) must change.
// Ties go to the earlier candidate.
std::string ClosestName(const std::string& word, const std::vector<std::string>& candidates);

// " (did you mean \"X\"?)" for the closest candidate, or "" when none is close.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace qopci

#endif  // QOPCI_TOOLS_CLOSEST_H_
