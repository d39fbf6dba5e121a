// Commands, the console as a controller reaches it.
#pragma once

// Thread: any, also at the same time.
class Commands {
  public:
    virtual void dispatch(const char* line) = 0;  // runs one command line
    virtual void quit() = 0;                      // ends the client

  protected:
    ~Commands() = default;
};
