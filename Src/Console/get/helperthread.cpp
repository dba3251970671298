#include "Console/get/helperthread.h"

#include <utility>

void HelperThread::Start(EventQueue& events, const std::string& id, std::function<Outcome()> work) {
    thread_ = RunBeside([&events, id, work = std::move(work)] {
        Event event{Event::Kind::kEnd, id};
        event.outcome = work();
        events.Add(std::move(event));
    });
}

void HelperThread::Join() {
    if (thread_.joinable()) thread_.join();
}
