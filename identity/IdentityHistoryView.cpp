#include "identity/IdentityHistoryView.h"

namespace orvik::identity::IdentityHistoryEntrySummary {

std::string line(const IdentityHistoryEntry& entry,
                 const ProviderDisplayName& providerDisplayName) {
    std::string subject;
    for (const auto& provider : entry.providers) {
        if (!subject.empty()) {
            subject += ", ";
        }
        subject += providerDisplayName(provider);
    }
    if (entry.providers.empty()) {
        subject = "an identity";
    }
    switch (entry.kind) {
        case IdentityHistoryEntry::Kind::merged:
            return "Merged with another person (" + subject + ")";
        case IdentityHistoryEntry::Kind::linked:
            return "Linked " + subject;
        case IdentityHistoryEntry::Kind::separated:
            return "Separated " + subject + " into a new person";
    }
    return subject;
}

}  // namespace orvik::identity::IdentityHistoryEntrySummary
