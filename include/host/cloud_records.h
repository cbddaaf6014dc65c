// The records of IConnectIntegrator::PerformRequest as both modules lay them
// out. Every text field is a counted string: one pointer, to the text of a
// block that records its own memory manager, or null for no storage. Each
// module instantiates the layout with its own pointer-wide counted string
// type; the offsets below hold for any of them.
#pragma once

#include <stddef.h>
#include <stdint.h>

template <class Text>
struct CloudRequestLayout
{
    Text Path;
    uint32_t TimeoutMs;
    uint32_t Reserved;
    Text Method;
    Text Extra1;
    Text Extra2;
    Text Extra3;
    Text Extra4;
    Text Extra5;
    Text Params;
};

template <class Text>
struct CloudResponseLayout
{
    Text Body;
    Text Aux;
    uint32_t AuxCode;
};

// The pointer a counted string is, as the layout sees it.
struct CountedStringPointer
{
    char* text;
};

using CloudRequestRecord = CloudRequestLayout<CountedStringPointer>;
using CloudResponseRecord = CloudResponseLayout<CountedStringPointer>;

static_assert(sizeof(void*) == 8, "the records are laid out for 64-bit modules");
static_assert(offsetof(CloudRequestRecord, Path) == 0, "CloudRequest layout");
static_assert(offsetof(CloudRequestRecord, TimeoutMs) == 8, "CloudRequest layout");
static_assert(offsetof(CloudRequestRecord, Reserved) == 12, "CloudRequest layout");
static_assert(offsetof(CloudRequestRecord, Method) == 16, "CloudRequest layout");
static_assert(offsetof(CloudRequestRecord, Extra1) == 24, "CloudRequest layout");
static_assert(offsetof(CloudRequestRecord, Extra5) == 56, "CloudRequest layout");
static_assert(offsetof(CloudRequestRecord, Params) == 64, "CloudRequest layout");
static_assert(sizeof(CloudRequestRecord) == 72, "CloudRequest is 72 bytes");
static_assert(offsetof(CloudResponseRecord, Body) == 0, "CloudResponse layout");
static_assert(offsetof(CloudResponseRecord, Aux) == 8, "CloudResponse layout");
static_assert(offsetof(CloudResponseRecord, AuxCode) == 16, "CloudResponse layout");
static_assert(sizeof(CloudResponseRecord) == 24, "CloudResponse is 24 bytes");
