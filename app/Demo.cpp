#include "app/Demo.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <optional>
#include <ostream>
#include <set>
#include <system_error>
#include <utility>

#include "app/StoreAccess.h"
#include "host/HostServices.h"
#include "host/StoreSeeder.h"
#include "identity/IdentityRepository.h"
#include "identity/IdentityScoring.h"

namespace orvik::app {

namespace {

using identity::IdentityRepository;
using Time = std::chrono::sys_seconds;

// splitmix64: the same sequence on every platform, unlike the standard
// distributions, whose results differ between standard libraries.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    // In [0, n); n > 0. The modulo bias is irrelevant for sample data.
    std::int64_t below(std::int64_t n) {
        return static_cast<std::int64_t>(next() % static_cast<std::uint64_t>(n));
    }
    std::int64_t between(std::int64_t low, std::int64_t high) {
        return low + below(high - low + 1);
    }
    // A whole second in [low, high].
    Time between(Time low, Time high) {
        return low + std::chrono::seconds(below((high - low).count() + 1));
    }
    bool chance(int percent) { return below(100) < percent; }
    template <typename T>
    const T& pick(const std::vector<T>& items) {
        return items[static_cast<std::size_t>(below(static_cast<std::int64_t>(items.size())))];
    }

  private:
    std::uint64_t state_;
};

constexpr std::uint64_t kSeed = 20251101;
constexpr int kContactCount = 130;

constexpr Time at(std::chrono::year_month_day day, std::chrono::hours hour = {}) {
    return std::chrono::sys_days(day) + hour;
}

using std::chrono::days;
using namespace std::chrono_literals;

constexpr Time kHistoryStart = at(2022y / 3 / 1, 9h);
constexpr Time kHistoryEnd = at(2025y / 10 / 31, 18h);
// When the seeded persons and memberships were decided, at the latest.
constexpr Time kSeededAt = at(2025y / 11 / 1, 8h);

template <typename... Parts>
std::string demoID(const Parts&... parts) {
    return host::stableID("orvik-demo", parts...);
}

struct Name {
    const char* display;
    const char* ascii;
};

constexpr std::array<Name, 40> kFirstNames{{
    {"Ana", "ana"},         {"Bilal", "bilal"},     {"Chiara", "chiara"},   {"Dmitri", "dmitri"},
    {"Elif", "elif"},       {"Farah", "farah"},     {"Gustavo", "gustavo"}, {"Hana", "hana"},
    {"Ibrahim", "ibrahim"}, {"Jonas", "jonas"},     {"Keiko", "keiko"},     {"Lars", "lars"},
    {"Mei", "mei"},         {"Nadia", "nadia"},     {"Oskar", "oskar"},     {"Priya", "priya"},
    {"Quentin", "quentin"}, {"Rosa", "rosa"},       {"Samir", "samir"},     {"Tamsin", "tamsin"},
    {"Umar", "umar"},       {"Valeria", "valeria"}, {"Wen", "wen"},         {"Ximena", "ximena"},
    {"Yusuf", "yusuf"},     {"Zofia", "zofia"},     {"Aiko", "aiko"},       {"Bruno", "bruno"},
    {"Camille", "camille"}, {"Daniel", "daniel"},   {"Esther", "esther"},   {"Félix", "felix"},
    {"Greta", "greta"},     {"Hugo", "hugo"},       {"Inès", "ines"},       {"Jamal", "jamal"},
    {"Kofi", "kofi"},       {"Leila", "leila"},     {"Mateo", "mateo"},     {"Noor", "noor"},
}};

constexpr std::array<Name, 40> kLastNames{{
    {"Abara", "abara"},       {"Bergström", "bergstrom"}, {"Castillo", "castillo"},
    {"Dubois", "dubois"},     {"Eriksen", "eriksen"},     {"Fontaine", "fontaine"},
    {"García", "garcia"},     {"Haddad", "haddad"},       {"Ivanova", "ivanova"},
    {"Jensen", "jensen"},     {"Kowalski", "kowalski"},   {"Lindgren", "lindgren"},
    {"Moreau", "moreau"},     {"Nakamura", "nakamura"},   {"Okafor", "okafor"},
    {"Petrov", "petrov"},     {"Quispe", "quispe"},       {"Rossi", "rossi"},
    {"Schmidt", "schmidt"},   {"Takahashi", "takahashi"}, {"Ueda", "ueda"},
    {"Varga", "varga"},       {"Weber", "weber"},         {"Xu", "xu"},
    {"Yılmaz", "yilmaz"},     {"Zeller", "zeller"},       {"Almeida", "almeida"},
    {"Brennan", "brennan"},   {"Chen", "chen"},           {"Delgado", "delgado"},
    {"Esposito", "esposito"}, {"Fischer", "fischer"},     {"Gupta", "gupta"},
    {"Horvat", "horvat"},     {"Iyer", "iyer"},           {"Jovanović", "jovanovic"},
    {"Kim", "kim"},           {"López", "lopez"},         {"Mensah", "mensah"},
    {"Novak", "novak"},
}};

// Index 0 is the user's own company; its people are colleagues.
const std::vector<std::string> kCompanies{
    "lumen-studio.example",      "northwind.example",       "bluefin-labs.example",
    "harborview-health.example", "quarry-partners.example", "tallgrass.example",
};
const std::vector<std::string> kPersonalDomains{"mailbox.example", "inbox.example",
                                                "postbox.example", "fastpost.example"};
const std::vector<std::string> kUsAreaCodes{"415", "628", "510", "212", "646", "312"};
// Circles of friends besides the companies' teams.
constexpr int kFriendCircles = 5;

struct Sender {
    const char* handle;
    const char* name;
    const char* source;
};

// Organisations that write to the user: identities no person will ever claim.
constexpr std::array<Sender, 16> kSenders{{
    {"news@harbor-books.example", "Harbor Books", "gmail"},
    {"orders@harbor-books.example", "Harbor Books Orders", "gmail"},
    {"no-reply@trailhead-outfitters.example", "Trailhead Outfitters", "gmail"},
    {"updates@citylibrary.example", "City Library", "gmail"},
    {"hello@greenleaf-grocers.example", "Greenleaf Grocers", "gmail"},
    {"alerts@metrotransit.example", "Metro Transit", "gmail"},
    {"tickets@cinema-nova.example", "Cinema Nova", "gmail"},
    {"appointments@pinecrest-dental.example", "Pinecrest Dental", "gmail"},
    {"statements@brightbank.example", "Bright Bank", "gmail"},
    {"billing@cloudhost.example", "CloudHost Billing", "outlook"},
    {"it-helpdesk@lumen-studio.example", "Lumen IT Helpdesk", "outlook"},
    {"payroll@lumen-studio.example", "Payroll", "outlook"},
    {"noreply@expenses.example", "Expenses", "outlook"},
    {"room-atlas@lumen-studio.example", "Atlas Room", "google_calendar"},
    {"room-borealis@lumen-studio.example", "Borealis Room", "google_calendar"},
    {"digest@forum.example", nullptr, "hybrid_archive"},
}};

struct IdentitySeed {
    std::string id;
    std::string sourceType;
    std::string handle;
    std::optional<std::string> displayName;
    Time firstSeen{};
    Time lastSeen{};
    // Who the handle belongs to: the user, a contact or an organisation.
    enum class Role { owner, contact, sender } role = Role::contact;
    // The contact's circle, for choosing who talks together.
    int circle = 0;
};

struct PersonSeed {
    std::string id;
    std::optional<std::string> displayName;
    std::string tier;
    std::string createdFrom;
    Time createdAt{};
    bool userStated = false;
};

struct MembershipSeed {
    std::string identityID;
    std::string personID;
    std::string state;
    std::optional<std::string> because;
    std::string decidedBy;
    Time decidedAt{};
};

struct Contact {
    Name first{};
    Name last{};
    std::optional<std::string> personalEmail;
    std::optional<std::string> workEmail;
    std::optional<std::string> phone;
    int circle = 0;
    // Indices into Planner::identities.
    std::vector<std::size_t> identities;

