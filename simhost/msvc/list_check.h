// Every operation of a list's table, called as the host calls them, with the
// results checked against the list's contract.
#pragma once

#include "host/list.h"
#include "host/subscription_record.h"

namespace msvc
{
// Starts by clearing the list and leaves it holding 7, 8, 9. Gives the number
// of failed checks, each named in the journal.
int ExerciseList(qm::IList<SubscriptionFeatures>& list);
} // namespace msvc
