// CloudRequest and CloudResponse: the records handed to the host's cloud
// client, with this module's counted strings in the shared layout.
#pragma once

#include "host/cloud_records.h"
#include "host/types.h"
#include "support/counted_string.h"

// Room every text of a new record has before anything is assigned.
constexpr std::size_t kCloudTextReserve = 64;

struct CloudRequest : CloudRequestLayout<qm::CountedString>
{
    // Eight empty texts with room reserved, a time-out of 5000 ms.
    CloudRequest()
    {
        TimeoutMs = 5000;
        Reserved = 0;
        for (qm::CountedString* text : {&Path, &Method, &Extra1, &Extra2, &Extra3, &Extra4, &Extra5, &Params})
            text->Reserve(kCloudTextReserve);
    }
};

struct CloudResponse : CloudResponseLayout<qm::CountedString>
{
    // Body and Aux empty with room reserved; the client fills them.
    CloudResponse()
    {
        AuxCode = 0;
        Body.Reserve(kCloudTextReserve);
        Aux.Reserve(kCloudTextReserve);
    }
};

static_assert(sizeof(CloudRequest) == sizeof(CloudRequestRecord), "CloudRequest has the shared layout");
static_assert(offsetof(CloudRequest, Path) == offsetof(CloudRequestRecord, Path), "CloudRequest layout");
static_assert(offsetof(CloudRequest, TimeoutMs) == offsetof(CloudRequestRecord, TimeoutMs), "CloudRequest layout");
static_assert(offsetof(CloudRequest, Reserved) == offsetof(CloudRequestRecord, Reserved), "CloudRequest layout");
static_assert(offsetof(CloudRequest, Method) == offsetof(CloudRequestRecord, Method), "CloudRequest layout");
static_assert(offsetof(CloudRequest, Extra1) == offsetof(CloudRequestRecord, Extra1), "CloudRequest layout");
static_assert(offsetof(CloudRequest, Extra5) == offsetof(CloudRequestRecord, Extra5), "CloudRequest layout");
static_assert(offsetof(CloudRequest, Params) == offsetof(CloudRequestRecord, Params), "CloudRequest layout");
static_assert(sizeof(CloudResponse) == sizeof(CloudResponseRecord), "CloudResponse has the shared layout");
static_assert(offsetof(CloudResponse, Body) == offsetof(CloudResponseRecord, Body), "CloudResponse layout");
static_assert(offsetof(CloudResponse, Aux) == offsetof(CloudResponseRecord, Aux), "CloudResponse layout");
static_assert(offsetof(CloudResponse, AuxCode) == offsetof(CloudResponseRecord, AuxCode), "CloudResponse layout");
static_assert(sizeof(CloudStatus) == 8 && offsetof(CloudStatus, Error) == 4, "CloudStatus layout");
