// settings\bootstrapdata.json: read whole and parsed, or rewritten in place.
// The file is bytes in narrow strings, opened in text mode with default
// sharing; there is no temporary file, rename or backup.
#include <windows.h>

#include <fstream>
#include <ios>
#include <iterator>

#include "bootstrap/bootstrap.h"
#include "bootstrap/json_parse.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/trace_scope.h"

namespace
{
constexpr wchar_t kFileName[] = L"settings\\bootstrapdata.json";
static_assert(sizeof(kFileName) / sizeof(wchar_t) == 28, "27 characters and the terminator");

// The settings folder's text followed directly by the file's name: the
// folder must end in its separator. Empty when the setting is missing.
std::optional<std::wstring> BootstrapDataPath(IServConfig* config)
{
    const wchar_t* folder = config->GetString(settings::SettingsFolder.number, settings::SettingsFolder.section);
    if (IsSettingMissing(folder))
        return std::nullopt;
    return std::wstring(folder) + kFileName;
}

// The file's bytes through a narrow stream in text mode, default sharing.
// False when it does not open, or when a read fails (libstdc++ throws from
// inside the stream then; a failing disk is no exception to this plugin).
bool ReadWholeFile(const std::wstring& path, std::string& text)
{
    std::ifstream file(path.c_str(), std::ios::in);
    if (!file.is_open())
        return false;
    try
    {
        text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    catch (const std::ios_base::failure&)
    {
        return false;
    }
    return true;
}
} // namespace

std::optional<picojson::value> CBootstrap::_GetBootstrapData()
{
    constexpr wchar_t kName[] = L"CBootstrap::_GetBootstrapData";
    TraceScope trace(kName);
    const auto path = BootstrapDataPath(servConfig.get());
    if (!path)
        return std::nullopt;

    // A file that opens but cannot be read to its end (a failing disk) is
    // no better than one that does not open.
    std::string text;
    if (!ReadWholeFile(*path, text))
    {
        logger_stream(logging::LevelError, kName) << "Failed to open";
        return std::nullopt;
    }

    picojson::value value;
    const std::string error = ParseJson(text, value);
    if (!error.empty())
    {
        logger_stream(logging::LevelError, kName) << "Not json, " << error;
        return std::nullopt;
    }
    if (!value.is<picojson::object>())
    {
        logger_stream(logging::LevelError, kName) << "Not object";
        return std::nullopt;
    }
    return value;
}

bool CBootstrap::_SaveBootstrapData(const std::string& text)
{
    constexpr wchar_t kName[] = L"CBootstrap::_SaveBootstrapData";
    TraceScope trace(kName);
    const auto path = BootstrapDataPath(servConfig.get());
    if (!path)
        return false;
    std::ofstream file(path->c_str(), std::ios::out);
    if (!file.is_open())
    {
        logger_stream(logging::LevelError, kName) << "Failed to open";
        return false;
    }
    // What reaches the disk is not checked: the result says that the file
    // opened.
    file << text;
    return true;
}
