// Strict parsing of ISO 8601 internet date-times (RFC 3339), as stored and shown
// by the identity store.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace orvik::identity {

using Instant = std::chrono::sys_time<std::chrono::milliseconds>;

// "2026-03-05T14:22:10Z", "2026-03-05T14:22:10.123Z" or with an offset
// ("+01:00"). The zone designator is required; the fields must form a real date
// and time. Anything else is absent. Fractional digits beyond milliseconds are
// dropped. Never throws.
[[nodiscard]] std::optional<Instant> parseInternetDateTime(std::string_view text) noexcept;

}  // namespace orvik::identity
