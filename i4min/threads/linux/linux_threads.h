// Plain threads, thread-local words, start-up objects and the process's entry.
#pragma once

#include <pthread.h>

#include <functional>
#include <thread>

#include "i4min/memory/LL.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"

// Starts a thread that its owner joins or detaches. What `run` lets through ends the process with status 0:
// an i4_err prints "Thread error : %s\n", anything else "Thread unkown error\n". False, with a warning, where
// the host has no thread to give.
[[nodiscard]] bool i4_start_thread(std::thread& thread, std::function<void()> run);
// The same for a thread that nobody waits for. The stack size is not used. Returns 0.
u32 i4_add_thread(std::function<void()> run, u32 stack_size);
// Yields until none of these threads runs.
void i4_wait_for_threads();
void i4_thread_yield();
pthread_t i4_get_thread_id();
pthread_t i4_get_main_thread();  // as stored by i4_main

// Not offered by this host: each raises "implemenet_me".
void i4_suspend_thread(u32 id);
void i4_resume_thread(u32 id);
void i4_kill_thread(u32 id);

u32 i4_tls_create();
void i4_tls_set(u32 key, void* value);
void* i4_tls_get(u32 key);
void i4_tls_delete(u32 key);

// A start-up object: its constructor enters it into the process's list, at the head. Normally a static
// object.
// Thread: the main thread.
class i4_init_class {
  public:
    i4_init_class();
    i4_init_class(const i4_init_class&) = delete;
    i4_init_class& operator=(const i4_init_class&) = delete;
    virtual u32 init_type() { return 9; }  // the phase, 0 to 9
    virtual void init() {}
    virtual void uninit() {}
    virtual ~i4_init_class();

  private:
    friend void i4_init();
    friend void i4_uninit();
    i4_init_class* next_;
};

// A start-up object that is also told when the main thread begins and ends. Thread: the main thread.
class i4_thread_init_class : public i4_init_class {
  public:
    i4_thread_init_class();
    u32 init_type() override { return 1; }
    ~i4_thread_init_class() override;
    virtual void thread_init() {}
    virtual void thread_uninit() {}

  private:
    friend void i4_init();
    friend void i4_uninit();
    i4_thread_init_class* next_thread_;
};

// Phases 0 to 9 of init, then thread_init of each; and thread_uninit of each, then phases 9 to 0 of uninit.
// Once, on the main thread.
void i4_init();
void i4_uninit();
bool i4_is_initialized();

// The process's arguments, its name first.
extern OwnLL<i4_string> i4_argv;

// The process's entry: takes the arguments into i4_argv and runs the application. An i4_err that leaves it
// prints "Unrecoverable error at %s:%d : %s" or "Unrecoverable error". Returns 1, always.
int i4_main(int argc, char** argv, void (*application)(int argc, char** argv));
