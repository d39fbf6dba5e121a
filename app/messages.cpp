#include "app/messages.h"

namespace {

void nothing(QArgument&) {}

constexpr MessageDuties makeDuties() {
    MessageDuties duties;
    for (auto& handler : duties.handlers) handler = nothing;
    duties.handlers[18] = nullptr;
    duties.handlers[20] = nullptr;
    return duties;
}

}  // namespace

constinit const MessageDuties applicationDuties = makeDuties();
