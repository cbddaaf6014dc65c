// The data file and the cloud's reply as an attacker or a failing disk may
// write them, generated from a seed: whatever comes, nothing crashes; Init
// takes the file's identifier, or none with a level-4 line that says why;
// an update succeeds exactly for a reply that is a JSON object with a good
// status, whatever length its descriptor claims, and one that does not
// leaves the file byte for byte as it was and the identifier too; 50 MiB
// of valid JSON are read and rewritten whole.
// Subscription records with no terminator in any text, types of any value
// and long feature lists reach the real plugin through a host that puts
// each record right before an inaccessible page: a read past the record
// ends the process.
// The seed is printed with every failure; PCP_SEED=n replays a run.
#include <algorithm>
#include <cstdlib>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <picojson.h>

#include "bootstrap/bootstrap.h"
#include "plugin_fixture.h"
#include "registry_scratch.h"

namespace
{
using Strings = std::vector<std::string>;

uint64_t Seed()
{
    const char* text = std::getenv("PCP_SEED");
    return text != nullptr ? std::strtoull(text, nullptr, 10) : 20261125;
}

// What the plugin reads of bytes written to a file: the C runtime's text
// mode turns CR LF into LF and ends the file at the first Ctrl-Z.
std::string AsReadInTextMode(const std::string& bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size() && bytes[i] != '\x1a'; ++i)
    {
        if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n')
            continue;
        text += bytes[i];
    }
    return text;
}

// JSON of every type, nested up to depth, with the odd string and number.
std::string RandomJson(std::mt19937_64& rng, int depth)
{
    static const char* const kScalars[] = {"null", "true", "false", "0", "-0", "1.5e3", "1e999", "-1e999",
                                           "1e-999", "\"\"", "\"C1\"", "\"\\u0000x\"", "\"\xff\xfe\"", "\"\\ud800\""};
    switch (depth > 0 ? rng() % 4 : 0)
    {
    case 1:
        return "[" + RandomJson(rng, depth - 1) + "," + RandomJson(rng, depth - 1) + "]";
    case 2:
        return "{\"k" + std::to_string(rng() % 3) + "\":" + RandomJson(rng, depth - 1) + "}";
    default:
        return kScalars[rng() % (sizeof(kScalars) / sizeof(kScalars[0]))];
    }
}

// One hostile variation of a valid document.
std::string Mutate(std::mt19937_64& rng, const std::string& document)
{
    std::string bytes = document;
    switch (rng() % 6)
    {
    case 0: // cut short anywhere
        return bytes.substr(0, rng() % (bytes.size() + 1));
    case 1: // bytes replaced by anything, CR, LF, NUL and Ctrl-Z included
        for (int flips = 1 + static_cast<int>(rng() % 4); flips > 0; --flips)
            bytes[rng() % bytes.size()] = static_cast<char>(rng() % 256);
        return bytes;
    case 2: // nesting far past the parser's depth limit
    {
        const size_t depth = 100 + rng() % 20000;
        return std::string(depth, '[') + bytes + std::string(depth, ']');
    }
    case 3: // a byte order mark or stray bytes in front
        return (rng() % 2 ? "\xef\xbb\xbf" : std::string(1 + rng() % 3, static_cast<char>(rng() % 256))) + bytes;
    case 4: // app_data of any type
        return R"({"app_data":)" + RandomJson(rng, 2) + "}";
    default: // the identifier of any type, beside numbers out of range
        return R"({"n":)" + RandomJson(rng, 1) + R"(,"app_data":{"commercial_details_id":)" + RandomJson(rng, 2) +
               "}}";
    }
}

// The parse that the design prescribes, as an oracle: the value, or nothing
// for text that is not JSON.
bool ParseAsJson(const std::string& text, picojson::value& value)
{
    std::string error;
    try
    {
        picojson::parse(value, text.data(), text.data() + text.size(), &error);
    }
    catch (const std::overflow_error&)
    {
        return false;
    }
    return error.empty();
}

// The identifier that the file's text carries, if it carries one.
std::optional<std::string> IdentifierOf(const std::string& text)
{
    picojson::value value;
    if (!ParseAsJson(text, value) || !value.is<picojson::object>())
        return std::nullopt;
    const picojson::value& appData = value.get("app_data");
    if (!appData.is<picojson::object>() || !appData.get("commercial_details_id").is<std::string>())
        return std::nullopt;
    return appData.get("commercial_details_id").get<std::string>();
}

class HostileInputTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        host.config.Set(44, L"Desktop", L"PCPHOSTILE");
        host.config.Set(400, L"Desktop", folder.path + L"\\");
    }

    const uint64_t seed = Seed();
    std::mt19937_64 rng{seed};
    LogCapture log;
    SettingsFolder folder{L"phi"};
    sim::Host host;
};

const std::string kBase = R"({"app_data":{"commercial_details_id":"C1","x":[1,2]},"other":{"k":"v"}})";
} // namespace

TEST_F(HostileInputTest, InitTakesTheFilesIdentifierOrNoneAndSaysWhy)
{
    const Strings reasons = {"CBootstrap::_InitCommercialId: Get bootstrap data failed",
                             "CBootstrap::_InitCommercialId: No app_data",
                             "CBootstrap::_InitCommercialId: No commercial_details_id in app_data"};
    for (int input = 0; input < 2000; ++input)
    {
        const std::string bytes = Mutate(rng, kBase);
        SCOPED_TRACE("PCP_SEED=" + std::to_string(seed) + ", input " + std::to_string(input));
        folder.Write(bytes);
        log.Clear();
        CBootstrap bootstrap;
        ASSERT_EQ(bootstrap.Init(&host), 0u);
        const std::optional<std::string> expected = IdentifierOf(AsReadInTextMode(bytes));
        const Strings errors = log.Messages("ERROR");
        if (expected)
        {
            EXPECT_TRUE(errors.empty()) << ::testing::PrintToString(errors);
            EXPECT_EQ(bootstrap.IsCommercialIdDifferent("C1"), *expected != "C1");
        }
        else
        {
            EXPECT_TRUE(bootstrap.IsCommercialIdDifferent("C1")) << ::testing::PrintToString(bytes);
            ASSERT_FALSE(errors.empty());
            EXPECT_NE(std::find(reasons.begin(), reasons.end(), errors.back()), reasons.end()) << errors.back();
        }
        EXPECT_EQ(folder.Read(), bytes) << "reading changes nothing";
        bootstrap.UnInit();
        if (HasFailure())
            break;
    }
}

TEST_F(HostileInputTest, AnUpdateTakesExactlyTheRepliesThatAreObjects)
{
    const std::string commercialData = R"({"contacts":["a","b"],"n":1})";
    for (int input = 0; input < 1500; ++input)
    {
        // Bodies beyond the 64 bytes reserved for them grow through the
        // plugin's memory manager; a NUL ends the reply.
        std::string body = rng() % 3 == 0 ? RandomJson(rng, 3) : Mutate(rng, commercialData);
        // A failing status with a body, and a descriptor that claims more
        // or less than the body holds.
        sim::CloudAnswer answer(body, rng() % 8 == 0 ? 1 + static_cast<uint32_t>(rng() % 100) : 0);
        static const int64_t kSkews[] = {0, 0, -1, 1, 4096, -(1LL << 40)};
        answer.lengthSkew = kSkews[rng() % 6];
        SCOPED_TRACE("PCP_SEED=" + std::to_string(seed) + ", input " + std::to_string(input));
        folder.Write(kBase);
        host.connectIntegrator.SetAnswer(answer);
        CBootstrap bootstrap;
        ASSERT_EQ(bootstrap.Init(&host), 0u);
        log.Clear();
        const bool updated = bootstrap.UpdateBootstrapData("C2");
        const Strings notes = log.Messages("WARN"), progress = log.Messages("INFO");

        picojson::value reply;
        const bool object = answer.error == 0 && ParseAsJson(body.substr(0, body.find('\0')), reply) &&
                            reply.is<picojson::object>();
        EXPECT_EQ(updated, object);
        EXPECT_EQ(bootstrap.IsCommercialIdDifferent("C2"), !updated);
        if (updated)
        {
            picojson::value written;
            ASSERT_TRUE(ParseAsJson(*folder.Read(), written));
            EXPECT_EQ(written.get("commercial_data").serialize(), reply.serialize());
            EXPECT_EQ(written.get("other").serialize(), R"({"k":"v"})") << "other members are kept";
        }
        else
        {
            EXPECT_EQ(folder.Read(), kBase) << "a rejected reply changes nothing";
            EXPECT_TRUE(notes.empty() && progress.empty()) << ::testing::PrintToString(progress);
        }
        bootstrap.UnInit();
        if (HasFailure())
            break;
    }
}

