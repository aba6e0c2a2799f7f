#include "store/PageCipherInternal.h"

#ifdef ORVIK_HAS_SQLCIPHER

// SHA-1's own functions, deprecated in OpenSSL 3 in favour of EVP, authenticate a
// page in three quarters of the time the HMAC of EVP_MAC takes: a keyed state is
// a plain struct to copy, where EVP_MAC duplicates provider contexts on the heap
// twice per page. They run on the same processor extensions.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <pthread.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

// SQLCipher 3.4.1's provider structure and the calls that install one. None of
// this is in SQLCipher's installed header; the shape is checked at run time
// before anything is installed.
extern "C" {
struct sqlcipher_provider {
    int (*activate)(void* ctx);
    int (*deactivate)(void* ctx);
    const char* (*get_provider_name)(void* ctx);
    int (*add_random)(void* ctx, void* buffer, int length);
    int (*random)(void* ctx, void* buffer, int length);
    int (*hmac)(void* ctx, unsigned char* hmacKey, int keySize, unsigned char* in, int inSize,
                unsigned char* in2, int in2Size, unsigned char* out);
    int (*kdf)(void* ctx, const unsigned char* pass, int passSize, unsigned char* salt,
               int saltSize, int workfactor, int keySize, unsigned char* key);
    int (*cipher)(void* ctx, int mode, unsigned char* key, int keySize, unsigned char* iv,
                  unsigned char* in, int inSize, unsigned char* out);
    int (*set_cipher)(void* ctx, const char* cipherName);
    const char* (*get_cipher)(void* ctx);
    int (*get_key_sz)(void* ctx);
    int (*get_iv_sz)(void* ctx);
    int (*get_block_sz)(void* ctx);
    int (*get_hmac_sz)(void* ctx);
    int (*ctx_copy)(void* target, void* source);
    int (*ctx_cmp)(void* c1, void* c2);
    int (*ctx_init)(void** ctx);
    int (*ctx_free)(void** ctx);
    int (*fips_status)(void* ctx);
    const char* (*get_provider_version)(void* ctx);
};
int sqlcipher_openssl_setup(sqlcipher_provider* provider);
int sqlcipher_register_provider(sqlcipher_provider* provider);
void sqlcipher_activate(void);
void* sqlcipher_malloc(int size);
}

namespace orvik::store {

namespace {

constexpr int kEncrypt = 1;  // SQLCipher's CIPHER_ENCRYPT; 0 decrypts
constexpr int kAes256KeySize = 32;
constexpr int kSha1Size = 20;

// SQLCipher's own entries, kept for everything the fast ones do not handle.
sqlcipher_provider stockEntries{};
std::atomic<bool> installed{false};

// Bumped in a child after fork(), so that no thread of the child hands out random
// bytes its parent drew (the parent goes on handing out the same ones).
std::atomic<unsigned> forkGeneration{0};

// The algorithms, fetched once per process, and each thread's contexts, created
// on first use and freed when the thread ends.
struct Algorithms {
    EVP_CIPHER* aes = nullptr;
};

const Algorithms& algorithms() {
    static const Algorithms fetched = [] {
        Algorithms a;
        a.aes = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
        return a;
    }();
    return fetched;
}

class ThreadContexts {
  public:
    ThreadContexts() = default;
    ThreadContexts(const ThreadContexts&) = delete;
    ThreadContexts& operator=(const ThreadContexts&) = delete;
    ~ThreadContexts() {
        EVP_CIPHER_CTX_free(encrypt_);
        EVP_CIPHER_CTX_free(decrypt_);
        OPENSSL_cleanse(random_.data(), random_.size());
        OPENSSL_cleanse(macKey_.data(), macKey_.size());
        OPENSSL_cleanse(&macInner_, sizeof macInner_);
        OPENSSL_cleanse(&macOuter_, sizeof macOuter_);
        OPENSSL_cleanse(cipherKeys_.data(), sizeof cipherKeys_);
    }

