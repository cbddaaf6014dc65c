#include "support/boundary.h"

#include <windows.h>

#include <cwchar>
#include <exception>
#include <new>

#include "support/log_client.h"

namespace boundary
{
namespace
{
constexpr size_t kLineChars = 256;

// "Exception caught: " and as much of text as fits, widened byte by byte.
void ComposeLine(wchar_t (&line)[kLineChars], const char* text) noexcept
{
    constexpr wchar_t kPrefix[] = L"Exception caught: ";
    size_t length = 0;
    for (; kPrefix[length] != L'\0'; ++length)
        line[length] = kPrefix[length];
    for (size_t i = 0; text != nullptr && text[i] != '\0' && length < kLineChars - 1; ++i)
        line[length++] = static_cast<wchar_t>(static_cast<unsigned char>(text[i]));
    line[length] = L'\0';
}
} // namespace

Status LogCaughtException(const wchar_t* entry) noexcept
{
    Status status = ERROR_GEN_FAILURE;
    const char* what = "unknown exception";
    // Classifies the exception in flight; what() of the standard's types
    // does not allocate.
    try
    {
        throw;
    }
    catch (const std::bad_alloc& error)
    {
        status = ERROR_OUTOFMEMORY;
        what = error.what();
    }
    catch (const std::exception& error)
    {
        what = error.what();
    }
    catch (...)
    {
    }

    wchar_t line[kLineChars];
    ComposeLine(line, what);
    if (logging::UserCount() == 0)
        return status;
    static constexpr uint32_t kLevel = logging::LevelError;
    CLogDLLRef ref;
    ref.Acquire();
    if (const logging::CLogDLL* record = ref.get())
        record->Write(logging::kDepthSame, &kLevel, entry, L"%s", line);
    return status;
}
} // namespace boundary
