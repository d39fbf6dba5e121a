// Clients at their consoles with real index servers, and a second client that the test plays.
#include <gtest/gtest.h>

#include <string>

#include "protocol/ServerProtocol.h"
#include "tests/support/Network.h"
#include "tests/support/RawClient.h"

namespace {

TEST(ServerStory, SearchesSeesTheServerAndLeavesIt) {
    IndexServerProcess index;
    RawClient sharer(index.portNumber());
    ASSERT_GT(sharer.logOn(), 0u);
    sharer.say(opcode(OP_PUBLISH_FILES, le32(3) + sharedFile('a', "a red film.avi", "Video") +
                                            sharedFile('b', "a red song.mp3", "Audio") +
                                            sharedFile('c', "something else", "Doc")));
    ASSERT_TRUE(index.said("has published"));

    Client client("seeker", index);
    client.start();
    EXPECT_TRUE(client.type("g", "Not connected to a server."));
    EXPECT_TRUE(client.type("c", "Connected to: "));
    EXPECT_TRUE(eventually(
        [&] { return client.view("g", "> ").find("   Users: 2    Files: 3") != std::string::npos; }));
    EXPECT_NE(client.view("g", "> ").find("Connected to: 127.0.0.1\n"), std::string::npos);

    EXPECT_TRUE(client.type("s red", "Results returned\n"));
    const std::string both = client.view("vr", "a red song.mp3");
    EXPECT_NE(both.find("a red film.avi"), std::string::npos);
    EXPECT_EQ(both.find("something"), std::string::npos);
    EXPECT_TRUE(client.type("s red -Audio", "Results returned\n"));
    const std::string one = client.view("vr", "a red song.mp3");
    EXPECT_EQ(one.find("a red film.avi"), std::string::npos);

    EXPECT_TRUE(client.type("x", "Disconnected\n"));
    EXPECT_TRUE(client.type("g", "Not connected to a server."));
    client.quit();
}

}  // namespace
