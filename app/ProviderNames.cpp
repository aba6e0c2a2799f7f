#include "app/ProviderNames.h"

#include <map>

namespace orvik::app {

std::string providerDisplayName(std::string_view sourceType) {
    static const std::map<std::string, std::string, std::less<>> kNames{
        {"gmail", "Gmail"},
        {"outlook", "Outlook"},
        {"google_calendar", "Google Calendar"},
        {"apple_calendar", "Apple Calendar"},
        {"apple_contacts", "Apple Contacts"},
        {"google_contacts", "Google Contacts"},
        {"imessage", "Messages"},
        {"hybrid_archive", "Archive"},
    };
    if (const auto it = kNames.find(sourceType); it != kNames.end()) {
        return it->second;
    }
    std::string words;
    bool startOfWord = true;
    for (const char c : sourceType) {
        if (c == '_') {
            startOfWord = true;
            continue;
        }
        if (startOfWord && !words.empty()) {
            words += ' ';
        }
        words += startOfWord && c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        startOfWord = false;
    }
    return words;
}

std::string distinguishingProviderName(std::string_view sourceType) {
    return providerDisplayName(sourceType) + " (" + std::string(sourceType) + ")";
}

}  // namespace orvik::app
