// The one-line summary of a history entry. Pure; safe on any thread.
#pragma once

#include <string>

#include "identity/IdentityHandlePresentation.h"
#include "identity/IdentityModels.h"

namespace orvik::identity::IdentityHistoryEntrySummary {

// "Merged with another person (Mail, Messages)", "Linked an identity",
// "Separated Calendar into a new person": the provider names of the entry's
// providers in list order, joined by ", ", or "an identity" when there are none.
[[nodiscard]] std::string line(const IdentityHistoryEntry& entry,
                               const ProviderDisplayName& providerDisplayName);

}  // namespace orvik::identity::IdentityHistoryEntrySummary
