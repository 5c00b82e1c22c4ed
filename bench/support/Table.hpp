#pragma once

#include <string>
#include <vector>

namespace vlx::bench
{

/// Rows of text under headings; first printed, later written into the summary.
class Table
{
public:
    /// @param headings  one that begins with '<' stands, like its column, at the left; without the
    ///                  sign
    explicit Table(std::vector<std::string> headings);

    void addRow(std::vector<std::string> cells);

    std::string toText() const;
    std::string toMarkdown() const;

private:
    std::vector<std::string> m_headings;
    std::vector<bool> m_leftAligned;
    std::vector<std::vector<std::string>> m_rows;
};

/// @return the number with a precision that suits its size; "-" for NaN, "never" for infinity
std::string formatNumber(double value);

/// @return the number with two decimals; "-" for NaN
std::string formatRatio(double value);

} // namespace vlx::bench
