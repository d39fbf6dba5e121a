// GUIControllerDoor: the listener for remote controllers.
#pragma once

#include "transport/DoorTask.h"

class TcpipUI;

// Makes a GUIController of each accepted connection.
// Thread: as DoorTask. Borrows: the TcpipUI, which owns it.
class GUIControllerDoor : public DoorTask {
  public:
    GUIControllerDoor(SocketPool& socketPool, u16 listenPort, TcpipUI& ui)
        : DoorTask(socketPool, listenPort), ui_(ui) {}
    // False while too many connections haven't logged on: they must not use up the process's descriptors.
    bool canAccept() override;
    Ref<Connection> newConnection(std::unique_ptr<i4_socket> accepted) override;

  private:
    TcpipUI& ui_;
};
