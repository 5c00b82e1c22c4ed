#pragma once

#include "support/Records.hpp"
#include "support/Table.hpp"

namespace vlx::bench
{

/// The tables of the benchmark programs and of the summary, each made from one program's raw data.
/// Figures are medians over the rounds; "vs" columns are medians of the ratios within each round.

Table makeAgeTable(const RecordSet& records);
Table makeOverloadTable(const RecordSet& records);
Table makeFanoutTable(const RecordSet& records);
Table makeMemoryTable(const RecordSet& records);
Table makeJoinTable(const RecordSet& records);
Table makeMicroTable(const RecordSet& records);

/// Receiving objects in one process where the memory of an object is measured.
constexpr unsigned ManyObjects = 17;

/// Joins later than this have fallen into the retry.
constexpr double RetryThresholdMs = 100;

/// One row of the join table in figures. A repetition without any frame counts as infinitely late.
struct JoinFigures
{
    double count = 0;
    double p50Ms = 0;
    double p90Ms = 0;
    double p99Ms = 0;
    double maxMs = 0;
    double retryPct = 0; ///< share above RetryThresholdMs that got a frame
    double neverPct = 0; ///< share that got no frame
};

/// @param key  "open_ms" (from the call that opens the stream) or "kill_ms" (from the kill)
JoinFigures summariseJoins(const RecordSet& records, const std::string& key);

/// @return the path's label in tables
std::string labelOf(const nlohmann::json& pathId);

} // namespace vlx::bench