    [[nodiscard]] std::string fullName() const {
        return std::string(first.display) + " " + last.display;
    }
};

// The corrections the demo makes through the repository, on contacts set up for
// them.
struct Designated {
    // A user-stated person with an identity that waits as a candidate; confirmed.
    std::string linkPerson;
    std::string linkKnownIdentity;
    std::string linkNewIdentity;
    // A user-stated person and a stub of the same contact; joined by a manual link.
    std::string mergePerson;
    std::string mergeStub;
    // A user-stated person with a family address linked by mistake; separated.
    std::string separatePerson;
    std::string separateIdentity;
    // A candidate confirmed and then undone.
    std::string undoPerson;
    std::string undoKnownIdentity;
    std::string undoNewIdentity;
};

class Planner {
  public:
    std::vector<IdentitySeed> identities;
    std::vector<PersonSeed> persons;
    std::vector<MembershipSeed> memberships;
    std::vector<std::pair<std::string, std::string>> claims;  // person id, display name
    std::map<std::string, std::vector<std::string>> threads;  // thread id -> identity ids
    std::vector<std::pair<std::string, std::string>> sourceAccounts;
    std::string ownerPersonID;
    Designated designated;
    std::map<std::string, std::string> personNames;

    void build() {
        addOwner();
        addContacts();
        addSenders();
        addThreads();
    }

