// References to the parts of an engine, for fixtures.
#pragma once

#include "engine/Engine.h"

// Gives a fixture short names for the parts of its engine. Borrows: the engine.
struct EngineParts {
    explicit EngineParts(Engine& engine)
        : preferences(engine.preferences),
          messageQ(engine.messageQ),
          peers(engine.peers),
          remoteQueueList(engine.remoteQueueList),
          friendList(engine.friendList),
          callList(engine.callList),
          uploadPool(engine.uploadPool),
          serverPool(engine.serverPool),
          dlPool(engine.dlPool),
          hashThread(engine.hashThread),
          clientApp(engine.clientApp) {}

    Preferences& preferences;
    MessageQ& messageQ;
    LLsafe<Peer>& peers;
    RemoteQueueList& remoteQueueList;
    FriendList& friendList;
    CallList& callList;
    UploadPool& uploadPool;
    ServerPool& serverPool;
    DLPool& dlPool;
    HashThread& hashThread;
    ClientApp& clientApp;
};
