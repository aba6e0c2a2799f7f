// libFuzzer target: the merge pre-state snapshot decoder. Any text either decodes
// or is refused, as the general JSON reader decides; what decodes encodes to a text
// that decodes to the same snapshot. Decoded into a record that held the previous
// input's snapshot, it reads the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "identity/IdentityModels.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto decoded = orvik::identity::decodeMergePreState(text);
    if (decoded != orvik::identity::decodeMergePreStateInGeneral(text)) {
        std::abort();
    }
    // The record of the previous input, decoded into again.
    static orvik::identity::MergePreState reused;
    if (orvik::identity::decodeMergePreStateInto(text, reused) != decoded.has_value() ||
        (decoded && !(reused == *decoded))) {
        std::abort();
    }
    if (decoded) {
        const auto again =
            orvik::identity::decodeMergePreState(orvik::identity::encodeJSON(*decoded));
        if (!again || !(*again == *decoded)) {
            std::abort();
        }
    }
    return 0;
}
