// KeptList, a list of counted objects in which each stands once.
#pragma once

#include <unordered_set>

#include "i4min/memory/LLsafe.h"

// An entry holds one reference. The list changes through keep() and drop() alone, and is read as an LLsafe.
// Thread: as LLsafe.
template <class T>
class KeptList : public LLsafe<T> {
  public:
    using LLsafe<T>::LLsafe;
    ~KeptList() override { dropAll(); }

    void keep(T* object) {  // nothing where it is there
        const i4_guard guard(*this);
        if (!members_.insert(object).second) return;
        object->addRef();
        this->addUnsafe(object);
    }
    void drop(T* object) {  // nothing where it isn't there
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
    std::unordered_set<const T*> members_ GUARDED_BY(this);  // a start with many downloads asks for each
};
