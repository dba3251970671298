// The request and the answer of an extended task, of any bytes.
#include "TaskMan/tasktext.h"
#include "fuzz.h"

void Fuzz(Input input) {
    const std::string text = input.Text();
    tagTaskRequest request;
    request.strUrl = "before";
    const std::string refusal = DecodeRequest(text, request);
    Expect(refusal.empty() || request.strUrl == "before",
           "what is refused leaves the record alone");
    if (refusal.empty()) {
        Expect(RefusalOf(request).empty(), "what is taken can be served");
        tagTaskRequest again;
        const std::string written = EncodeRequest(request);
        Expect(DecodeRequest(written, again).empty(), "it can be sent on");
        Expect(EncodeRequest(again) == written, "and stays the same");
        Expect(!DecodeRequest(written.substr(0, written.size() - 2), again).empty(),
               "a request without its end is none");
    }
    tagTaskAnswer answer;
    if (!DecodeAnswer(text, answer).empty()) return;
    answer.strMessage = text;
    const std::string written = EncodeAnswer(answer);
    Expect(written.size() <= TASK_ANSWER_MOST, "an answer has room in the slot");
    tagTaskAnswer again;
    Expect(DecodeAnswer(written, again).empty(), "what is written can be read");
    Expect(again.uReceived == answer.uReceived && again.Reason == answer.Reason, "nothing is lost");
    Expect(EncodeAnswer(again) == written, "and stays the same");
}