  private:
    Random random_{kSeed};
    std::map<std::pair<std::string, std::string>, std::size_t> byHandle_;
    std::set<std::string> usedHandles_;
    std::map<std::string, Time> personCreatedAt_;
    // The user's identity in each source that has conversations.
    std::map<std::string, std::size_t> ownerIdentities_;

    std::size_t addIdentity(const std::string& sourceType, const std::string& handle,
                            std::optional<std::string> displayName, IdentitySeed::Role role,
                            int circle = 0) {
        if (const auto it = byHandle_.find({sourceType, handle}); it != byHandle_.end()) {
            return it->second;
        }
        const Time firstSeen = random_.between(kHistoryStart, kHistoryEnd - days(40));
        const Time lastSeen = random_.between(firstSeen + days(1), kHistoryEnd);
        identities.push_back(IdentitySeed{
            .id = demoID("source_identity", sourceType, handle),
            .sourceType = sourceType,
            .handle = handle,
            .displayName = std::move(displayName),
            .firstSeen = firstSeen,
            .lastSeen = lastSeen,
            .role = role,
            .circle = circle,
        });
        byHandle_.emplace(std::make_pair(sourceType, handle), identities.size() - 1);
        return identities.size() - 1;
    }

    std::string addPerson(const std::string& id, std::optional<std::string> displayName,
                          bool userStated, Time createdAt) {
        persons.push_back(PersonSeed{
            .id = id,
            .displayName = displayName,
            .tier = userStated ? "named" : "stub",
            .createdFrom = userStated ? "user_stated" : "auto_grouping",
            .createdAt = createdAt,
            .userStated = userStated,
        });
        if (userStated) {
            claims.emplace_back(id, *displayName);
        }
        personNames[id] = displayName.value_or("");
        personCreatedAt_[id] = createdAt;
        return id;
    }

    void addMembership(std::size_t identity, const std::string& personID, std::string state,
                       std::optional<std::string> because, std::string decidedBy) {
        const Time earliest = std::min(
            std::max(identities[identity].firstSeen, personCreatedAt_.at(personID)), kSeededAt);
        memberships.push_back(MembershipSeed{
            .identityID = identities[identity].id,
            .personID = personID,
            .state = std::move(state),
            .because = std::move(because),
            .decidedBy = std::move(decidedBy),
            .decidedAt = random_.between(earliest, kSeededAt),
        });
    }

    // A handle no one else uses yet: the base, or the base with a number.
    std::string uniqueHandle(const std::string& local, const std::string& domain) {
        std::string handle = local + "@" + domain;
        for (int n = 2; usedHandles_.contains(handle); ++n) {
            handle = local + std::to_string(n) + "@" + domain;
        }
        usedHandles_.insert(handle);
        return handle;
    }

    std::string uniquePhone() {
        for (;;) {
            std::string phone;
            if (random_.chance(15)) {
                // The UK's range for drama: 020 7946 0000 to 0999.
                phone = "+442079460" + std::to_string(random_.between(100, 999));
            } else {
                // 555-0100 to 555-0199 are reserved for fiction in North America.
                phone = "+1" + random_.pick(kUsAreaCodes) + "5550" +
                        std::to_string(random_.between(100, 199));
            }
            if (usedHandles_.insert(phone).second) {
                return phone;
            }
        }
    }

    void addOwner() {
        ownerPersonID = addPerson(demoID("person", "owner"), "Maren Holt", true, kHistoryStart);
        const std::string personal = uniqueHandle("maren.holt", "mailbox.example");
        const std::string work = uniqueHandle("maren", kCompanies[0]);
        const std::string cloud = uniqueHandle("marenholt", "cloudmail.example");
        const std::string phone = "+14155550142";
        usedHandles_.insert(phone);
        const std::vector<std::pair<std::string, std::string>> accounts{
            {"gmail", personal},       {"outlook", work},   {"google_calendar", personal},
            {"apple_calendar", cloud}, {"imessage", phone}, {"imessage", cloud},
            {"hybrid_archive", work},
        };
        for (const auto& [source, handle] : accounts) {
            const std::size_t index =
                addIdentity(source, handle, "Maren Holt", IdentitySeed::Role::owner);
            ownerIdentities_.try_emplace(source, index);
            sourceAccounts.emplace_back(source, handle);
            addMembership(index, ownerPersonID, "confirmed", "own account", "user");
        }
        // The user's own card in the address book is not an account, but it is
        // theirs.
        addMembership(
            addIdentity("apple_contacts", phone, "Maren Holt (me)", IdentitySeed::Role::owner),
            ownerPersonID, "confirmed", "own account", "user");
    }

