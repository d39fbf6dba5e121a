// i4_log, through which the lower floors report what they find.
#pragma once

// Receives texts for the user. Thread: any, at the same time.
class i4_log {
  public:
    enum class Tone {
        plain,    // for every user
        verbose,  // for one who looks for a fault
        damage,   // what strangers can cause at any rate: only so much of it is shown
    };
    virtual void tell(Tone tone, const char* text) = 0;

  protected:
    ~i4_log() = default;
};
