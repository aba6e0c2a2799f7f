#include "app/ExecSession.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <istream>
#include <ostream>
#include <utility>

#include "host/HostServices.h"

namespace orvik::app {

namespace {

using identity::IdentityRepository;
using Witness = identity::IdentityCorrectionWitness;

// An operation of the interface. A null handler marks one that the repository does
// not offer yet: it is answered with badRequest, like an unknown name, but with a
// message that says so.
struct Operation {
    std::string_view name;
    Json (*handler)(IdentityRepository& repository, const FieldReader& args);
};

// The one place where operations are made available: give the entry its handler.
constexpr std::array kOperations{
    // Reads.
    Operation{"sourceIdentity",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.sourceIdentity(args.text("id")));
              }},
    Operation{"person",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.person(args.text("id")));
              }},
    Operation{"activeMembership",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.activeMembership(args.text("sourceIdentityID")));
              }},
    Operation{"activeMemberships",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.activeMemberships(args.text("personID")));
              }},
    Operation{"mergeEvent",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.mergeEvent(args.text("id")));
              }},
    Operation{"latestUndoableMergeEvent",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.latestUndoableMergeEvent(args.text("personID")));
              }},
    Operation{"resolveCanonicalPerson",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.resolveCanonicalPerson(args.text("sourceIdentityID")));
              }},

    // Corrections and undo.
    Operation{"linkIdentity", nullptr},
    Operation{"proposeMerge", nullptr},
    Operation{"markDifferent", nullptr},
    Operation{"confirmCandidate", nullptr},
    Operation{"rejectCandidate", nullptr},
    Operation{"confirmManualLink", nullptr},
    Operation{"batchConfirmManualLink", nullptr},
    Operation{"predictManualLinkSurvivor", nullptr},
    Operation{"separateIdentity", nullptr},
    Operation{"undoMerge", nullptr},
    Operation{"undoConfirmation", nullptr},
    Operation{"declareOwnerAlias", nullptr},
    Operation{"batchDeclareOwnerAlias", nullptr},
    Operation{"undoOwnerAliasMutation", nullptr},

    // Searches, candidates, history, counts.
    Operation{"searchSourceIdentities", nullptr},
    Operation{"searchUserStatedPeople", nullptr},
    Operation{"exactKeyCandidates", nullptr},
    Operation{"candidateContext", nullptr},
    Operation{"identityHistory", nullptr},
    Operation{"identityCorrectionsReadback", nullptr},
};

const Operation* findOperation(std::string_view name) {
    const auto it = std::find_if(kOperations.begin(), kOperations.end(),
                                 [&](const Operation& op) { return op.name == name; });
    return it == kOperations.end() ? nullptr : &*it;
}

bool isBlank(std::string_view line) {
    return std::all_of(line.begin(), line.end(),
                       [](unsigned char c) { return std::isspace(c) != 0; });
}

Json parseRequest(std::string_view line) {
    Json request;
    try {
        request = Json::parse(line.begin(), line.end());
    } catch (const Json::parse_error& error) {
        // Drop the library's "[json.exception.parse_error.101] " tag.
        std::string_view detail = error.what();
        if (const auto end = detail.find("] "); detail.starts_with('[') && end != detail.npos) {
            detail.remove_prefix(end + 2);
        }
        throw BadRequest("request is not valid JSON: " + std::string(detail));
    }
    if (!request.is_object()) {
        throw BadRequest("request must be a JSON object");
    }
    return request;
}

Json perform(IdentityRepository& repository, const Json& request) {
    const auto op = request.find("op");
    if (op == request.end() || op->is_null()) {
        throw BadRequest("missing op");
    }
    if (!op->is_string()) {
        throw BadRequest("op must be a text");
    }
    const auto& name = op->get_ref<const std::string&>();
    const Operation* operation = findOperation(name);
    if (operation == nullptr) {
        throw BadRequest("unknown operation " + name);
    }
    if (operation->handler == nullptr) {
        throw BadRequest("operation " + name + " is not available");
    }

    static const Json kNoArgs = Json::object();
    const auto args = request.find("args");
    const bool hasArgs = args != request.end() && !args->is_null();
    return operation->handler(repository, FieldReader(hasArgs ? *args : kNoArgs, "args"));
}

Json failure(const Json& id, Json error) {
    Json response = Json::object();
    response["id"] = id;
    response["error"] = std::move(error);
    response["witness"] = Json::array();
    return response;
}

Json errorBody(std::string_view errorCase, Json message) {
    Json error = Json::object();
    error["case"] = errorCase;
    error["message"] = std::move(message);
    return error;
}

}  // namespace

ExecSession::ExecSession(std::shared_ptr<store::DatabasePool> pool)
    : witness_(std::make_shared<WitnessLog>()),
      repository_(
          std::move(pool),
          [log = witness_](const Witness::Event& event) {
              {
                  std::lock_guard lock(log->mutex);
                  log->events.push_back(event);
              }
              Witness::unifiedLogSink(event);
          },
          host::HostServices::reference()) {}

ExecSession::~ExecSession() = default;

std::vector<std::string_view> ExecSession::availableOperations() {
    std::vector<std::string_view> names;
    for (const auto& op : kOperations) {
        if (op.handler != nullptr) {
            names.push_back(op.name);
        }
    }
    return names;
}

std::vector<Witness::Event> ExecSession::takeWitness() {
    std::lock_guard lock(witness_->mutex);
    return std::exchange(witness_->events, {});
}

std::string ExecSession::answer(std::string_view line) {
    Json id(nullptr);
    Json response;
    try {
        const Json request = parseRequest(line);
        if (const auto it = request.find("id"); it != request.end()) {
            id = *it;
        }
        Json result = perform(repository_, request);
        response = Json::object();
        response["id"] = id;
        response["ok"] = std::move(result);
        response["witness"] = toJson(takeWitness());
    } catch (const BadRequest& error) {
        response = failure(id, errorBody("badRequest", error.what()));
    } catch (const identity::IdentityStoreError& error) {
        response =
            failure(id, errorBody(identity::caseName(error.errorCase()), toJson(error.message())));
    } catch (const store::DatabaseError& error) {
        Json body = errorBody("database", error.sqliteMessage());
        body["code"] = error.code();
        response = failure(id, std::move(body));
    } catch (const std::exception& error) {
        // Outside the repository's contract (out of memory, a broken invariant):
        // still one answer, so that the caller is not left waiting.
        response = failure(id, errorBody("internal", error.what()));
    }
    // A failed operation emitted nothing; make sure no event carries over.
    if (response.contains("error")) {
        (void)takeWitness();
    }
    // Stored texts are not guaranteed to be UTF-8; replace what is not rather than
    // fail the answer.
    return response.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool ExecSession::run(std::istream& in, std::ostream& out) {
    std::string line;
    while (std::getline(in, line)) {
        if (isBlank(line)) {
            continue;
        }
        out << answer(line) << '\n' << std::flush;
        if (!out) {
            return false;
        }
    }
    return true;
}

}  // namespace orvik::app
