// UploadPacket: a queued piece of a file for a Peer.
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
//   25      end - start  the file's bytes from start to before end
//
// Reports its progress to its Upload, which then builds the next packet.
// Thread and ownership: as Packet. Borrows: the Upload, counted.
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