    Contact makeContact(int n) {
        Contact contact;
        contact.first = kFirstNames[static_cast<std::size_t>(n) % kFirstNames.size()];
        // Distinct full names for the first 160 contacts.
        contact.last =
            kLastNames[static_cast<std::size_t>(7 * n + 3 * (n / 40)) % kLastNames.size()];
        const std::string first = contact.first.ascii;
        const std::string last = contact.last.ascii;

        const bool working = random_.chance(50);
        if (!working || random_.chance(80)) {
            // People write their addresses in a handful of ways.
            const std::array<std::string, 4> locals{first + "." + last, first + last,
                                                    first + "_" + last, first.substr(0, 1) + last};
            contact.personalEmail = uniqueHandle(locals[static_cast<std::size_t>(n) % 4],
                                                 random_.pick(kPersonalDomains));
        }
        if (working) {
            const auto company = random_.below(static_cast<std::int64_t>(kCompanies.size()));
            contact.workEmail =
                uniqueHandle(first + "." + last, kCompanies[static_cast<std::size_t>(company)]);
            contact.circle = static_cast<int>(company);
        } else {
            contact.circle = static_cast<int>(kCompanies.size() + random_.below(kFriendCircles));
        }
        if (random_.chance(70)) {
            contact.phone = uniquePhone();
        }
        return contact;
    }

