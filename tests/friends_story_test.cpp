// Friends who talk and look at each other's files, and a collection that is shared and fetched. Both sides
// have a user interface that offers that, tests/interface/main.cpp.
#include <gtest/gtest.h>

#include "tests/support/Network.h"

namespace {

class FriendsStory : public testing::Test {
  protected:
    FriendsStory() : ada_("ada", index_, {}, "story_interface"), bob_("bob", index_, {}, "story_interface") {}

    TemporaryDirectory folder_;
    IndexServerProcess index_;
    Client ada_;
    Client bob_;
};

TEST_F(FriendsStory, TheyTalkAndOneLooksAtTheOthersFiles) {
    writeFile(folder_.file("wren.txt"), someBytes(1234));
    ada_.start();
    bob_.start();
    bob_.logOn();
    bob_.share(folder_.path(), index_);
    ASSERT_TRUE(ada_.type("friend 127.0.0.1 " + bob_.doorPort(), "Friend: nobody, 0\n"));
    ASSERT_TRUE(ada_.type("files", "Asking bob for file list.\n"));
    ASSERT_TRUE(ada_.console().waitFor("File of a friend: wren.txt, 1234\n"));

    ASSERT_TRUE(ada_.type("call", "Call: 0\n"));
    ASSERT_TRUE(ada_.type("say Good morning, Bob", "Said.\n"));
    ASSERT_TRUE(bob_.console().waitFor("ada says: Good morning, Bob\n")) << bob_.console().output();
    ASSERT_TRUE(bob_.type("say Good morning", "Said.\n"));
    ASSERT_TRUE(ada_.console().waitFor("bob says: Good morning\n")) << ada_.console().output();
    bob_.quit();
    ASSERT_TRUE(ada_.console().waitFor("Friend: bob, 0\n")) << ada_.console().output();
    ASSERT_TRUE(ada_.console().waitFor("bob says: Disconnected.\nCall: 3\n")) << ada_.console().output();
    ASSERT_TRUE(ada_.type("say Still there?", "Lost.\n"));
    // The friend is known to the next run, the call isn't; who comes back may not want to talk.
    ada_.quit();
    bob_.start();
    ASSERT_TRUE(bob_.type("calls 1", "Allowed: 1\n"));
    ada_.start();
    ASSERT_TRUE(ada_.type("files", "Asking bob for file list.\n"));
    ASSERT_TRUE(ada_.type("call", "Call: 0\n"));
    ada_.console().type("say Good evening");  // the refusal may overtake the confirmation
    for (const char* line : {"Said.\n", "bob says: Is not accepting calls.\n", "Call: 3\n"}) {
        EXPECT_TRUE(eventually([&] { return ada_.console().output().find(line) != std::string::npos; }))
            << line << ada_.console().output();
    }
    EXPECT_EQ(bob_.console().output().find("Good evening"), std::string::npos);
}

// Its record lies within the file and can't hold the file's own hash: the copy is byte for byte the same, and
// set aside as every download whose hash is another. Opened from there, it brings its members.
TEST_F(FriendsStory, ACollectionIsFoundByItsTypeAndBringsItsMembers) {
    const std::vector<std::pair<std::string, std::size_t>> members{
        {"dipper.bin", 1'000'000}, {"kingfisher.bin", 100'000}, {"wagtail.bin", 0}};
    for (const auto& [name, size] : members) writeFile(folder_.file(name), someBytes(size));
    ada_.start();
    ada_.logOn();
    ada_.share(folder_.path(), index_);
    ASSERT_TRUE(ada_.type("collect river birds", "Stored: "));
    bob_.start();
    bob_.logOn();
    bob_.findAndDownload("river -Col");
    ASSERT_TRUE(bob_.console().waitFor("Corrupted Download: river birds\n")) << bob_.console().output();
    const std::string bytes = contentOf(ada_.file("incoming/river birds"));
    ASSERT_TRUE(hasBytes(bob_.file("temp/river birds"), bytes));
    ASSERT_TRUE(bob_.type("open temp/river birds", "Members: 3\n")) << bob_.console().output();
    ASSERT_TRUE(bob_.type("p 4", "Invalid Part number.\n"));
    ASSERT_TRUE(bob_.type("p 1", "Downloading: "));
    ASSERT_TRUE(bob_.type("fetchall", "> "));
    for (const auto& [name, size] : members) {
        EXPECT_TRUE(bob_.hasFinished(name, someBytes(size))) << name << bob_.console().output();
    }
}

}  // namespace
