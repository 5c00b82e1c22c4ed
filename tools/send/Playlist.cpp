#include "Playlist.hpp"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "common/ExitCodes.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

Playlist::Playlist(
    std::vector<std::string> paths,
    const InputSettings& settings,
    bool loop,
    const StopSignal& stop,
    const Deadline& deadline)
    : m_paths(std::move(paths)),
      m_settings(settings),
      m_loop(loop),
      m_stop(stop),
      m_current(openInput(m_paths.front(), settings, stop, deadline))
{
    if (std::count(m_paths.begin(), m_paths.end(), "-") > (loop && m_paths.size() > 1 ? 0 : 1))
        throw CommandFailure(ExitCode::Usage, "standard input cannot be read twice");
    for (std::size_t i = 1; i < m_paths.size(); ++i)
    {
        std::error_code error;
        if (!std::filesystem::is_fifo(m_paths[i], error) && m_paths[i] != "-")
            openInput(m_paths[i], settings, stop);
    }
}

std::size_t Playlist::read(Buffer& bytes, std::size_t numSamples)
{
    std::size_t numRead = m_current->read(bytes, numSamples);
    m_position += numRead;
    Buffer more;
    while (numRead < numSamples && m_next == nullptr && advance() && m_next == nullptr)
    {
        const std::size_t count = m_current->read(more, numSamples - numRead);
        bytes.insert(bytes.end(), more.begin(), more.end());
        numRead += count;
        m_position += count;
    }
    return numRead;
}

bool Playlist::beginNextFormat()
{
    if (m_next == nullptr)
        return false;
    m_current = std::move(m_next);
    return true;
}

std::string Playlist::getPlace() const
{
    if (m_paths.size() < 2)
        return {};
    return "[" + std::to_string(m_index + 1) + "/" + std::to_string(m_paths.size()) + "] ";
}

/// Goes on behind the end of the present input.
///
/// @return whether there is more, in m_current or, of another format, in m_next
bool Playlist::advance()
{
    if (m_stop.isRequested() || !getProblem().empty())
        return false;
    m_samplesInPass += m_position;
    if (m_index + 1 >= m_paths.size())
        return restart();
    ++m_index;
    return openCurrent();
}

bool Playlist::restart()
{
    // Nothing but empty inputs would be read for ever.
    if (!m_loop || std::exchange(m_samplesInPass, 0) == 0)
        return false;
    m_index = 0;
    if (m_paths.size() > 1)
        return openCurrent();
    m_position = 0;
    return m_current->rewind();
}

bool Playlist::openCurrent()
{
    try
    {
        std::unique_ptr<AudioInput> input = openInput(m_paths[m_index], m_settings, m_stop);
        if (input == nullptr)
            return false;
        m_position = 0;
        std::swap(input->getFormat() == getFormat() ? m_current : m_next, input);
        return true;
    }
    catch (const CommandFailure& failure)
    {
        m_problem = failure.what();
        return false;
    }
}

} // namespace vlx::tool
