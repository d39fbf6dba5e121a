// The order in which locks are taken, as one table. A thread may take a lock only if its rank is above the
// rank of the last one that it holds; a debug build aborts otherwise. `none` opts out: a leaf that is never
// held across a call into another class, and the tests' own locks.
#pragma once

enum class LockRank : int {
    none = 0,
    connection = 10,       // Connection::lock_, held for a whole turn
    uploadPool = 20,       // UploadPool::lock_
    downloads = 30,        // the list of DLPool
    download = 40,         // Download::lock_
    call = 45,             // Call::lock_
    serverPool = 50,       // ServerPool::lock_
    protocol = 52,         // i4_protocol::lock_
    knownFiles = 58,       // the list of files that were ever hashed
    sharedFiles = 59,      // the list of files that are shared; a record in both changes under both
    metaList = 60,         // FileList, ServerList, UserList, the FriendList
    remoteQueue = 61,      // RemoteQueueList
    uiList = 62,           // ConClientApp's lists of downloads and uploads
    peers = 64,            // the list of live Peer connections
    preferences = 70,      // Preferences::selfLock, pathLock
    filter = 71,           // FilterList
    partialRead = 72,      // PartialFile::fileLock
    dataFile = 73,         // DataFile, what waits to be written
    gapList = 74,          // GapList
    progress = 76,         // GapCounterList, DLProgress
    connectRegistry = 78,  // ConnectRegistry::lock
    socketPool = 80,       // SocketPool's additions, removals and tasks
    controller = 82,       // TcpipUI's controller: text may be printed under any lock above this row
    sendQueue = 84,        // Connection::sendQueue
    messageQueue = 86,     // MessageQ's queue
    socket = 88,           // i4_tcpip_sock::lock_
    leaf = 100,            // held for a field access alone
};
