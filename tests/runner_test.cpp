// OrbhubSim as a support engineer uses it: a step whose expectations do not
// hold is shown with the expected and the actual side by side and ends the
// run with status 1, and --json writes the run as one document that reads
// back with the same JSON library.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>

#include <picojson.h>

#include "log_capture.h"
#include "support/unique_resource.h"

namespace
{
// A start with a record whose server product type differs: the timer is
// armed, nothing is started yet. The expectations of step 0 hold; those of
// step 1 claim a start and a second arming that do not happen.
const char kScenario[] = R"({
  "settings": [
    {"number": 0, "section": "BASE", "value": "PcpRunner"},
    {"number": 44, "section": "Desktop", "value": "PCPRUNNER"},
    {"number": 217, "section": "Desktop", "value": "Software\\PcpRunner\\Product"}
  ],
  "registry": [
    {"root": "HKLM", "key": "Software\\PcpRunner\\Product", "name": "ProductCfgDelay", "type": "dword", "value": 30},
    {"root": "HKU", "key": ".DEFAULT\\SOFTWARE\\Sub_ID_PCPRUNNER", "name": "GsShowed", "type": "dword", "value": 1},
    {"root": "HKU", "key": ".DEFAULT\\SOFTWARE\\Sub_ID_PCPRUNNER", "name": "ServerProductType", "type": "absent"}
  ],
  "subscription": {"key_type": 2, "product_type": 3, "server_product_type": 5, "valid": true, "account_id": "a"},
  "steps": [
    {"do": "start", "expect": {
      "launches": [],
      "registry": [{"root": "HKU", "key": ".DEFAULT\\SOFTWARE\\Sub_ID_PCPRUNNER", "name": "ServerProductType",
                    "type": "dword", "value": 5}],
      "log": ["INFO CProductConfigurationPlg::_SetConfigurationStatus: CfgStatus: 1"],
      "host": {"SetTimer _ProductCfgTimer 30000": 1}}},
    {"do": "advance", "ms": 1000, "expect": {
      "launches": ["\"ProductCfg.exe\" do_config"],
      "no_log": ["INFO CProductConfigurationPlg::_GetDelay: value is: 30seconds"],
      "host": {"SetTimer _ProductCfgTimer": 1}}},
    "stop"
  ]
})";

std::wstring Beside(const wchar_t* name)
{
    wchar_t path[MAX_PATH];
    const std::wstring exe(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return exe.substr(0, exe.rfind(L'\\') + 1) + name;
}

std::string ReadAll(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs OrbhubSim.exe with arguments, its output to a file; the exit status.
DWORD RunSim(const std::wstring& arguments, const std::wstring& output)
{
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    const UniqueFileHandle out(CreateFileW(output.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = out.get();
    startup.hStdError = out.get();
    PROCESS_INFORMATION created{};
    std::wstring commandLine = L"\"OrbhubSim.exe\" " + arguments;
    const std::wstring image = Beside(L"OrbhubSim.exe");
    if (!CreateProcessW(image.c_str(), &commandLine[0], nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &created))
        return 0xFFFFFFFFu;
    const UniqueHandle process(created.hProcess), thread(created.hThread);
    DWORD status = 0xFFFFFFFFu;
    if (WaitForSingleObject(process.get(), 60000) == WAIT_OBJECT_0)
        GetExitCodeProcess(process.get(), &status);
    return status;
}
} // namespace

TEST(Runner, UnmetExpectationsAreShownSideBySideAndTheJsonReportReadsBack)
{
    const std::wstring scenario = NewTempFile(L"psc"), output = NewTempFile(L"pso"), report = NewTempFile(L"psj");
    std::ofstream(scenario.c_str(), std::ios::binary) << kScenario;
    EXPECT_EQ(RunSim(L"--json \"" + report + L"\" \"" + scenario + L"\"", output), 1u);
    std::string printed = ReadAll(output);
    printed.erase(std::remove(printed.begin(), printed.end(), '\r'), printed.end());
    for (const char* line : {"  EXPECTED launches:\n"
                             "    expected                   | happened\n"
                             "    \"ProductCfg.exe\" do_config | (none)\n",
                             "  EXPECTED host SetTimer _ProductCfgTimer:\n    expected | happened\n    1        | 0\n",
                             "  - step 1: expected launches not met\n",
                             "  - step 1: expected host SetTimer _ProductCfgTimer not met\n"})
        EXPECT_NE(printed.find(line), std::string::npos) << line << "\nin:\n" << printed;
    EXPECT_EQ(printed.find("step 0: expected"), std::string::npos) << "step 0's expectations hold";
    EXPECT_EQ(printed.find("EXPECTED no_log"), std::string::npos) << "the delay is read in Init, not in step 1";

    picojson::value document;
    ASSERT_EQ(picojson::parse(document, ReadAll(report)), "");
    const picojson::array& steps = document.get("steps").get<picojson::array>();
    ASSERT_EQ(steps.size(), 3u);
    const picojson::value& start = steps[0];
    EXPECT_EQ(start.get("step").get<std::string>(), "start");
    EXPECT_TRUE(start.get("expectations").get("met").get<bool>());
    bool logged = false;
    for (const picojson::value& line : start.get("log").get<picojson::array>())
        logged = logged || (line.get("level").get<std::string>() == "INFO" &&
                            line.get("function").get<std::string>() == "CProductConfigurationPlg::_SetConfigurationStatus" &&
                            line.get("text").get<std::string>() == "CfgStatus: 1" &&
                            !line.get("thread").get<std::string>().empty());
    EXPECT_TRUE(logged) << start.serialize();
    const picojson::array& changes = start.get("registry").get<picojson::array>();
    ASSERT_FALSE(changes.empty());
    EXPECT_EQ(changes.back().get("value").get<std::string>(),
              "HKU\\.DEFAULT\\SOFTWARE\\Sub_ID_PCPRUNNER\\ServerProductType");
    EXPECT_EQ(changes.back().get("before").get<std::string>(), "absent");
    EXPECT_EQ(changes.back().get("after").get<std::string>(), "dword 5");

    const picojson::value& advance = steps[1];
    EXPECT_EQ(advance.get("time_ms").get<double>(), 1000.0);
    EXPECT_FALSE(advance.get("expectations").get("met").get<bool>());
    const picojson::array& unmet = advance.get("expectations").get("unmet").get<picojson::array>();
    ASSERT_EQ(unmet.size(), 2u);
    EXPECT_EQ(unmet[0].get("what").get<std::string>(), "launches");
    EXPECT_EQ(unmet[0].get("expected").serialize(), R"(["\"ProductCfg.exe\" do_config"])");
    EXPECT_EQ(unmet[0].get("happened").serialize(), "[\"(none)\"]");
    EXPECT_EQ(steps[2].get("host").get<picojson::array>().empty(), false);
    EXPECT_EQ(document.get("summary").get("exit_status").get<double>(), 1.0);
    EXPECT_EQ(document.get("summary").get("failures").get<picojson::array>().size(), 2u);

    for (const std::wstring& file : {scenario, output, report})
        DeleteFileW(file.c_str());
    for (const wchar_t* key : {L"Software\\PcpRunner"})
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    RegDeleteTreeW(HKEY_USERS, L".DEFAULT\\SOFTWARE\\Sub_ID_PCPRUNNER");
}
