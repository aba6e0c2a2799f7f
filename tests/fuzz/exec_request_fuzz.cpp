// libFuzzer target: one exec request line against a small store. Every line must
// get exactly one answer line of JSON, whatever it holds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unistd.h>

#include "app/ExecSession.h"
#include "host/HostServices.h"

namespace {

orvik::app::ExecSession& session() {
    static std::unique_ptr<orvik::app::ExecSession> instance = [] {
        const auto path = std::filesystem::temp_directory_path() /
                          ("orvik-fuzz-" + std::to_string(::getpid()) + ".db");
        std::filesystem::remove(path);
        orvik::store::PoolOptions options;
        options.create = true;
        auto pool = orvik::store::DatabasePool::open(path, options);
        pool->write([](orvik::store::Connection& db) {
            orvik::host::createReferenceSchema(db);
            db.executeScript(
                "INSERT INTO source_identity (id, source_type, handle_normalized, display_name, "
                "first_seen_at, last_seen_at, created_at) VALUES ('si-1', 'gmail', 'a@x', 'Ann', "
                "'2026-01-01T00:00:00Z', '2026-01-01T00:00:00Z', '2026-01-01T00:00:00Z'), ('si-2', "
                "'outlook', 'a@x', 'Ann', '2026-01-01T00:00:00Z', '2026-01-01T00:00:00Z', "
                "'2026-01-01T00:00:00Z');"
                "INSERT INTO person (id, display_name, tier, created_from, created_at) VALUES "
                "('p-1', 'Ann', 'user_stated', 'user_stated', '2026-01-01T00:00:00Z');");
        });
        return std::make_unique<orvik::app::ExecSession>(
            std::move(pool), &orvik::identity::IdentityCorrectionWitness::discardingSink);
    }();
    return *instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    if (line.find('\n') != std::string_view::npos) {
        return -1;  // one line per request
    }
    const std::string answer = session().answer(line);
    const auto parsed = nlohmann::json::parse(answer, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object() ||
        (parsed.contains("ok") == parsed.contains("error"))) {
        std::abort();
    }
    return 0;
}
