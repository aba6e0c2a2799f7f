#pragma once

// Page encryption for SQLCipher 3.4 without OpenSSL's per-page setup.
//
// SQLCipher 3.4.1 encrypts and authenticates every page through a crypto
// provider. Its OpenSSL provider creates and frees a cipher context and an HMAC
// context for every page (OpenSSL 3 looks both algorithms up again each time), and
// asks OpenSSL's random generator for the page's 48 reserved bytes (IV and
// padding) in a call of their own, which costs more than encrypting the page.
// The provider installed here is SQLCipher's own OpenSSL provider with three
// entries replaced: AES-256-CBC and HMAC-SHA1 run on contexts that each thread
// creates once and keeps, and random bytes come from RAND_bytes a few pages'
// worth at a time, each byte handed out once (a forked child draws afresh). The
// bytes on disk are made the same way, so files written either way open either
// way. Any cipher other than AES-256-CBC, and any OpenSSL failure, goes to
// SQLCipher's own entry.
//
// The provider structure is internal to SQLCipher, so it is installed only when
// the library at run time says it is 3.4.1 and the structure answers as 3.4.1's
// does; otherwise SQLCipher keeps its own provider and nothing changes. Setting
// ORVIK_SQLCIPHER_OWN_PAGE_CIPHER in the environment keeps SQLCipher's own
// provider too (for comparing the two).

#include <cstddef>
#include <string>

namespace orvik::store {

// Installs the provider once per process; later calls return at once. Call after
// SQLite has been initialised and before the first encrypted connection opens
// (connections opened earlier keep the provider they were opened with). Returns
// whether the provider is in place. Never throws.
bool installPageCipher();

// Whether installPageCipher() put the provider in place.
[[nodiscard]] bool pageCipherInstalled();

// For tests: length bytes from the page cipher's random source, as SQLCipher
// gets them for a page's IV. False when the cipher is not installed or OpenSSL's
// generator failed.
bool drawPageRandom(unsigned char* buffer, std::size_t length);

// For tests: runs SQLCipher's own OpenSSL cipher and HMAC entries and the
// installed ones over the same input (one page of `size` bytes, an AES-256 key,
// a 16-byte IV and a page number) and returns a description of the first
// difference, or an empty string when both encrypt, decrypt and authenticate
// alike. `size` must be a multiple of 16.
std::string comparePageCipherWithSqlcipher(const unsigned char* page, std::size_t size,
                                           const unsigned char key[32], const unsigned char iv[16],
                                           unsigned pageNumber);

// For benchmarks: what SQLCipher does to a page it writes, through the installed
// entries or (sqlciphersOwn) SQLCipher's own: the 48 reserved bytes drawn at
// random, the usable `size` bytes encrypted with the IV among them, then the
// ciphertext, IV and page number authenticated. out receives size + 48 bytes.
// False when the cipher is not installed or a step failed.
bool writePageAsSqlcipherDoes(bool sqlciphersOwn, const unsigned char* page, std::size_t size,
                              const unsigned char key[32], unsigned pageNumber, unsigned char* out);

}  // namespace orvik::store
