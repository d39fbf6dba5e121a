// UploadPacket, a piece of a file on its way to a Peer. It ties the sending of its bytes back to its Upload.
#pragma once

#include "peer/Upload.h"
#include "transport/Packet.h"

// The body of FileData:
//
//   offset  bytes        field
//   0       1            opcode 70
//   1       16           the file's hash
//   17      4            start, u32
//   21      4            end, u32
//   25      end - start  the file's bytes from start up to but not including end
class UploadPacket : public Packet {
  public:
    UploadPacket(u32 length, Upload& upload) : Packet(length), upload_(&upload) {}

    Result send(i4_socket& socket, const Budgets& budgets, u32& out_bytes) override {
        const Result result = Packet::send(socket, budgets, out_bytes);
        upload_->bytesSent.add(out_bytes);
        return result;
    }
    void sent() override { upload_->sendNext(); }

  private:
    const Ref<Upload> upload_;
};
