// ClientApp, the owner of the engine: brings it up, and takes it down again in a fixed order.
#pragma once

// Thread: init() and shutdown() on the entry thread, once each; load() and saveAll() on the MessageQ thread,
// and saveAll() once more within shutdown().
class ClientApp {
  public:
    virtual ~ClientApp() = default;

    void init();
    void load();
    void saveAll();
    void shutdown();
};

extern ClientApp clientApp;
