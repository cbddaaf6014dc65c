// CBootstrap: keeps settings\bootstrapdata.json in step with the
// subscription's commercial identifier, fetching the commercial data for a
// new identifier from the host's cloud client.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include <picojson.h>

#include "bootstrap/cloud_records.h"
#include "host/components.h"
#include "host/holders.h"
#include "host/plugin.h"
#include "support/log_client.h"
#include "support/srw_mutex.h"

class CBootstrap
{
public:
    CBootstrap();

    CBootstrap(const CBootstrap&) = delete;
    CBootstrap& operator=(const CBootstrap&) = delete;

    // Acquires "productinfo" and "connect_integrator" through servMain's
    // component manager, then reads Commercial_Details and the identifier of
    // the stored data. 0, or the status of the failing acquisition.
    Status Init(IServMain* servMain);
    // Gives both components back; a second call does nothing.
    void UnInit();

    // True when commid is not empty and is not the identifier of the stored
    // data (compared byte for byte).
    bool IsCommercialIdDifferent(const std::string& commid);
    // Asks the cloud for commid's data and rewrites the file with them. True
    // when the file holds them and the stored identifier is commid.
    bool UpdateBootstrapData(const std::string& commid);

private:
    void _ReadContactsEnabled();
    void _InitCommercialId();
    // The file's content when it is a JSON object; empty otherwise.
    std::optional<picojson::value> _GetBootstrapData();
    // Replaces the file's content with text; false when the file has no
    // location or did not open.
    bool _SaveBootstrapData(const std::string& text);
    CloudRequest _GetCloudRequest(const std::string& commercialId);
    // The cloud's reply text up to its first NUL; empty when the request failed.
    std::optional<std::string> _GetCloudData(const std::string& commercialId);

    ComponentHolder<IServConfig> servConfig;
    ComponentHolder<IConnectIntegrator> cloudClient;

public:
    // Whether commercial contacts are enabled on this machine: false only
    // when Commercial_Details is the number 0. Written in Init only, read
    // without a lock afterwards.
    bool contactsEnabled = true;

private:
    SrwMutex commercialIdMutex;
    std::string commercialId; // guarded by commercialIdMutex once events flow
    CLogDLLRef logRef;
};
