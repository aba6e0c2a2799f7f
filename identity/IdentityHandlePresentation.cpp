#include "identity/IdentityHandlePresentation.h"

#include <array>
#include <regex>

namespace orvik::identity::IdentityHandlePresentation {

bool isHumanKeySourceType(std::string_view sourceType) {
    static const std::set<std::string, std::less<>> kHumanKey{
        "gmail",          "outlook",         "google_calendar", "apple_calendar",
        "apple_contacts", "google_contacts", "imessage",        "hybrid_archive"};
    return kHumanKey.contains(sourceType);
}

bool isDigest(std::string_view handle) {
    // Anchored and matched against the whole text: std::regex's "$" would not
    // accept a trailing line break anyway, but regex_match states the intent.
    static const std::regex kDigest("^[0-9a-f]{64}$");
    return std::regex_match(handle.begin(), handle.end(), kDigest);
}

bool isReadable(std::string_view sourceType, std::string_view handle) {
    return isHumanKeySourceType(sourceType) && !isDigest(handle);
}

std::string partyLabel(const std::optional<std::string>& displayName,
                       const std::string& handleNormalized, const std::string& sourceType,
                       const ProviderDisplayName& providerDisplayName) {
    if (displayName) {
        return *displayName;
    }
    if (isReadable(sourceType, handleNormalized)) {
        return handleNormalized;
    }
    return providerDisplayName(sourceType) + " contact";
}

std::string mergePreviewRowLine(const std::optional<std::string>& displayName,
                                const std::string& handleNormalized, const std::string& sourceType,
                                const ProviderDisplayName& providerDisplayName) {
    std::string line = partyLabel(displayName, handleNormalized, sourceType, providerDisplayName);
    line += kDisplaySeparator;
    line += providerDisplayName(sourceType);
    if (isReadable(sourceType, handleNormalized)) {
        line += kDisplaySeparator;
        line += handleNormalized;
    }
    return line;
}

ProviderDisplayName collisionAwareProviderLabel(std::set<std::string> renderedSourceTypes,
                                                ProviderDisplayName providerDisplayName,
                                                ProviderDisplayName distinguishingProviderName) {
    return [rendered = std::move(renderedSourceTypes), name = std::move(providerDisplayName),
            distinguishing = std::move(distinguishingProviderName)](const std::string& sourceType) {
        const std::string label = name(sourceType);
        for (const auto& other : rendered) {
            if (other != sourceType && name(other) == label) {
                return distinguishing(sourceType);
            }
        }
        return label;
    };
}

}  // namespace orvik::identity::IdentityHandlePresentation
