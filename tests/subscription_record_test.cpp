// A subscription record keeps its list of features through every copy the
// plugin makes: into the work item, into the call, into the stored record.
#include <gtest/gtest.h>

#include <vector>

#include "config/subscription_data.h"
#include "host/work_item.h"

namespace
{
std::vector<int32_t> FeaturesOf(const SubscriptionData& record)
{
    std::vector<int32_t> values;
    auto* enumerator = record.Features.ConstEnum();
    for (; enumerator->HasMore(); enumerator->Next())
        values.push_back(*enumerator->Current());
    enumerator->Release();
    return values;
}

SubscriptionData WithFeatures(int count, int32_t first)
{
    SubscriptionData record;
    for (int i = 0; i < count; ++i)
        record.Features.Append(static_cast<SubscriptionFeatures>(first + i));
    SetFixedText(record.BundleId, "bundle");
    return record;
}

// Stands in for the plugin: keeps the latest record and flag it was called with.
struct Receiver
{
    SubscriptionData stored;
    bool firstLoad = false;
    void OnRecord(SubscriptionData data, bool first)
    {
        firstLoad = first;
        stored = data;
    }
};

using RecordTask =
    qm::framework::task<void (Receiver::*)(SubscriptionData, bool), Receiver*, const SubscriptionData&, bool>;
} // namespace

TEST(SubscriptionRecord, FeaturesSurviveTheHandOverAndTheStoreInOrder)
{
    for (int count : {0, 1, 3, 64})
    {
        SCOPED_TRACE(count);
        const bool firstLoad = count % 2 == 1; // the item hands on the flag it carries
        Receiver receiver;
        receiver.firstLoad = !firstLoad;
        receiver.stored = WithFeatures(5, 100); // assignment must reuse, add and free nodes
        std::vector<int32_t> expected;
        for (int i = 0; i < count; ++i)
            expected.push_back(7 + i);

        auto hostRecord = std::make_unique<SubscriptionData>(WithFeatures(count, 7));
        auto item = MakeWorkItem<RecordTask>(L"test", &Receiver::OnRecord, &receiver, *hostRecord, firstLoad);
        hostRecord.reset(); // the host's record goes away after the call

        item->Run();
        EXPECT_EQ(receiver.firstLoad, firstLoad);
        EXPECT_EQ(FeaturesOf(receiver.stored), expected);
        EXPECT_EQ(FixedText(receiver.stored.BundleId), "bundle");

        SubscriptionData other = receiver.stored;
        item.reset(); // releasing the item frees its copy only
        EXPECT_EQ(FeaturesOf(receiver.stored), expected);
        EXPECT_EQ(FeaturesOf(other), expected);
        EXPECT_EQ(receiver.stored.Features.Count(), static_cast<int64_t>(count));
    }
}

TEST(SubscriptionRecord, FixedTextsAreReadWithinTheirArrays)
{
    SubscriptionData record;
    EXPECT_EQ(FixedText(record.AccountId), "");
    for (char& c : record.AccountId)
        c = 'a'; // no terminator at all
    record.OpaqueText1[0] = 'X';
    EXPECT_EQ(FixedText(record.AccountId), std::string(kSubscriptionTextChars, 'a'));
    SetFixedText(record.CommercialId, std::string(500, 'c'));
    EXPECT_EQ(FixedText(record.CommercialId), std::string(kSubscriptionTextChars - 1, 'c'));
    SubscriptionData self = WithFeatures(3, 40);
    SetFixedText(self.CommercialId, std::string(500, 'c'));
    const SubscriptionFeatures* firstNode = self.Features.First();
    self = *&self; // leaves the list alone: its nodes are neither freed nor doubled
    EXPECT_EQ(self.Features.First(), firstNode);
    EXPECT_EQ(FixedText(self.CommercialId).size(), kSubscriptionTextChars - 1);
    EXPECT_EQ(FeaturesOf(self), (std::vector<int32_t>{40, 41, 42}));
}