TEST_F(HostileInputTest, FiftyMebibytesOfValidJsonAreReadAndKeptWhole)
{
    // The identifier after 50 MiB of other members.
    std::string big = R"({"other":{"k":"v"},"bulk":[)";
    const std::string item = R"({"name":"contact","n":12345,"tags":["a","b"]},)";
    size_t items = 1;
    for (; big.size() < (50u << 20); ++items)
        big += item;
    big += R"(0],"app_data":{"commercial_details_id":"C9"}})";
    folder.Write(big);
    for (const bool accepted : {false, true})
    {
        SCOPED_TRACE(accepted ? "a reply that is an object" : "a reply that is not");
        CBootstrap bootstrap;
        ASSERT_EQ(bootstrap.Init(&host), 0u);
        EXPECT_FALSE(bootstrap.IsCommercialIdDifferent("C9"));
        host.connectIntegrator.SetAnswer({accepted ? R"({"contacts":["z"]})" : "[1]"});
        EXPECT_EQ(bootstrap.UpdateBootstrapData("C2"), accepted);
        bootstrap.UnInit();
        if (!accepted)
        {
            EXPECT_TRUE(folder.Read() == big) << "a rejected reply changes nothing";
            continue;
        }
        picojson::value written;
        ASSERT_TRUE(ParseAsJson(*folder.Read(), written));
        EXPECT_EQ(written.get("app_data").serialize(), R"({"commercial_details_id":"C2"})");
        EXPECT_EQ(written.get("commercial_data").serialize(), R"({"contacts":["z"]})");
        EXPECT_EQ(written.get("bulk").get<picojson::array>().size(), items);
    }
}

TEST_F(HostileInputTest, RecordsWithoutTerminatorsAreNeverReadPastTheirEnd)
{
    const std::wstring subscriptionKey = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPHOSTILE";
    RegistryScratch registry;
    registry.Forget(HKEY_USERS, subscriptionKey);
    registry.Forget(HKEY_LOCAL_MACHINE, L"Software\\PcpHostile");
    ConfigureProduct(host, L"PCPHOSTILE", L"PcpHostile", L"Software\\PcpHostile\\Product");
    PluginModule module;
    ASSERT_TRUE(module.Loaded());
    IServPlugin* plugin = module.Create();
    ASSERT_EQ(plugin->Init(&host), 0u);
    ASSERT_EQ(plugin->Start(), 0u);
    ASSERT_TRUE(host.WaitIdle());
    for (int input = 0; input < 500; ++input)
    {
        SCOPED_TRACE("PCP_SEED=" + std::to_string(seed) + ", record " + std::to_string(input));
        SubscriptionData record;
        SubscriptionFields& fields = record;
        // Every byte of the fixed part, texts included, not zero.
        auto* bytes = reinterpret_cast<unsigned char*>(&fields);
        for (size_t i = 0; i < sizeof(SubscriptionFields); ++i)
            bytes[i] = static_cast<unsigned char>(1 + rng() % 255);
        record.Valid = rng() % 2 == 0;
        record.OpaqueFlag1 = rng() % 2 == 0;
        record.OpaqueFlag2 = rng() % 2 == 0;
        const size_t features = rng() % 50 == 0 ? 100000 : rng() % 20;
        for (size_t i = 0; i < features; ++i)
            record.Features.Append(static_cast<SubscriptionFeatures>(rng()));
        host.subscription.Deliver(record);
        ASSERT_TRUE(host.WaitIdle());
        if (record.ServerProductType != 0 || record.StatusCode != 0)
        {
            EXPECT_EQ(registry.Dword(HKEY_USERS, subscriptionKey, L"ServerProductType"),
                      static_cast<DWORD>(record.ServerProductType));
        }
        if (HasFailure())
            break;
    }
    plugin->Stop();
    plugin->UnInit();
    module.Destroy(plugin);
    ExpectNothingLeft(host);
}