    // How the contact's name reads in each source.
    std::optional<std::string> nameIn(const std::string& source, const Contact& contact) {
        const std::string first = contact.first.display;
        const std::string full = contact.fullName();
        if (source == "outlook") {
            return random_.chance(60) ? std::string(contact.last.display) + ", " + first : full;
        }
        if (source == "gmail" || source == "google_contacts") {
            return random_.chance(80) ? std::optional(full) : std::optional(first);
        }
        if (source == "google_calendar") {
            return random_.chance(50) ? std::optional(full) : std::nullopt;
        }
        if (source == "apple_calendar" || source == "imessage") {
            return random_.chance(40) ? std::optional(first) : std::nullopt;
        }
        if (source == "hybrid_archive") {
            if (!random_.chance(30)) {
                return std::nullopt;
            }
            std::string upper = full;
            std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) {
                return c < 0x80 ? static_cast<char>(std::toupper(c)) : static_cast<char>(c);
            });
            return upper;
        }
        return full;  // apple_contacts: the card's name
    }

    void add(Contact& contact, const std::string& source, const std::string& handle) {
        contact.identities.push_back(addIdentity(source, handle, nameIn(source, contact),
                                                 IdentitySeed::Role::contact, contact.circle));
    }

    // Where an ordinary contact turns up.
    void addSources(Contact& contact) {
        const auto& personal = contact.personalEmail;
        const auto& work = contact.workEmail;
        const std::string anyEmail = personal ? *personal : *work;
        if (personal && random_.chance(60)) {
            add(contact, "gmail", *personal);
        }
        if (work && random_.chance(80)) {
            add(contact, "outlook", *work);
        } else if (personal && random_.chance(15)) {
            add(contact, "outlook", *personal);
        }
        if (random_.chance(30)) {
            add(contact, "google_calendar", work ? *work : anyEmail);
        }
        if (personal && random_.chance(20)) {
            add(contact, "apple_calendar", *personal);
        }
        if (contact.phone && random_.chance(65)) {
            add(contact, "apple_contacts", *contact.phone);
        }
        if (personal && random_.chance(25)) {
            add(contact, "apple_contacts", *personal);
        }
        if (random_.chance(35)) {
            add(contact, "google_contacts",
                contact.phone && random_.chance(40) ? *contact.phone : anyEmail);
        }
        if (contact.phone && random_.chance(65)) {
            add(contact, "imessage", *contact.phone);
        }
        if (random_.chance(20)) {
            add(contact, "hybrid_archive", anyEmail);
        }
        if (contact.identities.empty()) {
            add(contact, "gmail", anyEmail);
        }
    }

    bool sharesHandle(const Contact& contact, std::size_t identity) const {
        return std::any_of(contact.identities.begin(), contact.identities.end(), [&](auto other) {
            return other != identity && identities[other].handle == identities[identity].handle;
        });
    }

    std::string evidence(const Contact& contact, std::size_t identity) const {
        return sharesHandle(contact, identity) ? "same contact key" : "matching name";
    }

    // Persons and memberships for an ordinary contact: a person the user named, a
    // stub the automatic grouping made, or nothing yet.
    void resolve(int n, const Contact& contact) {
        const std::int64_t roll = random_.below(100);
        if (roll >= 65) {
            return;
        }
        const bool named = roll < 40;
        const std::string id =
            named ? demoID("person", std::to_string(n)) : demoID("stub", std::to_string(n));
        // The grouping names a stub after what the first source calls the contact.
        const std::optional<std::string> displayName =
            named ? std::optional(contact.fullName())
                  : identities[contact.identities.front()].displayName;
        addPerson(id, displayName, named, random_.between(at(2024y / 1 / 1), at(2025y / 10 / 15)));

        // The first identity is what made the person; it always belongs to it.
        bool first = true;
        for (const std::size_t identity : contact.identities) {
            const bool linked = random_.chance(named ? 80 : 70) || first;
            first = false;
            if (linked && !named) {
                addMembership(identity, id, "high_conf", evidence(contact, identity), "auto");
            } else if (linked && random_.chance(50)) {
                addMembership(identity, id, "confirmed", std::nullopt, "user");
            } else if (linked) {
                addMembership(identity, id, "confirmed", evidence(contact, identity), "agent+user");
            } else if (named && random_.chance(25)) {
                addMembership(identity, id, "possible", "similar display name", "auto");
            }
        }
    }

    // Contacts 0 to 3 are set up for the corrections the demo makes.
    void addDesignated(int n, Contact& contact) {
        if (!contact.personalEmail) {
            contact.personalEmail = uniqueHandle(
                std::string(contact.first.ascii) + "." + contact.last.ascii, kPersonalDomains[0]);
        }
        if (!contact.workEmail) {
            contact.workEmail = uniqueHandle(
                std::string(contact.first.ascii) + "." + contact.last.ascii, kCompanies[1]);
        }
        if (!contact.phone) {
            contact.phone = uniquePhone();
        }
        const auto identityID = [&](std::size_t i) { return identities[contact.identities[i]].id; };
        const std::string name = contact.fullName();
        auto& d = designated;
        switch (n) {
            case 0:
                add(contact, "google_contacts", *contact.personalEmail);
                add(contact, "apple_contacts", *contact.phone);
                add(contact, "gmail", *contact.personalEmail);
                d.linkPerson = addPerson(demoID("person", std::to_string(n)), name, true,
                                         at(2024y / 5 / 12, 10h));
                addMembership(contact.identities[0], d.linkPerson, "confirmed", std::nullopt,
                              "user");
                addMembership(contact.identities[1], d.linkPerson, "confirmed", "matching name",
                              "agent+user");
                d.linkKnownIdentity = identityID(0);
                d.linkNewIdentity = identityID(2);
                break;
            case 1:
                add(contact, "outlook", *contact.workEmail);
                add(contact, "imessage", *contact.phone);
                add(contact, "apple_contacts", *contact.phone);
                d.mergePerson = addPerson(demoID("person", std::to_string(n)), name, true,
                                          at(2024y / 2 / 3, 16h));
                d.mergeStub = addPerson(demoID("stub", std::to_string(n)), std::nullopt, false,
                                        at(2025y / 7 / 19, 7h));
                addMembership(contact.identities[0], d.mergePerson, "confirmed", std::nullopt,
                              "user");
                addMembership(contact.identities[1], d.mergeStub, "high_conf", "same contact key",
                              "auto");
                addMembership(contact.identities[2], d.mergeStub, "high_conf", "same contact key",
                              "auto");
                break;
            case 2: {
                add(contact, "gmail", *contact.personalEmail);
                add(contact, "google_calendar", *contact.personalEmail);
                // The family's shared address, taken for this person's own.
                const std::string family =
                    uniqueHandle(std::string("the.") + contact.last.ascii + "s", "mailbox.example");
                contact.identities.push_back(addIdentity(
                    "gmail", family, "The " + std::string(contact.last.display) + " Family",
                    IdentitySeed::Role::contact, contact.circle));
                d.separatePerson = addPerson(demoID("person", std::to_string(n)), name, true,
                                             at(2024y / 8 / 30, 12h));
                addMembership(contact.identities[0], d.separatePerson, "confirmed", std::nullopt,
                              "user");
                addMembership(contact.identities[1], d.separatePerson, "confirmed",
                              "same contact key", "agent+user");
                addMembership(contact.identities[2], d.separatePerson, "confirmed", "matching name",
                              "agent+user");
                d.separateIdentity = identityID(2);
                break;
            }
            default:
                add(contact, "google_calendar", *contact.workEmail);
                add(contact, "outlook", *contact.workEmail);
                d.undoPerson = addPerson(demoID("person", std::to_string(n)), name, true,
                                         at(2025y / 1 / 14, 9h));
                addMembership(contact.identities[0], d.undoPerson, "confirmed", std::nullopt,
                              "user");
                d.undoKnownIdentity = identityID(0);
                d.undoNewIdentity = identityID(1);
                break;
        }
    }

    void addContacts() {
        for (int n = 0; n < kContactCount; ++n) {
            Contact contact = makeContact(n);
            if (n < 4) {
                addDesignated(n, contact);
            } else {
                addSources(contact);
                resolve(n, contact);
            }
        }
    }

    void addSenders() {
        for (const auto& sender : kSenders) {
            const auto name =
                sender.name != nullptr ? std::optional<std::string>(sender.name) : std::nullopt;
            addIdentity(sender.source, sender.handle, name, IdentitySeed::Role::sender);
        }
    }

    // Conversations (and, in calendars, meetings) of the user with the contacts of
    // one source: mostly one contact, sometimes a group from one circle.
    void addThreadsIn(const std::string& source, int perHundred, int groupPercent, int maxExtra) {
        std::vector<std::size_t> pool;
        std::map<int, std::vector<std::size_t>> circles;
        std::vector<std::size_t> senders;
        for (std::size_t i = 0; i < identities.size(); ++i) {
            const auto& identity = identities[i];
            if (identity.sourceType != source) {
                continue;
            }
            if (identity.role == IdentitySeed::Role::contact) {
                pool.push_back(i);
                circles[identity.circle].push_back(i);
            } else if (identity.role == IdentitySeed::Role::sender) {
                senders.push_back(i);
            }
        }
        const auto owner = ownerIdentities_.find(source);
        int number = 0;
        const auto addThread = [&](std::vector<std::size_t> members) {
            if (owner != ownerIdentities_.end()) {
                members.push_back(owner->second);
            }
            auto& participants = threads[demoID("thread", source, std::to_string(number++))];
            for (const std::size_t member : members) {
                const std::string& id = identities[member].id;
                if (std::find(participants.begin(), participants.end(), id) == participants.end()) {
                    participants.push_back(id);
                }
            }
        };

        if (!pool.empty()) {
            const auto count = std::max<std::int64_t>(
                1, static_cast<std::int64_t>(pool.size()) * perHundred / 100);
            for (std::int64_t t = 0; t < count; ++t) {
                const std::size_t first = random_.pick(pool);
                std::vector<std::size_t> members{first};
                if (random_.chance(groupPercent)) {
                    const auto& circle = circles[identities[first].circle];
                    const auto extra = random_.between(1, maxExtra);
                    for (std::int64_t e = 0; e < extra; ++e) {
                        members.push_back(random_.pick(circle));
                    }
                }
                addThread(std::move(members));
            }
        }
        for (const std::size_t sender : senders) {
            const auto count = random_.between(1, 4);
            for (std::int64_t t = 0; t < count; ++t) {
                addThread({sender});
            }
        }
    }

    void addThreads() {
        addThreadsIn("gmail", 160, 30, 3);
        addThreadsIn("outlook", 180, 45, 4);
        addThreadsIn("hybrid_archive", 120, 25, 2);
        addThreadsIn("imessage", 200, 20, 4);
        addThreadsIn("google_calendar", 120, 70, 4);
        addThreadsIn("apple_calendar", 100, 50, 3);
    }
};

