#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/Catalogue.hpp"
#include "support/Child.hpp"

namespace vlx::bench
{

/// One measurement: one sender and its receivers, each in a process of its own.
struct SessionPlan
{
    std::size_t mediaBytes = 1920;
    std::uint64_t rateHz = 1000;
    std::uint32_t warmUpFrames = 0;
    std::uint32_t frames = 0;  ///< 0: flood
    std::uint64_t floodMs = 0; ///< length of the flood
    std::size_t receivers = 1; ///< processes
    std::size_t objects = 1;   ///< receivers in each process
    bool takeMemory = false;   ///< add "pss_kib", mean of the receivers' processes
};

/// Starts one end of a session, with TMPDIR set to the directory.
/// @param role     "send" or "receive"
/// @param name     unique for the session
/// @param further  further options of the endpoint
Child startEndpoint(
    const std::string& role,
    const Path& path,
    const std::string& directory,
    const std::string& name,
    const SessionPlan& plan,
    const std::vector<std::string>& further = {});

/// Runs a session, once more if it failed. The sender measures only when every receiver receives.
///
/// @return one flat record; the receivers' figures are medians over receivers, CPU is in
///         microseconds per frame. Nothing if both tries failed
std::optional<nlohmann::json>
runSession(const Path& path, const std::string& directory, const SessionPlan& plan);

/// @return what a sender's process costs in microseconds per frame without sending anything
std::optional<double>
measurePacingUs(const Path& path, const std::string& directory, const SessionPlan& plan);

/// @return a name that no session of this process has had
std::string makeSessionName();

} // namespace vlx::bench
