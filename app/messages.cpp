#include "app/messages.h"

#include "app/ClientApp.h"

namespace {

void load(QArgument&) { clientApp.load(); }
void save(QArgument&) { clientApp.saveAll(); }
void nothing(QArgument&) {}

constexpr MessageDuties makeDuties() {
    MessageDuties duties;
    for (auto& handler : duties.handlers) handler = nothing;
    duties.handlers[MESSAGE_LOAD] = load;
    duties.handlers[MESSAGE_SAVE] = save;
    duties.handlers[18] = nullptr;
    duties.handlers[20] = nullptr;
    return duties;
}

}  // namespace

constinit const MessageDuties applicationDuties = makeDuties();
