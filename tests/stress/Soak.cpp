#include "Runs.hpp"
namespace vlx::stress
{
int runSoak(const Arguments&)
{
    return 1;
}
} // namespace vlx::stress
