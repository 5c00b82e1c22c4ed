#include "support/Table.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vlx::bench
{
namespace
{

std::string format(double value, int decimals)
{
    if (std::isnan(value))
        return "-";
    if (std::isinf(value))
        return "never";
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string pad(const std::string& text, std::size_t width, bool leftAligned)
{
    const std::string space(width - std::min(width, text.size()), ' ');
    return leftAligned ? text + space : space + text;
}

std::string trimEnd(std::string line)
{
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

} // namespace

Table::Table(std::vector<std::string> headings) : m_headings(std::move(headings))
{
    for (std::string& heading : m_headings)
    {
        m_leftAligned.push_back(heading.starts_with('<'));
        if (heading.starts_with('<'))
            heading.erase(0, 1);
    }
}

void Table::addRow(std::vector<std::string> cells)
{
    cells.resize(m_headings.size());
    m_rows.push_back(std::move(cells));
}

std::string Table::toText() const
{
    std::vector<std::vector<std::string>> lines = {m_headings};
    lines.insert(lines.end(), m_rows.begin(), m_rows.end());
    std::string text;
    for (const auto& line : lines)
    {
        std::string whole;
        for (std::size_t column = 0; column < line.size(); column++)
        {
            std::size_t width = 0;
            for (const auto& other : lines)
                width = std::max(width, other[column].size());
            whole += (column ? "  " : "") + pad(line[column], width, m_leftAligned[column]);
        }
        text += trimEnd(whole);
    }
    return text;
}

std::string Table::toMarkdown() const
{
    std::string text;
    std::string rule;
    for (std::size_t column = 0; column < m_headings.size(); column++)
    {
        text += "| " + m_headings[column] + " ";
        rule += m_leftAligned[column] ? "|---" : "|---:";
    }
    text += "|\n" + rule + "|\n";
    for (const auto& row : m_rows)
    {
        for (const std::string& cell : row)
            text += "| " + cell + " ";
        text += "|\n";
    }
    return text;
}

std::string formatNumber(double value)
{
    const double size = std::fabs(value);
    return format(value, size >= 100 ? 0 : size >= 10 ? 1 : 2);
}

std::string formatRatio(double value)
{
    return format(value, 2);
}

} // namespace vlx::bench
