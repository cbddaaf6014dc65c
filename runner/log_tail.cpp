#include "runner/log_tail.h"

#include <windows.h>

#include <sstream>

#include "support/unique_resource.h"

namespace runner
{
LogTail::LogTail()
{
    wchar_t folder[MAX_PATH];
    wchar_t file[MAX_PATH];
    if (GetTempPathW(MAX_PATH, folder) == 0 || GetTempFileNameW(folder, L"sml", 0, file) == 0)
        return;
    path = file;
    SetEnvironmentVariableW(L"QM_LOG_FILE", path.c_str());
    SetEnvironmentVariableW(L"QM_LOG_ECHO", L"1");
}

LogTail::~LogTail()
{
    if (path.empty())
        return;
    SetEnvironmentVariableW(L"QM_LOG_FILE", nullptr);
    SetEnvironmentVariableW(L"QM_LOG_ECHO", nullptr);
    DeleteFileW(path.c_str());
}

std::vector<LogLine> LogTail::TakeNew()
{
    std::vector<LogLine> lines;
    const UniqueFileHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER size{};
    if (!file || !GetFileSizeEx(file.get(), &size) || static_cast<unsigned long long>(size.QuadPart) <= offset)
        return lines;
    std::string text(static_cast<size_t>(size.QuadPart - static_cast<LONGLONG>(offset)), '\0');
    LARGE_INTEGER at{};
    at.QuadPart = static_cast<LONGLONG>(offset);
    DWORD read = 0;
    if (!SetFilePointerEx(file.get(), at, nullptr, FILE_BEGIN) ||
        !ReadFile(file.get(), &text[0], static_cast<DWORD>(text.size()), &read, nullptr))
        return lines;
    text.resize(read);
    const size_t end = text.rfind('\n');
    if (end == std::string::npos)
        return lines;
    offset += end + 1;
    std::istringstream in(text.substr(0, end + 1));
    for (std::string line; std::getline(in, line);)
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(ParseLogLine(line));
    }
    return lines;
}

LogLine ParseLogLine(const std::string& line)
{
    LogLine parsed;
    std::istringstream fields(line);
    std::string rest;
    if (!(fields >> parsed.time >> parsed.thread >> parsed.level))
    {
        parsed.text = line;
        return parsed;
    }
    std::getline(fields >> std::ws, rest);
    const size_t colon = rest.find(": ");
    if (colon == std::string::npos)
        parsed.text = rest;
    else
    {
        parsed.function = rest.substr(0, colon);
        parsed.text = rest.substr(colon + 2);
    }
    return parsed;
}
} // namespace runner
