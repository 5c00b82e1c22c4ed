#pragma once

#include <cstdint>
#include <string>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/Discovery.hpp>

namespace vlx::kit
{

/// Longest sidechannel message that is accepted. Real ones have a few hundred bytes.
inline constexpr std::uint32_t MaxSidechannelMessageBytes = 1 << 20;

/// One probe connection to the process that holds a stream's name, and the answer so far. Never
/// waits; no input can stop this process.
///
/// An open, unanswered connection takes a place in the peer's backlog.
///
/// @thread one at a time
class SenderQuestion
{
public:
    /// Connects. If no process can be reached, isOver() is true at once.
    explicit SenderQuestion(const std::string& name);
    ~SenderQuestion();

    SenderQuestion(const SenderQuestion&) = delete;
    SenderQuestion& operator=(const SenderQuestion&) = delete;

    /// Closes the descriptor alone, in a forked child that shares the connection with its parent.
    void abandon();

    /// @return a descriptor that becomes readable when advance() has something to read
    int getFD() const
    {
        return m_fd;
    }

    /// Reads what has arrived so far.
    void advance();

    /// @return whether the answer is complete
    bool isOver() const
    {
        return m_over;
    }

    bool hasInitialInfo() const
    {
        return m_answer.initialInfo.has_value();
    }

    /// @return the answer so far, with the current state of the socket file
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
