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
#include <optional>
#include <utility>
#include <vector>

#include "store/Database.h"

namespace orvik::identity::internal {

template <typename Key, typename Answer>
class AnswerCache {
  public:
    explicit AnswerCache(std::size_t capacity) : capacity_(capacity) {}

    // The kept answer for key, or read() (whose exception passes through, keeping
    // nothing). The most recently asked keys stay; the oldest go first.
    template <typename Read>
    Answer get(const store::Connection::Stamp& stamp, Key key, Read&& read) {
        if (!stamp_ || *stamp_ != stamp) {
            entries_.clear();
            stamp_ = stamp;
        }
        const auto found = std::find_if(entries_.begin(), entries_.end(),
                                        [&](const Entry& entry) { return entry.key == key; });
        if (found != entries_.end()) {
            std::rotate(entries_.begin(), found, found + 1);
            Entry& entry = entries_.front();
            if (entry.answer) {
                return *entry.answer;
            }
            Answer answer = read();
            entry.answer = answer;
            return answer;
        }
        Answer answer = read();
        if (entries_.size() == capacity_) {
            entries_.pop_back();
        }
        entries_.insert(entries_.begin(), Entry{std::move(key), std::nullopt});
        return answer;
    }

  private:
    struct Entry {
        Key key;
        std::optional<Answer> answer;
    };

    std::size_t capacity_;
    std::optional<store::Connection::Stamp> stamp_;
    std::vector<Entry> entries_;
};

}  // namespace orvik::identity::internal
