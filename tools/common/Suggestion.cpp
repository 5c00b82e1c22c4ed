#include "Suggestion.hpp"

#include <algorithm>
#include <numeric>

namespace vlx::tool
{

namespace
{

/// @return letters to insert, delete, replace or swap with their neighbour to get from one to the
///         other
std::size_t countEdits(const std::string& from, const std::string& to)
{
    std::vector<std::size_t> beforeLast;
    std::vector<std::size_t> last;
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 1; i <= from.size(); ++i)
    {
        beforeLast = last;
        last = row;
        row[0] = i;
        for (std::size_t k = 1; k <= to.size(); ++k)
        {
            const std::size_t replaced = last[k - 1] + (from[i - 1] == to[k - 1] ? 0 : 1);
            row[k] = std::min({row[k - 1] + 1, last[k] + 1, replaced});
            if (i > 1 && k > 1 && from[i - 1] == to[k - 2] && from[i - 2] == to[k - 1])
                row[k] = std::min(row[k], beforeLast[k - 2] + 1);
        }
    }
    return row.back();
}

} // unnamed namespace

std::string findSimilar(const std::string& wrong, const std::vector<std::string>& known)
{
    std::string best;
    std::size_t fewest = std::max<std::size_t>(wrong.size() / 3, 1) + 1;
    for (const std::string& word : known)
    {
        const std::size_t edits = countEdits(wrong, word);
        if (edits < fewest)
        {
            fewest = edits;
            best = word;
        }
    }
    return best;
}

} // namespace vlx::tool