    // Fills buffer with bytes from OpenSSL's random generator, drawn a few pages'
    // worth at a time: each RAND_bytes call costs as much as encrypting a page,
    // whatever it returns. False when the generator failed.
    bool random(unsigned char* buffer, std::size_t length) {
        const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
        if (generation != generation_) {
            randomUsed_ = random_.size();
            generation_ = generation;
        }
        while (length > 0) {
            if (randomUsed_ == random_.size()) {
                if (RAND_bytes(random_.data(), static_cast<int>(random_.size())) != 1) {
                    return false;
                }
                randomUsed_ = 0;
            }
            const std::size_t n = std::min(length, random_.size() - randomUsed_);
            std::memcpy(buffer, random_.data() + randomUsed_, n);
            randomUsed_ += n;
            buffer += n;
            length -= n;
        }
        return true;
    }

    // The cipher context for one direction, set up for AES-256-CBC without
    // padding; null when OpenSSL refused.
    EVP_CIPHER_CTX* cipher(bool encrypt) {
        EVP_CIPHER_CTX*& slot = encrypt ? encrypt_ : decrypt_;
        if (slot == nullptr && algorithms().aes != nullptr) {
            EVP_CIPHER_CTX* created = EVP_CIPHER_CTX_new();
            if (created != nullptr &&
                EVP_CipherInit_ex2(created, algorithms().aes, nullptr, nullptr, encrypt ? 1 : 0,
                                   nullptr) == 1 &&
                EVP_CIPHER_CTX_set_padding(created, 0) == 1) {
                slot = created;
            } else {
                EVP_CIPHER_CTX_free(created);
            }
        }
        return slot;
    }

    // Whether the direction's cipher context was last keyed with this AES-256
    // key: then its expanded key schedule serves again and only the IV is new.
    [[nodiscard]] bool cipherKeyedWith(bool encrypt, const unsigned char* key) const {
        const auto& last = cipherKeys_[encrypt ? 1 : 0];
        return cipherKeyed_[encrypt ? 1 : 0] && CRYPTO_memcmp(key, last.data(), last.size()) == 0;
    }
    // Records the key the direction's context now holds; null: unknown (after a
    // failure), so that the next page sets its key again.
    void keyedCipherWith(bool encrypt, const unsigned char* key) {
        auto& last = cipherKeys_[encrypt ? 1 : 0];
        cipherKeyed_[encrypt ? 1 : 0] = key != nullptr;
        if (key != nullptr) {
            std::memcpy(last.data(), key, last.size());
        }
    }

    // HMAC-SHA1 of in and in2 under key into out (20 bytes). The states keyed
    // with the last key (the inner and outer pads hashed) serve again while one
    // database's pages follow each other. False for a key longer than a block,
    // which SQLCipher never uses.
    bool hmacSha1(const unsigned char* key, std::size_t keySize, const unsigned char* in,
                  std::size_t inSize, const unsigned char* in2, std::size_t in2Size,
                  unsigned char* out) {
        if (keySize == 0 || keySize > macKey_.size()) {
            return false;
        }
        if (keySize != macKeySize_ || CRYPTO_memcmp(key, macKey_.data(), keySize) != 0) {
            std::array<unsigned char, SHA_CBLOCK> pad{};
            std::memcpy(pad.data(), key, keySize);
            for (auto& byte : pad) {
                byte ^= 0x36;
            }
            SHA1_Init(&macInner_);
            SHA1_Update(&macInner_, pad.data(), pad.size());
            for (auto& byte : pad) {
                byte ^= 0x36 ^ 0x5c;
            }
            SHA1_Init(&macOuter_);
            SHA1_Update(&macOuter_, pad.data(), pad.size());
            OPENSSL_cleanse(pad.data(), pad.size());
            std::memcpy(macKey_.data(), key, keySize);
            macKeySize_ = keySize;
        }
        SHA_CTX state = macInner_;
        std::array<unsigned char, SHA_DIGEST_LENGTH> inner{};
        SHA1_Update(&state, in, inSize);
        SHA1_Update(&state, in2, in2Size);
        SHA1_Final(inner.data(), &state);
        state = macOuter_;
        SHA1_Update(&state, inner.data(), inner.size());
        SHA1_Final(out, &state);
        OPENSSL_cleanse(&state, sizeof state);
        return true;
    }

