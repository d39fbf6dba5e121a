// The commands of the console. Each is a plain function that owns the line it gets and finds its arguments
// there.
#pragma once

#include <optional>

#include "i4min/memory/types.h"
#include "i4min/threads/linux/RefCounter.h"

class ConClientApp;
class Search;
class Servant;

// Adds every command: those of the table in commands.cpp, and those of the settings.
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

void showHelp(ConClientApp& console, char* line);

// Directories.
void shareDirectory(ConClientApp& console, char* line);
void shareTree(ConClientApp& console, char* line);
void unshareDirectory(ConClientApp& console, char* line);

// Servers and searches.
void addServer(ConClientApp& console, char* line);
void removeServer(ConClientApp& console, char* line);
void connectToServer(ConClientApp& console, char* line);
void disconnectFromServer(ConClientApp& console, char* line);
void search(ConClientApp& console, char* line);
void extendSearch(ConClientApp& console, char* line);

// Downloads.
void downloadResult(ConClientApp& console, char* line);
void downloadLink(ConClientApp& console, char* line);
void openCollection(ConClientApp& console, char* line);
void downloadPart(ConClientApp& console, char* line);
void changeDownload(ConClientApp& console, char* line);

// Settings.
void setController(ConClientApp& console, char* line);
void setLimits(ConClientApp& console, char* line);
void changeSetting(ConClientApp& console, char* line);  // by the command of a row of Settings.h

// Views.
void viewResults(ConClientApp& console, char* line);
void viewServers(ConClientApp& console, char* line);
void viewDownloads(ConClientApp& console, char* line);
void viewUploads(ConClientApp& console, char* line);
void viewSharedDirectories(ConClientApp& console, char* line);
void viewSharedFiles(ConClientApp& console, char* line);
void viewConnections(ConClientApp& console, char* line);
void viewQueue(ConClientApp& console, char* line);
void viewOptions(ConClientApp& console, char* line);
void viewServerState(ConClientApp& console, char* line);
void viewDiskSpace(ConClientApp& console, char* line);

void runTests(ConClientApp& console, char* line);
