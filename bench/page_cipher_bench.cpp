// One page written as SQLCipher writes it (random reserved bytes, AES-256-CBC,
// HMAC-SHA1), through the store's page cipher and through SQLCipher's own
// OpenSSL provider: what the page cipher saves on every page a commit writes.
#include <benchmark/benchmark.h>

#include <array>
#include <filesystem>

#include "store/Database.h"
#include "store/PageCipherInternal.h"

namespace orvik::bench {
namespace {

void BM_writePage(benchmark::State& state) {
    const bool sqlciphersOwn = state.range(0) != 0;
    // Opening an encrypted store installs the page cipher.
    const auto dir = std::filesystem::temp_directory_path() / "orvik-page-cipher-bench";
    std::filesystem::create_directories(dir);
    store::PoolOptions options;
    options.key = "page cipher bench";
    options.create = true;
    auto pool = store::DatabasePool::open(dir / "installs.db", options);
    if (!store::pageCipherInstalled()) {
        state.SkipWithError("the page cipher is not installed (SQLCipher other than 3.4.1?)");
        return;
    }
    std::array<unsigned char, 976> page{};  // the usable part of a 1 KiB page
    std::array<unsigned char, 976 + 48> out{};
    std::array<unsigned char, 32> key{};
    for (std::size_t i = 0; i < page.size(); ++i) {
        page[i] = static_cast<unsigned char>(i * 31);
    }
    key.fill(7);
    unsigned pageNumber = 1;
    for (auto _ : state) {
        if (!store::writePageAsSqlcipherDoes(sqlciphersOwn, page.data(), page.size(), key.data(),
                                             pageNumber++, out.data())) {
            state.SkipWithError("a step failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
    pool.reset();
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_writePage)->ArgName("sqlciphersOwn")->Arg(0)->Arg(1);

}  // namespace
}  // namespace orvik::bench
