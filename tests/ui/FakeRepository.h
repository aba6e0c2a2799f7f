// A repository behind the view-model interface whose calls complete when the
// test says so. Each call is logged as "op(arg,arg)"; an operation named in hold
// parks its call until release() or fail(); any other is answered at once by
// answer(op, args), or with a default value.
#pragma once

#include <any>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include <QObject>

#include <QCoro/QCoroSignal>
#include <QCoro/QCoroTask>

#include "ui/CorrectionRepository.h"

namespace orvik::test {

namespace id = orvik::identity;

class PendingCall : public QObject {
    Q_OBJECT
  public:
    std::string op;
    std::vector<std::string> args;
    std::any result;
    std::exception_ptr error;
    bool done = false;
    void settle() {
        done = true;
        Q_EMIT settled();
    }
  Q_SIGNALS:
    void settled();
};

class FakeRepository final : public ui::IdentityCorrectionRepository {
  public:
    std::set<std::string> hold;
    std::function<std::any(const std::string& op, const std::vector<std::string>& args)> answer;
    std::function<void(const std::string& op, const std::vector<std::string>& args)> failWhen;
    std::vector<std::string> log;
    std::deque<std::shared_ptr<PendingCall>> parked;

    // Completes parked call i of op (0: the oldest) with value.
    template <typename T>
    void release(const std::string& op, T value, std::size_t i = 0) {
        auto call = take(op, i);
        call->result = std::move(value);
        call->settle();
    }
    void releaseVoid(const std::string& op) { take(op)->settle(); }
    void fail(const std::string& op, std::exception_ptr error) {
        auto call = take(op);
        call->error = std::move(error);
        call->settle();
    }
    // The parked call of op at position i (0: the oldest), taken out of the queue.
    std::shared_ptr<PendingCall> take(const std::string& op, std::size_t i = 0) {
        std::size_t seen = 0;
        for (auto it = parked.begin(); it != parked.end(); ++it) {
            if ((*it)->op == op && seen++ == i) {
                auto call = *it;
                parked.erase(it);
                return call;
            }
        }
        throw std::logic_error("no parked call of " + op);
    }

