// The objects of which the process has one each, in the order in which they are built; they go in the reverse
// order.
#include "app/ClientApp.h"
#include "app/Preferences.h"
#include "app/StringTable.h"
#include "app/messages.h"
#include "console/ConClientApp.h"
#include "transport/ConnectRegistry.h"

Preferences preferences;
StringTable stringTable;
MessageQ messageQ(applicationDuties);
ConnectRegistry connectRegistry;
ClientApp clientApp;
ConClientApp conClientApp;
