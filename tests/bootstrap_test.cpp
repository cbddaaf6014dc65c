// CBootstrap against the simulated host, the real file system and registry:
// Commercial_Details, where setting 400 puts the file, and the cloud request.
// What becomes of every form of the file and of the cloud's reply is in
// hostile_input_test.cpp.
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "bootstrap/bootstrap.h"
#include "plugin_fixture.h"

namespace
{
using Strings = std::vector<std::string>;

constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPBOOT";
const std::string kExample = R"({"app_data":{"commercial_details_id":"X1"},"commercial_data":{"k":"v"}})";
const std::string kNoData = "CBootstrap::_InitCommercialId: Get bootstrap data failed";

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

TEST_F(BootstrapTest, ContactsAreDisabledOnlyByTheNumberZero)
{
    // Commercial_Details (kText: the text "0"), the product id given -> enabled.
    const std::tuple<int64_t, bool, bool> rows[] = {{0, true, false},     {1, true, true},     {2, true, true},
                                                    {kNone, true, true}, {kText, true, true}, {0, false, true}};
    for (const auto& [value, productId, enabled] : rows)
    {
        SCOPED_TRACE(::testing::PrintToString(std::make_tuple(value, productId)));
        PutValue(HKEY_USERS, kSubscriptionKey, L"Commercial_Details", value, L"0");
        host.config.Set(44, L"Desktop", productId ? L"PCPBOOT" : L"<error-not-found>");
        CBootstrap fresh;
        ASSERT_EQ(fresh.Init(&host), 0u);
        EXPECT_EQ(fresh.contactsEnabled, enabled);
        fresh.UnInit();
    }
}

// Setting 400 is the folder with its closing separator: a text without it
// has the file's name glued to it. (The scenarios
// commercial_data_file_*.json play a missing setting and a file that cannot
// be written.)
TEST_F(BootstrapTest, AFolderWithoutItsSeparatorHasTheNameGluedToIt)
{
    const std::wstring glued = folder.path + L"\\gluedsettings";
    CreateDirectoryW(glued.c_str(), nullptr);
    host.config.Set(400, L"Desktop", folder.path + L"\\glued");
    std::ofstream((glued + L"\\bootstrapdata.json").c_str()) << kExample;
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent("X1"));
    DeleteFileW((glued + L"\\bootstrapdata.json").c_str());
    RemoveDirectoryW(glued.c_str());
}

// The identifier goes to the cloud as escaped JSON and into app_data, which
// replaces an app_data that is no object; the other members stay.
TEST_F(BootstrapTest, TheIdentifierTravelsAsEscapedJsonAndIsComparedByteForByte)
{
    ASSERT_EQ(bootstrap.Init(&host), 0u);
    folder.Write(R"({"app_data":"s",  "other": [ 1, {"b" : 2} ]})");
    host.connectIntegrator.SetAnswer({R"({"k":"v"})", 0, 0, "aux text", 77});
    const std::string id = "a\"b\\c";
    log.Clear();
    EXPECT_TRUE(bootstrap.UpdateBootstrapData(id));
    const auto calls = host.connectIntegrator.Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].faults, Strings{}); // path, method, time limit, flag and texts as the client wants them
    EXPECT_EQ(calls[0].params, R"({"commercial_details_id":"a\"b\\c"})");
    EXPECT_EQ(folder.Read(),
              R"({"app_data":{"commercial_details_id":"a\"b\\c"},"commercial_data":{"k":"v"},"other":[1,{"b":2}]})");
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent(id));
    EXPECT_TRUE(bootstrap.IsCommercialIdDifferent("A\"B\\C")); // case matters
    log.Clear();
    EXPECT_FALSE(bootstrap.IsCommercialIdDifferent(""));
    EXPECT_EQ(Errors(), Strings{"CBootstrap::IsCommercialIdDifferent: commid empty"});
}
