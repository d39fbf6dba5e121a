// The client with a user interface that offers friends, calls and collections: the console, and a command for
// each of the engine's services that the console alone doesn't reach. Stories drive it.
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "app/entry.h"
#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "console/commands.h"
#include "core/MessageQ.h"
#include "core/Preferences.h"
#include "download/Collection.h"
#include "engine/ClientApp.h"
#include "engine/Engine.h"
#include "i4min/threads/linux/linux_threads.h"
#include "meta/address.h"
#include "peer/Call.h"
#include "peer/CallList.h"
#include "peer/FriendList.h"

namespace {

std::atomic<Call*> shownCall{nullptr};

const char* nameOf(const UserMeta& user) { return user.getName() ? user.getName() : "nobody"; }

class Interface : public CLUI {
  public:
    explicit Interface(ConClientApp& console) : CLUI(console), friends_(console.engine().friendList) {}

    void friendsChanged() override {
        const i4_guard guard(friends_);
        for (FriendList::Cursor c; const UserMeta* user = friends_.next(c);) {
            printLine("Friend: %s, %u", nameOf(*user), user->friendState);
        }
    }
    void friendFiles() override {
        const i4_guard guard(friends_.getFiles());
        for (FileList::Cursor c; const FileMeta* file = friends_.getFiles().next(c);) {
            printLine("File of a friend: %s, %u", file->getName(), file->getSize());
        }
    }
    void callMessage(Call* call, const char* text) override {
        shownCall = call;
        UserMeta user;
        call->copyUser(user);
        printLine("%s says: %s", nameOf(user), text);
    }
    void callOpened(Call* call) override {
        shownCall = call;
        printLine("Call: %u", call->state());
    }

  private:
    FriendList& friends_;
};

Engine& engineOf(Servant& servant) { return static_cast<ConClientApp&>(servant).engine(); }

// A message about the first friend.
void postFriend(Servant& servant, u32 number) {
    Engine& engine = engineOf(servant);
    auto user = std::make_shared<UserMeta>();
    const i4_guard guard(engine.friendList);
    FriendList::Cursor c;
    if (const UserMeta* first = engine.friendList.next(c)) user->copyFrom(first);
    engine.messageQ.post(number, std::move(user));
}

void takeOver(Servant& servant, char*) {
    static Interface interface(static_cast<ConClientApp&>(servant));
    engineOf(servant).ui.replace(interface);
}

void addFriend(Servant& servant, char* line) {
    Tokens tokens(line);
    tokens.next();
    const u32 ip = stringToIp(tokens.next());
    engineOf(servant).friendList.add(ip, static_cast<u16>(numberIn(tokens.next())));
}

void askFiles(Servant& servant, char*) { postFriend(servant, MESSAGE_ASK_FRIEND_FILES); }
void openCall(Servant& servant, char*) { postFriend(servant, MESSAGE_OPEN_CALL); }

void allowCalls(Servant& servant, char* line) {
    engineOf(servant).preferences.pmAllow = numberArgument(line).value_or(0);
    servant.log().printLine("Allowed: %d", engineOf(servant).preferences.pmAllow.get());
}

void say(Servant& servant, char* line) {
    Call* call = shownCall;
    servant.log().printLine("%s", call && call->send(restOfLine(line)) ? "Said." : "Lost.");
}

// A record that names the file has to be in the file: it's the one of the time before, and from the third on
// its size is right.
void collect(Servant& servant, char* line) {
    Collection collection(engineOf(servant).core);
    collection.self.setName(restOfLine(line));
    {
        const i4_guard guard(engineOf(servant).clientApp.shared);
        for (FileList::Cursor c; const FileMeta* file = engineOf(servant).clientApp.shared.next(c);) {
            auto member = std::make_unique<FileMeta>();
            member->copyFrom(file);
            collection.add(member.release());
        }
    }
    for (int i = 0; i < 3; ++i) collection.store();
    engineOf(servant).messageQ.post(MESSAGE_HASH_SHARED);
    servant.log().printLine("Stored: %s", collection.self.path.c_str());
}

Collection& openedOne(Servant& servant) {
    static Collection opened(engineOf(servant).core);
    return opened;
}

void openCollection(Servant& servant, char* line) {
    Collection& opened = openedOne(servant);
    const LoadResult result = opened.load(engineOf(servant).host.disk, restOfLine(line));
    static_cast<ConClientApp&>(servant).selectedCollection = &opened;
    servant.log().printLine("Members: %u", result == LoadResult::whole ? opened.count() : 0);
}

void fetchAll(Servant& servant, char*) { openedOne(servant).fetchAll(); }

void addCommands(ConClientApp& console) {
    const struct {
        const char* name;
        ServantCommand::Handler handler;
    } commands[] = {{"interface", takeOver}, {"friend", addFriend},    {"files", askFiles},
                    {"call", openCall},      {"calls", allowCalls},    {"say", say},
                    {"collect", collect},    {"open", openCollection}, {"fetchall", fetchAll}};
    for (const auto& command : commands) console.addCommand(command.name, command.handler);
}

void runInterface(int, char**) { runConsole(addCommands); }

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> arguments(argv, argv + argc);
    std::string first = "interface";
    arguments.insert(arguments.begin() + 1, first.data());
    arguments.push_back(nullptr);
    return i4_main(argc + 1, arguments.data(), runInterface);
}
