// CBootstrap against the simulated host, the real file system and the real
// registry: what Init reads from the file and from Commercial_Details, the
// cloud request as the client sees it, and every outcome of an update on
// the file and on the stored identifier.
#include <windows.h>

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "bootstrap/bootstrap.h"
#include "log_capture.h"
#include "registry_scratch.h"
#include "simhost/sim_host.h"

namespace
{
using Strings = std::vector<std::string>;

constexpr wchar_t kProductId[] = L"PCPBOOT";
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPBOOT";
const std::string kExample = R"({"app_data":{"commercial_details_id":"X1"},"commercial_data":{"k":"v"}})";

// A folder of the test's own with a "settings" folder in it; setting 400 of
// "Desktop" names it with its trailing separator.
class BootstrapTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        folder = NewTempFile(L"pcb");
        DeleteFileW(folder.c_str());
        CreateDirectoryW(folder.c_str(), nullptr);
        CreateDirectoryW((folder + L"\\settings").c_str(), nullptr);
        host.config.Set(44, L"Desktop", kProductId);
        host.config.Set(400, L"Desktop", folder + L"\\");
        registry.Forget(HKEY_USERS, kSubscriptionKey);
    }
    void TearDown() override
    {
        bootstrap.UnInit();
        DeleteFileW(File().c_str());
        RemoveDirectoryW((folder + L"\\settings").c_str());
        RemoveDirectoryW(folder.c_str());
    }

    std::wstring File() const { return folder + L"\\settings\\bootstrapdata.json"; }
    void Write(const std::string& content) const
    {
        std::ofstream(File().c_str(), std::ios::binary) << content;
    }
    // The file's bytes, or nothing when it does not exist.
    std::optional<std::string> Read() const
    {
        std::ifstream in(File().c_str(), std::ios::binary);
        if (!in)
            return std::nullopt;
        std::ostringstream content;
        content << in.rdbuf();
        return content.str();
    }
    Strings Errors() const { return log.Messages("ERROR"); }

    LogCapture log;
    RegistryScratch registry;
    std::wstring folder;
    sim::Host host;
    CBootstrap bootstrap;
};

const std::string kNotJson = "CBootstrap::_GetBootstrapData: Not json, syntax error at line ";
const std::string kNoData = "CBootstrap::_InitCommercialId: Get bootstrap data failed";
} // namespace

TEST_F(BootstrapTest, InitTakesTheIdentifierOfAUsableFileOnly)
{
    struct Row
    {
        const char* what;
        std::optional<std::string> content;
        Strings errors;
        std::string identifier; // "" when none was taken
    };
    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    const Row rows[] = {
        {"missing file", std::nullopt, {"CBootstrap::_GetBootstrapData: Failed to open", kNoData}, ""},
        {"empty file", "", {kNotJson + "1 near: ", kNoData}, ""},
        {"cut short", "{\"app_data\":\n{\"commercial_details_id\":\"X", {kNotJson + "2 near: ", kNoData}, ""},
        {"array", "[{\"app_data\":{}}]", {"CBootstrap::_GetBootstrapData: Not object", kNoData}, ""},
        {"10000 nested arrays", deep, {kNotJson + "1 near: " + std::string(9899, '[') + deep.substr(10000), kNoData},
         ""},
        {"NUL inside", std::string("{\"app_data\"\0:{}}", 16), {kNotJson + "1 near: :{}}", kNoData}, ""},
        {"no app_data", "{}", {"CBootstrap::_InitCommercialId: No app_data"}, ""},
        {"app_data a string", "{\"app_data\":\"X1\"}", {"CBootstrap::_InitCommercialId: No app_data"}, ""},
        {"no identifier", "{\"app_data\":{}}", {"CBootstrap::_InitCommercialId: No commercial_details_id in app_data"},
         ""},
        {"identifier a number", "{\"app_data\":{\"commercial_details_id\":5}}",
         {"CBootstrap::_InitCommercialId: No commercial_details_id in app_data"}, ""},
        {"object followed by text", kExample + "\nrest, not JSON [", {}, "X1"},
        {"invalid UTF-8 carried as bytes", "{\"app_data\":{\"commercial_details_id\":\"\xff\xfe\"}}", {}, "\xff\xfe"},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        CBootstrap fresh;
        DeleteFileW(File().c_str());
        if (row.content)
            Write(*row.content);
        log.Clear();
        ASSERT_EQ(fresh.Init(&host), 0u);
        const Strings errors = Errors();
        ASSERT_EQ(errors.size(), row.errors.size());
        for (size_t i = 0; i < errors.size(); ++i)
            EXPECT_EQ(errors[i].substr(0, 200), row.errors[i].substr(0, 200));
        EXPECT_EQ(log.Count("INFO", "CBootstrap::_InitCommercialId: old commid: "), row.identifier.empty() ? 0u : 1u);
        log.Clear();
        EXPECT_EQ(fresh.IsCommercialIdDifferent(row.identifier.empty() ? "X1" : row.identifier),
                  row.identifier.empty());
        EXPECT_EQ(Read(), row.content); // reading changes nothing
        fresh.UnInit();
    }
}

