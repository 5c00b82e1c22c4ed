#pragma once

#include <memory>
#include <string>
#include <vector>

#include "audio/AudioInput.hpp"

namespace vlx::tool
{

class StopSignal;

/// Inputs in a row, read as one as long as the format stays the same.
class Playlist
{
public:
    /// Opens the first one, and sees that the files among the others can be read.
    ///
    /// @param paths     at least one
    /// @param loop      starts again at the end
    /// @param deadline  of the first input's first bytes
    /// @throws CommandFailure
    Playlist(
        std::vector<std::string> paths,
        const InputSettings& settings,
        bool loop,
        const StopSignal& stop,
        const Deadline& deadline);

    /// @return whether there is an input; otherwise there was a stop
    bool isOpen() const
    {
        return m_current != nullptr;
    }

    const kit::StreamFormat& getFormat() const
    {
        return m_current->getFormat();
    }

    /// Reads whole samples of the present format, from several inputs if it takes that.
    ///
    /// @return samples read; fewer only where another format begins, at the end, an error or a stop
    std::size_t read(Buffer& bytes, std::size_t numSamples);

    /// Goes on to the next format, behind which read() has come.
    ///
    /// @return whether there is one
    bool beginNextFormat();

    bool isLive() const
    {
        return m_current->isLive();
    }

    /// See AudioInput, of the present input.
    InputArrival takeIn(const Deadline& deadline)
    {
        return m_current->takeIn(deadline);
    }

    /// See AudioInput, of the present input.
    std::size_t getNumWaiting() const
    {
        return m_current->getNumWaiting();
    }

    /// @return samples read of the present input
    std::uint64_t getPosition() const
    {
        return m_position;
    }

    /// @return samples of the present input; unset if unknown
    std::optional<std::uint64_t> getLength() const
    {
        return m_current->getLength();
    }

    /// @return "[2/3] " if there are several; empty for a single one
    std::string getPlace() const;

    std::string getProblem() const
    {
        return m_problem.empty() ? m_current->getProblem() : m_problem;
    }

private:
    bool advance();
    bool restart();
    bool openCurrent();

    const std::vector<std::string> m_paths;
    const InputSettings m_settings;
    const bool m_loop;
    const StopSignal& m_stop;
    std::size_t m_index = 0;
    std::unique_ptr<AudioInput> m_current;
    std::unique_ptr<AudioInput> m_next; // of another format, to be begun
    std::uint64_t m_position = 0;
    std::uint64_t m_samplesInPass = 0;
    std::string m_problem;
};

} // namespace vlx::tool
