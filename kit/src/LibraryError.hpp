#pragma once

#include <string>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <pthread.h>

namespace vlx::kit
{

/// Keeps the first ERROR that the library logs on the constructing thread while it lives: the
/// library returns false, and says why in its log alone.
class LibraryError
{
public:
    /// Of the appender.
    static constexpr const char* Name = "vlx-library-error";

    LibraryError()
        : m_logger(log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"))),
          m_appender(new Appender),
          m_holder(m_appender)
    {
        m_appender->setName(LOG4CPLUS_C_STR_TO_TSTRING(Name));
        m_logger.addAppender(m_holder);
    }

    ~LibraryError()
    {
        m_logger.removeAppender(m_holder);
    }

    LibraryError(const LibraryError&) = delete;
    LibraryError& operator=(const LibraryError&) = delete;

    /// @return empty if there was none, or if the log does not take ERROR
    const std::string& getText() const
    {
        return m_appender->text;
    }

private:
    struct Appender : log4cplus::Appender
    {
        ~Appender() override
        {
            destructorImpl();
        }

        void close() override
        {
            closed = true;
        }

        void append(const log4cplus::spi::InternalLoggingEvent& event) override
        {
            if (text.empty() && event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL &&
                ::pthread_equal(::pthread_self(), thread) != 0)
                text = event.getMessage();
        }

        const pthread_t thread = ::pthread_self();
        std::string text; // of that thread
    };

    log4cplus::Logger m_logger;
    Appender* const m_appender;
    log4cplus::SharedAppenderPtr m_holder;
};

} // namespace vlx::kit
