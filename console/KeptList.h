// KeptList: a list of counted objects without duplicates.
#pragma once

#include <unordered_map>

#include "i4min/memory/LLsafe.h"
#include "i4min/threads/linux/RefCounter.h"

// Holds a reference to each entry. It changes through keep() and drop() alone, and is read as an LLsafe.
// Thread: as LLsafe.
template <class T>
class KeptList : public LLsafe<T> {
    using Held = std::unordered_map<const T*, Ref<T>>;

  public:
    using LLsafe<T>::LLsafe;

    void keep(T* object) {  // does nothing if it is in the list
        const i4_guard guard(*this);
        if (held_.try_emplace(object, object).second) this->addUnsafe(object);
    }
    void drop(T* object) {                 // nothing where it isn't there
        typename Held::node_type dropped;  // released without the lock
        const i4_guard guard(*this);
        dropped = held_.extract(object);
        if (dropped) this->removeUnsafe(object);
    }
    void dropAll() {
        Held dropped;
        const i4_guard guard(*this);
        dropped.swap(held_);
        this->clearUnsafe();
    }

  private:
    Held held_ GUARDED_BY(this);  // by address: a start with many downloads asks for each
};
