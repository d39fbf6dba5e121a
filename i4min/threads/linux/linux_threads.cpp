#include "i4min/threads/linux/linux_threads.h"

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "i4min/file/output.h"
#include "i4min/memory/error.h"

namespace {

std::atomic<u32> threadCount{0};
pthread_t mainThread{};
bool initialized = false;
i4_init_class* initList = nullptr;
i4_thread_init_class* threadInitList = nullptr;

// Takes an object out of the list that runs from `head` through the objects' member `next`.
template <class Object>
void unlink(Object*& head, Object* Object::*next, Object* object) {
    for (Object** link = &head; *link; link = &((*link)->*next)) {
        if (*link != object) continue;
        *link = object->*next;
        return;
    }
}

[[noreturn]] void endProcess() {
    i4_standard_output().drain();
    std::fflush(nullptr);
    ::_exit(0);
}

void runToTheEnd(const std::function<void()>& run) {
    try {
        run();
    } catch (const i4_err& error) {
        i4_debug_printf("Thread error : %s\n", error.message());
        endProcess();
    } catch (...) {
        i4_debug_printf("Thread unkown error\n");
        endProcess();
    }
    threadCount.fetch_sub(1, std::memory_order_release);
}

}  // namespace

// Static start-up objects of other files enter themselves before this file's own statics are built, so the
// list heads above are constant-initialized.
OwnLL<i4_string> i4_argv;

bool i4_start_thread(std::thread& thread, std::function<void()> run) {
    threadCount.fetch_add(1, std::memory_order_acquire);
    try {
        thread = std::thread(runToTheEnd, std::move(run));
        return true;
    } catch (const std::system_error& error) {
        threadCount.fetch_sub(1, std::memory_order_release);
        i4_warning()("a thread couldn't be started: %s", std::strerror(error.code().value()));
        return false;
    }
}

u32 i4_add_thread(std::function<void()> run, u32) {
    std::thread thread;
    if (i4_start_thread(thread, std::move(run))) thread.detach();
    return 0;
}

void i4_wait_for_threads() {
    while (threadCount.load(std::memory_order_acquire) != 0) i4_thread_yield();
}

void i4_thread_yield() { ::sched_yield(); }
pthread_t i4_get_thread_id() { return ::pthread_self(); }
pthread_t i4_get_main_thread() { return mainThread; }

void i4_suspend_thread(u32) { i4_error()("implemenet_me"); }
void i4_resume_thread(u32) { i4_error()("implemenet_me"); }
void i4_kill_thread(u32) { i4_error()("implemenet_me"); }

u32 i4_tls_create() {
    pthread_key_t key = 0;
    ::pthread_key_create(&key, nullptr);
    return key;
}

void i4_tls_set(u32 key, void* value) { ::pthread_setspecific(key, value); }
void* i4_tls_get(u32 key) { return ::pthread_getspecific(key); }
void i4_tls_delete(u32 key) { ::pthread_key_delete(key); }

i4_init_class::i4_init_class() : next_(initList) { initList = this; }

i4_init_class::~i4_init_class() { unlink(initList, &i4_init_class::next_, this); }

i4_thread_init_class::i4_thread_init_class() : next_thread_(threadInitList) { threadInitList = this; }

i4_thread_init_class::~i4_thread_init_class() {
    unlink(threadInitList, &i4_thread_init_class::next_thread_, this);
}

void i4_init() {
    for (u32 phase = 0; phase <= 9; ++phase) {
        for (i4_init_class* object = initList; object; object = object->next_) {
            if (object->init_type() == phase) object->init();
        }
        initialized = true;
    }
    for (i4_thread_init_class* object = threadInitList; object; object = object->next_thread_) {
        object->thread_init();
    }
}

void i4_uninit() {
    for (i4_thread_init_class* object = threadInitList; object; object = object->next_thread_) {
        object->thread_uninit();
    }
    for (u32 phase = 10; phase-- > 0;) {
        for (i4_init_class* object = initList; object; object = object->next_) {
            if (object->init_type() == phase) object->uninit();
        }
    }
    initialized = false;
}

bool i4_is_initialized() { return initialized; }

int i4_main(int argc, char** argv, void (*application)(int argc, char** argv)) {
    mainThread = i4_get_thread_id();
    for (int i = 0; i < argc; ++i) i4_argv.own(std::make_unique<i4_string>(argv[i]));
    try {
        application(argc, argv);
    } catch (const i4_err& error) {
        const char* file = nullptr;
        int line = 0;
        i4_get_file_line(file, line);
        std::string text = "Unrecoverable error";
        if (file) text += std::string(" at ") + file + ":" + std::to_string(line) + " : " + error.message();
        i4_standard_output().write(STDOUT_FILENO, text);
    }
    i4_standard_output().finish();
    deleteAll(i4_argv);
    return 1;
}
