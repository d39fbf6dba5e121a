// KeptList: a list of counted objects without duplicates.
#pragma once

#include <unordered_set>

#include "i4min/memory/LLsafe.h"

// Holds one reference to each of its objects. Change it only with keep() and drop(); read it as an LLsafe.
// Thread: as LLsafe.
template <class T>
class KeptList : public LLsafe<T> {
  public:
    using LLsafe<T>::LLsafe;
    ~KeptList() override { dropAll(); }

    void keep(T* object) {  // does nothing if it is in the list
        const i4_guard guard(*this);
        if (!members_.insert(object).second) return;
        object->addRef();
        this->addUnsafe(object);
    }
    void drop(T* object) {  // does nothing if it isn't in the list
        {
            const i4_guard guard(*this);
            if (members_.erase(object) == 0) return;
            this->removeUnsafe(object);
        }
        object->release();
    }

    void dropAll() {
        while (T* object = this->first()) drop(object);
    }

  private:
    std::unordered_set<const T*> members_ GUARDED_BY(this);  // finds duplicates without a walk of the list
};
