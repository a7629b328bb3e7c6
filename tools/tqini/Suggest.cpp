#include "Suggest.h"

#include <algorithm>

#include "KeyTable.h"

namespace tqini {

size_t EditDistance(const std::string& one, const std::string& other) {
    const std::string a = LowerCase(one);
    const std::string b = LowerCase(other);
    // Row i holds the distances of the first i letters of a to each beginning of b.
    std::vector<std::vector<size_t>> rows(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                rows[i][j] = i + j;
                continue;
            }
            const size_t replaced = rows[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            rows[i][j] = std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, replaced});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
            }
        }
    }
    return rows[a.size()][b.size()];
}

std::string Nearest(const std::string& word, const std::vector<std::string>& candidates) {
    std::string nearest;
    size_t least = std::max<size_t>(1, word.size() / 3) + 1; // further away nothing looks alike any more
    for (const std::string& candidate : candidates) {
        const size_t distance = EditDistance(word, candidate);
        if (distance < least) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

} // namespace tqini