void insertPlan(const Planner& plan, store::Connection& db) {
    using seed::timestamp;
    for (const auto& identity : plan.identities) {
        seed::insert(db, seed::SourceIdentity{.id = identity.id,
                                              .sourceType = identity.sourceType,
                                              .handleNormalized = identity.handle,
                                              .displayName = identity.displayName,
                                              .firstSeenAt = timestamp(identity.firstSeen),
                                              .lastSeenAt = timestamp(identity.lastSeen),
                                              .createdAt = timestamp(identity.firstSeen)});
    }
    for (const auto& person : plan.persons) {
        seed::insert(db, seed::Person{.id = person.id,
                                      .displayName = person.displayName,
                                      .tier = person.tier,
                                      .createdFrom = person.createdFrom,
                                      .createdAt = timestamp(person.createdAt)});
    }
    for (const auto& [personID, name] : plan.claims) {
        seed::insert(db, seed::Claim{.id = demoID("claim", personID, "display_name"),
                                     .personID = personID,
                                     .predicate = "display_name",
                                     .provenance = "user_stated",
                                     .value = name});
    }
    for (const auto& membership : plan.memberships) {
        const std::string decidedAt = timestamp(membership.decidedAt);
        seed::insert(db, seed::Membership{.id = demoID("membership", membership.identityID),
                                          .sourceIdentityID = membership.identityID,
                                          .canonicalPersonID = membership.personID,
                                          .state = membership.state,
                                          .because = membership.because,
                                          .decidedBy = membership.decidedBy,
                                          .decidedAt = decidedAt,
                                          .createdAt = decidedAt});
    }
    for (const auto& [threadID, participants] : plan.threads) {
        for (const auto& identityID : participants) {
            seed::insert(
                db, seed::ThreadParticipant{.threadID = threadID, .sourceIdentityID = identityID});
        }
    }
    for (const auto& [source, handle] : plan.sourceAccounts) {
        seed::insert(db, seed::SourceAccount{.sourceType = source, .handle = handle});
    }
    seed::insert(db, seed::OwnerEgo{.personID = plan.ownerPersonID});
}

