// The subscription's summary in the registry, for readers outside the plugin.
#include <windows.h>

#include <picojson.h>

#include <cstring>
#include <string>

#include "plugin/product_cfg_plugin.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

void CProductConfigurationPlg::_WriteSurveyInfo(const SubscriptionData& data)
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::_WriteSurveyInfo";
    TraceScope trace(kName);

    picojson::object survey;
    survey["bundle_id"] = picojson::value(FixedText(data.BundleId));
    survey["days_left"] = picojson::value(static_cast<double>(data.DaysLeft));
    survey["key_type"] = picojson::value(static_cast<double>(data.KeyType));
    survey["server_product_type"] = picojson::value(static_cast<double>(data.ServerProductType));
    // The host writes the flag as a byte: any value but 0 counts as set.
    unsigned char valid = 0;
    std::memcpy(&valid, &data.Valid, sizeof(valid));
    survey["valid"] = picojson::value(valid != 0);

    const wchar_t* base = productInfo ? productInfo->GetString(0, L"BASE") : nullptr;
    if (base == nullptr)
    {
        logger_stream(logging::LevelError, kName) << "no product base name, survey not written";
        return;
    }
    const std::wstring path = std::wstring(L"Software\\") + base + L"\\Install";
    const std::string text = picojson::value(survey).serialize();

    const int chars = MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0);
    std::wstring wide(chars > 0 ? static_cast<size_t>(chars) : 0, L'\0');
    if (chars <= 0 || MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, &wide[0], chars) != chars)
    {
        const DWORD error = GetLastError(); // before the stream, which calls into the logging library
        logger_stream(logging::LevelError, kName) << "multibyte to wchar failed, err: " << error;
        return;
    }
    wide.resize(static_cast<size_t>(chars) - 1); // the terminator is not written
    const LSTATUS status = RegSetKeyValueW(HKEY_LOCAL_MACHINE, path.c_str(), L"SurveyDataInfo", REG_SZ, wide.c_str(),
                                           static_cast<DWORD>(wide.size() * sizeof(wchar_t)));
    if (status != ERROR_SUCCESS)
        logger_stream(logging::LevelError, kName) << "set value failed, err: " << status;
}