TEST_F(BootstrapTest, WithoutALocationNoFileIsTouchedAndAGluedLocationIsUsed)
{
    host.config.Remove(400, L"Desktop"); // given as null
    Write(kExample);
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    EXPECT_EQ(Errors(), Strings{kNoData});
    host.connectIntegrator.SetAnswer({R"({"k":"v"})"});
    EXPECT_FALSE(bootstrap.UpdateBootstrapData("X2"));
    EXPECT_EQ(host.connectIntegrator.Calls().size(), 1u); // the cloud is asked first
    EXPECT_EQ(Read(), kExample);
    EXPECT_TRUE(bootstrap.IsCommercialIdDifferent("X2"));
    bootstrap.UnInit();

    // A folder text without its separator: the name is glued to it.
    const std::wstring glued = folder + L"\\gluedsettings";
    CreateDirectoryW(glued.c_str(), nullptr);
    host.config.Set(400, L"Desktop", folder + L"\\glued");
    std::ofstream((glued + L"\\bootstrapdata.json").c_str()) << kExample;
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent("X1"));
    EXPECT_TRUE(bootstrap.UpdateBootstrapData("X3"));
    std::ifstream in((glued + L"\\bootstrapdata.json").c_str());
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    in.close();
    EXPECT_EQ(content, R"({"app_data":{"commercial_details_id":"X3"},"commercial_data":{"k":"v"}})");
    DeleteFileW((glued + L"\\bootstrapdata.json").c_str());
    RemoveDirectoryW(glued.c_str());
}

TEST_F(BootstrapTest, ContactsAreDisabledOnlyByTheNumberZero)
{
    struct Row
    {
        const char* what;
        bool present;
        bool text;
        DWORD value;
        bool enabled;
    };
    const Row rows[] = {
        {"0", true, false, 0, false},  {"1", true, false, 1, true},   {"2", true, false, 2, true},
        {"missing", false, false, 0, true}, {"a text", true, true, 0, true},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        RegDeleteKeyValueW(HKEY_USERS, kSubscriptionKey, L"Commercial_Details");
        if (row.present && row.text)
            RegSetKeyValueW(HKEY_USERS, kSubscriptionKey, L"Commercial_Details", REG_SZ, L"0", 2 * sizeof(wchar_t));
        else if (row.present)
            registry.SetDword(HKEY_USERS, kSubscriptionKey, L"Commercial_Details", row.value);
        CBootstrap fresh;
        ASSERT_EQ(fresh.Init(&host), 0u);
        EXPECT_EQ(fresh.contactsEnabled, row.enabled);
        fresh.UnInit();
    }
    // Without the product identifier there is no key to read.
    registry.SetDword(HKEY_USERS, kSubscriptionKey, L"Commercial_Details", 0);
    host.config.Set(44, L"Desktop", L"<error-not-found>");
    CBootstrap fresh;
    ASSERT_EQ(fresh.Init(&host), 0u);
    EXPECT_TRUE(fresh.contactsEnabled);
    fresh.UnInit();
}

