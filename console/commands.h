// The commands of the console. Each is a plain function that owns the line it gets and finds its arguments
// there.
#pragma once

#include <optional>

#include "i4min/memory/types.h"
#include "i4min/threads/linux/RefCounter.h"

class ConClientApp;
class Search;
class Servant;

// Adds every command, in the order of the table in commands.cpp.
void addCommands(Servant& servant);

// The number that a word begins with: 0 where it begins with none, and the nearest i32 for one beyond it.
i32 numberIn(const char* word);
// The number behind the command word. Empty where there is no second word.
std::optional<i32> numberArgument(char* line);
// A number that the user counts from 1 as a place in a list, which counts from 0. Empty for 0, and for what
// no list can hold.
std::optional<u16> listPlace(std::optional<i32> number);

// The search that a line with `s` asks for: the first four words behind it, those with a dash taken as the
// type, the last of them counting. Empty where no other word is left.
Ref<Search> searchFor(char* line);

void showHelp(Servant& servant, char* line);

// Directories.
void shareDirectory(Servant& servant, char* line);
void shareTree(Servant& servant, char* line);
void unshareDirectory(Servant& servant, char* line);

// Servers and searches.
void addServer(Servant& servant, char* line);
void removeServer(Servant& servant, char* line);
void connectToServer(Servant& servant, char* line);
void disconnectFromServer(Servant& servant, char* line);
void search(Servant& servant, char* line);
void extendSearch(Servant& servant, char* line);

// Downloads.
void downloadResult(Servant& servant, char* line);
void downloadLink(Servant& servant, char* line);
void downloadPart(Servant& servant, char* line);
void changeDownload(Servant& servant, char* line);

// Settings.
void setController(Servant& servant, char* line);
void setLimits(Servant& servant, char* line);
void setAutoConnect(Servant& servant, char* line);
void setName(Servant& servant, char* line);
void setVerbose(Servant& servant, char* line);
void setPort(Servant& servant, char* line);
void setControllerPort(Servant& servant, char* line);
void setTempDirectory(Servant& servant, char* line);
void setIncomingDirectory(Servant& servant, char* line);
void setLineSpeed(Servant& servant, char* line);
void setLanguage(Servant& servant, char* line);
void setSaveCorrupted(Servant& servant, char* line);
void setRemoveServers(Servant& servant, char* line);
void setMaxConnections(Servant& servant, char* line);

// Views.
void viewResults(Servant& servant, char* line);
void viewServers(Servant& servant, char* line);
void viewDownloads(Servant& servant, char* line);
void viewUploads(Servant& servant, char* line);
void viewSharedDirectories(Servant& servant, char* line);
void viewSharedFiles(Servant& servant, char* line);
void viewConnections(Servant& servant, char* line);
void viewQueue(Servant& servant, char* line);
void viewOptions(Servant& servant, char* line);
void viewServerState(Servant& servant, char* line);
void viewDiskSpace(Servant& servant, char* line);

void runTests(Servant& servant, char* line);
