// Clients at their consoles with real index servers, and a second client that the test speaks for.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/Network.h"
#include "tests/support/RawClient.h"

namespace {

TEST(ServerStory, SearchesSeesTheServerAndLeavesIt) {
    IndexServerProcess index;
    RawClient sharer(index.portNumber());
    ASSERT_GT(sharer.logOn(), 0u);
    sharer.say(opcode(21, le32(3) + sharedFile('a', "a red film.avi", "Video") +
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

TEST(ServerStory, FallsBackToTheNextServerAndComesBackByItself) {
    auto first = std::make_unique<IndexServerProcess>();
    IndexServerProcess second;
    Client client("nomad", *first);
    client.start();
    EXPECT_TRUE(client.type("n 127.0.0.1 " + second.port(), "added"));
    EXPECT_TRUE(client.type("c 1", "Connected to: "));
    ASSERT_TRUE(first->said("(nomad)"));
    first.reset();
    ASSERT_TRUE(client.console().waitFor("Disconnected\n"));
    // The one that is dead now may be tried first: then the next one is.
    EXPECT_TRUE(client.type("auto", "Connected to: ")) << client.console().output();
    EXPECT_TRUE(second.said("(nomad)"));
    client.quit();
}

TEST(ServerStory, AnExtendedSearchReachesTheOtherServer) {
    IndexServerProcess here;
    IndexServerProcess there;
    RawClient sharer(there.portNumber());
    ASSERT_GT(sharer.logOn(), 0u);
    sharer.say(opcode(21, le32(1) + sharedFile('a', "far away film", "Video")));
    ASSERT_TRUE(there.said("has published"));
    Client client("seeker", here);
    client.start();
    EXPECT_TRUE(client.type("xs", "No search to extend."));
    EXPECT_TRUE(client.type("n 127.0.0.1 " + there.port(), "added"));
    EXPECT_TRUE(client.type("c 1", "Connected to: "));
    EXPECT_TRUE(client.type("s far", "Results returned\n"));
    EXPECT_TRUE(client.type("vr", "None."));
    EXPECT_TRUE(client.type("xs", "Extending to: "));
    EXPECT_TRUE(
        eventually([&] { return client.view("vr", "> ").find("far away film") != std::string::npos; }));
    EXPECT_TRUE(client.type("xs", "No more servers to extend to."));
    // The download asks the other server by datagram, hears of the source, and calls it.
    EXPECT_TRUE(client.type("d 1", "Downloading: "));
    EXPECT_TRUE(sharer.isCalled()) << client.console().output();
    client.quit();
}

}  // namespace