    QCoro::Task<std::vector<id::IdentityCandidate>> exactKeyCandidates(
        std::int64_t limit) override {
        return call<std::vector<id::IdentityCandidate>>("exactKeyCandidates",
                                                        {std::to_string(limit)});
    }
    QCoro::Task<std::optional<id::IdentityCandidateContext>> candidateContext(
        std::string sourceIdentityID, std::vector<std::string> relativeTo) override {
        return call<std::optional<id::IdentityCandidateContext>>(
            "candidateContext", {sourceIdentityID, join(relativeTo)});
    }
    QCoro::Task<std::vector<id::IdentityMembershipRow>> activeMemberships(
        std::string personID) override {
        return call<std::vector<id::IdentityMembershipRow>>("activeMemberships", {personID});
    }
    QCoro::Task<std::optional<id::SourceIdentityRow>> sourceIdentity(std::string id) override {
        return call<std::optional<id::SourceIdentityRow>>("sourceIdentity", {id});
    }
    QCoro::Task<std::optional<id::PersonRow>> person(std::string id) override {
        return call<std::optional<id::PersonRow>>("person", {id});
    }
    QCoro::Task<std::vector<id::SourceIdentityRow>> searchSourceIdentities(
        std::string query, std::int64_t limit, std::vector<std::string> excluding) override {
        return call<std::vector<id::SourceIdentityRow>>(
            "searchSourceIdentities", {query, std::to_string(limit), join(excluding)});
    }
    QCoro::Task<std::vector<id::LinkablePersonRow>> searchUserStatedPeople(
        std::string query, std::int64_t limit, std::vector<std::string> excluding) override {
        return call<std::vector<id::LinkablePersonRow>>(
            "searchUserStatedPeople", {query, std::to_string(limit), join(excluding)});
    }
    QCoro::Task<id::IdentityConfirmResult> confirmCandidate(id::IdentityCandidate candidate,
                                                            id::SubjectLineage,
                                                            std::string subjectID) override {
        return call<id::IdentityConfirmResult>("confirmCandidate", {candidate.id(), subjectID});
    }
    QCoro::Task<void> rejectCandidate(id::IdentityCandidate candidate, id::SubjectLineage,
                                      std::string subjectID) override {
        return callVoid("rejectCandidate",
                        {candidate.id(), candidate.existingPersonID.value_or("-"), subjectID});
    }
    QCoro::Task<id::IdentityConfirmResult> confirmManualLink(id::SourceIdentityRow a,
                                                             id::SourceIdentityRow b,
                                                             id::SubjectLineage,
                                                             std::string) override {
        return call<id::IdentityConfirmResult>("confirmManualLink", {a.id, b.id});
    }
    QCoro::Task<id::IdentityConfirmResult> confirmManualLink(
        std::vector<id::ManualLinkTarget> targets, id::SubjectLineage, std::string) override {
        return call<id::IdentityConfirmResult>("confirmManualLinkTargets",
                                               {std::to_string(targets.size())});
    }
    std::optional<id::ManualLinkSurvivorPrediction> predictManualLinkSurvivor(
        const std::vector<id::ManualLinkTarget>&) override {
        log.push_back("predictManualLinkSurvivor()");
        return std::nullopt;
    }
    QCoro::Task<id::IdentityConfirmResult> separateIdentity(std::string sourceIdentityID,
                                                            std::string) override {
        return call<id::IdentityConfirmResult>("separateIdentity", {sourceIdentityID});
    }
    QCoro::Task<id::OwnerAliasDeclarationOutcome> batchDeclareOwnerAlias(
        std::vector<std::string> ids, std::string) override {
        return call<id::OwnerAliasDeclarationOutcome>("batchDeclareOwnerAlias", {join(ids)});
    }
    QCoro::Task<std::vector<id::UndoMergeResult>> undoConfirmation(
        std::vector<std::string> ids) override {
        return call<std::vector<id::UndoMergeResult>>("undoConfirmation", {join(ids)});
    }
    QCoro::Task<void> undoOwnerAliasMutation(id::OwnerAliasMutation) override {
        return callVoid("undoOwnerAliasMutation", {});
    }
    QCoro::Task<std::vector<id::IdentityHistoryEntry>> identityHistory(
        std::string personID) override {
        return call<std::vector<id::IdentityHistoryEntry>>("identityHistory", {personID});
    }

  private:
    QCoro::Task<void> callVoid(std::string op, std::vector<std::string> args) {
        co_await call<bool>(std::move(op), std::move(args));
    }

    static std::string join(const std::vector<std::string>& items) {
        std::string out;
        for (const auto& item : items) {
            out += (out.empty() ? "" : "+") + item;
        }
        return out;
    }

    template <typename T>
    QCoro::Task<T> call(std::string op, std::vector<std::string> args) {
        std::string line = op + "(";
        for (std::size_t i = 0; i < args.size(); ++i) {
            line += (i ? "," : "") + args[i];
        }
        log.push_back(line + ")");
        if (failWhen) {
            failWhen(op, args);  // throws to fail the call at once
        }
        auto pending = std::make_shared<PendingCall>();
        pending->op = op;
        pending->args = args;
        if (hold.contains(op)) {
            parked.push_back(pending);
            co_await qCoro(pending.get(), &PendingCall::settled);
            if (pending->error) {
                std::rethrow_exception(pending->error);
            }
            if (pending->result.has_value()) {
                co_return std::any_cast<T>(pending->result);
            }
            co_return T{};
        }
        if (answer) {
            std::any value = answer(op, args);
            if (value.has_value()) {
                co_return std::any_cast<T>(value);
            }
        }
        co_return T{};
    }
};

}  // namespace orvik::test
