// Short display texts built from source identities: the label of a party, the
// preview line of a manual-link row, and provider labels that stay unambiguous
// when two sources share a name. Pure functions; safe on any thread.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace orvik::identity {

// Maps a source type ("gmail", "imessage") to the name shown for that source. The
// caller supplies it; this library never names providers itself.
using ProviderDisplayName = std::function<std::string(const std::string& sourceType)>;

// Joins the parts of a display line: space, middle dot (U+00B7), space.
inline constexpr std::string_view kDisplaySeparator = " \u00b7 ";

namespace IdentityHandlePresentation {

// True for the eight source types whose handles a person can read (addresses,
// numbers).
[[nodiscard]] bool isHumanKeySourceType(std::string_view sourceType);

// True when handle is exactly 64 lower-case hexadecimal digits and nothing else
// (a trailing line break does not make a digest).
[[nodiscard]] bool isDigest(std::string_view handle);

// A human-key source type and a handle that is not a digest.
[[nodiscard]] bool isReadable(std::string_view sourceType, std::string_view handle);

// The label of a party: the display name when present (even if empty), else the
// readable handle, else the provider name followed by " contact".
[[nodiscard]] std::string partyLabel(const std::optional<std::string>& displayName,
                                     const std::string& handleNormalized,
                                     const std::string& sourceType,
                                     const ProviderDisplayName& providerDisplayName);

// "label · provider · handle" for a readable handle (the handle repeated even when
// it is the label), else "label · provider".
[[nodiscard]] std::string mergePreviewRowLine(const std::optional<std::string>& displayName,
                                              const std::string& handleNormalized,
                                              const std::string& sourceType,
                                              const ProviderDisplayName& providerDisplayName);

// A labelling function: for a source type S, providerDisplayName(S), unless some
// other type in renderedSourceTypes has the same provider name, in which case
// distinguishingProviderName(S). S itself need not be in the set. The returned
// function holds copies of its arguments.
[[nodiscard]] ProviderDisplayName collisionAwareProviderLabel(
    std::set<std::string> renderedSourceTypes, ProviderDisplayName providerDisplayName,
    ProviderDisplayName distinguishingProviderName);

}  // namespace IdentityHandlePresentation

}  // namespace orvik::identity
