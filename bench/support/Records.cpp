#include "support/Records.hpp"

#include <algorithm>
#include <fstream>
#include <limits>
#include <numeric>

#include "support/Statistics.hpp"

namespace vlx::bench
{

double getNumber(const Record& record, const std::string& key)
{
    const auto found = record.find(key);
    return found != record.end() && found->is_number() ? found->get<double>()
                                                       : std::numeric_limits<double>::quiet_NaN();
}

RecordSet::RecordSet(std::vector<Record> records) : m_records(std::move(records)) {}

void RecordSet::add(Record record)
{
    m_records.push_back(std::move(record));
}

RecordSet RecordSet::where(const std::string& key, const nlohmann::json& value) const
{
    RecordSet selected;
    for (const Record& record : m_records)
    {
        const auto found = record.find(key);
        if (found != record.end() && *found == value)
            selected.add(record);
    }
    return selected;
}

std::vector<double> RecordSet::valuesOf(const std::string& key) const
{
    std::vector<double> values;
    for (const Record& record : m_records)
    {
        const double value = getNumber(record, key);
        if (!std::isnan(value))
            values.push_back(value);
    }
    return values;
}

double RecordSet::medianOf(const std::string& key) const
{
    return median(valuesOf(key));
}

double RecordSet::sumOf(const std::string& key) const
{
    const auto values = valuesOf(key);
    return std::accumulate(values.begin(), values.end(), 0.0);
}

std::vector<nlohmann::json> RecordSet::distinct(const std::string& key) const
{
    std::vector<nlohmann::json> values;
    for (const Record& record : m_records)
    {
        const auto found = record.find(key);
        if (found != record.end() && std::ranges::find(values, *found) == values.end())
            values.push_back(*found);
    }
    return values;
}

std::vector<nlohmann::json> RecordSet::sortedDistinct(const std::string& key) const
{
    auto values = distinct(key);
    std::ranges::sort(values);
    return values;
}

double medianRatio(const RecordSet& set, const RecordSet& base, const std::string& key)
{
    std::vector<double> ratios;
    for (const Record& record : set.getAll())
    {
        for (const double baseValue : base.where("round", record["round"]).valuesOf(key))
            ratios.push_back(getNumber(record, key) / baseValue);
    }
    return median(ratios);
}

RecordSet readRecords(const std::string& path)
{
    RecordSet records;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        records.add(Record::parse(line));
    return records;
}

} // namespace vlx::bench
