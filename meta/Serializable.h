// Serializable, what writes itself onto any stream, and the way a list of such things is written.
#pragma once

#include "i4min/file/file.h"
#include "i4min/memory/LLsafe.h"
#include "i4min/memory/error.h"
#include "i4min/memory/types.h"

// Which of its two byte forms an element writes.
enum class StreamForm { disk, network };

// A record or a list of records that can be written to a stream and read back. Thread: as the subclass tells.
// Errors: false; a short stream is a failure.
class Serializable {
  public:
    [[nodiscard]] virtual bool toNetwork(i4_file& file) const = 0;
    [[nodiscard]] virtual bool fromNetwork(i4_file& file) = 0;
    // Not const: a record may bring its tags up to date first.
    [[nodiscard]] virtual bool toDisk(i4_file& file) = 0;
    [[nodiscard]] virtual bool fromDisk(i4_file& file) = 0;
    virtual u32 byteSize() const = 0;  // of the form that toNetwork writes
    virtual ~Serializable() = default;

    // Writes a u32 count and the elements, under the list's lock. Each element that fails is told in one
    // line, and gives false; those behind it are written too. A raise of the stream gives false.
    template <class T>
    static bool saveList(LLsafe<T>& list, i4_file& file, StreamForm form);

  protected:
    Serializable() = default;
    Serializable(const Serializable&) = default;
    Serializable& operator=(const Serializable&) = default;

    template <class T>
    static bool saveElement(T& element, i4_file& file, StreamForm form) {
        if (form == StreamForm::disk ? element.toDisk(file) : element.toNetwork(file)) return true;
        file.tell(i4_log::Tone::plain, "ERROR: Serializable::saveList()\n");
        return false;
    }
};

template <class T>
bool Serializable::saveList(LLsafe<T>& list, i4_file& file, StreamForm form) {
    const i4_guard guard(list);
    const u32 count = list.countUnsafe();
    return i4_attempt([&] {
        bool whole = file.write_32(count) == 4;
        for (typename LL<T>::Cursor c; T* element = list.next(c);) {
            if (!saveElement(*element, file, form)) whole = false;
        }
        return whole;
    });
}
