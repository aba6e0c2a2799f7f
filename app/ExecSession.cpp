#include "app/ExecSession.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <istream>
#include <ostream>
#include <utility>

#include "host/HostServices.h"

namespace orvik::app {

using codec::BadRequest;
using codec::FieldReader;
using codec::toJson;

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

// The arguments shared by confirmCandidate and rejectCandidate, all read before the
// repository is called.
struct CandidateDecision {
    explicit CandidateDecision(const FieldReader& args)
        : candidate(args.read<identity::IdentityCandidate>("candidate")),
          subjectLineage(args.read<schema::SubjectLineage>("subjectLineage")),
          subjectID(args.text("subjectID")) {}

    identity::IdentityCandidate candidate;
    schema::SubjectLineage subjectLineage;
    std::string subjectID;
};

// confirmManualLink takes either two identity rows or a list of targets.
Json confirmManualLink(IdentityRepository& repository, const FieldReader& args) {
    const bool hasTargets = args.find("targets") != nullptr;
    const bool hasPair = args.find("a") != nullptr || args.find("b") != nullptr;
    if (hasTargets && hasPair) {
        throw BadRequest(args.path() + " must have either targets or a and b, not both");
    }
    if (!hasTargets && !hasPair) {
        throw BadRequest("missing " + args.pathOf("targets") + " (or " + args.pathOf("a") +
                         " and " + args.pathOf("b") + ")");
    }
    if (hasTargets) {
        const auto targets = args.read<std::vector<identity::ManualLinkTarget>>("targets");
        const auto lineage = args.read<schema::SubjectLineage>("subjectLineage");
        const auto subjectID = args.text("subjectID");
        return toJson(repository.confirmManualLink(targets, lineage, subjectID));
    }
    const auto a = args.read<identity::SourceIdentityRow>("a");
    const auto b = args.read<identity::SourceIdentityRow>("b");
    const auto lineage = args.read<schema::SubjectLineage>("subjectLineage");
    const auto subjectID = args.text("subjectID");
    return toJson(repository.confirmManualLink(a, b, lineage, subjectID));
}

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
    Operation{"linkIdentity",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(
                      repository.linkIdentity(args.read<schema::LinkIdentityRequest>("request")));
              }},
    Operation{"proposeMerge",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(
                      repository.proposeMerge(args.read<schema::ProposeMergeRequest>("request")));
              }},
    Operation{"markDifferent",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(
                      repository.markDifferent(args.read<schema::MarkDifferentRequest>("request")));
              }},
    Operation{"confirmCandidate",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const CandidateDecision decision(args);
                  return toJson(repository.confirmCandidate(
                      decision.candidate, decision.subjectLineage, decision.subjectID));
              }},
    Operation{"rejectCandidate",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const CandidateDecision decision(args);
                  repository.rejectCandidate(decision.candidate, decision.subjectLineage,
                                             decision.subjectID);
                  return Json(nullptr);
              }},
    Operation{"confirmManualLink", confirmManualLink},
    Operation{"batchConfirmManualLink",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const auto rows = args.read<std::vector<identity::SourceIdentityRow>>("rows");
                  const auto lineage = args.read<schema::SubjectLineage>("subjectLineage");
                  const auto subjectID = args.text("subjectID");
                  return toJson(repository.batchConfirmManualLink(rows, lineage, subjectID));
              }},
    Operation{"predictManualLinkSurvivor",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.predictManualLinkSurvivor(
                      args.read<std::vector<identity::ManualLinkTarget>>("targets")));
              }},
    Operation{"separateIdentity",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const auto sourceIdentityID = args.text("sourceIdentityID");
                  const auto subjectID = args.text("subjectID");
                  return toJson(repository.separateIdentity(sourceIdentityID, subjectID));
              }},
    Operation{"undoMerge",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.undoMerge(args.text("mergeEventID")));
              }},
    Operation{"undoConfirmation",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.undoConfirmation(args.texts("mergeEventIDs")));
              }},
    Operation{"declareOwnerAlias",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const auto sourceIdentityID = args.text("sourceIdentityID");
                  const auto subjectID = args.text("subjectID");
                  return toJson(repository.declareOwnerAlias(sourceIdentityID, subjectID));
              }},
    Operation{"batchDeclareOwnerAlias",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const auto sourceIdentityIDs = args.texts("sourceIdentityIDs");
                  const auto subjectID = args.text("subjectID");
                  return toJson(repository.batchDeclareOwnerAlias(sourceIdentityIDs, subjectID));
              }},
    Operation{"undoOwnerAliasMutation",
              [](IdentityRepository& repository, const FieldReader& args) {
                  repository.undoOwnerAliasMutation(
                      args.read<identity::OwnerAliasMutation>("mutation"));
                  return Json(nullptr);
              }},

    // Searches, candidates, history, counts.
    Operation{"searchSourceIdentities",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const auto query = args.text("query");
                  const auto limit = args.integer("limit");
                  const auto excluding = args.texts("excludingSourceIdentityIDs");
                  return toJson(repository.searchSourceIdentities(query, limit, excluding));
              }},
    Operation{"searchUserStatedPeople",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const auto query = args.text("query");
                  const auto limit = args.integer("limit");
                  const auto excluding = args.texts("excludingPersonIDs");
                  return toJson(repository.searchUserStatedPeople(query, limit, excluding));
              }},
    Operation{"exactKeyCandidates",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.exactKeyCandidates(args.integer("limit")));
              }},
    Operation{"candidateContext",
              [](IdentityRepository& repository, const FieldReader& args) {
                  const auto sourceIdentityID = args.text("for");
                  const auto relativeTo = args.texts("relativeTo");
                  return toJson(repository.candidateContext(sourceIdentityID, relativeTo));
              }},
    Operation{"identityHistory",
              [](IdentityRepository& repository, const FieldReader& args) {
                  return toJson(repository.identityHistory(args.text("personID")));
              }},
    Operation{"identityCorrectionsReadback",
              [](IdentityRepository& repository, const FieldReader& /*args*/) {
                  return toJson(repository.identityCorrectionsReadback());
              }},
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

// The deepest nesting of arrays and objects a request may have. Real requests nest
// a few levels; a limit keeps hostile lines from exhausting the stack of the
// recursive parts of JSON handling (copying, printing, destroying).
constexpr int kMaxRequestDepth = 64;

// Refuses a line nested deeper than kMaxRequestDepth, before it is parsed.
void checkNesting(std::string_view line) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : line) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxRequestDepth) {
                throw BadRequest("request nests deeper than " + std::to_string(kMaxRequestDepth) +
                                 " levels");
            }
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
}

Json parseRequest(std::string_view line) {
    if (line.find('\0') != std::string_view::npos) {
        throw BadRequest("request contains a NUL byte; write U+0000 inside a text as \\u0000");
    }
    checkNesting(line);
    Json request;
    try {
        request = Json::parse(line.begin(), line.end());
    } catch (const Json::exception& error) {
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

ExecSession::ExecSession(std::shared_ptr<store::DatabasePool> pool, Witness::Sink systemLog)
    : witness_(std::make_shared<WitnessLog>()),
      repository_(
          std::move(pool),
          [log = witness_, systemLog = std::move(systemLog)](const Witness::Event& event) {
              {
                  std::lock_guard lock(log->mutex);
                  log->events.push_back(event);
              }
              if (systemLog) {
                  systemLog(event);
              }
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
