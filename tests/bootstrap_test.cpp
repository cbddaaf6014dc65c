// CBootstrap against the simulated host, the real file system and registry:
// what Init reads from the file and from Commercial_Details, the cloud
// request, and every outcome of an update on the file and the identifier.
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "bootstrap/bootstrap.h"
#include "plugin_fixture.h"

namespace
{
using Strings = std::vector<std::string>;

constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPBOOT";
const std::string kExample = R"({"app_data":{"commercial_details_id":"X1"},"commercial_data":{"k":"v"}})";
const std::string kNotJson = "CBootstrap::_GetBootstrapData: Not json, syntax error at line ";
const std::string kNoData = "CBootstrap::_InitCommercialId: Get bootstrap data failed";
const std::string kOutOfRange = "CBootstrap::_GetBootstrapData: Not json, number out of range";

// A usable file for C1 with a number of the given text beside app_data.
std::string WithNumber(const std::string& number)
{
    return R"({"app_data":{"commercial_details_id":"C1"},"n":)" + number + "}";
}

// Setting 400 of "Desktop" names the test's folder with its trailing separator.
class BootstrapTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        host.config.Set(44, L"Desktop", L"PCPBOOT");
        host.config.Set(400, L"Desktop", folder.path + L"\\");
        registry.Forget(HKEY_USERS, kSubscriptionKey);
    }
    void TearDown() override { bootstrap.UnInit(); }

    Strings Errors() const { return log.Messages("ERROR"); }

    LogCapture log;
    RegistryScratch registry;
    SettingsFolder folder{L"pcb"};
    sim::Host host;
    CBootstrap bootstrap;
};
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
        // Numbers beyond a double's range are valid JSON that a double
        // cannot hold; tiny ones and -0 are merely rounded.
        {"1e999", WithNumber("1e999"), {kOutOfRange, kNoData}, ""},
        {"-1e999", WithNumber("-1e999"), {kOutOfRange, kNoData}, ""},
        {"400 digits", WithNumber(std::string(400, '9')), {kOutOfRange, kNoData}, ""},
        {"1e-999", WithNumber("1e-999"), {}, "C1"},
        {"-0", WithNumber("-0"), {}, "C1"},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        CBootstrap fresh;
        DeleteFileW(folder.File().c_str());
        if (row.content)
            folder.Write(*row.content);
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
        EXPECT_EQ(folder.Read(), row.content); // reading changes nothing
        fresh.UnInit();
    }
}

TEST_F(BootstrapTest, WithoutALocationNoFileIsTouchedAndAGluedLocationIsUsed)
{
    host.config.Remove(400, L"Desktop"); // given as null
    folder.Write(kExample);
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    EXPECT_EQ(Errors(), Strings{kNoData});
    host.connectIntegrator.SetAnswer({R"({"k":"v"})"});
    EXPECT_FALSE(bootstrap.UpdateBootstrapData("X2"));
    EXPECT_EQ(host.connectIntegrator.Calls().size(), 1u); // the cloud is asked first
    EXPECT_EQ(folder.Read(), kExample);
    EXPECT_TRUE(bootstrap.IsCommercialIdDifferent("X2"));
    bootstrap.UnInit();

    // A folder text without its separator: the name is glued to it.
    const std::wstring glued = folder.path + L"\\gluedsettings";
    CreateDirectoryW(glued.c_str(), nullptr);
    host.config.Set(400, L"Desktop", folder.path + L"\\glued");
    std::ofstream((glued + L"\\bootstrapdata.json").c_str()) << kExample;
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent("X1"));
    EXPECT_TRUE(bootstrap.UpdateBootstrapData("X3"));
    std::ifstream in((glued + L"\\bootstrapdata.json").c_str());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}),
              R"({"app_data":{"commercial_details_id":"X3"},"commercial_data":{"k":"v"}})");
    in.close();
    DeleteFileW((glued + L"\\bootstrapdata.json").c_str());
    RemoveDirectoryW(glued.c_str());
}

TEST_F(BootstrapTest, ContactsAreDisabledOnlyByTheNumberZero)
{
    const struct
    {
        const char* what;
        int64_t value; // kText: the text "0"
        bool productId; // without it there is no key to read
        bool enabled;
    } rows[] = {
        {"0", 0, true, false},       {"1", 1, true, true},         {"2", 2, true, true},
        {"missing", kNone, true, true}, {"a text", kText, true, true}, {"no product id", 0, false, true},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        PutValue(HKEY_USERS, kSubscriptionKey, L"Commercial_Details", row.value, L"0");
        host.config.Set(44, L"Desktop", row.productId ? L"PCPBOOT" : L"<error-not-found>");
        CBootstrap fresh;
        ASSERT_EQ(fresh.Init(&host), 0u);
        EXPECT_EQ(fresh.contactsEnabled, row.enabled);
        fresh.UnInit();
    }
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
        {"1e999 inside", other, {R"({"n":1e999})"}, false, std::nullopt, {}},
        {"-1e999 alone", other, {"-1e999"}, false, std::nullopt, {}},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        DeleteFileW(folder.File().c_str());
        if (row.file)
            folder.Write(*row.file);
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
        EXPECT_EQ(folder.Read(), row.result ? row.after : row.file); // byte for byte
        EXPECT_EQ(fresh.IsCommercialIdDifferent("X1"), row.result ? false : before);
        const auto calls = host.connectIntegrator.Calls();
        ASSERT_FALSE(calls.empty());
        EXPECT_EQ(calls.back().faults, Strings{});
        fresh.UnInit();
    }
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
    EXPECT_EQ(folder.Read(), R"({"app_data":{"commercial_details_id":"a\"b\\c"},"commercial_data":{"k":"v"}})");
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent(id));
    EXPECT_TRUE(bootstrap.IsCommercialIdDifferent("A\"B\\C")); // case matters
    log.Clear();
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent(""));
    EXPECT_EQ(Errors(), Strings{"CBootstrap::IsCommercialIdDifferent: commid empty"});
}

TEST_F(BootstrapTest, AFileThatCannotBeWrittenLeavesTheIdentifier)
{
    folder.Write(kExample);
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    RemoveDirectoryW((folder.path + L"\\settings").c_str()); // not empty: stays
    host.config.Set(400, L"Desktop", folder.path + L"\\missing\\");
    host.connectIntegrator.SetAnswer({R"({"k":"w"})"});
    log.Clear();
    EXPECT_FALSE(bootstrap.UpdateBootstrapData("X9"));
    EXPECT_EQ(Errors(), (Strings{"CBootstrap::_GetBootstrapData: Failed to open",
                                 "CBootstrap::_SaveBootstrapData: Failed to open"}));
    EXPECT_TRUE(bootstrap.IsCommercialIdDifferent("X9"));
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent("X1"));
    EXPECT_EQ(folder.Read(), kExample);
}
