// The names this application gives to the sources it gathers handles from.
.pragma library

const names = {
    "gmail": "Gmail",
    "outlook": "Outlook",
    "google_calendar": "Google Calendar",
    "apple_calendar": "Apple Calendar",
    "apple_contacts": "Apple Contacts",
    "google_contacts": "Google Contacts",
    "imessage": "Messages",
    "hybrid_archive": "Archive",
};

// Source type -> the name shown for it. An unknown type is shown as its words:
// "some_source" -> "Some Source".
function displayName(sourceType) {
    const known = names[sourceType];
    if (known !== undefined)
        return known;
    return String(sourceType).split("_").filter(word => word.length > 0)
        .map(word => word.charAt(0).toUpperCase() + word.slice(1)).join(" ");
}

// The name with its source type, for screens where two sources read the same.
function distinguishingName(sourceType) {
    return displayName(sourceType) + " (" + sourceType + ")";
}
