// The request for the commercial data of one identifier, made through the
// host's cloud client "connect_integrator".
#include <picojson.h>

#include "bootstrap/bootstrap.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

namespace
{
constexpr char kCloudPath[] = "connect/commercial_ids";
constexpr char kCloudMethod[] = "get_commercial_id_details";
constexpr uint32_t kCloudTimeoutMs = 30000;
// The client's flag; always 1 here.
constexpr uint32_t kPerformFlag = 1;
} // namespace

CloudRequest CBootstrap::_GetCloudRequest(const std::string& commercialId)
{
    TraceScope trace(L"CBootstrap::_GetCloudRequest");
    picojson::object params;
    params["commercial_details_id"] = picojson::value(commercialId);

    CloudRequest request;
    request.Path.Set(kCloudPath);
    request.Method.Set(kCloudMethod);
    request.TimeoutMs = kCloudTimeoutMs;
    request.Params.Set(picojson::value(params).serialize().c_str());
    return request;
}

std::optional<std::string> CBootstrap::_GetCloudData(const std::string& commercialId)
{
    constexpr wchar_t kName[] = L"CBootstrap::_GetCloudData";
    TraceScope trace(kName);
    CloudRequest request = _GetCloudRequest(commercialId);
    CloudResponse response;
    const CloudStatus status = cloudClient->PerformRequest(request, response, kPerformFlag);
    if (status.Error != 0)
    {
        logger_stream(logging::LevelError, kName) << "Perform cloud request failed. error=" << status.Error;
        return std::nullopt;
    }
    // Text() stops at the first NUL and reads a body without storage as empty.
    return std::string(response.Body.Text());
}
