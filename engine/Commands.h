// Commands: the interface through which a controller uses the console.
#pragma once

// Runs console commands for a remote controller. ConClientApp implements it.
// Thread: any, concurrently.
class Commands {
  public:
    virtual void dispatch(const char* line) = 0;  // runs one command line
    virtual void quit() = 0;                      // ends the client

  protected:
    ~Commands() = default;
};
