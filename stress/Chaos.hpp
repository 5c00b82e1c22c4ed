#pragma once

// One scenario per fault, and what they share.

#include <span>
#include <string>
#include <vector>

#include "Fleet.hpp"

namespace vlx::stress
{

enum class Verdict
{
    Ok,
    Failed,
    Limit,   ///< as documented, but no success
    Skipped, ///< cannot be done here
};

struct Outcome
{
    Verdict verdict;
    std::string figure;
};

struct ChaosContext
{
    const int minutes;
    const PauseProbe& probe;
    const std::string directory; ///< TMPDIR of the run
    const int resumeLimitMs;     ///< within which receivers have to be back
    const int besideMs;          ///< how long misbehaving peers go on
    const bool judgesLosses;
};

struct Scenario
{
    const char* name;
    const char* fault;
    const char* promise;
    Outcome (*run)(const ChaosContext& context);
};

std::span<const Scenario> getPeerScenarios();
std::span<const Scenario> getResourceScenarios();
std::span<const Scenario> getClockScenarios();

/// A stream whose receivers are to go on undisturbed beside a fault.
class Bystanders
{
public:
    explicit Bystanders(const ChaosContext& context) : m_context(context) {}

    /// @return whether the stream runs
    bool begin(std::size_t numReceivers, const WorkerConfig& sender = makeWorker(Role::Sender));

    /// @return whether every receiver gets further frames within 3 s
    bool areDelivering();

    /// @return whether sender and receivers have, within 3 s, the descriptors and threads that they
    ///         had at the beginning
    bool haveSameHandles();

    LossSummary getLosses();

    /// Kills the sender and starts another.
    ///
    /// @return milliseconds from the kill until all receivers deliver; nothing if one does not
    ///         within 3 s
    std::optional<double> restartSender(const WorkerConfig& sender = makeWorker(Role::Sender));

    /// Everything above: ok if nothing was lost without a pause of the machine, all deliver, and
    /// nothing is left.
    Outcome judge(const std::string& done);

    Fleet fleet;
    std::vector<std::size_t> receivers;

private:
    std::vector<ProcessFigures> readHandles();

    const ChaosContext& m_context;
    TimeValue m_start = 0;
    std::vector<ProcessFigures> m_handles;
};

/// Lowest slot that no stream of these scenarios uses.
constexpr std::size_t FirstPeerSlot = 40;

constexpr const char* NoStream = "the stream itself did not start";

Outcome fail(const std::string& figure);

} // namespace vlx::stress