  private:
    EVP_CIPHER_CTX* encrypt_ = nullptr;
    EVP_CIPHER_CTX* decrypt_ = nullptr;
    // 48 bytes a page: the IV and the rest of SQLCipher's reserved space.
    std::array<unsigned char, 48 * 32> random_{};
    std::size_t randomUsed_ = random_.size();
    unsigned generation_ = 0;
    // The key the HMAC states were last keyed with, and the states: SHA-1 over
    // the key's inner and outer pads.
    std::array<unsigned char, SHA_CBLOCK> macKey_{};
    SHA_CTX macInner_{};
    SHA_CTX macOuter_{};
    std::size_t macKeySize_ = 0;
    // The AES-256 key each cipher context was last keyed with: decrypt, encrypt.
    std::array<std::array<unsigned char, kAes256KeySize>, 2> cipherKeys_{};
    std::array<bool, 2> cipherKeyed_{};
};

ThreadContexts& threadContexts() {
    thread_local ThreadContexts contexts;
    return contexts;
}

// SQLCipher's OpenSSL provider context holds one field, the cipher it uses.
bool isAes256Cbc(void* providerContext) {
    const auto* cipher = *static_cast<const EVP_CIPHER* const*>(providerContext);
    return cipher != nullptr && EVP_CIPHER_get_nid(cipher) == NID_aes_256_cbc;
}

bool fastCipher(int mode, const unsigned char* key, int keySize, const unsigned char* iv,
                const unsigned char* in, int inSize, unsigned char* out) {
    if (keySize != kAes256KeySize || inSize <= 0 || inSize % 16 != 0) {
        return false;
    }
    ThreadContexts& contexts = threadContexts();
    const bool encrypt = mode == kEncrypt;
    EVP_CIPHER_CTX* ctx = contexts.cipher(encrypt);
    if (ctx == nullptr) {
        return false;
    }
    // One database's pages, one after the other, share the key: setting only the
    // IV keeps the expanded key schedule.
    const bool sameKey = contexts.cipherKeyedWith(encrypt, key);
    int written = 0;
    // No EVP_CipherFinal_ex: without padding and whole blocks it adds nothing, and
    // with padding (were OpenSSL to turn it back on) it would write past the page.
    const bool done =
        EVP_CipherInit_ex2(ctx, nullptr, sameKey ? nullptr : key, iv, -1, nullptr) == 1 &&
        EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
        EVP_CipherUpdate(ctx, out, &written, in, inSize) == 1 && written == inSize;
    contexts.keyedCipherWith(encrypt, done ? key : nullptr);
    return done;
}

int pageCipher(void* ctx, int mode, unsigned char* key, int keySize, unsigned char* iv,
               unsigned char* in, int inSize, unsigned char* out) {
    if (isAes256Cbc(ctx) && fastCipher(mode, key, keySize, iv, in, inSize, out)) {
        return SQLITE_OK;
    }
    return stockEntries.cipher(ctx, mode, key, keySize, iv, in, inSize, out);
}

bool fastHmac(const unsigned char* key, int keySize, const unsigned char* in, int inSize,
              const unsigned char* in2, int in2Size, unsigned char* out) {
    if (keySize <= 0 || inSize < 0 || in2Size < 0) {
        return false;
    }
    return threadContexts().hmacSha1(key, static_cast<std::size_t>(keySize), in,
                                     static_cast<std::size_t>(inSize), in2,
                                     static_cast<std::size_t>(in2Size), out);
}

int pageHmac(void* ctx, unsigned char* key, int keySize, unsigned char* in, int inSize,
             unsigned char* in2, int in2Size, unsigned char* out) {
    if (fastHmac(key, keySize, in, inSize, in2, in2Size, out)) {
        return SQLITE_OK;
    }
    return stockEntries.hmac(ctx, key, keySize, in, inSize, in2, in2Size, out);
}

int pageRandom(void* ctx, void* buffer, int length) {
    if (length >= 0 && threadContexts().random(static_cast<unsigned char*>(buffer),
                                               static_cast<std::size_t>(length))) {
        return SQLITE_OK;
    }
    return stockEntries.random(ctx, buffer, length);
}

bool runningSqlcipher341() {
    if (std::strcmp(sqlite3_libversion(), "3.15.2") != 0) {
        return false;
    }
    sqlite3* db = nullptr;
    bool matches = false;
    if (sqlite3_open_v2(":memory:", &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, "PRAGMA cipher_version", -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW) {
            const auto* version = sqlite3_column_text(statement, 0);
            matches = version != nullptr &&
                      std::strcmp(reinterpret_cast<const char*>(version), "3.4.1") == 0;
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return matches;
}

// The entries SQLCipher's OpenSSL provider fills must answer as 3.4.1's do, so a
// structure of another shape is never installed.
bool providerShapeMatches(const sqlcipher_provider& p) {
    if (p.get_provider_name == nullptr || p.get_hmac_sz == nullptr || p.cipher == nullptr ||
        p.hmac == nullptr || p.get_provider_version == nullptr || p.ctx_init == nullptr ||
        p.ctx_free == nullptr || p.random == nullptr) {
        return false;
    }
    const char* name = p.get_provider_name(nullptr);
    const char* version = p.get_provider_version(nullptr);
    return name != nullptr && std::strcmp(name, "openssl") == 0 &&
           p.get_hmac_sz(nullptr) == kSha1Size && version != nullptr &&
           std::strncmp(version, "OpenSSL ", 8) == 0;
}

bool install() {
    if (std::getenv("ORVIK_SQLCIPHER_OWN_PAGE_CIPHER") != nullptr) {
        return false;  // for comparing with SQLCipher's own provider
    }
    if (sqlite3_initialize() != SQLITE_OK || !runningSqlcipher341()) {
        return false;
    }
    (void)sqlcipher_openssl_setup(&stockEntries);
    if (!providerShapeMatches(stockEntries) || algorithms().aes == nullptr) {
        return false;
    }
    // SQLCipher frees the registered provider with its own allocator when the last
    // encrypted connection closes and registers its default again on the next
    // open. One activation of our own, never released, keeps ours registered.
    auto* provider = static_cast<sqlcipher_provider*>(sqlcipher_malloc(sizeof(sqlcipher_provider)));
    if (provider == nullptr) {
        return false;
    }
    *provider = stockEntries;
    provider->cipher = pageCipher;
    provider->hmac = pageHmac;
    provider->random = pageRandom;
    (void)pthread_atfork(nullptr, nullptr,
                         [] { forkGeneration.fetch_add(1, std::memory_order_relaxed); });
    sqlcipher_activate();
    (void)sqlcipher_register_provider(provider);
    return true;
}

}  // namespace

bool installPageCipher() {
    static std::once_flag once;
    std::call_once(once, [] { installed = install(); });
    return installed;
}

bool pageCipherInstalled() {
    return installed;
}

namespace {

// One provider context as SQLCipher's OpenSSL provider makes them, for the tests
// and the benchmark, kept for the process.
void* sqlciphersContext() {
    static void* const context = [] {
        void* made = nullptr;
        if (stockEntries.ctx_init(&made) != SQLITE_OK ||
            stockEntries.set_cipher(made, "aes-256-cbc") != SQLITE_OK) {
            return static_cast<void*>(nullptr);
        }
        return made;
    }();
    return context;
}

}  // namespace

bool drawPageRandom(unsigned char* buffer, std::size_t length) {
    return installed && threadContexts().random(buffer, length);
}

bool writePageAsSqlcipherDoes(bool sqlciphersOwn, const unsigned char* page, std::size_t size,
                              const unsigned char key[32], unsigned pageNumber,
                              unsigned char* out) {
    if (!installed || size == 0 || size % 16 != 0) {
        return false;
    }
    void* context = sqlciphersContext();
    if (context == nullptr) {
        return false;
    }
    const auto random = sqlciphersOwn ? stockEntries.random : pageRandom;
    const auto cipher = sqlciphersOwn ? stockEntries.cipher : pageCipher;
    const auto hmac = sqlciphersOwn ? stockEntries.hmac : pageHmac;
    const int n = static_cast<int>(size);
    auto* k = const_cast<unsigned char*>(key);
    unsigned char number[4];
    std::memcpy(number, &pageNumber, sizeof number);
    return random(context, out + size, 48) == SQLITE_OK &&
           cipher(context, kEncrypt, k, kAes256KeySize, out + size,
                  const_cast<unsigned char*>(page), n, out) == SQLITE_OK &&
           hmac(context, k, kAes256KeySize, out, n + 16, number, 4, out + size + 16) == SQLITE_OK;
}

std::string comparePageCipherWithSqlcipher(const unsigned char* page, std::size_t size,
                                           const unsigned char key[32], const unsigned char iv[16],
                                           unsigned pageNumber) {
    if (!installed) {
        return "the page cipher is not installed";
    }
    if (size == 0 || size % 16 != 0) {
        return "the page size is not a whole number of blocks";
    }
    void* context = sqlciphersContext();
    if (context == nullptr) {
        return "SQLCipher's provider context could not be made";
    }
    const int n = static_cast<int>(size);
    auto* k = const_cast<unsigned char*>(key);
    std::string difference;
    std::string ours(size, '\0'), theirs(size, '\0');
    auto* oursBytes = reinterpret_cast<unsigned char*>(ours.data());
    auto* theirsBytes = reinterpret_cast<unsigned char*>(theirs.data());
    for (int mode : {kEncrypt, 0}) {
        std::array<unsigned char, 16> ivOurs{}, ivTheirs{};
        std::memcpy(ivOurs.data(), iv, 16);
        std::memcpy(ivTheirs.data(), iv, 16);
        auto* input = const_cast<unsigned char*>(page);
        pageCipher(context, mode, k, kAes256KeySize, ivOurs.data(), input, n, oursBytes);
        stockEntries.cipher(context, mode, k, kAes256KeySize, ivTheirs.data(), input, n,
                            theirsBytes);
        if (ours != theirs) {
            difference = mode == kEncrypt ? "encryption differs" : "decryption differs";
            break;
        }
    }
    if (difference.empty()) {
        std::array<unsigned char, kSha1Size> macOurs{}, macTheirs{};
        unsigned char number[4];
        std::memcpy(number, &pageNumber, sizeof number);
        auto* input = const_cast<unsigned char*>(page);
        pageHmac(context, k, kAes256KeySize, input, n, number, 4, macOurs.data());
        stockEntries.hmac(context, k, kAes256KeySize, input, n, number, 4, macTheirs.data());
        if (macOurs != macTheirs) {
            difference = "authentication differs";
        }
    }
    return difference;
}

}  // namespace orvik::store

#else

namespace orvik::store {

bool installPageCipher() {
    return false;
}
bool pageCipherInstalled() {
    return false;
}
bool writePageAsSqlcipherDoes(bool, const unsigned char*, std::size_t, const unsigned char[32],
                              unsigned, unsigned char*) {
    return false;
}
bool drawPageRandom(unsigned char*, std::size_t) {
    return false;
}
std::string comparePageCipherWithSqlcipher(const unsigned char*, std::size_t,
                                           const unsigned char[32], const unsigned char[16],
                                           unsigned) {
    return "built without SQLCipher";
}

}  // namespace orvik::store

#endif