TEST_F(BootstrapTest, AnUpdateRewritesTheFileOnlyWithAnObjectFromTheCloud)
{
    struct Row
    {
        const char* what;
        std::optional<std::string> file; // before the update
        sim::CloudAnswer answer;
        bool result;
        std::optional<std::string> after; // the file afterwards; same as file when not given and result false
        Strings errors;
    };
    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    const std::string big = "\"" + std::string(50u * 1024 * 1024, 'b') + "\"";
    const std::string other = R"({"app_data":{"commercial_details_id":"X0","keep":1},"commercial_data":{"old":true},"z":[1,2]})";
    const Row rows[] = {
        {"example, no file", std::nullopt, {R"({"k":"v"})"}, true, kExample,
         {"CBootstrap::_GetBootstrapData: Failed to open"}},
        {"garbled file", std::string("{\"app_data\":{\"x\""), {R"({"k":"v"})"}, true, kExample,
         {kNotJson + "1 near: "}},
        {"app_data a string, other members stay", std::string(R"({"app_data":"s",  "other": [ 1, {"b" : 2} ]})"),
         {R"({"k":"v"})"}, true,
         std::string(R"({"app_data":{"commercial_details_id":"X1"},"commercial_data":{"k":"v"},"other":[1,{"b":2}]})"),
         {}},
        {"commercial_data replaced whole", other, {R"({"new":"n"})"}, true,
         std::string(R"({"app_data":{"commercial_details_id":"X1","keep":1},"commercial_data":{"new":"n"},"z":[1,2]})"),
         {}},
        {"NUL ends the reply", other, {std::string("{\"k\":\"v\"}\0[", 11)}, true,
         std::string(R"({"app_data":{"commercial_details_id":"X1","keep":1},"commercial_data":{"k":"v"},"z":[1,2]})"),
         {}},
        {"cloud error", other, {"", 5}, false, std::nullopt,
         {"CBootstrap::_GetCloudData: Perform cloud request failed. error=5"}},
        {"empty body", other, {""}, false, std::nullopt, {}},
        {"array reply", other, {"[1]"}, false, std::nullopt, {}},
        {"string reply", other, {"\"s\""}, false, std::nullopt, {}},
        {"10000 nested arrays", other, {deep}, false, std::nullopt, {}},
        {"50 MB body", other, {big}, false, std::nullopt, {}},
        {"invalid UTF-8 outside a string", other, {"\xff{}"}, false, std::nullopt, {}},
        {"NUL inside the object", other, {std::string("{\"k\":\0\"v\"}", 10)}, false, std::nullopt, {}},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        DeleteFileW(File().c_str());
        if (row.file)
            Write(*row.file);
        CBootstrap fresh;
        ASSERT_EQ(fresh.Init(&host), 0u);
        const bool before = fresh.IsCommercialIdDifferent("X1");
        host.connectIntegrator.SetAnswer(row.answer);
        log.Clear();
        EXPECT_EQ(fresh.UpdateBootstrapData("X1"), row.result);
        EXPECT_EQ(Errors(), row.errors);
        // An update reports only failures of the cloud and the file, and
        // only as errors: a reply that is not an object goes unmentioned.
        EXPECT_EQ(log.Messages("WARN"), Strings{});
        EXPECT_EQ(log.Messages("INFO"), Strings{});
        EXPECT_EQ(Read(), row.result ? row.after : row.file); // byte for byte
        EXPECT_EQ(fresh.IsCommercialIdDifferent("X1"), row.result ? false : before);
        const auto calls = host.connectIntegrator.Calls();
        ASSERT_FALSE(calls.empty());
        EXPECT_EQ(calls.back().faults, Strings{});
        fresh.UnInit();
    }
    // Case matters.
    Write(kExample);
    CBootstrap fresh;
    ASSERT_EQ(fresh.Init(&host), 0u);
    EXPECT_FALSE(fresh.IsCommercialIdDifferent("X1"));
    EXPECT_TRUE(fresh.IsCommercialIdDifferent("x1"));
    log.Clear();
    EXPECT_FALSE(fresh.IsCommercialIdDifferent(""));
    EXPECT_EQ(Errors(), Strings{"CBootstrap::IsCommercialIdDifferent: commid empty"});
    fresh.UnInit();
}

TEST_F(BootstrapTest, TheRequestCarriesTheIdentifierAsEscapedJson)
{
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    host.connectIntegrator.SetAnswer({R"({"k":"v"})", 0, 0, "aux text", 77});
    const std::string id = "a\"b\\c";
    EXPECT_TRUE(bootstrap.UpdateBootstrapData(id));
    const auto calls = host.connectIntegrator.Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].faults, Strings{});
    EXPECT_EQ(calls[0].path, "connect/commercial_ids");
    EXPECT_EQ(calls[0].method, "get_commercial_id_details");
    EXPECT_EQ(calls[0].timeoutMs, 30000u);
    EXPECT_EQ(calls[0].flag, 1u);
    EXPECT_EQ(calls[0].params, R"({"commercial_details_id":"a\"b\\c"})");
    EXPECT_EQ(Read(), std::string(R"({"app_data":{"commercial_details_id":"a\"b\\c"},"commercial_data":{"k":"v"}})"));
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent(id));
}

TEST_F(BootstrapTest, AFileThatCannotBeWrittenLeavesTheIdentifier)
{
    Write(kExample);
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    RemoveDirectoryW((folder + L"\\settings").c_str()); // not empty: stays
    host.config.Set(400, L"Desktop", folder + L"\\missing\\");
    host.connectIntegrator.SetAnswer({R"({"k":"w"})"});
    log.Clear();
    EXPECT_FALSE(bootstrap.UpdateBootstrapData("X9"));
    EXPECT_EQ(Errors(), (Strings{"CBootstrap::_GetBootstrapData: Failed to open",
                                 "CBootstrap::_SaveBootstrapData: Failed to open"}));
    EXPECT_TRUE(bootstrap.IsCommercialIdDifferent("X9"));
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent("X1"));
    EXPECT_EQ(Read(), kExample);
}
