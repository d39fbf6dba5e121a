#include "meta/Serializable.h"

#include "app/UIInterface.h"

void Serializable::reportFailedElement() { theLog->print("ERROR: Serializable::saveList()\n"); }
