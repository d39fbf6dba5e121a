// The one object through which the engine speaks: theLog for text, theUI for events.
#pragma once

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstddef>

#include "i4min/memory/LLsafe.h"
#include "i4min/memory/types.h"

class Call;
class Download;
class FileList;
class FileMeta;
class Upload;
class UploadSlot;
class UserList;

#define PRINTF_LIKE __attribute__((format(printf, 2, 3)))

// Prints text. Thread: any, at the same time. printLine adds a newline to whatever the text holds, so that a
// text that ends in a newline leaves an empty line behind it. Control characters but newline and tab are
// printed as '?'.
class UIInterface {
  public:
    virtual ~UIInterface() = default;
    virtual void printLine(const char* format, ...) PRINTF_LIKE;
    virtual void print(const char* format, ...) PRINTF_LIKE;  // without newline
    virtual void printVerbose(const char* format,
                              ...) PRINTF_LIKE;  // without newline, only while `verbose` is set
    // Without newline. Nothing is held back, so this is what print() does.
    virtual void printFlush(const char* format, ...) PRINTF_LIKE;

    // For a text that strangers can cause at any rate: false where enough of its kind were printed in this
    // minute. So a log stays small over months, and nobody's texts take the place of another's.
    enum class Complaint {
        brokenTag,
        peerOutOfDate,
        serverOutOfDate,
        serverMessage,
        datagram,
        upload,
        kinds
    };
    bool mayComplain(Complaint kind);

    std::atomic<u8> verbose{0};

  private:
    struct Budget {
        std::atomic<u32> minute{0};
        std::atomic<u32> spent{0};  // in that minute
    };
    std::array<Budget, static_cast<std::size_t>(Complaint::kinds)> budgets_;
};

// Takes the events of the engine; by default each is ignored. Thread: any, at the same time. A counted object
// that an implementation keeps gets a reference of its own.
class CoreUIInterface : public UIInterface {
  public:
    virtual void connected(const char* name);
    virtual void disconnected();
    virtual void serverStats(u32 files, u32 users);
    virtual void extending(const char* name);
    // With these three, the record, or the list and its records, become the interface's own: by default it
    // destroys them.
    virtual void addResult(FileMeta* file);
    virtual void setResults(FileList* list, u8 more);
    virtual void gotUserList(UserList* list);
    virtual void downloadAdded(Download* download);
    virtual void downloadRemoved(Download* download);
    virtual void uploadAdded(Upload* upload);
    virtual void uploadRemoved(Upload* upload);
    virtual void slotAdded(UploadSlot* slot, const char* name);
    virtual void slotRemoved(UploadSlot* slot);
    virtual void hashing(const char* name);
    virtual void friendsChanged();
    virtual void friendFiles();
    virtual void reserved22();
    virtual void reserved23();
    virtual void reserved24();
    virtual void callMessage(Call* call, const char* text);
    virtual void callOpened(Call* call);
    virtual LLsafe<Upload>* getUploads();      // null where the interface keeps no list
    virtual LLsafe<Download>* getDownloads();  // null where the interface keeps no list
    virtual void loaded();
};

// An atomic pointer that reads like a plain one. Written only by the entry thread during start; an object
// that was replaced is never freed while the program runs.
template <class T>
class SharedPointer {
  public:
    constexpr explicit SharedPointer(T* target) : target_(target) {}
    T* operator->() const { return get(); }
    T* get() const { return target_.load(std::memory_order_acquire); }
    SharedPointer& operator=(T* target) {
        target_.store(target, std::memory_order_release);
        return *this;
    }

  private:
    std::atomic<T*> target_;
};

// Both point at the same object, and never at nothing: a plain CoreUIInterface stands there until the entry
// installs its own.
extern SharedPointer<UIInterface> theLog;
extern SharedPointer<CoreUIInterface> theUI;
