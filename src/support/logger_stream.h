// logger_stream: one message line, composed by insertion into a temporary and
// written to the logging library when the temporary is destroyed, with no
// line end added. Whether the line is wanted is asked once, at construction;
// when it is not, no insertion formats anything.
//
//   logger_stream(logging::LevelError, L"CWscHandler::Init") << "RegGetValueW failed " << status;
//
// The text travels as an argument of the format "%s", never as a format, so
// a percent sign in it is harmless.
#pragma once

#include <cstdint>
#include <ios>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include "support/log_client.h"

class logger_stream : public std::wostringstream
{
public:
    // function must outlive the stream: a literal, in practice.
    logger_stream(uint32_t level, const wchar_t* function);
    // Writes the line if the stream is enabled and the record still has users.
    ~logger_stream() override;

    logger_stream(const logger_stream&) = delete;
    logger_stream& operator=(const logger_stream&) = delete;

    // Wide strings, numbers, booleans and anything else a wide stream takes,
    // by the standard rules. Narrow strings (anything that converts to
    // std::string_view) are widened character by character through the
    // stream's locale, no code page applied.
    template <class T>
    friend logger_stream& operator<<(logger_stream& stream, const T& value)
    {
        if (stream.enabled)
        {
            if constexpr (std::is_convertible_v<const T&, std::string_view>)
                stream._WriteNarrow(value);
            else
                static_cast<std::wostream&>(stream) << value;
        }
        return stream;
    }
    // The first insertion into the temporary. It is a closer match than
    // the standard library's insertion into an rvalue stream, which would
    // skip the test of enabled.
    template <class T>
    friend logger_stream& operator<<(logger_stream&& stream, const T& value)
    {
        return stream << value;
    }
    logger_stream& operator<<(std::wostream& (*manipulator)(std::wostream&));
    logger_stream& operator<<(std::ios_base& (*manipulator)(std::ios_base&));

    bool IsEnabled() const noexcept { return enabled; }

private:
    // True when the record has users, a library with LogIsEnabled, and
    // LogIsEnabled() says so.
    static bool _AskEnabled() noexcept;
    void _WriteNarrow(std::string_view text);

    bool enabled;
    uint32_t level;
    const wchar_t* function;
};
