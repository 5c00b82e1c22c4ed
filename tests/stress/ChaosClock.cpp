#include "Chaos.hpp"
namespace vlx::stress
{
std::span<const Scenario> getClockScenarios()
{
    return {};
}
} // namespace vlx::stress
