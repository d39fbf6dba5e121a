#include "console/commands.h"

#include "console/Servant.h"

namespace {

void quit(Servant& servant, char*) {
    if (servant.confirm("Are you sure you want to exit")) servant.running = 0;
}

struct Row {
    const char* name;
    ServantCommand::Handler handler;
};

constexpr Row table[] = {
    {"q", quit},
};

}  // namespace

void addCommands(Servant& servant) {
    for (const Row& row : table) servant.addCommand(row.name, row.handler);
}
