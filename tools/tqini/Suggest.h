/// @file Suggest.h
/// What somebody may have meant by a word that is not known.
#ifndef TQINI_SUGGEST_H
#define TQINI_SUGGEST_H

#include <string>
#include <vector>

namespace tqini {

/// Letters that are inserted, left out, replaced or exchanged with their neighbours to make one word the other; the
/// case of letters does not matter.
size_t EditDistance(const std::string& one, const std::string& other);

/// The candidate that is nearest to the word, the first of several; empty when all of them are too far from it to have
/// been meant.
std::string Nearest(const std::string& word, const std::vector<std::string>& candidates);

} // namespace tqini

#endif // TQINI_SUGGEST_H
