// The headers of an answer of any bytes, and the judgement of it.
#include "Tarnwick/engine/judge.h"
#include "fuzz.h"

using namespace engine;

void Fuzz(Input input) {
    const std::string text = input.Text();
    Answer answer;
    for (std::size_t from = 0; from < text.size();) {
        const std::size_t end = std::min(text.find('\n', from), text.size() - 1) + 1;
        answer.AddLine(std::string_view(text).substr(from, end - from));
        from = end;
    }
    const std::string validator = ValidatorOf(answer);
    Expect(!validator.starts_with("W/"), "a weak tag proves nothing");
    Expect(FitsValidator(answer, validator), "an answer fits its own validator");
    Expect(RetryAfter(answer) >= 0, "no wait is negative");
    DispositionName(answer.contentDisposition);
    const auto range = ParseContentRange(answer.contentRange);
    if (range && range->range) {
        Expect(range->range->Size() > 0 && range->range->end <= range->size, "a range is within");
    }
    for (const std::uint64_t size : {std::uint64_t{1000}, kUnknown}) {
        const Known known{size != kUnknown, size, "\"a\""};
        for (const bool asks : {true, false}) {
            Asked asked;
            if (asks) asked.range = Range{100, 200};
            answer.length = text.size() % 2 != 0 ? kUnknown : 100;
            const Judgement judged = JudgeAnswer(answer, asked, known);
            Expect(asks || (judged.verdict != Verdict::kPart && judged.verdict != Verdict::kStale),
                   "who asks for the whole gets no part");
            if (judged.verdict == Verdict::kPart) {
                Expect(range && range->range == asked.range,
                       "a part is the one that was asked for");
                Expect(!known.any || range->size == size, "of the same file");
            } else if (!IsGood(judged.verdict)) {
                Expect(!judged.message.empty(), "what is of no use is told");
            }
            asked.additional = true;
            Expect(JudgeAnswer(answer, asked, known).verdict != Verdict::kAgain,
                   "an additional connection is not insisted upon");
        }
    }
}