identity::SourceIdentityRow storedIdentity(IdentityRepository& repository, const std::string& id) {
    auto row = repository.sourceIdentity(id);
    if (!row) {
        throw CommandError("the sample lost source identity " + id);
    }
    return std::move(*row);
}

// The candidate the correction screen would show for two identities with the same
// handle, scored as the candidate search scores it.
identity::IdentityCandidate candidateFor(IdentityRepository& repository, const std::string& a,
                                         const std::string& b) {
    const auto context = repository.candidateContext(b, {a});
    const identity::IdentityFeatures features{
        .exactHandleMatch = true,
        .sharedThreadCount = context ? context->sharedThreadCount : 0,
        .nameSimilarity = std::nullopt,
    };
    std::optional<std::string> existingPersonID;
    if (const auto membership = repository.activeMembership(a)) {
        existingPersonID = membership->canonicalPersonID;
    }
    return identity::IdentityCandidate{
        .sourceIdentityA = storedIdentity(repository, a),
        .sourceIdentityB = storedIdentity(repository, b),
        .existingPersonID = std::move(existingPersonID),
        .score = identity::IdentityScoring::score(features),
        .because = identity::IdentityScoring::because(features),
    };
}

void makeCorrections(const Planner& plan, IdentityRepository& repository, DemoSummary& summary) {
    using identity::ManualLinkTarget;
    const auto& d = plan.designated;
    const auto lineage = identity::SubjectLineage::person;
    const auto corrected = [&](const std::string& personID, std::string what) {
        summary.correctedPersons.push_back(
            {personID, plan.personNames.at(personID), std::move(what)});
    };

    repository.confirmCandidate(candidateFor(repository, d.linkKnownIdentity, d.linkNewIdentity),
                                lineage, d.linkPerson);
    corrected(d.linkPerson, "an exact-key candidate confirmed");

    repository.confirmManualLink(
        {ManualLinkTarget::person(d.mergePerson), ManualLinkTarget::person(d.mergeStub)}, lineage,
        d.mergePerson);
    corrected(d.mergePerson, "merged with a stub by a manual link");

    repository.separateIdentity(d.separateIdentity, d.separatePerson);
    corrected(d.separatePerson, "a shared family address separated");

    const auto confirmed = repository.confirmCandidate(
        candidateFor(repository, d.undoKnownIdentity, d.undoNewIdentity), lineage, d.undoPerson);
    repository.undoConfirmation(confirmed.mergeEventIDs);
    corrected(d.undoPerson, "a candidate confirmed, then undone");
}

void summarisePlan(const Planner& plan, DemoSummary& summary) {
    summary.sourceIdentities = static_cast<std::int64_t>(plan.identities.size());
    for (const auto& identity : plan.identities) {
        ++summary.sourceIdentitiesByType[identity.sourceType];
    }
    summary.threads = static_cast<std::int64_t>(plan.threads.size());
    for (const auto& [thread, participants] : plan.threads) {
        summary.threadParticipants += static_cast<std::int64_t>(participants.size());
    }
    for (const auto& person : plan.persons) {
        if (person.id == plan.ownerPersonID) {
            continue;
        }
        ++(person.userStated ? summary.userStatedPersons : summary.stubPersons);
    }
    for (const auto& membership : plan.memberships) {
        ++(membership.state == "possible" ? summary.possibleMemberships
                                          : summary.activeMemberships);
    }
    summary.ownerAccounts = static_cast<std::int64_t>(plan.sourceAccounts.size());
}

