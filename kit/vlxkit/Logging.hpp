#pragma once

/// The log of library and kit: printed on standard error, or passed to the program.

#include <functional>
#include <memory>
#include <string>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Severity of a log line, the most severe first.
enum class LogLevel
{
    Error,
    Warning,
    Info,
    Debug,
    Trace,
};

/// One line of the log. Its references are valid only during the call of the listener's function.
struct LogLine
{
    LogLevel level = LogLevel::Error; ///< severity
    const std::string& logger;        ///< "Vellox" for the library, "Vellox.Kit" for the kit
    const std::string& text;          ///< without a line feed; may hold what a peer has announced
    const std::string& file;          ///< source file that logs
    const std::string& function;      ///< function that logs
    int line = 0;                     ///< line in the source file
};

/// Formats a line as Logging prints it: local time, level, logger and text.
///
/// @return the line, without a line feed
VLX_API std::string toText(const LogLine& line);

/// Returns whether anything receives the log: a LogListener, a Logging, or an appender with which
/// the program has configured log4cplus. If not, log4cplus prints a warning of two lines.
///
/// @thread any
VLX_API bool isLogReceived();

/// Ends the four idle threads that log4cplus starts when it is loaded.
///
/// For plugins and language bindings: without this, exit() hangs in a forked child, because it
/// waits for threads that exist only in the parent. Call it before the first LogListener.
///
/// Has no effect if the program itself has an appender or a logger of log4cplus, or in a child that
/// was forked after the library was loaded.
///
/// The threads serve only appenders with the property AsyncAppend. Such an appender crashes once
/// the threads have ended. A program that uses one must configure log4cplus, or get a logger,
/// before this call.
///
/// @thread any
VLX_API void endLogThreads();

/// Passes the log of library and kit to a function while it lives, for a program that has its own
/// log. Several listeners may live at once; each has its own level.
///
/// It sets the level of the logger "Vellox" to the most verbose level of all listeners, changes no
/// other logger, and restores the level when the last listener is destroyed. In a program that
/// configures log4cplus itself, the logger never becomes less verbose than configured.
class LogListener
{
public:
    /// Starts to listen.
    ///
    /// @param level   least severe level that is passed on
    /// @param onLine  called on the thread that logs, one call at a time, and never again once the
    ///                destructor has returned; must not throw, call the library, destroy the
    ///                listener, or wait for a lock that is held while the library is called.
    ///                If not set, lines are dropped, and isLogReceived() ignores this listener
    VLX_API LogListener(LogLevel level, std::function<void(const LogLine&)> onLine);
    VLX_API ~LogListener();

    LogListener(const LogListener&) = delete;
    LogListener& operator=(const LogListener&) = delete;

    /// Changes the level.
    ///
    /// @param level  least severe level that is passed on
    /// @thread any
    VLX_API void setLevel(LogLevel level);

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// Prints the log of library and kit on standard error while it lives, for a program that does not
/// configure log4cplus: create it first in main().
///
/// May be nested: the newest level applies, and each line appears once.
///
/// @thread any; destroy nested ones in reverse order
class Logging
{
public:
    /// Sets up the log.
    /// @param level  least severe level that is printed
    VLX_API explicit Logging(LogLevel level = LogLevel::Warning);
    VLX_API ~Logging();

    Logging(const Logging&) = delete;
    Logging& operator=(const Logging&) = delete;

private:
    LogLevel m_formerLevel = LogLevel::Warning;
};

} // namespace vlx::kit
