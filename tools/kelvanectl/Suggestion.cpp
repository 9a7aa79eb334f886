// SPDX-License-Identifier: Apache-2.0
// The word that somebody may have meant.
#include "tools/kelvanectl/Suggestion.h"

#include <algorithm>

namespace kelvane::ctl {
namespace {

/// Nobody mistypes words that are longer, and the work grows with the square.
constexpr std::size_t longestTyped = 40;
constexpr std::size_t shortestPart = 3;

/// How many letters must be left out, put in, replaced or swapped with their neighbour to get from one to the other.
std::size_t distance(std::string_view left, std::string_view right) {
  std::vector<std::vector<std::size_t>> steps(left.size() + 1, std::vector<std::size_t>(right.size() + 1));
  for (std::size_t i = 0; i <= left.size(); ++i) {
    for (std::size_t j = 0; j <= right.size(); ++j) {
      if (i == 0 || j == 0) {
        steps[i][j] = i + j;
        continue;
      }
      const std::size_t replaced = steps[i - 1][j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
      steps[i][j] = std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1, replaced});
      if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1]) {
        steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
      }
    }
  }
  return steps[left.size()][right.size()];
}

}  // namespace

std::optional<std::string> suggestion(std::string_view typed, const std::vector<std::string>& words) {
  if (typed.size() > longestTyped) {
    return std::nullopt;
  }
  std::optional<std::string> nearest;
  std::size_t least = 0;
  for (const std::string& word : words) {
    const bool isPart = typed.size() >= shortestPart && (word.starts_with(typed) || word.ends_with(typed));
    const std::size_t steps = isPart ? 0 : distance(typed, word);
    if (steps <= std::max(typed.size(), word.size()) / 3 && (!nearest || steps < least)) {
      nearest = word;
      least = steps;
    }
  }
  return nearest;
}

}  // namespace kelvane::ctl