// Removes what a failed demo created, so that a second attempt starts clean.
class CreatedFiles {
  public:
    explicit CreatedFiles(const std::filesystem::path& path) {
        for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
            std::filesystem::path file = path;
            file += suffix;
            std::error_code error;
            if (!std::filesystem::exists(std::filesystem::symlink_status(file, error))) {
                files_.push_back(std::move(file));
            }
        }
    }
    ~CreatedFiles() {
        if (keep_) {
            return;
        }
        for (const auto& file : files_) {
            std::error_code ignored;
            std::filesystem::remove(file, ignored);
        }
    }
    CreatedFiles(const CreatedFiles&) = delete;
    CreatedFiles& operator=(const CreatedFiles&) = delete;

    void keep() { keep_ = true; }

  private:
    std::vector<std::filesystem::path> files_;
    bool keep_ = false;
};

// Characters on screen, counting each UTF-8 sequence as one.
std::size_t displayWidth(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

std::string padded(std::string text, std::size_t width) {
    if (const std::size_t shown = displayWidth(text); shown < width) {
        text.append(width - shown, ' ');
    }
    return text;
}

}  // namespace

DemoSummary createDemoStore(const std::filesystem::path& path, const store::PoolOptions& options) {
    std::error_code error;
    const auto status = std::filesystem::symlink_status(path, error);
    if (status.type() != std::filesystem::file_type::not_found) {
        if (status.type() == std::filesystem::file_type::none) {
            throw CommandError("cannot check " + path.string() + ": " + error.message());
        }
        throw CommandError(path.string() +
                           " already exists; the demo only writes a new file, choose another path");
    }

    Planner plan;
    plan.build();
    DemoSummary summary;
    summarisePlan(plan, summary);

    CreatedFiles created(path);
    {
        store::PoolOptions createOptions = options;
        createOptions.create = true;
        std::shared_ptr<store::DatabasePool> pool;
        try {
            pool = store::DatabasePool::open(path, createOptions);
        } catch (const store::DatabaseError& failure) {
            throw CommandError("cannot create " + path.string() + ": " + describe(failure));
        }
        pool->write([&](store::Connection& db) {
            host::createReferenceSchema(db);
            insertPlan(plan, db);
        });
        IdentityRepository repository(pool, &identity::IdentityCorrectionWitness::discardingSink);
        makeCorrections(plan, repository, summary);
        summary.exactKeyCandidatePairs =
            repository.identityCorrectionsReadback().exactKeyCandidatePairs.value_or(0);
    }
    created.keep();
    return summary;
}

void printDemoSummary(const DemoSummary& summary, const std::string& storeArguments,
                      std::ostream& out) {
    std::string byType;
    for (const auto& [type, count] : summary.sourceIdentitiesByType) {
        byType += (byType.empty() ? "" : ", ") + type + " " + std::to_string(count);
    }
    const auto line = [&](const char* label, const std::string& text) {
        out << "  " << padded(label, 19) << text << '\n';
    };
    line("source identities", std::to_string(summary.sourceIdentities) + " (" + byType + ")");
    line("threads", std::to_string(summary.threads) + " (" +
                        std::to_string(summary.threadParticipants) + " participants)");
    line("persons", std::to_string(summary.userStatedPersons) + " named by the user, " +
                        std::to_string(summary.stubPersons) + " stubs, and the user");
    line("memberships", std::to_string(summary.activeMemberships) + " active, " +
                            std::to_string(summary.possibleMemberships) + " possible");
    line("owner accounts", std::to_string(summary.ownerAccounts));
    // The readback stops counting candidate pairs at 50.
    line("candidates", summary.exactKeyCandidatePairs >= 50
                           ? std::string("50 or more pairs waiting")
                           : std::to_string(summary.exactKeyCandidatePairs) + " pairs waiting");
    line("corrections", std::to_string(summary.correctedPersons.size()) +
                            " persons corrected through the repository:");
    std::size_t nameWidth = 0;
    for (const auto& person : summary.correctedPersons) {
        nameWidth = std::max(nameWidth, displayWidth(person.displayName));
    }
    for (const auto& person : summary.correctedPersons) {
        out << "    " << person.personID << "  " << padded(person.displayName, nameWidth) << "  "
            << person.what << '\n';
    }
    out << "\nTry:\n"
        << "  " << kProgramName << " candidates " << storeArguments << '\n'
        << "  " << kProgramName << " search " << storeArguments << " garcia\n"
        << "  " << kProgramName << " readback " << storeArguments << '\n';
    if (!summary.correctedPersons.empty()) {
        out << "  " << kProgramName << " person " << summary.correctedPersons.front().personID
            << ' ' << storeArguments << '\n';
    }
}

}  // namespace orvik::app
