#include "identity/IdentityCorrectionWitness.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <utility>

namespace orvik::identity {

namespace {

constexpr std::array<std::pair<IdentityCorrectionWitness::Kind, std::string_view>, 9> kKinds{{
    {IdentityCorrectionWitness::Kind::confirmManualLink, "confirm-manual-link"},
    {IdentityCorrectionWitness::Kind::batchConfirmManualLink, "batch-confirm-manual-link"},
    {IdentityCorrectionWitness::Kind::confirmCandidate, "confirm-candidate"},
    {IdentityCorrectionWitness::Kind::rejectCandidate, "reject-candidate"},
    {IdentityCorrectionWitness::Kind::separateIdentity, "separate-identity"},
    {IdentityCorrectionWitness::Kind::undoConfirmation, "undo-confirmation"},
    {IdentityCorrectionWitness::Kind::markDifferent, "mark-different"},
    {IdentityCorrectionWitness::Kind::declareOwnerAlias, "declare-owner-alias"},
    {IdentityCorrectionWitness::Kind::undoOwnerAlias, "undo-owner-alias"},
}};

// A process-wide handle on the system log for one subsystem and category. It
// speaks the journal's native protocol where the journal runs, so that the
// subsystem and category travel as fields of their own, and falls back to the
// classic syslog socket. Without either, the log discards everything.
class SystemLogger {
  public:
    SystemLogger(std::string_view subsystem, std::string_view category)
        : subsystem_(subsystem), category_(category) {
        if (connectTo("/run/systemd/journal/socket")) {
            native_ = true;
        } else {
            connectTo("/dev/log");
        }
    }

    ~SystemLogger() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    SystemLogger(const SystemLogger&) = delete;
    SystemLogger& operator=(const SystemLogger&) = delete;

    [[nodiscard]] bool infoEnabled() const noexcept {
        // setlogmask(0) reads the process's mask without changing it.
        return fd_ >= 0 && (setlogmask(0) & LOG_MASK(LOG_INFO)) != 0;
    }

    void info(const std::string& line) const noexcept {
        std::string datagram;
        if (native_) {
            datagram = "PRIORITY=6\nSYSLOG_FACILITY=1\nSYSLOG_IDENTIFIER=" + subsystem_ +
                       "\nORVIK_SUBSYSTEM=" + subsystem_ + "\nORVIK_CATEGORY=" + category_ +
                       "\nMESSAGE=" + line + "\n";
        } else {
            // <facility user (1) * 8 + info (6)>
            datagram = "<14>" + subsystem_ + "/" + category_ + "[" + std::to_string(::getpid()) +
                       "]: " + line;
        }
        // A full or vanished log socket drops the line; logging never fails the caller.
        (void)::send(fd_, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }

  private:
    bool connectTo(const char* path) noexcept {
        const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return false;
        }
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            ::close(fd);
            return false;
        }
        fd_ = fd;
        return true;
    }

    std::string subsystem_;
    std::string category_;
    int fd_ = -1;
    bool native_ = false;
};

const SystemLogger& sharedLogger() {
    // Initialised once, safely when several threads arrive together.
    static const SystemLogger logger(IdentityCorrectionWitness::subsystem,
                                     IdentityCorrectionWitness::category);
    return logger;
}

}  // namespace

std::string_view IdentityCorrectionWitness::rawValue(Kind kind) noexcept {
    for (const auto& [candidate, raw] : kKinds) {
        if (candidate == kind) {
            return raw;
        }
    }
    return {};
}

std::optional<IdentityCorrectionWitness::Kind> IdentityCorrectionWitness::kindFromRawValue(
    std::string_view text) noexcept {
    for (const auto& [kind, raw] : kKinds) {
        if (raw == text) {
            return kind;
        }
    }
    return std::nullopt;
}

std::string IdentityCorrectionWitness::message(const Event& event) {
    std::string line = "identity correction committed kind=";
    line += rawValue(event.kind);
    line += " identities=" + std::to_string(event.identityCount);
    line += " merge_events=" + std::to_string(event.mergeEventCount);
    line += " absorbed_persons=" + std::to_string(event.absorbedPersonCount);
    line += " merged_into_present=";
    line += event.absorbedPersonCount > 0 ? "true" : "false";
    line += " restored_persons=" + std::to_string(event.restoredPersonCount);
    line += " restored_memberships=" + std::to_string(event.restoredMembershipCount);
    line += " operation=";
    line += event.operationID && !event.operationID->empty() ? *event.operationID : "-";
    return line;
}

void IdentityCorrectionWitness::unifiedLogSink(const Event& event) noexcept {
    try {
        const SystemLogger& logger = sharedLogger();
        if (!logger.infoEnabled()) {
            return;
        }
        logger.info(message(event));
    } catch (...) {
        // Out of memory while building the line: the event is not logged.
    }
}

}  // namespace orvik::identity
