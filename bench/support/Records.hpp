#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vlx::bench
{

/// One line of raw data: flat, names to numbers and texts.
using Record = nlohmann::json;

/// @return NaN if the record has no such number
double getNumber(const Record& record, const std::string& key);

/// A selection of raw data.
class RecordSet
{
public:
    RecordSet() = default;
    explicit RecordSet(std::vector<Record> records);

    void add(Record record);

    /// @return those whose field has this value
    RecordSet where(const std::string& key, const nlohmann::json& value) const;

    /// @return the values of a field, without what is missing
    std::vector<double> valuesOf(const std::string& key) const;

    double medianOf(const std::string& key) const;

    double sumOf(const std::string& key) const;

    /// @return the different values of a field, in order of first appearance
    std::vector<nlohmann::json> distinct(const std::string& key) const;

    /// @return the same in ascending order
    std::vector<nlohmann::json> sortedDistinct(const std::string& key) const;

    std::size_t getCount() const
    {
        return m_records.size();
    }
    const std::vector<Record>& getAll() const&
    {
        return m_records;
    }
    const std::vector<Record>& getAll() && = delete; // would dangle in a range loop

private:
    std::vector<Record> m_records;
};

/// @return median over the rounds of the quotient of both sets' values in the same round; NaN if
///         they have no round in common
double medianRatio(const RecordSet& set, const RecordSet& base, const std::string& key);

/// Reads a file of JSON lines.
/// @return empty if there is none
RecordSet readRecords(const std::string& path);

} // namespace vlx::bench
