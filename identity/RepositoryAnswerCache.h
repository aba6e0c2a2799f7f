// Answers of the repository's larger reads, kept while the database stays as it
// was when they were read.
//
// A read asks the connection for its stamp (store::Connection::stamp) as the first
// statement of its transaction. While the stamp is the one the kept answers were
// read under, nothing was committed since and the same arguments give the same
// answer; any other stamp forgets every answer. An answer is kept the second time
// its arguments are asked under one stamp: a read asked only once pays for
// remembering its arguments, not for copying its answer.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "store/Database.h"

namespace orvik::identity::internal {

template <typename Key, typename Answer, typename Hash = std::hash<Key>>
class AnswerCache {
  public:
    explicit AnswerCache(std::size_t capacity) : capacity_(capacity) {}

    // The kept answer for key, or read() (whose exception passes through, keeping
    // nothing). When full, the key asked longest ago makes room.
    template <typename Read>
    Answer get(const store::Connection::Stamp& stamp, Key key, Read&& read) {
        if (!stamp_ || *stamp_ != stamp) {
            entries_.clear();
            stamp_ = stamp;
        }
        const std::size_t hash = Hash{}(key);
        ++clock_;
        for (Entry& entry : entries_) {
            if (entry.hash == hash && entry.key == key) {
                entry.lastAsked = clock_;
                if (!entry.answer) {
                    entry.answer = read();
                }
                return *entry.answer;
            }
        }
        Answer answer = read();
        Entry remembered{hash, std::move(key), std::nullopt, clock_};
        if (entries_.size() < capacity_) {
            entries_.push_back(std::move(remembered));
        } else {
            *std::min_element(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
                return a.lastAsked < b.lastAsked;
            }) = std::move(remembered);
        }
        return answer;
    }

  private:
    struct Entry {
        std::size_t hash = 0;
        Key key;
        std::optional<Answer> answer;
        std::uint64_t lastAsked = 0;
    };

    std::size_t capacity_;
    std::optional<store::Connection::Stamp> stamp_;
    std::uint64_t clock_ = 0;
    std::vector<Entry> entries_;
};

}  // namespace orvik::identity::internal
