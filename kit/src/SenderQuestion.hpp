#pragma once

#include <cstdint>
#include <string>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/Discovery.hpp>

namespace vlx::kit
{

/// Longest sidechannel message that is accepted. Real ones have a few hundred bytes.
inline constexpr std::uint32_t MaxSidechannelMessageBytes = 1 << 20;

/// One connection to the process that holds a stream's name, and its answer, as it comes. Never
/// waits, and nothing that comes can stop the process.
///
/// As long as it is open and not answered it takes a place in the other side's backlog.
///
/// @thread one at a time
class SenderQuestion
{
public:
    /// Asks. The answer is over at once if no process could be reached.
    explicit SenderQuestion(const std::string& name);
    ~SenderQuestion();

    SenderQuestion(const SenderQuestion&) = delete;
    SenderQuestion& operator=(const SenderQuestion&) = delete;

    /// Closes the descriptor alone, in a forked child that shares the connection with its parent.
    void abandon();

    /// @return becomes readable when there is something to take
    int getFD() const
    {
        return m_fd;
    }

    /// Takes what has come by now.
    void advance();

    /// @return whether nothing more comes that counts
    bool isOver() const
    {
        return m_over;
    }

    bool hasInitialInfo() const
    {
        return m_answer.initialInfo.has_value();
    }

    /// @return what is known by now, with the socket file as it is by now
    SenderProbe getAnswer() const;

private:
    void takeMessages();
    void takeMessage(const Buffer& message);

    int m_fd;
    SenderProbe m_answer; // but for what concerns the socket file
    Buffer m_input;       // not yet taken
    bool m_over = false;
};

/// @return an identifier of a connection of this process to the name, whichever part of the process
///         made it; empty if there is none
/// @thread any
std::string findConnection(const std::string& name);

} // namespace vlx::kit
