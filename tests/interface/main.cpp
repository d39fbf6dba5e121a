// The client with a user interface that offers friends, calls and collections: the console, and a command for
// each of the engine's services that the console alone doesn't reach. Stories drive it.
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "app/entry.h"
#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "console/commands.h"
#include "download/Collection.h"
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
    void friendsChanged() override {
        const i4_guard guard(friendList);
        for (FriendList::Cursor c; const UserMeta* user = friendList.next(c);) {
            printLine("Friend: %s, %u", nameOf(*user), user->friendState);
        }
    }
    void friendFiles() override {
        const i4_guard guard(friendList.getFiles());
        for (FileList::Cursor c; const FileMeta* file = friendList.getFiles().next(c);) {
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
    CoreUIInterface* const replaced_ = theUI.get();  // stays: somebody may be printing there
};

// A message about the first friend.
void postFriend(u32 number) {
    auto user = std::make_shared<UserMeta>();
    const i4_guard guard(friendList);
    FriendList::Cursor c;
    if (const UserMeta* first = friendList.next(c)) user->copyFrom(first);
    messageQ.post(number, std::move(user));
}

void takeOver(Servant&, char*) {
    auto* interface = new Interface;
    theUI = interface;
    theLog = interface;
}

void addFriend(Servant&, char* line) {
    Tokens tokens(line);
    tokens.next();
    const u32 ip = stringToIp(tokens.next());
    friendList.add(ip, static_cast<u16>(numberIn(tokens.next())));
}

void askFiles(Servant&, char*) { postFriend(MESSAGE_ASK_FRIEND_FILES); }
void openCall(Servant&, char*) { postFriend(MESSAGE_OPEN_CALL); }

void allowCalls(Servant&, char* line) {
    preferences.pmAllow = numberArgument(line).value_or(0);
    theLog->printLine("Allowed: %d", preferences.pmAllow.get());
}

void say(Servant&, char* line) {
    Call* call = shownCall;
    theLog->printLine("%s", call && call->send(restOfLine(line)) ? "Said." : "Lost.");
}

// A record that names the file has to be in the file: it's the one of the time before, and from the third on
// its size is right.
void collect(Servant&, char* line) {
    Collection collection;
    collection.self.setName(restOfLine(line));
    {
        const i4_guard guard(clientApp.shared);
        for (FileList::Cursor c; const FileMeta* file = clientApp.shared.next(c);) {
            auto member = std::make_unique<FileMeta>();
            member->copyFrom(file);
            collection.add(member.release());
        }
    }
    for (int i = 0; i < 3; ++i) collection.store();
    messageQ.post(MESSAGE_HASH_SHARED);
    theLog->printLine("Stored: %s", collection.self.path.c_str());
}

Collection opened;

void openCollection(Servant&, char* line) {
    const LoadResult result = opened.load(restOfLine(line));
    conClientApp.selectedCollection = &opened;
    theLog->printLine("Members: %u", result == LoadResult::whole ? opened.count() : 0);
}

void fetchAll(Servant&, char*) { opened.fetchAll(); }

}  // namespace

int main(int argc, char** argv) {
    const struct {
        const char* name;
        ServantCommand::Handler handler;
    } commands[] = {{"interface", takeOver}, {"friend", addFriend},    {"files", askFiles},
                    {"call", openCall},      {"calls", allowCalls},    {"say", say},
                    {"collect", collect},    {"open", openCollection}, {"fetchall", fetchAll}};
    for (const auto& command : commands) conClientApp.addCommand(command.name, command.handler);
    std::vector<char*> arguments(argv, argv + argc);
    std::string first = "interface";
    arguments.insert(arguments.begin() + 1, first.data());
    arguments.push_back(nullptr);
    return i4_main(argc + 1, arguments.data(), runApplication);
}
