// GUIControllerDoor, the listener for remote controllers.
#pragma once

#include "transport/DoorTask.h"

class TcpipUI;

// Thread: see DoorTask.    Borrows: the TcpipUI, which owns it.
class GUIControllerDoor : public DoorTask {
  public:
    GUIControllerDoor(SocketPool& socketPool, u16 listenPort, TcpipUI& ui)
        : DoorTask(socketPool, listenPort), ui_(ui) {}
    // Whoever doesn't log on can't hold more than so many of the process's descriptors.
    bool canAccept() override;
    Ref<Connection> newConnection(std::unique_ptr<i4_socket> accepted) override;

  private:
    TcpipUI& ui_;
};
