// The record of a partial file: of any bytes, and one that was written and then damaged. A text
// without a checksum gets one, or only such would ever be read that are kept.
#include "Tarnwick/engine/blocks.h"
#include "TaskMan/partrecord.h"
#include "fuzz.h"

void Fuzz(Input input) {
    PartRecord made;
    made.size = 1 + input.Take<std::uint32_t>();
    for (std::uint64_t at = input.Take<std::uint8_t>(); at < made.size && !input.Empty();) {
        const std::uint64_t end = std::min(made.size, at + 1 + input.Take<std::uint16_t>());
        if (made.have.size() == PART_RECORD_RANGES) break;
        made.have.push_back({at, end});
        if (made.have.size() % 2 != 0) made.synced.push_back({at, end});
        at = end + 1 + input.Take<std::uint16_t>();
    }
    const auto damage = input.Take<std::uint16_t>();
    const std::string text = input.Text();
    made.validator = text;
    made.time = 1;
    const std::string first = EncodePartRecord(made);
    std::string whole = first + EncodePartHave(made, first);
    PartRecord read;
    for (const std::string& bytes : {text, whole, whole + text, whole.substr(0, damage)}) {
        if (!DecodePartRecord(bytes, read)) continue;
        for (const auto& ranges : {read.synced, read.have}) {
            const engine::Blocks blocks(read.size, ranges);
            Expect(ranges.size() <= PART_RECORD_RANGES, "the ranges are not too many");
            Expect(ranges.empty() || ranges.back().end <= read.size, "they are within the file");
            Expect(blocks.Have() == ranges, "and can be gone on with");
            Expect(blocks.Done() == BytesIn(ranges), "and hold as much as they say");
        }
        Expect(read.size == made.size || bytes == text, "what was written is read");
        Expect(bytes != whole || read.have == made.have, "with its ranges");
    }
    whole[damage % whole.size()] ^= 1;
    Expect(!DecodePartRecord(whole, read) || read.have.empty() ||
               whole.substr(0, first.size()) == first,
           "damage is found");
}
