// Sends the log library's lines (log.dll beside the test) to a file of the
// test's own, and reads back "function: text" of one level, with the thread.
#pragma once

#include <windows.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

// A new empty file in the temporary folder, named with prefix.
inline std::wstring NewTempFile(const wchar_t* prefix)
{
    wchar_t dir[MAX_PATH];
    wchar_t file[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    GetTempFileNameW(dir, prefix, 0, file);
    return file;
}

class LogCapture
{
public:
    LogCapture() : path(NewTempFile(L"plg"))
    {
        SetEnvironmentVariableW(L"QM_LOG_FILE", path.c_str());
    }
    ~LogCapture()
    {
        SetEnvironmentVariableW(L"QM_LOG_FILE", nullptr);
        DeleteFileW(path.c_str());
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Lines "HH:MM:SS.mmm <thread> <LEVEL> <indent><function>: <text>" of
    // level (any level when empty), as "<function>: <text>"; threads gets
    // the thread identifier of each.
    std::vector<std::string> Messages(const std::string& level, std::vector<std::string>* threads = nullptr) const
    {
        std::ifstream in(path.c_str(), std::ios::binary);
        std::vector<std::string> result;
        for (std::string line, time, thread, name, rest; std::getline(in, line);)
        {
            std::istringstream fields(line.substr(0, line.find('\r')));
            if (!(fields >> time >> thread >> name) || (!level.empty() && name != level))
                continue;
            rest.clear();
            std::getline(fields >> std::ws, rest);
            result.push_back(rest);
            if (threads != nullptr)
                threads->push_back(thread);
        }
        return result;
    }
    // How many lines of level start with prefix.
    size_t Count(const std::string& level, const std::string& prefix) const
    {
        const auto lines = Messages(level);
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
    }
    bool Contains(const std::string& level, const std::string& line) const
    {
        const auto lines = Messages(level);
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    // Thread identifiers of the lines of any level starting with prefix.
    std::vector<std::string> Threads(const std::string& prefix) const
    {
        std::vector<std::string> threads, found;
        const auto lines = Messages("", &threads);
        for (size_t i = 0; i < lines.size(); ++i)
            if (lines[i].rfind(prefix, 0) == 0)
                found.push_back(threads[i]);
        return found;
    }
    void Clear() const { std::ofstream(path.c_str(), std::ios::trunc); }

private:
    std::wstring path;
};
