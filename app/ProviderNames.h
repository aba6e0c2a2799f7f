// The names this application gives to the sources it gathers handles from, one
// table for the terminal commands and the desktop program's screens.
#pragma once

#include <string>
#include <string_view>

namespace orvik::app {

// The name shown for a source type ("gmail" is "Gmail", "imessage" is
// "Messages"). An unknown type is shown as its words, each capitalised:
// "some_source" is "Some Source".
[[nodiscard]] std::string providerDisplayName(std::string_view sourceType);

// The name with its source type, for screens where two sources read the same:
// "Gmail (gmail)".
[[nodiscard]] std::string distinguishingProviderName(std::string_view sourceType);

}  // namespace orvik::app
