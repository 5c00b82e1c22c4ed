#pragma once

#include "support/Records.hpp"
#include "support/Table.hpp"

namespace vlx::bench
{

/// The raw data of all programs of one run.
struct RunData
{
    RecordSet age;
    RecordSet overload;
    RecordSet fanout;
    RecordSet join;
    RecordSet micro;
};

/// @return each target with its limit, what was measured, and whether it is met. Ratios are medians
///         of the ratios within each round
Table makeTargetTable(const RunData& data);

} // namespace vlx::bench
