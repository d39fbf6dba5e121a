// The clock that measures: points in time that no change of the wall clock disturbs.
#pragma once

#include "i4min/memory/types.h"

// A point on the monotonic clock, in seconds and microseconds. A plain value.
class i4_time {
  public:
    i4_time() { get(); }                   // now
    void get();                            // takes the present time
    void add(i32 ms);                      // moves the point, both ways
    void set(i32 ms);                      // the point that many milliseconds after the clock's zero
    i32 diff(const i4_time& other) const;  // milliseconds from `other` to this; wraps after 24 days

    bool operator<(const i4_time& other) const;
    bool operator<=(const i4_time& other) const { return !(other < *this); }
    bool operator>(const i4_time& other) const { return other < *this; }
    bool operator>=(const i4_time& other) const { return !(*this < other); }

    i32 seconds;
    i32 microseconds;
};

// Milliseconds since the process started, at least 1; wraps after 49 days.
u32 i4_ticks();

i64 i4_get_clock();           // the system library's clock()
i64 i4_get_clocks_per_sec();  // measured once, by spinning for one second
void i4_sleep(u32 seconds);
void i4_msleep(u32 ms);
